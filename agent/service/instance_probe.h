#ifndef AGENT_SERVICE_INSTANCE_PROBE_H
#define AGENT_SERVICE_INSTANCE_PROBE_H

#include "host/agent/instance_handler.h"
#include "host/process/cancellation.h"
#include "qmrt/thread_helper.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

/**
 * Finds a module's instances, at the agent's start and from time to time, and puts new ones on
 * record in the Instance_Backend of Host_Services. An instance that is on record keeps its options,
 * and one that is not found any more stays: its backups are still there.
 */
class Instance_Probe {
public:
    /** @param handler  null: there is no module to ask, and nothing is ever found */
    explicit Instance_Probe(std::shared_ptr<Instance_Handler> handler);
    /** Calls stop(). */
    ~Instance_Probe();
    Instance_Probe(Instance_Probe const&) = delete;
    Instance_Probe& operator=(Instance_Probe const&) = delete;

    /**
     * Looks now, which may take as long as the database's tools take. On any thread, one at a time.
     * @return false when something that was found could not be put on record, which has been logged
     */
    [[nodiscard]] bool probe();

    /** Whether probe() has been carried out once; always true without a handler. Thread-safe. */
    [[nodiscard]] bool has_searched() const { return !handler_ || searched_; }
    /** Called at the end of each probe(), on its thread. To be set before the first one. */
    void on_searched(std::function<void()> action) { on_searched_ = std::move(action); }

    /** Begins to look, now and every @a interval seconds; 0: only now. */
    void start(int64_t interval);
    /** From the next look on. */
    void interval(int64_t seconds);
    /** Gives up a look that the thread is at. */
    void cancel();
    /** Gives up a look that the thread is at, and ends. */
    void stop();

    /** The uuid of an instance: the same on every host that has an instance of that name. */
    static std::string uuid_of(std::string const& type, std::string const& name);

private:
    [[nodiscard]] bool search();
    void run();

    std::shared_ptr<Instance_Handler> const handler_;
    std::shared_ptr<Cancellation> const cancellation_ = std::make_shared<Cancellation>();
    std::atomic<bool> searched_ = false;
    std::function<void()> on_searched_;
    std::mutex probing_; ///< one look at a time
    std::mutex mutex_;
    std::condition_variable changed_;
    int64_t interval_ = 0;
    bool ended_ = false;
    Thread_Helper thread_;
};

#endif
