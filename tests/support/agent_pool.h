#ifndef TESTS_SUPPORT_AGENT_POOL_H
#define TESTS_SUPPORT_AGENT_POOL_H

#include "agent/catalog/catalog_tables.h"
#include "agent/catalog/recorded_set.h"
#include "agent/catalog/sqlite_catalog.h"
#include "agent/storage/agent_storage_backend.h"
#include "agent/storage/pool_path.h"
#include "agent/storage/pool_sweep.h"
#include "agent/storage/sqlite_pools.h"
#include "agent/storage/write_journal.h"

#include "host/storage/file_storage_backend.h"
#include "tests/support/agent_database.h"

#include <memory>
#include <stdexcept>

inline constexpr Catalog_Limits NO_LIMITS = {-1, -1};

/** A set of a pool, as the catalog takes it. @param paths  of its pieces */
inline Recorded_Set set_of(std::string const& uuid, std::string const& pool,
                           std::vector<std::string> const& paths) {
    json_spirit::Array pieces;
    for (std::string const& path : paths)
        pieces.push_back(json_spirit::Object{{"path", path}});
    return {"gaussdb",
            {{"uuid", uuid},
             {"storages", json_spirit::Array{json_spirit::Object{{"pool_uuid", pool}}}},
             {"pieces", pieces}}};
}

/** The agent's storage with a pool "pool" in it, and the catalog that goes with it. */
class Agent_Pool {
public:
    explicit Agent_Pool(Pool_Settings settings = {}) {
        std::filesystem::create_directory(path());
        settings.name = "pool";
        settings.url = url();
        Storage_Result const result = pools.create(settings, record);
        if (!result)
            throw std::runtime_error(result.text());
    }

    std::string path() const { return database.directory().path("pool"); }
    std::string url() const { return url_of_pool_path(path()); }
    std::shared_ptr<Storage_Connection> connect(std::string const& folder = "") {
        Storage_Access access;
        access.extra_options[Storage_Access::POOL_URL] = url();
        std::shared_ptr<Storage_Connection> connection;
        Storage_Result const result =
            backend.connect(folder.empty() ? url() : url() + "/" + folder, access, connection);
        if (!result)
            throw std::runtime_error(result.text());
        return connection;
    }
    static std::unique_ptr<Write_Journal> open_journal(std::string const& path) {
        std::string error;
        auto journal = Write_Journal::open(path, error);
        if (!journal)
            throw std::runtime_error(error);
        return journal;
    }
    /** Writes an object whole. */
    static Storage_Result put(Storage_Connection& connection, std::string const& name,
                              std::string const& content) {
        std::unique_ptr<Storage_Writer> writer;
        Storage_Result result = connection.create(name, true, writer);
        if (result)
            result = writer->write(content.data(), content.size());
        return result ? writer->commit() : result;
    }

    Test_Database database{{CATALOG_TABLES, POOL_TABLES}};
    SQLite_Catalog catalog{*database};
    SQLite_Pools pools{*database,
                       [this](std::string const& uuid, std::vector<Resource_Usage>& usage) {
                           return catalog.pool_usage(uuid, usage);
                       }};
    std::unique_ptr<Write_Journal> journal =
        open_journal(database.directory().path("pool_writes.journal"));
    Agent_Storage_Backend backend{std::make_shared<File_Storage_Backend>(), pools, *journal,
                                  ask_catalog(pools, catalog)};
    Pool_Record record;
};

#endif
