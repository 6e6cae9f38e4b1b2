#ifndef HOST_JOB_RUN_HOLD_H
#define HOST_JOB_RUN_HOLD_H

#include <chrono>
#include <memory>
#include <set>
#include <string>

class Job;
class Job_Backend;

/**
 * Resources that a run uses alone, on whatever host of its group they are, until this object is
 * destroyed. Job_Backend::hold() grants all of them at once or none.
 *
 * The constructor waits while another run holds one of the resources. It waits on the run's own
 * thread, tells the back end what the run waits for, and ends when the run is canceled.
 *
 * Order: a run first takes its instance, and then in one further step what it uses on hosts. It
 * asks for nothing more while it has the latter, so two runs never wait for each other.
 */
class Run_Hold {
public:
    /** An instance, by the id of its resource. */
    static std::string instance(std::string const& resource_id);
    /** The metadata directory of the backup tool on a host. */
    static std::string metadata(std::string const& host_uuid);
    /** A policy file on a host. */
    static std::string policy(std::string const& host_uuid, std::string const& policy_name);
    /**
     * A database node without an agent: its backup tool's port, metadata and lists.
     * @param address  a host's name or address as ssh takes it; the account before "@" is ignored
     */
    static std::string node(std::string const& address);

    /** What a resource's name says. */
    struct Resource {
        enum Kind { INSTANCE, METADATA, POLICY, NODE };
        Kind kind;
        /** The resource's id of an INSTANCE, the address of a NODE, else the host's uuid. */
        std::string owner;
    };
    /** @return false for a text that is not the name of a resource */
    [[nodiscard]] static bool parse(std::string const& name, Resource& resource);

    /** @param job  must outlive this object; the calling thread works for its run */
    Run_Hold(Job& job, std::set<std::string> resources);
    /** Gives the resources back. */
    ~Run_Hold();
    Run_Hold(Run_Hold const&) = delete;
    Run_Hold& operator=(Run_Hold const&) = delete;

    /** False, logged, when the run was canceled while it waited, or must not have the resources. */
    explicit operator bool() const { return held_; }

private:
    [[nodiscard]] bool wait();
    [[nodiscard]] bool ask(std::string& waiting_for);
    [[nodiscard]] bool sleep(std::chrono::milliseconds time) const;

    Job& job_;
    std::set<std::string> const resources_;
    std::shared_ptr<Job_Backend> const backend_;
    bool refused_ = false;
    bool held_ = false;
};

#endif
