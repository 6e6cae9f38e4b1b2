#ifndef AGENT_CATALOG_SQLITE_CATALOG_H
#define AGENT_CATALOG_SQLITE_CATALOG_H

#include "agent/catalog/catalog_query.h"
#include "agent/database/agent_database.h"

#include "host/catalog/catalog_backend.h"

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/** A set that was dropped: what is left of it. */
struct Dropped_Set {
    std::string uuid;
    std::string kind;
    std::string resource_uuid;
    std::vector<std::string> pool_uuids; ///< of its storages
    /** Of the files that are now nobody's, or of the folders that these are in, from the pool's
     *  folder on; where the set has a "uri", the places below that, too. */
    std::vector<std::string> piece_paths;
};

/** Whose a set is, and where it lies. */
struct Set_Facts {
    bool open = false;
    std::string host_uuid; ///< of the agent that wrote it
    std::string resource_uuid;
    std::string instance;
    std::vector<std::string> pool_uuids; ///< of its storages
};

/** What became of the wish to remove a set. */
struct Set_Removal {
    enum Kind { REMOVED, NOT_FOUND, IN_USE, FAILED } kind = FAILED;
    std::vector<Dropped_Set> dropped;   ///< those that are gone
    std::vector<std::string> needed_by; ///< uuids of the sets that build on it, newest first
    bool being_written = false;         ///< it, or one of those, is not complete yet
};

/** What the sets of one resource take of a pool. */
struct Resource_Usage {
    std::string resource_uuid;
    uint64_t size; ///< bytes, as the sets' storages say
    uint64_t sets;
};

/**
 * The catalog in the agent's database, whose tables are CATALOG_TABLES.
 *
 * Catalog_Limits: an attempt waits "timeout" seconds for another program that holds the file, and
 * an operation that failed because the file was held, the disk full or the device at fault is done
 * again once a second for "max_seconds_retry" seconds, DEFAULT_RETRY for -1; a warning line tells
 * of each attempt that failed. What is wrong with the call itself fails at once.
 *
 * Rows in one order for one query: sets that are equal in what is sorted by come as they were
 * opened, or, falling, the other way round. Values that the query compares are equal in type and
 * value; a text that is no UTF-8 is kept, and compared, with U+FFFD for the bytes that are none.
 * Paths of pieces are kept byte by byte.
 */
class SQLite_Catalog : public Catalog_Backend {
public:
    static constexpr int DEFAULT_RETRY = 30;

    /**
     * @param database  lives longer
     * @param clock     by which is waited between attempts; lives longer
     */
    explicit SQLite_Catalog(Agent_Database& database,
                            Storage_Clock& clock = Storage_Clock::system())
        : database_(database), clock_(clock) {}

    [[nodiscard]] bool initialize(Catalog_Limits const& limits, Backup_Set const& set) override;
    [[nodiscard]] bool complete(Catalog_Limits const& limits, Backup_Set const& set) override;
    [[nodiscard]] bool commit(Catalog_Limits const& limits, Backup_Set const& set,
                              bool overwrite) override;
    [[nodiscard]] bool abort(Catalog_Limits const& limits, std::string const& uuid,
                             json_spirit::Array& pieces) override;
    [[nodiscard]] bool add_piece(Catalog_Limits const& limits, std::string const& uuid,
                                 json_spirit::Array const& pieces) override;
    [[nodiscard]] bool get_view(Catalog_Limits const& limits, std::string const& type,
                                std::string const& view, json_spirit::Object const& query,
                                json_spirit::Value& result) override;

    // what the agent asks besides; false has been logged

    /**
     * What is to be done with the files of a set that abort() has dropped: it is called in that
     * call, on its thread. To be set before the catalog is used.
     */
    void on_abort(std::function<void(Dropped_Set const&)> action) { on_abort_ = std::move(action); }
    /** Called after pieces were added to a set, with the bytes of their content. See on_abort(). */
    void on_pieces(std::function<void(std::string const& uuid, uint64_t size)> action) {
        on_pieces_ = std::move(action);
    }

