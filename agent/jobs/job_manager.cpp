#include "agent/jobs/job_manager.h"

#include "host/job/job_backend.h"
#include "host/job/job_creator.h"
#include "json_spirit/access.h"
#include "qmrt/file.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/posix_time.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

using json_spirit::Object;

json_spirit::Object described_to_json(Described_Definition const& definition, time_t next_run) {
    Object object = definition.stored.body;
    json_spirit::insert(object)("state", definition.state)(
        "last_run", int64_t{definition.last_start})("next_run", int64_t{next_run});
    return object;
}

namespace {

/** RFC 7396. */
void merge(Object& target, Object const& changes) {
    for (auto const& [key, value] : changes) {
        if (value.is_null()) {
            target.erase(key);
        } else if (value.type() == json_spirit::obj_type) {
            json_spirit::Value& inner = target[key];
            if (inner.type() != json_spirit::obj_type)
                inner = Object();
            merge(inner.get_obj(), value.get_obj());
        } else {
            target[key] = value;
        }
    }
}

Stored_Definition with_level(Stored_Definition stored, std::string const& level) {
    if (!level.empty())
        stored.body["subtype"] = level;
    return stored;
}

/** Names a definition without a name. */
void give_name(Object& definition, time_t now) {
    if (json_spirit::object_get_any(definition, "name").is_null())
        definition["name"] = json_spirit::object_get_str(definition, "type") + " " +
                             std::string(POSIX_Time_To_ISO8601(now)) + " " +
                             uuid_string().substr(0, 8);
}

} // namespace

Job_Manager::Job_Manager(Definition_Store& definitions, Agent_Jobs& jobs, Settings settings,
                         Storage_Clock& clock)
    : definitions_(definitions), jobs_(jobs), settings_(std::move(settings)), clock_(clock) {}

// definitions

Job_Answer Job_Manager::save(Object const& given, std::string& id) {
    std::lock_guard const guard(mutex_);
    return save_i(given, id);
}

Job_Answer Job_Manager::save_i(Object const& given, std::string& id) {
    Object normal;
    Stored_Definition stored;
    Job_Answer answer = complete(given, normal, stored);
    if (answer)
        answer = definitions_.save(normal, clock_.now());
    if (!answer)
        return answer;
    id = stored.id;
    if (auto const live = live_.find(id); live != live_.end())
        live->second.body.clear(); // the next run gets a new job, since the instance may differ too
    return answer;
}

/** Checks a definition, and makes of it what is kept. */
Job_Answer Job_Manager::complete(Object const& given, Object& normal,
                                 Stored_Definition& stored) const {
    std::string error;
    if (!normalise_definition(given, settings_.defaults, normal, error))
        return Job_Answer::invalid(error);
    Job_Definition_var definition;
    Job_Answer answer = check(normal, definition);
    if (answer)
        answer = check_times(normal);
    if (!answer)
        return answer;
    stored.id = definition->id();
    stored.name = definition->name();
    stored.instance = instance_of_definition(normal);
    stored.body = normal;
    json_spirit::object_get(normal, "enabled", stored.enabled);
    return {};
}

/** Checks the level of each of the times, and that there is a time to come. */
Job_Answer Job_Manager::check_times(Object const& normal) const {
    std::string error;
    Definition_Schedule const schedule = schedule_from_json(normal, error);
    for (std::string const& level : schedule.levels()) {
        Object of_level = normal;
        of_level["subtype"] = level;
        Job_Definition_var ignored;
        if (Job_Answer answer = check(of_level, ignored); !answer)
            return Job_Answer::invalid("schedule.times." + level + ": " + answer.text);
    }
    if (schedule.is_calendar() && !schedule.next(clock_.now()).time)
        return Job_Answer::invalid("schedule: \"" + names::shown(schedule.first().at()) +
                                   "\" has no time to come");
    return {};
}

Job_Answer Job_Manager::change(std::string const& id_or_name, Object const& changes) {
    std::lock_guard const guard(mutex_);
    Stored_Definition stored;
    Job_Answer const answer = definitions_.find(id_or_name, stored);
    return answer ? change_i(stored, changes) : answer;
}

