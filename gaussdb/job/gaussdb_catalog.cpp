#include "gaussdb/job/gaussdb_catalog.h"

#include "host/catalog/catalog_operator.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"

#include <exception>

using json_spirit::extract_or_throw;
using json_spirit::Object;

namespace {

/** The catalog could not be asked, which it has logged. */
class Not_Asked : public std::exception {};

/** A query of rows, to which each asker adds its own keys. */
Object row_query(char const* sort) {
    Object query;
    json_spirit::insert(query)("order", "desc")("sort", sort)("cmode", "rb_orm_rows");
    return query;
}

/** Runs @a read; what it throws is logged behind @a failure. */
template <typename Read>
bool logged(char const* failure, Read read) {
    try {
        return read();
    } catch (Not_Asked const&) {
        return false;
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "%s%s\n", failure, error.what());
        return false;
    }
}

} // namespace

json_spirit::Array GaussDB_Catalog::rows(char const* view, Object const& query) const {
    json_spirit::Value result;
    if (!Catalog_Operator(-1, max_seconds_retry_).get_view("gaussdb", view, query, result))
        throw Not_Asked();
    json_spirit::Array rows;
    extract_or_throw(result.get_obj())("rows", rows, true);
    return rows;
}

bool GaussDB_Catalog::get_prior_backup(std::string const& resource_uuid,
                                       std::string const& pool_uuid, std::string& incarnation,
                                       std::string& backup_key) const {
    return get_prior_backup(resource_uuid, pool_uuid, Object(), incarnation, backup_key);
}

bool GaussDB_Catalog::get_prior_backup(std::string const& resource_uuid,
                                       std::string const& pool_uuid, Object const& more,
                                       std::string& incarnation, std::string& backup_key) const {
    return logged("Failed to get prior backup: ", [&] {
        Object query = row_query("backup_end_time");
        query.insert(more.begin(), more.end());
        json_spirit::insert(query)("resource_uuid", resource_uuid)("pool_uuid", pool_uuid)("limit",
                                                                                           1);
        json_spirit::Array const found = rows("catalogs", query);
        if (found.empty())
            return false;
        std::string first, key;
        extract_or_throw(found.front().get_obj())("incarnation", first, true)("backup_key", key,
                                                                              true);
        incarnation = first;
        backup_key = key;
        return true;
    });
}

bool GaussDB_Catalog::get_seq(std::string const& resource_uuid, ACE_INT64& seq) const {
    return logged("Failed to get gaussdb backup sequence, ", [&] {
        Object query = row_query("seq");
        json_spirit::insert(query)("resource_uuid", resource_uuid)("limit", 1);
        json_spirit::Array const found = rows("catalogs", query);
        int64_t last = 0;
        if (!found.empty())
            extract_or_throw(found.front().get_obj())("seq", last, true);
        seq = last + 1;
        return true;
    });
}

bool GaussDB_Catalog::get_storage_size(std::string const& uuid, ACE_INT64& size) const {
    return logged("Failed to get gaussdb backup storage size, ", [&] {
        Object query;
        json_spirit::insert(query)("uuid", uuid)("with_storages", "1")("cmode", "rb_orm_rows");
        json_spirit::Array const found = rows("catalogs", query);
        if (found.empty())
            return false;
        json_spirit::Array const* storages = nullptr;
        extract_or_throw(found.front().get_obj())("storages", storages, true);
        if (storages->empty())
            return false;
        int64_t bytes = 0;
        extract_or_throw(storages->front().get_obj())("size", bytes, true);
        size = bytes;
        return true;
    });
}

bool GaussDB_Catalog::get_sizes(std::string const& uuid, ACE_INT64& storage_size,
                                ACE_INT64& set_size,
                                std::function<void(Object const& piece)> const& visit,
                                std::string const& failure) const {
    return logged(failure.c_str(), [&] {
        Object query;
        json_spirit::insert(query)("uuid", uuid)("with_storages", "1")("with_pieces",
                                                                       "1")("cmode", "rb_orm_rows");
        json_spirit::Array const found = rows("catalogs", query);
        if (found.empty())
            return false;
        json_spirit::Array const* storages = nullptr;
        json_spirit::Array const* pieces = nullptr;
        extract_or_throw(found.front().get_obj())("storages", storages, true)("pieces", pieces,
                                                                              true);
        if (storages->empty() || pieces->empty())
            return false;
        int64_t stored = 0;
        int64_t total = 0;
        extract_or_throw(storages->front().get_obj())("size", stored, true);
        for (Object const& piece : json_spirit::objects_of(*pieces)) {
            total += json_spirit::object_get_int64_or_throw(piece, "size");
            if (visit)
                visit(piece);
        }
        storage_size = stored;
        set_size = total;
        return true;
    });
}

bool GaussDB_Catalog::get_chain(std::string const& resource_uuid, std::string const& backup_key,
                                json_spirit::Array& chain) const {
    return logged("Failed to get gaussdb catalog, ", [&] {
        Object query = row_query("backup_start_time");
        json_spirit::insert(query)("resource_uuid", resource_uuid)("backup_key", backup_key);
        chain = rows("restore", query);
        return !chain.empty();
    });
}
