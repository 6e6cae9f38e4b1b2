#ifndef AGENT_JOBS_RUN_HOLDS_H
#define AGENT_JOBS_RUN_HOLDS_H

#include <chrono>
#include <functional>
#include <list>
#include <mutex>
#include <set>
#include <string>

/**
 * Which run of the group has which resources for itself, and which runs wait for them. The backup
 * server's table; an agent that is alone has its own. In memory only. Thread-safe; nothing waits.
 *
 * Requests are served in the order of their arrival: one waits for each earlier one that has a
 * resource in common with it, whether that is granted or still waits. So no run is overtaken for
 * ever, and with the order of Run_Hold no two runs wait for each other.
 *
 * A backup server that has just started does not know what the runs of other hosts have. It awaits
 * these hosts, and grants nothing meanwhile; each brings what its runs have when it connects.
 *
 * The resources of a run that has ended are free, however it ended. A run of a host whose
 * connection is lost counts as running for as long as its key is valid.
 */
class Run_Holds {
public:
    using Clock = std::chrono::steady_clock;
    /** A waiting run that has not asked for so long has lost its place. */
    static constexpr std::chrono::seconds LOST_WAITER{30};
    /** How long hosts are awaited: longer than the pauses between their attempts to connect. */
    static constexpr std::chrono::seconds AWAITED{60};
    /** Requests of one host at most. */
    static constexpr size_t MOST_OF_A_HOST = 1024;

    struct Run {
        std::string host_uuid;
        std::string run_id;
        std::string text; ///< for people: 'job "nightly" of instance "c1"'
    };
    /** Whether a run is running. */
    using Is_Running = std::function<bool(std::string const& host_uuid, std::string const& run_id)>;

    explicit Run_Holds(Is_Running is_running) : is_running_(std::move(is_running)) {}

    /**
     * Asks for resources, for the first time or again.
     * @return "" when the run has them; else what it waits for
     */
    std::string hold(Run const& run, std::set<std::string> const& resources,
                     Clock::time_point now = Clock::now());
    /** Ends a request of a run. No-op if the request is unknown. */
    void release(std::string const& host_uuid, std::string const& run_id,
                 std::set<std::string> const& resources);

    /** Whether a run has a resource. */
    [[nodiscard]] bool has(std::string const& host_uuid, std::string const& run_id,
                           std::string const& resource);

    /** Grants nothing until these hosts have joined, or AWAITED has passed. */
    void await(std::set<std::string> hosts, Clock::time_point now = Clock::now());
    /** A host is connected, and what its runs have was told. */
    void host_joined(std::string const& host_uuid);
    /**
     * Gives a run back what it had before the table was lost.
     * @return false when another run has some of it, or the run's host has too much
     */
    [[nodiscard]] bool restore(Run const& run, std::set<std::string> const& resources,
                               Clock::time_point now = Clock::now());

private:
    struct Request {
        Run run;
        std::set<std::string> resources;
        Clock::time_point asked;
        bool granted = false;

        [[nodiscard]] bool is_of(std::string const& host_uuid, std::string const& run_id) const {
            return run.run_id == run_id && run.host_uuid == host_uuid;
        }
    };
    void drop_dead(Clock::time_point now);
    [[nodiscard]] bool has_room(std::string const& host_uuid) const;
    std::string place(Request& request) const;

    Is_Running const is_running_;
    std::mutex mutex_;
    std::list<Request> requests_; ///< in the order of their arrival
    std::set<std::string> awaited_;
    Clock::time_point awaited_until_;
};

#endif