Job_Answer Job_Manager::change_i(Stored_Definition const& stored, Object const& changes) {
    Object changed = stored.body;
    merge(changed, changes);
    // the level was that of the old times, unless it is said now
    std::string error;
    if (changes.count("schedule") && !changes.count("subtype") &&
        !schedule_from_json(changed, error).levels().empty())
        changed.erase("subtype");
    changed["id"] = stored.id;
    std::string id;
    return save_i(changed, id);
}

Job_Answer Job_Manager::check(Object const& normal, Job_Definition_var& result) const {
    Job_Module const* const module = module_of(normal);
    if (!module)
        return Job_Answer::invalid("agent: no module is loaded for \"" +
                                   json_spirit::object_get_str(normal, "agent") + "\"");
    std::string error;
    if (!definition_from_json(*module, normal, result, error))
        return Job_Answer::invalid(error);
    error = module->creator ? module->creator->fault_of(*result) : std::string();
    if (!error.empty())
        return Job_Answer::invalid(error);
    return {};
}

Job_Answer Job_Manager::remove(std::string const& id_or_name) {
    std::lock_guard const guard(mutex_);
    Stored_Definition stored;
    Job_Answer const answer = definitions_.find(id_or_name, stored);
    return answer ? remove_i(stored) : answer;
}

Job_Answer Job_Manager::remove_i(Stored_Definition const& stored) {
    if (runs(stored.id))
        return Job_Answer::refused("Job " + stored.name +
                                   " is running; wait for its end or cancel it first");
    Job_var job;
    std::string refusal;
    // whoever wants a definition gone gets that, also when its instance or module is gone already
    if (!job_of(stored, job))
        QMRT_LOG(LM_INFO, "Job %s is removed without cleaning up: there is no job for it\n",
                 stored.name.c_str());
    else if (job->remove(false, nullptr, &refusal) == -1)
        return Job_Answer::refused(refusal);
    live_.erase(stored.id);
    Job_Answer const answer = definitions_.remove(stored.id);
    std::string const path = activity_path(stored.id);
    if (answer && unlink(path.c_str()) == -1 && errno != ENOENT)
        QMRT_LOG(LM_ERROR, "Cannot remove the activity file %s: %m\n", path.c_str());
    return answer;
}

Job_Answer Job_Manager::show(std::string const& id_or_name, Described_Definition& result) {
    Stored_Definition stored;
    Job_Answer const answer = definitions_.find(id_or_name, stored);
    return answer ? describe(stored, result) : answer;
}

Job_Answer Job_Manager::list(std::vector<Described_Definition>& result) {
    std::vector<Stored_Definition> all;
    Job_Answer answer = definitions_.list(all);
    std::vector<Described_Definition> described;
    for (Stored_Definition const& stored : all)
        if (answer)
            answer = describe(stored, described.emplace_back());
    if (answer)
        result = std::move(described);
    return answer;
}

Job_Answer Job_Manager::describe(Stored_Definition const& stored, Described_Definition& result) {
    Job_Run run;
    Job_Answer const answer = jobs_.last(stored.id, run);
    if (answer.kind == Job_Answer::FAILED)
        return answer;
    result = {stored, job_state_to_string(JOB_STATE_IDLE), 0, 0, is_running(stored.id)};
    if (answer) {
        result.state = job_state_to_string(run.state);
        result.last_start = run.start_time;
        result.last_end = run.end_time;
    }
    if (!stored.enabled && !result.running)
        result.state = job_state_to_string(JOB_STATE_DISABLED);
    return {};
}

Job_Module const* Job_Manager::module_of(Object const& definition) const {
    std::string const agent = json_spirit::object_get_str(definition, "agent");
    auto const found =
        std::find_if(settings_.modules.begin(), settings_.modules.end(),
                     [&](Job_Module const& module) { return module.agent == agent; });
    return found == settings_.modules.end() ? nullptr : &*found;
}

// jobs

bool Job_Manager::is_running(std::string const& definition_id) {
    std::lock_guard const guard(mutex_);
    return runs(definition_id);
}

bool Job_Manager::runs(std::string const& definition_id) const {
    if (waiting_.count(definition_id))
        return true;
    auto const live = live_.find(definition_id);
    return live != live_.end() && live->second.job->running();
}

