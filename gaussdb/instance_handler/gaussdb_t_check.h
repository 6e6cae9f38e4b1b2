#ifndef GAUSSDB_INSTANCE_HANDLER_GAUSSDB_T_CHECK_H
#define GAUSSDB_INSTANCE_HANDLER_GAUSSDB_T_CHECK_H

#include "host/agent/check_lines.h"
#include "host/agent/instance.h"

#include <cstdint>
#include <string>
#include <vector>

/**
 * Looks at what a backup of a lone instance of GaussDB T needs on its host: an open database that
 * takes the account, the cache directory, and the mount of a pool. Asks, and changes nothing. One
 * object is for one check, on any thread.
 */
class GaussDB_T_Check : private Check_Lines {
public:
    /**
     * @param instance  with "user" among its options; "cache_dir" names the cache directory, which
     *                  else is that of the last backup in the catalog
     */
    explicit GaussDB_T_Check(Instance const& instance);

    std::vector<Instance_Check> run();

private:
    void database();
    void database_by(std::string const& uid);
    [[nodiscard]] bool mount();
    void cache_directory(bool can_mount);
    void room(std::string const& subject, bool can_mount);
    void read_last_backup();

    Instance const& instance_;
    std::string user_;
    std::string cache_dir_;
    uint64_t needed_ = 0; ///< bytes of the last full backup; 0 when there was none
};

#endif