    /**
     * Notes that a resource was restored at that time: "check_restored" leaves out its sets that
     * ended until then. An earlier time than the one on record changes nothing.
     */
    [[nodiscard]] bool mark_restored(std::string const& resource_uuid, time_t when);
    /**
     * Drops every open set that a host's runs write, all or none: at the start of that host's agent
     * nobody writes one any more.
     * @param before   only those that began before that time
     * @param dropped  gets what is left of them
     * @param uuid     only the set with this uuid; "" for all
     */
    [[nodiscard]] bool abort_open_sets(std::string const& host_uuid, time_t before,
                                       std::vector<Dropped_Set>& dropped,
                                       std::string const& uuid = "");
    /**
     * Drops a complete set. One that others build on, by their key or as later ones of its
     * incarnation, is IN_USE unless those are to go as well.
     * @param dependents  true: drop those, too, all or none; one that is being written is IN_USE
     * @param prepare     called before they are dropped, and may use the catalog; false drops
     *                    nothing: FAILED
     */
    Set_Removal remove(std::string const& uuid, bool dependents,
                       std::function<bool(std::vector<Dropped_Set> const&)> const& prepare);
    /** Finds the sets that build on a set, newest first; none for an unknown set. */
    [[nodiscard]] bool find_dependents(std::string const& uuid, std::vector<std::string>& uuids);
    /** Finds a set, open or complete. @param facts  nothing when there is none */
    [[nodiscard]] bool find_facts(std::string const& uuid, std::optional<Set_Facts>& facts);
    /** The same for the newest set of a resource. */
    [[nodiscard]] bool find_newest_facts(std::string const& resource_uuid,
                                         std::optional<Set_Facts>& facts);
    /** The uuids of sets, open or complete, of any kind, that begin with a text; @a limit at most.
     */
    [[nodiscard]] bool find_uuids(std::string const& beginning, size_t limit,
                                  std::vector<std::string>& uuids);
    /**
     * Finds out whether an object of a pool belongs to a set that is complete: whether one with a
     * storage in that pool has a piece of that name, or of a folder above it. The path of a piece
     * counts from the pool's folder on and, where the set has a "uri", from that folder on too; the
     * object may have the suffix of a compression behind it.
     * @param named  gets the answer
     */
    [[nodiscard]] bool names_object(std::string const& pool_uuid, std::string const& object,
                                    bool& named);
    /** @param usage  gets what the resources have in that pool, by their uuid; none for an empty
     * one */
    [[nodiscard]] bool pool_usage(std::string const& pool_uuid, std::vector<Resource_Usage>& usage);

private:
    using Rows = std::vector<json_spirit::Object>;
    /** How rows of a view are given. */
    struct Row_Form {
        bool storages;
        bool pieces;
        int64_t limit;
    };

    Database_Patience patience(Catalog_Limits const& limits) const;
    [[nodiscard]] static bool form_of(std::string const& view, json_spirit::Object const& query,
                                      Row_Form& form);
    [[nodiscard]] bool read_facts(char const* where, std::string const& value,
                                  std::optional<Set_Facts>& facts);
    static Rows catalogs(SQLite::Database& database, Catalog_Query const& query,
                         Row_Form const& form);
    static json_spirit::Array depends(SQLite::Database& database, Catalog_Query query);
    static Rows restore_chain(SQLite::Database& database, std::string const& type,
                              Catalog_Query const& query, json_spirit::Object const& keys,
                              Row_Form form);
    /** The set of a resource with that key; none or one. */
    static Rows with_key(SQLite::Database& database, std::string const& type,
                         json_spirit::Object const& resource, std::string const& key,
                         Row_Form const& form);
    /** The sets of a set's incarnation that did not start after it. */
    static Rows incarnation_until(SQLite::Database& database, std::string const& type,
                                  json_spirit::Object const& resource,
                                  json_spirit::Object const& set, Row_Form const& form);

    Agent_Database& database_;
    Storage_Clock& clock_;
    std::function<void(Dropped_Set const&)> on_abort_;
    std::function<void(std::string const& uuid, uint64_t size)> on_pieces_;
};

#endif
