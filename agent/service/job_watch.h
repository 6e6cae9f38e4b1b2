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
 * Serves "job.watch": answers as job.show, with the run's "revision", when there is something that
 * the caller has not seen: a new state at once, new numbers after the caller's pause, and in any
 * case after LONGEST_WAIT. No thread waits for each call: one serves them all.
 */
class Job_Watch : public JSON_RPC_Handler {
public:
    static constexpr int64_t LONGEST_WAIT_MS = 30'000;
    /** So many calls wait at once; a further one is answered with what there is. */
    static constexpr size_t MAX_WATCHERS = 256;

    /** @param runs  not owned; lives longer */
    explicit Job_Watch(Agent_Jobs& runs);
    /** Stops. */
    ~Job_Watch() override;

    /** Starts the thread. @return 0, or -1 after an error line */
    int start();
    /** Ends it. Who waits is not answered. */
    void stop();

    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;

private:
    struct Watcher {
        JSON_RPC_Channel_ptr channel;
        json_spirit::Value id; ///< of the request
        std::string run_id;
        uint64_t seen = 0;
        int64_t numbers_due = 0; ///< by the steady clock, as the next
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
    /** Answers those for which it is time. @return when the next one's is, by the steady clock */
    int64_t serve();
    /** @param due  gets when the answer is due if nothing changes until then */
    [[nodiscard]] bool is_due(Watcher const& watcher, int64_t now, int64_t& due);
    int answer(Watcher const& watcher);

    Agent_Jobs& runs_;
    std::mutex mutex_; ///< of the watchers
    std::vector<Watcher> watchers_;
    std::atomic<size_t> waiting_ = 0; ///< how many, for those who ring
    Bell bell_;                       ///< taken under the runs' lock: nothing is asked under it
    Thread_Helper thread_;
};

#endif
