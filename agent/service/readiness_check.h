#ifndef AGENT_SERVICE_READINESS_CHECK_H
#define AGENT_SERVICE_READINESS_CHECK_H

#include "host/agent/check_lines.h"
#include "json_spirit/value.h"

#include <cstdint>
#include <string>
#include <vector>

/**
 * Finds out what is missing for a backup of an instance, before one is tried. It looks, and leaves
 * nothing behind: in a pool an empty file is made and removed, as root and as the database's user.
 * A tool of this host is looked for, not run. One object is for one check, on any thread.
 */
class Readiness_Check : private Check_Lines {
public:
    using Line = Instance_Check;

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

    /** Whether jobs can be made at all. */
    void module(std::string const& path, std::vector<std::string> const& pairs);
    /** @param complaints  of the database's own check; empty is good */
    void database(std::vector<std::string> const& complaints);
    /**
     * The record, the state, the user of the operating system, the tools, the account, the link.
     * @param cache_dir  where the database writes its backups; "" where it does not, or as last
     * time
     */
    void instance(std::string const& name, std::string const& uid,
                  std::string const& cache_dir = "");
    /** @param needed  bytes of the instance's last full backup; 0 when there was none */
    void pool(Pool const& pool, uint64_t needed);
    /** No pool was named and there is none. */
    void no_pool();
    /** @param why  the backup server did not say what pools there are */
    void pools_unknown(std::string const& why);

    /** What the module looks at: the way to the instance's machines, for one that needs it. */
    void machines(Instance const& instance, Instance_Handler::Check_Scope scope);

    std::vector<Line> const& lines() const { return lines_; }
    [[nodiscard]] bool ok() const;
    /** {"ok", "lines"}, each line with its four members. */
    json_spirit::Object dump() const;

private:
    void alerts(std::string const& name);
    void state(std::string const& name);
    void user_and_tools(Instance const& instance, int version);
    void tools(char const* const* names, std::string const& instance, std::string const& user,
               std::string const& app_path);
    void account(std::string const& name, std::string const& uid, int version);
    void xbsa_link();
    void passages();
    void user_folder(Pool const& pool);

    std::string user_;     ///< the database's, of the instance that was looked at
    std::string resource_; ///< that instance's uuid
};

#endif
