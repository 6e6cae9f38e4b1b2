#ifndef AGENT_SERVICE_JOB_WATCH_H
#define AGENT_SERVICE_JOB_WATCH_H

#include "agent/jobs/agent_jobs.h"
#include "host/rpc/json_rpc_handler.h"
#include "qmrt/thread_helper.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

/**
 * Serves "job.watch": answers like job.show when the run has changed since the caller last saw it.
 * A change of state, wait or phase is answered at once, other changes after the caller's pause, and
 * every call after LONGEST_WAIT_MS. One thread serves all calls.
 */
class Job_Watch : public JSON_RPC_Handler {
public:
    static constexpr int64_t LONGEST_WAIT_MS = 30'000;
    /** The most calls that wait at once; further calls are answered at once. */
    static constexpr size_t MAX_WATCHERS = 256;

    /** @param runs  not owned; must outlive this object */
    explicit Job_Watch(Agent_Jobs& runs);
    /** Stops. */
    ~Job_Watch() override;

    /** Starts the thread. @return 0, or -1 after an error line */
    int start();
    /** Stops the thread. Waiting calls are not answered. */
    void stop();

    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;

private:
    struct Watcher {
        JSON_RPC_Channel_ptr channel;
        json_spirit::Value id; ///< of the request
        std::string run_id;
        uint64_t seen = 0;
        int64_t numbers_due = 0; ///< steady clock, in nanoseconds; so is all_due
        int64_t all_due = 0;
    };
    /** What the thread waits for. */
    struct Bell {
        std::mutex mutex;
        std::condition_variable changed;
        bool rung = false;
        bool stopping = false;
    };

    void work();
    void ring(bool stop = false);
    /** Answers the calls that are due. @return when the next call is due, by the steady clock */
    int64_t serve();
    /** @param due  receives when the answer is due if the run does not change */
    [[nodiscard]] bool is_due(Watcher const& watcher, int64_t now, int64_t& due);
    int answer(Watcher const& watcher);

    Agent_Jobs& runs_;
    std::mutex mutex_; ///< guards watchers_
    std::vector<Watcher> watchers_;
    std::atomic<size_t> waiting_ = 0; ///< size of watchers_, read without the mutex
    Bell bell_;                       ///< its mutex is taken under the lock of the runs
    Thread_Helper thread_;
};

#endif
