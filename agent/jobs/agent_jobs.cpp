#include "agent/jobs/agent_jobs.h"

#include "agent/jobs/definition_json.h"
#include "host/job/job.h"
#include "host/job/job_alert.h"
#include "qmrt/log.h"
#include "qmrt/uuid.h"

#include <algorithm>
#include <chrono>

namespace {

bool is_success(Job_State state) {
    return state == JOB_STATE_COMPLETED || state == JOB_STATE_COMPLETED_WITH_ERRORS;
}

/** What the first lines of a run's record say. */
Job_Run record_of(Job const& job) {
    Job_Run run;
    run.run_id = uuid_string();
    if (Job_Definition_var const definition = job.definition(); !definition.null()) {
        run.definition = definition->id();
        run.name = definition->name();
        run.type = job_definition_type_name(definition->type());
        run.subtype = job_def_subtype_to_string(definition->subtype(), nullptr);
    }
    return run;
}

constexpr unsigned long FAILS = 7; ///< the level of alerts about failures

/** Of a run that failed before its job began to work. */
Job_Alert start_alert(std::string const& text) {
    return {FAILS, ALERT_NOT_BEGUN,
            0,     json_spirit::Value::null,
            1,     job_alert_text(FAILS, ALERT_NOT_BEGUN) + ": " + text};
}

/** Of a run because of which a later one was skipped. */
Job_Alert schedule_alert(std::string const& text) {
    constexpr unsigned long GOES_ON = 5;
    constexpr unsigned long NEXT_SKIPPED = 102;
    return {GOES_ON, NEXT_SKIPPED, 0, json_spirit::Value::null, 1, text};
}

} // namespace

Agent_Jobs::Agent_Jobs(Agent_Database& database, Settings settings, Storage_Clock& clock)
    : store_(database),
      logs_(std::move(settings.log_directory), settings.log_limit),
      keep_runs_(std::max<size_t>(1, settings.keep_runs)),
      clock_(clock) {}

bool Agent_Jobs::recover() {
    int count = 0;
    std::set<std::string> known;
    if (!store_.fail_open_runs("the agent ended while the job was running",
                               {FAILS, ALERT_CUT_OFF, 0, json_spirit::Value::null, 1,
                                job_alert_text(FAILS, ALERT_CUT_OFF)},
                               clock_.now(), count) ||
        !store_.ids(known))
        return false;
    if (count)
        QMRT_LOG(LM_WARNING, "%d jobs were running when the agent ended: they have failed\n",
                 count);
    logs_.keep_only(known);
    return true;
}

// a run's own calls

std::string Agent_Jobs::new_run_id(Job const& job) {
    Job_Run run = record_of(job);
    {
        std::lock_guard const guard(mutex_);
        auto const unstarted = std::ranges::find_if(live_, [&](auto const& entry) {
            return entry.second.unstarted && entry.second.run.definition == run.definition;
        });
        if (unstarted != live_.end()) {
            unstarted->second.unstarted = false;
            unstarted->second.run.waiting_for.clear();
            unstarted->second.meter.restart(clock_.steady_ns());
            note_change(unstarted->second, NEW_STATE);
            return unstarted->first;
        }
    }
    return add(run) ? run.run_id : "";
}

bool Agent_Jobs::add(Job_Run& run, bool unstarted) {
    run.start_time = clock_.now();
    if (!store_.add(run))
        return false;
    if (run.type == job_definition_type_name(JOB_DEFINITION_BACKUP))
        (void)store_.last_size(run.instance, run.subtype, run.expected_size); // 0: unknown
    int64_t const now = clock_.steady_ns();
    std::lock_guard const guard(mutex_);
    // a job has one run at a time: what is left of an earlier one never began
    std::erase_if(live_,
                  [&](auto const& entry) { return entry.second.run.definition == run.definition; });
    Live& live = live_[run.run_id];
    live = {run, now, nullptr, false, unstarted, Run_Meter(now)};
    note_change(live, NEW_STATE);
    return true;
}

