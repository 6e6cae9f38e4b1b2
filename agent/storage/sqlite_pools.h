#ifndef AGENT_STORAGE_SQLITE_POOLS_H
#define AGENT_STORAGE_SQLITE_POOLS_H

#include "agent/catalog/sqlite_catalog.h"
#include "agent/database/agent_database.h"

#include "host/storage/pool_info.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

/** The table of pools, a script for Agent_Database. */
extern char const POOL_TABLES[];

/** A pool as it is on record. */
struct Pool_Record {
    std::string uuid;
    std::string name;
    std::string path; ///< its directory; the URL is url_of_pool_path()
    Compression_Method compression = COMPR_NONE;
    int compression_level = 0; ///< 0: the method's usual one
    uint64_t limit = 0;        ///< bytes that may be stored in it; 0: none
    bool read_only = false;

    Pool_Info info() const;
};

/** What an administrator says of a pool; what is left out stays, or is as in a new Pool_Record. */
struct Pool_Settings {
    std::optional<std::string> name;
    std::optional<std::string> url;
    std::optional<std::string> compression; ///< "none", "zstd", "lzop" or "auto"
    std::optional<int64_t> compression_level;
    std::optional<int64_t> limit;
    std::optional<bool> read_only;
    bool separate = false; ///< close its directory and folders to others, as those of a new pool
};

/** Tells what the resources have in a pool. False, logged, when it cannot be told. */
using Pool_Usage_Question =
    std::function<bool(std::string const& pool_uuid, std::vector<Resource_Usage>& usage)>;

/**
 * The agent's pools in its database. A pool is a directory that is there and can be written, "file"
 * by its URL; its name is its own, and none is within another.
 *
 * The result of an operation is NOT_FOUND for a pool that is not on record, UNREACHABLE when the
 * database fails, and else, when the administrator asks for what cannot be, EXISTS, BAD_NAME or
 * FAILED with a text that says why and what to do. Nothing has been changed then.
 */
class SQLite_Pools : public Pool_Backend {
public:
    /**
     * @param database  lives longer
     * @param usage     asked before a pool is removed
     */
    SQLite_Pools(Agent_Database& database, Pool_Usage_Question usage)
        : database_(database), usage_(std::move(usage)) {}

    Storage_Result find(std::string const& uuid, Pool_Info& info) override;

    /** @param pool  a uuid or a name */
    Storage_Result find_record(std::string const& pool, Pool_Record& record);
    /** @param path  of the pool's directory, as pool_path_of_url() gives it */
    Storage_Result find_by_path(std::string const& path, Pool_Record& record);
    /** All pools by their names. */
    Storage_Result list(std::vector<Pool_Record>& records);

    /**
     * Records a new pool; name and url must be set. The directory has to be empty or a pool's,
     * root's or an empty one, and to lie where nobody else can replace it. It is closed to others;
     * see host/storage/xbsa_folder.h.
     */
    Storage_Result create(Pool_Settings const& settings, Pool_Record& record);
    /** Changes a pool, by uuid or name. What is in it is not touched: who moves a pool moves it. */
    Storage_Result update(std::string const& pool, Pool_Settings const& settings,
                          Pool_Record& record);
    /** Forgets a pool that has no sets. Its directory stays. */
    Storage_Result remove(std::string const& pool);

private:
    Storage_Result read(std::string const& condition, std::string const& value,
                        std::vector<Pool_Record>& records);
    Storage_Result check(Pool_Record const& record, bool place_changed);
    [[nodiscard]] bool write(char const* purpose, char const* sql, Pool_Record const& record);

    Agent_Database& database_;
    Pool_Usage_Question const usage_;
    std::mutex changing_; ///< from the check of a change to its end
};

#endif
