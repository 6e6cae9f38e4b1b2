#ifndef AGENT_STORAGE_POOL_CONNECTION_H
#define AGENT_STORAGE_POOL_CONNECTION_H

#include "agent/storage/pool_meter.h"
#include "agent/storage/sqlite_pools.h"
#include "agent/storage/write_journal.h"

#include "host/storage/storage_backend.h"

#include <memory>
#include <string>

/** What connections to one pool, and their writers, share. */
struct Pool_Use {
    Pool_Record pool;
    std::shared_ptr<Pool_Meter> meter;
    Write_Journal& journal;
    Set_Question in_complete_set;
};

/** A connection to a pool on record; see Agent_Storage_Backend. */
class Pool_Connection : public Storage_Connection {
public:
    /** @param folder  the way from the pool's directory to the connection's; "" for the same */
    Pool_Connection(std::shared_ptr<Storage_Connection> files, std::shared_ptr<Pool_Use const> use,
                    std::string folder)
        : files_(std::move(files)), use_(std::move(use)), folder_(std::move(folder)) {}

    Storage_Result create(std::string const& name, bool replace,
                          std::unique_ptr<Storage_Writer>& writer) override;
    Storage_Result open(std::string const& name, std::unique_ptr<Storage_Reader>& reader) override {
        return files_->open(name, reader);
    }
    Storage_Result stat(std::string const& name, Storage_Entry& entry) override {
        return files_->stat(name, entry);
    }
    Storage_Result remove(std::string const& name) override;
    Storage_Result rename(std::string const& from, std::string const& to) override;
    Storage_Result list(std::string const& folder, std::vector<Storage_Entry>& entries) override {
        return files_->list(folder, entries);
    }
    Storage_Result space(uint64_t& total, uint64_t& available) override;

private:
    Storage_Result check_writable(std::string const& name) const;
    /** EXISTS when something is there that a complete set has. */
    Storage_Result check_replaceable(std::string const& name) const;
    Pool_Object object(std::string const& name) const;
    uint64_t stored_size(std::string const& name) const;

    std::shared_ptr<Storage_Connection> const files_;
    std::shared_ptr<Pool_Use const> const use_;
    std::string const folder_;
};

#endif