bool Agent_Jobs::add_unstarted(Job_Run& run) {
    run.run_id = uuid_string();
    return add(run, true);
}

void Agent_Jobs::end_unstarted(std::string const& run_id, Job_Outcome const& outcome) {
    {
        std::lock_guard const guard(mutex_);
        auto const live = live_.find(run_id);
        if (live == live_.end() || !live->second.unstarted)
            return;
    }
    if (outcome.state == JOB_STATE_ERROR)
        (void)store_.add_alert(run_id, start_alert(outcome.message), clock_.now());
    time_t const now = clock_.now();
    finish(run_id, [&](Job_Run& run) {
        run.state = outcome.state;
        run.code = outcome.code;
        run.message = outcome.message;
        run.end_time = now;
        run.waiting_for.clear();
    });
}

void Agent_Jobs::warn(std::string const& definition, std::string const& text) {
    std::string run_id;
    {
        std::lock_guard const guard(mutex_);
        for (auto const& [id, live] : live_)
            if (live.run.definition == definition)
                run_id = id;
    }
    if (!run_id.empty())
        (void)store_.add_alert(run_id, schedule_alert(text), clock_.now());
}

void Agent_Jobs::waits_for(std::string const& run_id, std::string const& what) {
    std::lock_guard const guard(mutex_);
    auto const found = live_.find(run_id);
    if (found == live_.end() || found->second.run.waiting_for == what)
        return;
    Live& live = found->second;
    live.run.waiting_for = what;
    if (what.empty())
        live.meter.restart(clock_.steady_ns());
    note_change(live, NEW_STATE);
}

void Agent_Jobs::phase(Job const& job, std::string const& what) {
    std::lock_guard const guard(mutex_);
    auto const live = live_.find(job.run_id());
    if (live == live_.end() || live->second.run.phase == what)
        return;
    live->second.run.phase = what;
    note_change(live->second, NEW_STATE);
}

void Agent_Jobs::stored(std::string const& run_id, uint64_t bytes) {
    std::lock_guard const guard(mutex_);
    auto const live = live_.find(run_id);
    if (live == live_.end())
        return;
    live->second.stored += bytes;
    measure(live->second);
    note_change(live->second, NEW_NUMBERS);
}

void Agent_Jobs::note_change(Live& live, Change change) {
    live.run.revision = ++revision_;
    if (change == NEW_STATE)
        live.state_revision = revision_;
    if (on_changed_)
        on_changed_();
}

void Agent_Jobs::measure(Live& live) {
    Job_Run& run = live.run;
    // if the tool reports percents only, that part of the expected bytes has passed
    auto const guess =
        static_cast<uint64_t>(static_cast<double>(run.expected_size) / 100 * run.percent);
    uint64_t const told = std::max(run.processed_size, live.stored);
    live.meter.note(clock_.steady_ns(), told ? told : guess);
}

Agent_Jobs::Change Agent_Jobs::change_since(std::string const& run_id, uint64_t seen) {
    std::lock_guard const guard(mutex_);
    auto const live = live_.find(run_id);
    if (live == live_.end())
        return OVER;
    if (live->second.state_revision > seen)
        return NEW_STATE;
    return live->second.run.revision > seen ? NEW_NUMBERS : NOTHING_NEW;
}

void Agent_Jobs::change(std::string const& run_id, std::function<void(Job_Run& run)> const& what,
                        Change change) {
    Job_Run run;
    {
        std::lock_guard const guard(mutex_);
        auto const live = live_.find(run_id);
        if (live == live_.end())
            return;
        what(live->second.run);
        live->second.written = clock_.steady_ns();
        note_change(live->second, change);
        run = live->second.run;
    }
    (void)store_.update(run);
}