std::string Job_Manager::activity_path(std::string const& definition_id) const {
    return settings_.activity_directory + "/" + definition_id;
}

Job_Answer Job_Manager::job_of(Stored_Definition const& stored, Job_var& result, bool is_kept) {
    auto const live = live_.find(stored.id);
    if (live != live_.end() && (live->second.body == stored.body || live->second.job->running())) {
        result = live->second.job;
        return {};
    }
    live_.erase(stored.id); // one job at a time has the record of the definition's activity
    Job_Answer const answer = make_job(stored, is_kept, result);
    if (answer)
        live_[stored.id] = {result, stored.body, is_kept};
    return answer;
}

Job_Answer Job_Manager::make_job(Stored_Definition const& stored, bool is_kept,
                                 Job_var& result) const {
    Job_Definition_var definition;
    Job_Answer const answer = check(stored.body, definition);
    if (!answer)
        return Job_Answer::refused("The definition of job " + stored.name +
                                   " can no longer be used: " + answer.text);
    Job_Creator* const creator = module_of(stored.body)->creator;
    if (!creator)
        return Job_Answer::refused("The module has no job creator, so job " + stored.name +
                                   " cannot be started; install a module that has one");
    Job_var const job = creator->create(definition);
    if (!job)
        return Job_Answer::refused("The module made no job of " + stored.name + ": is instance \"" +
                                   stored.instance + "\" known? The agent's log may say more");
    std::string const& directory = settings_.activity_directory;
    if (is_kept && mkdir_p(directory.c_str(), 0700) == -1)
        QMRT_LOG(LM_ERROR, "Cannot make the directory %s: %m\n", directory.c_str());
    else if (is_kept) // without a file, which it logs, the record is in memory only
        job->map_activity(activity_path(stored.id));
    job->activity().enabled = stored.enabled;
    result = job;
    return {};
}

// runs

Job_Answer Job_Manager::start(std::string const& id_or_name, std::string& run_id,
                              std::string& definition_id, std::string const& level) {
    std::lock_guard const guard(mutex_);
    return start_i(id_or_name, level, run_id, definition_id);
}

Job_Answer Job_Manager::start_i(std::string const& id_or_name, std::string const& level,
                                std::string& run_id, std::string& definition_id) {
    Stored_Definition stored;
    Job_Answer answer = definitions_.find(id_or_name, stored);
    if (!answer)
        return answer;
    stored = with_level(stored, level);
    answer = start_stored(stored, run_id);
    if (answer)
        definition_id = stored.id;
    return answer;
}

Job_Answer Job_Manager::start_stored(Stored_Definition const& stored, std::string& run_id) {
    if (closing_)
        return Job_Answer::refused("Job " + stored.name +
                                   " cannot be started: the agent is about to end");
    Start_Answer const may = may_start(stored);
    return may.kind == Start_Answer::START ? start_now(stored, run_id)
                                           : start_later(stored, may, run_id);
}

void Job_Manager::start_due(Stored_Definition const& stored, std::string const& level,
                            std::string const& why) {
    std::lock_guard const guard(mutex_);
    if (closing_)
        return;
    if (runs(stored.id)) {
        std::string const text = "the run that was " + why + " is skipped: this run is not over";
        QMRT_LOG(LM_WARNING, "Job %s: %s\n", stored.name.c_str(), text.c_str());
        jobs_.warn(stored.id, text);
        return;
    }
    std::string run_id;
    Stored_Definition const leveled = with_level(stored, level);
    Job_Answer const answer = start_stored(leveled, run_id);
    if (!answer)
        (void)start_later(leveled, Start_Answer::fail(answer.text), run_id);
}

Job_Answer Job_Manager::start_now(Stored_Definition const& stored, std::string& run_id,
                                  bool is_kept) {
    Job_var job;
    Job_Answer const answer = job_of(stored, job, is_kept);
    if (!answer)
        return answer;
    std::string refusal;
    if (job->start(nullptr, &refusal) == -1)
        return Job_Answer::refused(refusal);
    run_id = job->run_id();
    QMRT_LOG(LM_INFO, "Job %s has been started, run %s\n", stored.name.c_str(), run_id.c_str());
    return {};
}

