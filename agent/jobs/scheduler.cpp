#include "agent/jobs/scheduler.h"

#include "qmrt/log.h"
#include "qmrt/posix_time.h"

#include <algorithm>
#include <chrono>

namespace {

/** Clocks are set and machines sleep: nobody should wait for longer than this at once, seconds. */
constexpr time_t LONGEST_WAIT = 30;
/** A job that is started later than this after its time is worth a line, seconds. */
constexpr time_t LATE = 120;
/** Clocks are corrected by less than this, seconds; by more, they were wrong. */
constexpr time_t LARGEST_CORRECTION = 3600;

} // namespace

/** What wakes the thread. */
struct Scheduler::Bell {
    std::mutex mutex;
    std::condition_variable rung;
    bool ringing = false;
    bool stopping = false;

    void ring() {
        std::lock_guard const guard(mutex);
        ringing = true;
        rung.notify_all();
    }
    /** @return false when the thread is to end */
    bool wait(time_t seconds) {
        std::unique_lock lock(mutex);
        rung.wait_for(lock, std::chrono::seconds(seconds), [&] { return ringing || stopping; });
        ringing = false;
        return !stopping;
    }
};

Scheduler::Scheduler(Job_Manager& manager, Definition_Store& definitions, Agent_Jobs& jobs,
                     Storage_Clock& clock)
    : manager_(manager),
      definitions_(definitions),
      clock_(clock),
      bell_(std::make_shared<Bell>()),
      thread_(THR_NEW_LWP | THR_JOINABLE, ACE_DEFAULT_THREAD_PRIORITY) {
    // the next run of a continuous job depends on the end of the last
    jobs.on_finished([bell = bell_] { bell->ring(); });
}

Scheduler::~Scheduler() {
    stop();
}

int Scheduler::start() {
    {
        std::lock_guard const guard(bell_->mutex);
        bell_->stopping = false;
    }
    if (thread_.spawn(&Scheduler::work, this) == -1) {
        QMRT_LOG(LM_ERROR, "Cannot start the scheduler thread: %m\n");
        return -1;
    }
    return 0;
}

void Scheduler::stop() {
    if (!thread_.exists())
        return;
    {
        std::lock_guard const guard(bell_->mutex);
        bell_->stopping = true;
        bell_->rung.notify_all();
    }
    thread_.join();
}

void Scheduler::wake() {
    bell_->ring();
}

void Scheduler::work() {
    time_t wait = 0;
    while (bell_->wait(wait)) {
        tzset(); // the host's zone may be another one by now
        manager_.start_waiting();
        time_t const next = run_due();
        wait = next ? std::clamp<time_t>(next - clock_.now(), 0, LONGEST_WAIT) : LONGEST_WAIT;
    }
}

time_t Scheduler::run_due() {
    std::vector<Described_Definition> all;
    if (!manager_.list(all))
        return 0; // logged; the next look may be luckier
    time_t const now = clock_.now();
    time_t first = 0;
    for (Described_Definition const& definition : all) {
        time_t const next = look_at(definition, now);
        if (next && (!first || next < first))
            first = next;
    }
    return first;
}

time_t Scheduler::look_at(Described_Definition const& definition, time_t now) {
    Stored_Definition const& stored = definition.stored;
    Definition_Schedule schedule;
    if (!read_schedule(stored, schedule))
        return 0;
    if (stored.planned > now + LARGEST_CORRECTION) {
        QMRT_LOG(LM_WARNING, "The clock was set back: the schedule of job %s begins anew\n",
                 stored.name.c_str());
        (void)definitions_.set_planned(stored.id, now);
    }
    if (schedule.type() == Job_Schedule::TYPE_CONTINUOUS && definition.running)
        return 0;
    time_t const begin = since(definition, schedule, now);
    time_t const due = schedule.next(begin).time;
    if (!due || due > now)
        return due;
    // first of all, so that nothing is started twice; it is not started either when that fails
    if (definitions_.set_planned(stored.id, now))
        deal_with(stored, schedule, begin, now);
    return schedule.next(now).time;
}

bool Scheduler::read_schedule(Stored_Definition const& stored, Definition_Schedule& schedule) {
    std::string error;
    schedule = schedule_from_json(stored.body, error);
    if (error.empty())
        unreadable_.erase(stored.id);
    else if (unreadable_.insert(stored.id).second)
        QMRT_LOG(LM_ERROR, "Job %s is not started any more: its schedule cannot be read: %s\n",
                 stored.name.c_str(), error.c_str());
    return error.empty();
}

void Scheduler::deal_with(Stored_Definition const& stored, Definition_Schedule const& schedule,
                          time_t since, time_t now) {
    Due_Run due = schedule.due(since, now);
    std::string const time = POSIX_Time_To_ISO8601(due.time);
    if (!stored.enabled) {
        QMRT_LOG(LM_INFO, "Job %s was due at %s and is passed over: it is disabled\n",
                 stored.name.c_str(), time.c_str());
        return;
    }
    bool const late = now - due.time > LATE;
    if (late && !schedule.catches_up()) {
        due = schedule.due(std::max(since, now - LATE - 1), now);
        QMRT_LOG(LM_WARNING, "Job %s was due at %s and has been missed: it does not catch up\n",
                 stored.name.c_str(), time.c_str());
        if (!due.time)
            return;
    } else if (late) {
        QMRT_LOG(LM_INFO, "Job %s was due at %s and has been missed: it is started now\n",
                 stored.name.c_str(), time.c_str());
    }
    manager_.start_due(stored, due.level, "due at " + std::string(POSIX_Time_To_ISO8601(due.time)));
}

/** Up to when what was due has been dealt with. */
time_t Scheduler::since(Described_Definition const& definition, Definition_Schedule const& schedule,
                        time_t now) const {
    time_t since = definition.stored.planned;
    if (schedule.type() == Job_Schedule::TYPE_CONTINUOUS)
        since = std::max(since, definition.last_end);
    return since > now + LARGEST_CORRECTION ? now : since;
}

time_t Scheduler::next_run(Described_Definition const& definition) const {
    std::vector<Due_Run> const runs = next_runs(definition, 1);
    return runs.empty() ? 0 : runs.front().time;
}

std::vector<Due_Run> Scheduler::next_runs(Described_Definition const& definition,
                                          size_t count) const {
    std::string error;
    Definition_Schedule const schedule = schedule_from_json(definition.stored.body, error);
    bool const is_continuous = schedule.type() == Job_Schedule::TYPE_CONTINUOUS;
    if (!definition.stored.enabled || (is_continuous && definition.running))
        return {};
    return schedule.next_runs(since(definition, schedule, clock_.now()), count);
}
