#ifndef AGENT_SERVICE_READINESS_CHECK_H
#define AGENT_SERVICE_READINESS_CHECK_H

#include "host/agent/check_lines.h"
#include "host/agent/database_guide.h"
#include "json_spirit/value.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/**
 * Finds out what is missing for a backup of an instance, before one is tried. Changes nothing. What
 * the database needs is the module's to say. One object is for one check, on any thread.
 */
class Readiness_Check : private Check_Lines {
public:
    using Line = Instance_Check;

    /** @param guide  the module's; null if it has none, which is reported */
    explicit Readiness_Check(std::shared_ptr<Database_Guide> guide) : guide_(std::move(guide)) {}

    /** A pool as the check needs it; sizes in bytes. */
    struct Pool {
        std::string name;
        bool online = false; ///< to the agent whose pool it is
        bool read_only = false;
        uint64_t available = 0;
        uint64_t used = 0;
        uint64_t limit = 0; ///< 0: none
        std::string path;   ///< its directory, which has to be there on this host, too
    };

    /** @param makes_jobs  whether the module can make jobs at all */
    void module(std::string const& path, bool makes_jobs);
    /** @param complaints  of the agent's database's own check; empty is good */
    void database(std::vector<std::string> const& complaints);
    /**
     * The record, alerts, and what the module looks at.
     * @param uid        whose account of the instance is looked at
     * @param cache_dir  where the database writes its backups; "" where it does not, or as last
     *                   time
     */
    void instance(std::string const& name, std::string const& uid,
                  std::string const& cache_dir = "");
    /** @param needed  bytes of the instance's last full backup; 0 when there was none */
    void pool(Pool const& pool, uint64_t needed);
    /** No pool was named and there is none. */
    void no_pool();
    /** @param why  the backup server did not say what pools there are */
    void pools_unknown(std::string const& why);
    /**
     * The backup server's clock.
     * @param ahead  seconds by which it is ahead of this host's at least; negative: behind
     */
    void server_clock(double ahead);

    /** What the module looks at of an instance that need not be on record. */
    void of_module(Instance const& instance, Database_Guide::Check_Scope scope);

    std::vector<Line> const& lines() const { return lines_; }
    /** No line is critical or unknown. */
    [[nodiscard]] bool ok() const;
    /** {"ok", "lines"}, as docs/rpc.md has it. */
    json_spirit::Object dump() const;

private:
    void alerts(std::string const& name);
    void user_folder(Pool const& pool);

    std::shared_ptr<Database_Guide> const guide_;
    std::string user_;     ///< who writes to the pool, of the instance that was looked at
    std::string resource_; ///< that instance's uuid
};

#endif