void Agent_Jobs::state_changed(Job const& job, Job_State state) {
    time_t const now = clock_.now();
    change(job.run_id(), [&](Job_Run& run) {
        bool const began = run.state != JOB_STATE_STARTING;
        if (!began && state == JOB_STATE_RUNNING)
            run.start_time = now;
        run.state = state;
        if (state == JOB_STATE_CANCELING)
            run.message = "It ends when the program that it runs has ended; \"zenbrak3 job cancel "
                          "RUN --now\" ends that program";
        if (began || is_run_state(state))
            return;
        // the job fell back to where it was before; ended() follows if it was something else
        run.state = JOB_STATE_ERROR;
        run.code = -1;
        run.message = "The run could not begin";
        run.end_time = now;
    });
}

void Agent_Jobs::progressed(Job const& job, Job_Progress const& progress) {
    std::string const run_id = job.run_id();
    bool due = false;
    {
        std::lock_guard const guard(mutex_);
        auto const live = live_.find(run_id);
        if (live == live_.end())
            return;
        Job_Run& run = live->second.run;
        run.percent = std::clamp(progress.percent, 0, 100);
        run.processed_size = progress.processed_size ? progress.processed_size : run.processed_size;
        run.total_size = progress.total_size ? progress.total_size : run.total_size;
        run.speed = progress.speed ? progress.speed : run.speed;
        // a restore knows the size of its set; a backup's size is not complete yet
        if (run.type == job_definition_type_name(JOB_DEFINITION_RESTORE))
            run.expected_size = job.activity().set_size;
        measure(live->second);
        note_change(live->second, NEW_NUMBERS);
        due = clock_.steady_ns() - live->second.written >= NS_PER_SECOND;
    }
    if (due)
        change(
            run_id, [](Job_Run&) {}, NEW_NUMBERS);
}

void Agent_Jobs::ended(Job const& job, Job_Outcome const& outcome) {
    time_t const now = clock_.now();
    std::shared_ptr<Run_Log> log;
    {
        std::lock_guard const guard(mutex_);
        auto const live = live_.find(job.run_id());
        if (live != live_.end()) {
            live->second.ended = true;
            log = live->second.log;
        }
    }
    std::string message = outcome.message;
    // without a reason the log has it; a cancelled run, too, may have left work for people
    if (!is_success(outcome.state) && message.empty() && log)
        message = log->reason();
    add_missing_alerts(job.run_id(), outcome.state, message, log.get());
    change(job.run_id(), [&](Job_Run& run) {
        run.state = outcome.state;
        run.code = outcome.code;
        run.message = message;
        run.end_time = now;
        if (!is_success(outcome.state))
            return;
        run.percent = 100;
        run.set_size = job.activity().set_size;
        // what another tool moves is told in percent meanwhile
        if (run.processed_size == 0)
            run.processed_size = job.activity().size;
    });
}

/** Raises what the job has only logged. A run that failed has an alert of its failure afterwards.
 */
void Agent_Jobs::add_missing_alerts(std::string const& run_id, Job_State state,
                                    std::string const& message, Run_Log* log) {
    std::vector<Run_Alert> raised;
    if (!store_.alerts(run_id, raised))
        return;
    bool const failed = state == JOB_STATE_ERROR;
    bool explained =
        std::ranges::any_of(raised, [](Run_Alert const& one) { return one.alert.level == FAILS; });
    auto const add = [&](unsigned long level, unsigned long code, std::string const& cause) {
        std::string text = job_alert_text(level, code);
        if (!cause.empty())
            text += ": " + cause;
        (void)store_.add_alert(run_id, {level, code, 0, json_spirit::Value::null, 1, text},
                               clock_.now());
    };
    for (Run_Log::Alert_Line const& line :
         log ? log->alert_lines() : std::vector<Run_Log::Alert_Line>()) {
        bool const is_raised = std::ranges::any_of(raised, [&](Run_Alert const& one) {
            // of several reasons for a full backup the first one counts
            return one.alert.level == line.level &&
                   (line.level != FAILS || one.alert.code == line.code);
        });
        bool const is_failure = line.level == FAILS;
        if (is_raised || (is_failure && (!failed || explained)))
            continue;
        explained = explained || is_failure;
        add(line.level, line.code, is_failure && !message.empty() ? message : line.text);
    }
    if (failed && !explained)
        add(FAILS, ALERT_RUN_FAILED, message);
}