// runs that wait

Start_Answer Job_Manager::may_start(Stored_Definition const& stored) const {
    for (Start_Condition const& condition : settings_.conditions)
        if (Start_Answer answer = condition(stored); answer.kind != Start_Answer::START)
            return answer;
    return {};
}

/** Puts a run on record that waits, or that has ended already since it can never start. */
Job_Answer Job_Manager::start_later(Stored_Definition const& stored, Start_Answer const& may,
                                    std::string& run_id, bool is_kept) {
    std::string const hindrance = runs(stored.id)   ? "it is running already"
                                  : !stored.enabled ? "it is disabled"
                                                    : "";
    if (!hindrance.empty())
        return Job_Answer::refused("Job " + stored.name + " cannot be started: " + hindrance);
    Job_Run run;
    run.definition = stored.id;
    run.name = stored.name;
    run.type = json_spirit::object_get_str(stored.body, "type");
    run.subtype = json_spirit::object_get_str(stored.body, "subtype");
    run.instance = stored.instance;
    run.waiting_for = may.kind == Start_Answer::WAIT ? may.text : "";
    if (!jobs_.add_unstarted(run))
        return Job_Answer::failed();
    run_id = run.run_id;
    Waiting const waiting{run_id, clock_.steady_ns(), stored, is_kept};
    if (goes_on_waiting(waiting, may))
        waiting_[stored.id] = waiting;
    return {};
}

void Job_Manager::start_waiting() {
    std::lock_guard const guard(mutex_);
    std::erase_if(waiting_, [&](auto const& entry) {
        return !goes_on_waiting(entry.second, may_start(entry.second.stored));
    });
    std::erase_if(live_, [&](auto const& entry) {
        return !entry.second.is_kept && !waiting_.count(entry.first) &&
               !entry.second.job->running();
    });
}

/** Does to a run what its conditions say: starts it, ends it, or lets it wait. */
bool Job_Manager::goes_on_waiting(Waiting const& waiting, Start_Answer may) {
    Stored_Definition const& stored = waiting.stored;
    if (may.kind == Start_Answer::START) {
        std::string run_id;
        Job_Answer const answer = start_now(stored, run_id, waiting.is_kept);
        if (answer)
            return false;
        may = Start_Answer::fail(answer.text);
    }
    int64_t const waited = (clock_.steady_ns() - waiting.since) / NS_PER_SECOND;
    if (may.kind == Start_Answer::WAIT && may.limit > 0 && waited >= may.limit)
        may = Start_Answer::fail("gave up after " + std::to_string(waited) +
                                 " seconds of waiting for " + may.text);
    if (may.kind == Start_Answer::WAIT) {
        jobs_.waits_for(waiting.run_id, may.text);
        return true;
    }
    bool const failed = may.kind == Start_Answer::FAIL;
    QMRT_LOG(failed ? LM_ERROR : LM_INFO, "Job %s, run %s, was not started: %s\n",
             stored.name.c_str(), waiting.run_id.c_str(), may.text.c_str());
    jobs_.end_unstarted(waiting.run_id, failed ? Job_Outcome{JOB_STATE_ERROR, -1, may.text}
                                               : Job_Outcome{JOB_STATE_SKIPPED, 0, may.text});
    return false;
}

Job_Answer Job_Manager::start_new(Object const& given, std::string& run_id,
                                  std::string& definition_id) {
    std::lock_guard const guard(mutex_);
    Object definition = given;
    std::string const id_given = json_spirit::object_get_str(given, "id");
    std::string const name = json_spirit::object_get_str(given, "name");
    std::string const& known_by = id_given.empty() ? name : id_given;
    Stored_Definition before;
    bool const is_new = known_by.empty() || !definitions_.find(known_by, before);
    if (!is_new) { // by its name, too: a file is run again and again
        definition["id"] = before.id;
        // a schedule or a script that somebody added does not go because a run does not mention it
        definition.insert(before.body.begin(), before.body.end());
    }
    give_name(definition, clock_.now());
    std::string id;
    Job_Answer answer = save_i(definition, id);
    if (!answer)
        return answer;
    answer = start_i(id, "", run_id, definition_id);
    if (!answer && is_new) {
        live_.erase(id);
        (void)definitions_.remove(id);
        unlink(activity_path(id).c_str());
    }
    return answer;
}

