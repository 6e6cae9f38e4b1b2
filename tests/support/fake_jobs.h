#ifndef TESTS_SUPPORT_FAKE_JOBS_H
#define TESTS_SUPPORT_FAKE_JOBS_H

#include "host/job/job_backend.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

/**
 * A Job_Backend that keeps all it is told, of all jobs together, for tests. While one of these
 * lives it is the one of Host_Services. Any thread may ask it.
 */
class Fake_Jobs {
public:
    /** What came of one run. */
    struct Run {
        Job_State last_state = JOB_STATE_NONE;
        std::vector<Job_Outcome> outcomes;
        std::vector<Job_Alert> alerts;
        std::vector<std::string> log_lines;
    };

    Fake_Jobs();
    /** Takes itself out, after all job threads have ended. */
    ~Fake_Jobs();
    Fake_Jobs(Fake_Jobs const&) = delete;
    Fake_Jobs& operator=(Fake_Jobs const&) = delete;

    /**
     * All that happened, in order: "state running", "progress 40", "ended completed 0",
     * "ended error -1 MESSAGE", "synced", "finished", "alert 7 3".
     */
    std::vector<std::string> events() const;
    std::vector<Job_State> states() const;
    std::vector<int> progress() const;
    std::vector<Job_Outcome> outcomes() const;
    std::vector<Job_Alert> alerts() const;
    /** The lines that came to the jobs' logs, with their "\n". */
    std::vector<std::string> log_lines() const;
    /** The ids that runs got, in order. */
    std::vector<std::string> run_ids() const;
    Run run(std::string const& id) const;
    void clear();

    /** Waits until that many runs have finished; false after a minute. */
    bool wait_for_finished(size_t count = 1) const;
    /** Waits until @a event has come; false after a minute. */
    bool wait_for(std::string const& event) const;

    /** Called with each event that is one, on the thread that it came on, before it is kept. */
    void on_event(std::function<void(std::string const& event)> action);
    /** Answers runs that want resources for themselves; without it they get them. */
    void on_hold(std::function<Hold_Answer(std::set<std::string> const& resources)> action);
    /** What was asked for and given back: "hold a b", "release a b", and "waiting TEXT". */
    std::vector<std::string> holds() const;
    /** The next runs get no id. */
    void refuse_runs(bool value = true);

    std::shared_ptr<Job_Backend> backend() const;

private:
    class Backend;
    std::shared_ptr<Backend> backend_;
};

#endif
