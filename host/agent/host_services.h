#ifndef HOST_AGENT_HOST_SERVICES_H
#define HOST_AGENT_HOST_SERVICES_H

#include <map>
#include <memory>
#include <mutex>
#include <string>

class Catalog_Backend;
class Instance_Backend;
class Job_Backend;
class Pool_Backend;
class Storage_Backend;
class Upstream_Backend;

/**
 * What belongs to a server, behind one small abstract class for each concern. The agent installs
 * its own at start, a test installs fakes; the services that the module calls (Catalog_Operator,
 * Instance_Manager, Client_IO_Ex, ...) are thin over them.
 *
 * All operations may be called on any thread. A getter gives a shared pointer, so a back end that
 * is exchanged meanwhile lives until its last call is over; it is null while none is installed, and
 * the service that wanted it then fails with an error line.
 */
class Host_Services {
public:
    static Host_Services& instance();

    /** The catalog of backup sets. */
    std::shared_ptr<Catalog_Backend> catalog() const { return get(catalog_); }
    void catalog(std::shared_ptr<Catalog_Backend> value) { set(catalog_, std::move(value)); }

    /** Instances on record and their accounts. */
    std::shared_ptr<Instance_Backend> instances() const { return get(instances_); }
    void instances(std::shared_ptr<Instance_Backend> value) { set(instances_, std::move(value)); }

    /** What becomes of a job's states, progress, log lines and alerts. */
    std::shared_ptr<Job_Backend> jobs() const { return get(jobs_); }
    void jobs(std::shared_ptr<Job_Backend> value) { set(jobs_, std::move(value)); }

    /** Storage pools by their uuid. */
    std::shared_ptr<Pool_Backend> pools() const { return get(pools_); }
    void pools(std::shared_ptr<Pool_Backend> value) { set(pools_, std::move(value)); }

    /** REST and JSON-RPC to the backup server and to other agents. */
    std::shared_ptr<Upstream_Backend> upstream() const { return get(upstream_); }
    void upstream(std::shared_ptr<Upstream_Backend> value) { set(upstream_, std::move(value)); }

    /** Access to a pool's data by URL scheme, "file" for one; null for a scheme not installed. */
    std::shared_ptr<Storage_Backend> storage(std::string const& scheme) const;
    void storage(std::string const& scheme, std::shared_ptr<Storage_Backend> value);

private:
    Host_Services() = default;

    template <typename Backend>
    std::shared_ptr<Backend> get(std::shared_ptr<Backend> const& slot) const {
        std::lock_guard const guard(mutex_);
        return slot;
    }
    template <typename Backend>
    void set(std::shared_ptr<Backend>& slot, std::shared_ptr<Backend> value) {
        std::lock_guard const guard(mutex_);
        slot.swap(value); // the old one goes after the lock
    }

    mutable std::mutex mutex_;
    std::shared_ptr<Catalog_Backend> catalog_;
    std::shared_ptr<Instance_Backend> instances_;
    std::shared_ptr<Job_Backend> jobs_;
    std::shared_ptr<Pool_Backend> pools_;
    std::shared_ptr<Upstream_Backend> upstream_;
    std::map<std::string, std::shared_ptr<Storage_Backend>> storage_;
};

#endif