Job_Answer Job_Manager::start_once(Object const& given, std::string& run_id,
                                   std::string& definition_id) {
    std::lock_guard const guard(mutex_);
    Object definition = given;
    if (definition.erase("id"))
        return Job_Answer::invalid("id: a definition that is not kept has none");
    if (definition.count("schedule"))
        return Job_Answer::invalid("schedule: a definition that is not kept has none");
    give_name(definition, clock_.now());
    Object normal;
    Stored_Definition stored;
    Job_Answer answer = complete(definition, normal, stored);
    if (!answer)
        return answer;
    if (closing_)
        return Job_Answer::refused("Job " + stored.name +
                                   " cannot be started: the agent is about to end");
    Start_Answer const may = may_start(stored);
    Job_var job;
    // before it may start, the module may not know the instance yet, and make a job that is skipped
    if (may.kind == Start_Answer::START)
        answer = job_of(stored, job, false);
    if (answer) // the run's record cannot take the instance from the definition's
        answer = start_later(stored, may, run_id, false);
    if (answer)
        definition_id = stored.id;
    else
        live_.erase(stored.id);
    return answer;
}

Job_Answer Job_Manager::cancel(std::string const& run, bool now) {
    return request(run, now ? &Job::abort_now : &Job::abort);
}

Job_Answer Job_Manager::stop(std::string const& run) {
    return request(run, &Job::stop);
}

Job_Answer Job_Manager::pause(std::string const& run) {
    return request(run, &Job::pause);
}

Job_Answer Job_Manager::resume(std::string const& run) {
    return request(run, &Job::resume);
}

Job_Answer Job_Manager::request(std::string const& run, Request what) {
    std::lock_guard const guard(mutex_);
    Job_Run found;
    Job_Answer const answer = jobs_.find(run, found);
    if (!answer)
        return answer;
    auto const waiting = waiting_.find(found.definition);
    if (waiting != waiting_.end() && waiting->second.run_id == found.run_id)
        return request_waiting(found, what);
    auto const live = live_.find(found.definition);
    if (live == live_.end() || !live->second.job->running() ||
        live->second.job->run_id() != found.run_id)
        return Job_Answer::refused("Run " + found.run_id + " of job " + found.name +
                                   " has ended: " + job_state_to_string(found.state));
    std::string refusal;
    if ((*live->second.job.*what)(nullptr, &refusal) == -1)
        return Job_Answer::refused(refusal);
    return {};
}

/** A run that has not started can only be ended, and at once. */
Job_Answer Job_Manager::request_waiting(Job_Run const& run, Request what) {
    if (what != &Job::abort && what != &Job::abort_now && what != &Job::stop)
        return Job_Answer::refused("Run " + run.run_id + " of job " + run.name +
                                   " has not started; it waits for " + run.waiting_for);
    waiting_.erase(run.definition);
    jobs_.end_unstarted(run.run_id, {JOB_STATE_CANCELED, 0,
                                     "It was canceled while it waited for " + run.waiting_for});
    return {};
}

std::vector<std::string> Job_Manager::shutdown(int64_t seconds) {
    std::vector<Job_var> running;
    {
        std::lock_guard const guard(mutex_);
        closing_ = true;
        for (auto const& [id, waiting] : waiting_)
            jobs_.end_unstarted(waiting.run_id, {JOB_STATE_CANCELED, 0,
                                                 "The agent ended before the job could start"});
        waiting_.clear();
        for (auto const& [id, live] : live_)
            if (live.job->running())
                running.push_back(live.job);
    }
    for (Job_var const& job : running)
        job->abort();
    (void)jobs_.wait_for_finished(
        [&] {
            return std::none_of(running.begin(), running.end(),
                                [](Job_var const& job) { return job->running(); });
        },
        seconds);

    std::vector<std::string> left;
    for (Job_var const& job : running) {
        if (!job->running())
            continue;
        left.push_back(job->definition()->name());
        QMRT_LOG(LM_WARNING, "Job %s did not end within %q seconds\n", left.back().c_str(),
                 ACE_INT64{seconds});
    }
    return left;
}