void Agent_Jobs::finished(Job const& job) {
    std::string const run_id = job.run_id();
    if (keys_.end)
        keys_.end(run_id);
    if (on_failed_ && !is_success(job.state()))
        on_failed_(run_id);
    bool const skipped = job.state() == JOB_STATE_SKIPPED;
    std::string const fault =
        skipped && skip_judge_ ? skip_judge_(instance_of(run_id)) : std::string();
    if (!fault.empty()) {
        QMRT_LOG(LM_ERROR, "The run was skipped: %s\n", fault.c_str());
        (void)store_.add_alert(run_id, start_alert(fault), clock_.now());
    }
    time_t const now = clock_.now();
    finish(run_id, [&](Job_Run& run) {
        if (run.end_time)
            return;
        run.end_time = now;
        run.state = fault.empty() ? JOB_STATE_SKIPPED : JOB_STATE_ERROR;
        run.code = fault.empty() ? 0 : -1;
        run.message = !fault.empty() ? fault
                      : skipped      ? "It was not this host's to run"
                                     : "Its precondition was not met";
    });
}

/** Records the end of a run and removes it from the live runs. */
void Agent_Jobs::finish(std::string const& run_id, std::function<void(Job_Run& run)> const& what) {
    std::string definition;
    change(run_id, [&](Job_Run& run) {
        definition = run.definition;
        what(run);
    });
    std::vector<std::string> old;
    if (store_.prune(definition, keep_runs_, old))
        for (std::string const& id : old)
            logs_.remove(id);
    forget(run_id);
}

void Agent_Jobs::forget(std::string const& run_id) {
    std::vector<std::function<void()>> actions;
    {
        std::lock_guard const guard(mutex_);
        live_.erase(run_id);
        if (on_changed_)
            on_changed_();
        actions = on_finished_;
        finished_.notify_all();
    }
    for (std::function<void()> const& action : actions)
        action();
}

void Agent_Jobs::synced(Job const&) {
    // finished() looks at what was written by hand
}

void Agent_Jobs::alert(Job const& job, Job_Alert const& alert) {
    (void)store_.add_alert(job.run_id(), alert, clock_.now());
}

std::shared_ptr<ACE_Log_Msg_Callback> Agent_Jobs::log_callback(Job const& job) {
    uuid_binary const none = {};
    std::string const run_id = job.run_id();
    if (run_id == uuid_binary_to_string(none))
        return nullptr;
    std::shared_ptr<Run_Log> const log = logs_.open(run_id);
    std::lock_guard const guard(mutex_);
    if (auto const live = live_.find(run_id); live != live_.end())
        live->second.log = log;
    return log;
}

std::string Agent_Jobs::instance_of(std::string const& run_id) {
    std::lock_guard const guard(mutex_);
    auto const live = live_.find(run_id);
    return live == live_.end() ? "" : live->second.run.instance;
}

secure_string Agent_Jobs::run_key(Job const& job) {
    return keys_.begin ? keys_.begin(job, instance_of(job.run_id())) : secure_string();
}

Hold_Answer Agent_Jobs::hold(Job const& job, std::set<std::string> const& resources) {
    return holds_.hold ? holds_.hold(job, resources) : Hold_Answer();
}

void Agent_Jobs::release(Job const& job, std::set<std::string> const& resources) {
    if (holds_.release)
        holds_.release(job, resources);
}

void Agent_Jobs::waiting(Job const& job, std::string const& what) {
    waits_for(job.run_id(), what);
}

// reading

