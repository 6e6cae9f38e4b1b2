#ifndef AGENT_STORAGE_AGENT_STORAGE_BACKEND_H
#define AGENT_STORAGE_AGENT_STORAGE_BACKEND_H

#include "agent/storage/pool_meter.h"
#include "agent/storage/sqlite_pools.h"
#include "agent/storage/write_journal.h"

#include "host/storage/storage_backend.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

struct Pool_Use;

/** What a pool has room for and takes. */
struct Pool_Space {
    bool online = false;    ///< its directory is there; the rest is 0 when it is not
    uint64_t total = 0;     ///< bytes, of the limit or of the file system, whichever is less
    uint64_t available = 0; ///< bytes that can still be written
    uint64_t used = 0;      ///< bytes of its objects
};

/**
 * The agent's pools: File_Storage_Backend, and for the pools on record besides
 * - their limit: a write beyond it is NO_SPACE, with a text that names the pool and the limit;
 * - that a pool which is read-only is not written to: FAILED;
 * - that an object of a complete set is not replaced: EXISTS;
 * - the journal of writes, by which nothing half-done stays after a death of the agent.
 * The settings are those at the time of connect(). A connection to what is in no pool on record is
 * a plain one, since nobody would know what in it is half-done.
 */
class Agent_Storage_Backend : public Storage_Backend {
public:
    /**
     * @param pools    lives longer than the back end
     * @param journal  lives longer than the connections and writers
     * @param in_complete_set  asked before an object is replaced; what it uses lives as long
     * @param clock    as long
     */
    Agent_Storage_Backend(std::shared_ptr<Storage_Backend> files, SQLite_Pools& pools,
                          Write_Journal& journal, Set_Question in_complete_set,
                          Storage_Clock& clock = Storage_Clock::system())
        : files_(std::move(files)),
          pools_(pools),
          journal_(journal),
          in_complete_set_(std::move(in_complete_set)),
          clock_(clock) {}

    Storage_Result connect(std::string const& url, Storage_Access const& access,
                           std::shared_ptr<Storage_Connection>& connection) override;

    /** Looks at a pool's directory. May take long where it has not been counted for a while. */
    Pool_Space space(Pool_Record const& pool);
    /** Bytes that the limit of a pool leaves to who writes to it beside the agent; see Pool_Meter.
     */
    uint64_t left_by_limit(Pool_Record const& pool);

private:
    std::shared_ptr<Pool_Meter> meter(std::string const& path);
    std::shared_ptr<Pool_Use const> use(Pool_Record const& pool);

    std::shared_ptr<Storage_Backend> const files_;
    SQLite_Pools& pools_;
    Write_Journal& journal_;
    Set_Question const in_complete_set_;
    Storage_Clock& clock_;
    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<Pool_Meter>> meters_; ///< by the pool's directory
};

#endif
