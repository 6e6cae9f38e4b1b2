#ifndef HOST_CATALOG_BACKUP_SET_H
#define HOST_CATALOG_BACKUP_SET_H

#include "json_spirit/value.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

/** One pool that holds a backup set, or a copy of it. */
struct Backup_Set_Storage {
    std::string pool_uuid;
    uint64_t size = 0; ///< bytes that the set takes there
    bool copy = false; ///< the backup did not write it: it was copied there later

    /** {"pool_uuid", "size"}, and "copy" when it is one. */
    json_spirit::Object dump() const;
};

/**
 * A backup set on its way into the catalog. A plain record, filled by the executor; these are the
 * fields that sets of every database have, and a derived class adds its own.
 */
class Backup_Set {
public:
    /** One file of the set, by its path in the pool. */
    struct Piece {
        std::string path;
        uint64_t size; ///< bytes; 0 when not known
    };

    virtual ~Backup_Set() = default;

    void add_piece(std::string const& path, unsigned long size) { pieces.push_back({path, size}); }
    void add_storage(Backup_Set_Storage const& storage) { storages.push_back(storage); }

    /** The database that the set is of, by which the catalog's views are asked: "gaussdb". */
    std::string const& kind() const { return kind_; }

    /**
     * The set as the catalog keeps it: a key for each field, "pool_uuid" of the first storage,
     * "storages" and "pieces" as arrays of objects. Times are seconds since the epoch. A derived
     * class adds its keys to what this gives.
     */
    virtual json_spirit::Object dump() const;

    std::string uuid;
    std::string name;            ///< of the job definition
    std::string definition_uuid; ///< of the job definition
    std::string job_act_id;      ///< the run's id
    std::string uid;             ///< the user's uuid
    std::string host_uuid;
    std::string host;
    std::string resource_uuid;
    std::string minor_resource_id;
    std::string resource_label;
    std::string agent;
    std::string type; ///< the level: "full", "incremental", ...
    time_t backup_start_time = 0;
    time_t backup_end_time = 0;   ///< 0 while the backup runs
    uint64_t source_size = 0;     ///< bytes backed up
    uint64_t backup_set_size = 0; ///< bytes of the set
    std::vector<Backup_Set_Storage> storages;
    std::vector<Piece> pieces;

protected:
    explicit Backup_Set(char const* kind) : kind_(kind) {}
    Backup_Set(Backup_Set const&) = default;
    Backup_Set& operator=(Backup_Set const&) = default;

private:
    std::string kind_;
};

/** Picks one of the storages of a set, as a catalog row shows them. */
class Backup_Set_Storage_Selector {
public:
    enum MODE {
        M_ANY = 0,    ///< the first one
        M_SOURCE = 1, ///< the one that the backup wrote, if it is still there; else the first copy
        M_COPY = 2    ///< the first copy
    };

    /** Elements that are no objects, or have no text under "pool_uuid", do not count. */
    Backup_Set_Storage_Selector(json_spirit::Array const& storages, MODE mode);

    /** The pool's uuid; "" when there is no such storage. */
    std::string const& pool_uuid() const { return pool_uuid_; }

private:
    std::string pool_uuid_;
};

#endif