void Agent_Jobs::reckon(Live const& live, Job_Run& run) const {
    int64_t const now = clock_.steady_ns();
    run.processed_size = std::max(run.processed_size, live.stored);
    run.elapsed = std::max<int64_t>(clock_.now() - run.start_time, 0);
    run.average_speed = live.meter.average_speed(now);
    if (run.speed == 0)
        run.speed = live.meter.speed(now);
    uint64_t const whole = run.total_size ? run.total_size : run.expected_size;
    double part = run.percent / 100.0;
    if (run.percent == 0 && whole > 0)
        part = static_cast<double>(run.processed_size) / static_cast<double>(whole);
    run.remaining = run.waiting_for.empty() ? live.meter.remaining(now, part) : -1;
}

/** A row that was read before its run ended is read again, since the run is not live any more. */
Job_Answer Agent_Jobs::show_present(Job_Run& run) {
    std::unique_lock guard(mutex_);
    auto const live = live_.find(run.run_id);
    if (live == live_.end()) {
        guard.unlock();
        Job_Answer const answer = run.end_time ? Job_Answer() : store_.find(run.run_id, run);
        run.elapsed = std::max<int64_t>(run.end_time - run.start_time, 0);
        if (uint64_t const size = std::max(run.set_size, run.processed_size); run.elapsed > 0)
            run.average_speed = size / static_cast<uint64_t>(run.elapsed);
        return answer;
    }
    int const alerts = run.alerts;
    bool const became_full = run.became_full;
    run = live->second.run;
    run.alerts = alerts;
    run.became_full = became_full;
    reckon(live->second, run);
    if (live->second.ended || (!is_run_state(run.state) && !run.end_time)) {
        // the outcome is on record, but who sees it wants to start the next run
        run.state = JOB_STATE_COMPLETING;
        run.end_time = 0;
    }
    return {};
}

Job_Answer Agent_Jobs::list(Run_Query const& query, std::vector<Job_Run>& result) {
    Job_Answer answer = store_.list(query, result);
    for (Job_Run& run : result)
        if (answer)
            answer = show_present(run);
    return answer;
}

Job_Answer Agent_Jobs::find(std::string const& beginning, Job_Run& result) {
    Job_Answer const answer = store_.find(beginning, result);
    return answer ? show_present(result) : answer;
}

Job_Answer Agent_Jobs::last(std::string const& definition, Job_Run& result) {
    Job_Answer const answer = store_.last(definition, result);
    return answer ? show_present(result) : answer;
}

Job_Answer Agent_Jobs::alerts(std::string const& run_id, std::vector<Run_Alert>& result) {
    return store_.alerts(run_id, result);
}

Job_Answer Agent_Jobs::read_log(std::string const& run_id, uint64_t offset, uint64_t limit,
                                Run_Log_Piece& piece) {
    uuid_binary ignored;
    if (!uuid_string_to_binary(run_id, ignored))
        return Job_Answer::not_found("job \"" + run_id + "\"");
    if (logs_.read(run_id, offset, limit, piece))
        return {};
    return {Job_Answer::FAILED, "the job's log cannot be read; the agent's log says why"};
}

bool Agent_Jobs::wait_for_finished(std::function<bool()> const& condition, int64_t seconds) {
    std::unique_lock lock(mutex_);
    return finished_.wait_for(lock, std::chrono::seconds(seconds), condition);
}

bool Agent_Jobs::is_any_on() {
    std::lock_guard const guard(mutex_);
    return !live_.empty();
}

std::vector<Job_Run> Agent_Jobs::running() {
    std::lock_guard const guard(mutex_);
    std::vector<Job_Run> runs;
    for (auto const& [run_id, live] : live_)
        runs.push_back(live.run);
    return runs;
}

void Agent_Jobs::on_finished(std::function<void()> action) {
    std::lock_guard const guard(mutex_);
    on_finished_.push_back(std::move(action));
}
