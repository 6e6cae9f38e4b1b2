#include "tests/support/fake_catalog.h"

#include "host/agent/host_services.h"
#include "host/catalog/backup_set.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"

#include <algorithm>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

/** Keys of a query that say how rows are given, and choose none. */
std::set<std::string> const FORM = {"sort",  "order",         "limit",
                                    "cmode", "with_storages", "with_pieces"};

bool is_set(Value const& value) {
    switch (value.type()) {
    case json_spirit::null_type:
        return false;
    case json_spirit::str_type:
        return !value.get_str().empty();
    case json_spirit::int_type:
        return !(value == Value(0));
    default:
        return true;
    }
}

/** A total order, nulls first, numbers by value. */
bool is_less(Value const& left, Value const& right) {
    bool const numbers =
        left.type() == json_spirit::int_type && right.type() == json_spirit::int_type;
    if (numbers)
        return left.get_int64() < right.get_int64();
    if (left.type() == json_spirit::str_type && right.type() == json_spirit::str_type)
        return left.get_str() < right.get_str();
    if (left.is_null() || right.is_null())
        return left.is_null() && !right.is_null();
    return left.type() < right.type();
}

bool in_pool(Object const& row, Value const& pool) {
    Array storages;
    json_spirit::object_get(row, "storages", storages);
    for (Object const& storage : json_spirit::objects_of(storages))
        if (json_spirit::object_get_any(storage, "pool_uuid") == pool)
            return true;
    return false;
}

bool is_true(Object const& query, std::string const& key) {
    return json_spirit::object_get_any(query, key) == Value(true);
}

/** True for pieces that each are one. */
bool are_pieces(Array const& pieces) {
    for (Value const& piece : pieces)
        if (piece.type() != json_spirit::obj_type ||
            json_spirit::object_get_str(piece.get_obj(), "path").empty())
            return false;
    return true;
}

/** @param keep_known  a piece without a size does not take the place of one that is there */
void put_pieces(Object& row, Array const& pieces, bool keep_known) {
    Array& kept = row["pieces"].get_array();
    for (Object const& piece : json_spirit::objects_of(pieces)) {
        Value const& path = json_spirit::object_get_any(piece, "path");
        auto const same = std::find_if(kept.begin(), kept.end(), [&](Value const& old) {
            return json_spirit::object_get_any(old.get_obj(), "path") == path;
        });
        if (same == kept.end())
            kept.emplace_back(piece);
        else if (!keep_known || is_set(json_spirit::object_get_any(piece, "size")))
            *same = piece;
    }
}

uint64_t stored_size(Array const& pieces) {
    uint64_t total = 0;
    for (Object const& piece : json_spirit::objects_of(pieces)) {
        uint64_t size = 0;
        if (!json_spirit::object_get(piece, "storage_size", size))
            json_spirit::object_get(piece, "size", size);
        total += size;
    }
    return total;
}

void grow_storage(Object& row, uint64_t bytes) {
    Array& storages = row["storages"].get_array();
    if (storages.empty())
        return;
    Object& first = storages.front().get_obj();
    uint64_t size = 0;
    json_spirit::object_get(first, "size", size);
    first["size"] = size + bytes;
}

} // namespace

bool Fake_Catalog_Backend::enter(Catalog_Limits const& limits, std::string const& operation,
                                 std::string const& rest) {
    limits_ = limits;
    calls_.push_back(operation + " " + rest);
    if (!failing_.count(operation))
        return true;
    QMRT_LOG(LM_ERROR, "The catalog fails to %s\n", operation.c_str());
    return false;
}

Fake_Catalog_Backend::Record* Fake_Catalog_Backend::find(std::string const& uuid) {
    auto const found = sets_.find(uuid);
    return found == sets_.end() ? nullptr : &found->second;
}

bool Fake_Catalog_Backend::initialize(Catalog_Limits const& limits, Backup_Set const& set) {
    std::lock_guard const guard(mutex_);
    if (!enter(limits, "initialize", set.uuid))
        return false;
    if (set.uuid.empty() || find(set.uuid)) {
        QMRT_LOG(LM_ERROR, "The catalog cannot open set \"%s\"\n", set.uuid.c_str());
        return false;
    }
    sets_[set.uuid] = {set.kind(), set.dump(), true};
    return true;
}

bool Fake_Catalog_Backend::complete(Catalog_Limits const& limits, Backup_Set const& set) {
    std::lock_guard const guard(mutex_);
    if (!enter(limits, "complete", set.uuid))
        return false;
    Record* const record = find(set.uuid);
    if (!record || !record->open) {
        QMRT_LOG(LM_ERROR, "The catalog has no open set \"%s\"\n", set.uuid.c_str());
        return false;
    }
    Object row = set.dump();
    Array const own = row["pieces"].get_array();
    row["pieces"] = record->row["pieces"];
    put_pieces(row, own, true);
    record->row = std::move(row);
    record->open = false;
    return true;
}

bool Fake_Catalog_Backend::commit(Catalog_Limits const& limits, Backup_Set const& set,
                                  bool overwrite) {
    std::lock_guard const guard(mutex_);
    if (!enter(limits, "commit", set.uuid))
        return false;
    Record const* const record = find(set.uuid);
    if (set.uuid.empty() || (record && (record->open || !overwrite))) {
        QMRT_LOG(LM_ERROR, "The catalog cannot take set \"%s\"\n", set.uuid.c_str());
        return false;
    }
    sets_[set.uuid] = {set.kind(), set.dump(), false};
    return true;
}

bool Fake_Catalog_Backend::abort(Catalog_Limits const& limits, std::string const& uuid,
                                 Array& pieces) {
    std::lock_guard const guard(mutex_);
    if (!enter(limits, "abort", uuid))
        return false;
    Record* const record = find(uuid);
    if (!record || !record->open) {
        QMRT_LOG(LM_ERROR, "The catalog has no open set \"%s\"\n", uuid.c_str());
        return false;
    }
    pieces = record->row["pieces"].get_array();
    sets_.erase(uuid);
    return true;
}

bool Fake_Catalog_Backend::add_piece(Catalog_Limits const& limits, std::string const& uuid,
                                     Array const& pieces) {
    std::lock_guard const guard(mutex_);
    if (!enter(limits, "add_piece", uuid))
        return false;
    Record* const record = find(uuid);
    if (!record || !are_pieces(pieces)) {
        QMRT_LOG(LM_ERROR, "The catalog cannot add pieces to set \"%s\"\n", uuid.c_str());
        return false;
    }
    put_pieces(record->row, pieces, false);
    grow_storage(record->row, stored_size(pieces));
    return true;
}

bool Fake_Catalog_Backend::after_restore(Object const& row) const {
    auto const restored = restored_.find(json_spirit::object_get_str(row, "resource_uuid"));
    int64_t end = 0;
    json_spirit::object_get(row, "backup_end_time", end);
    return restored == restored_.end() || end > restored->second;
}

bool Fake_Catalog_Backend::chosen(Record const& record, std::string const& type,
                                  Object const& query) const {
    if (record.kind != type || (record.open && !query.count("uuid")))
        return false;
    for (auto const& [key, wanted] : query) {
        if (FORM.count(key))
            continue;
        bool fits = false;
        if (key == "pool_uuid")
            fits = in_pool(record.row, wanted);
        else if (key == "exclude_schema")
            fits = !is_true(query, key) ||
                   json_spirit::object_get_str(record.row, "granularity") != "schema";
        else if (key == "check_restored")
            fits = !is_true(query, key) || after_restore(record.row);
        else if (key.starts_with("NN_"))
            fits = is_set(json_spirit::object_get_any(record.row, key.substr(3)));
        else
            fits = json_spirit::object_get_any(record.row, key) == wanted;
        if (!fits)
            return false;
    }
    return true;
}

Fake_Catalog_Backend::Rows Fake_Catalog_Backend::catalogs(std::string const& type,
                                                          Object const& query) const {
    Rows rows;
    for (auto const& entry : sets_)
        if (chosen(entry.second, type, query))
            rows.push_back(entry.second.row);
    return rows;
}

Fake_Catalog_Backend::Rows Fake_Catalog_Backend::restore_chain(std::string const& type,
                                                               Object const& query) const {
    Object const resource = {
        {"resource_uuid", json_spirit::object_get_any(query, "resource_uuid")}};
    Rows const all = catalogs(type, resource);
    std::string const incarnation = [&] {
        for (Object const& row : all)
            if (json_spirit::object_get_str(row, "backup_key") ==
                json_spirit::object_get_str(query, "backup_key"))
                return json_spirit::object_get_str(row, "incarnation");
        return std::string();
    }();

    Rows chain;
    std::set<std::string> seen;
    Value latest;
    for (std::string key = json_spirit::object_get_str(query, "backup_key"); !key.empty();) {
        if (!seen.insert(key).second)
            break;
        auto const found = std::find_if(all.begin(), all.end(), [&](Object const& row) {
            return json_spirit::object_get_str(row, "backup_key") == key;
        });
        if (found == all.end())
            break;
        if (chain.empty())
            latest = json_spirit::object_get_any(*found, "backup_start_time");
        chain.push_back(*found);
        key = json_spirit::object_get_str(*found, "prior_backup_key");
    }
    if (chain.empty() || incarnation.empty())
        return chain;
    for (Object const& row : all)
        if (json_spirit::object_get_str(row, "incarnation") == incarnation &&
            !seen.count(json_spirit::object_get_str(row, "backup_key")) &&
            !is_less(latest, json_spirit::object_get_any(row, "backup_start_time")))
            chain.push_back(row);
    return chain;
}

Array Fake_Catalog_Backend::depends(Rows rows) {
    std::stable_sort(rows.begin(), rows.end(), [](Object const& left, Object const& right) {
        return is_less(json_spirit::object_get_any(left, "backup_start_time"),
                       json_spirit::object_get_any(right, "backup_start_time"));
    });
    Array ids;
    for (Object const& row : rows)
        if (std::string const id = json_spirit::object_get_str(row, "backup_id"); !id.empty())
            ids.emplace_back(id);
    return ids;
}

bool Fake_Catalog_Backend::get_view(Catalog_Limits const& limits, std::string const& type,
                                    std::string const& view, Object const& query, Value& result) {
    std::lock_guard const guard(mutex_);
    queries_.push_back(query);
    if (!enter(limits, "get_view", view))
        return false;
    int64_t limit = INT64_MAX;
    bool const limited = json_spirit::object_get(query, "limit", limit);
    if ((view != "catalogs" && view != "restore" && view != "depends") ||
        (query.count("limit") && !limited) || limit < 0) {
        QMRT_LOG(LM_ERROR, "The catalog cannot answer a query of view %s\n", view.c_str());
        return false;
    }
    bool const is_restore = view == "restore";
    Rows rows = is_restore ? restore_chain(type, query) : catalogs(type, query);
    if (view == "depends") {
        result = depends(std::move(rows));
        return true;
    }
    if (std::string const sort = json_spirit::object_get_str(query, "sort"); !sort.empty()) {
        bool const falling = json_spirit::object_get_str(query, "order") == "desc";
        std::stable_sort(rows.begin(), rows.end(), [&](Object const& left, Object const& right) {
            Value const& a = json_spirit::object_get_any(left, sort);
            Value const& b = json_spirit::object_get_any(right, sort);
            return falling ? is_less(b, a) : is_less(a, b);
        });
    }
    Array array;
    for (Object& row : rows) {
        if (static_cast<int64_t>(array.size()) >= limit)
            break;
        if (!is_restore && !query.count("with_storages"))
            row.erase("storages");
        if (!query.count("with_pieces"))
            row.erase("pieces");
        array.emplace_back(std::move(row));
    }
    if (json_spirit::object_get_str(query, "cmode") == "rb_orm_rows")
        result = Object{{"rows", std::move(array)}};
    else
        result = std::move(array);
    return true;
}

void Fake_Catalog_Backend::fail(std::string const& operation, bool value) {
    std::lock_guard const guard(mutex_);
    if (value)
        failing_.insert(operation);
    else
        failing_.erase(operation);
}

std::vector<std::string> Fake_Catalog_Backend::calls() const {
    std::lock_guard const guard(mutex_);
    return calls_;
}

std::vector<Object> Fake_Catalog_Backend::queries() const {
    std::lock_guard const guard(mutex_);
    return queries_;
}

Catalog_Limits Fake_Catalog_Backend::limits() const {
    std::lock_guard const guard(mutex_);
    return limits_;
}

void Fake_Catalog_Backend::add_row(Object const& row) {
    std::lock_guard const guard(mutex_);
    Record record{"gaussdb", row, false};
    record.row.try_emplace("storages", Array());
    record.row.try_emplace("pieces", Array());
    sets_[json_spirit::object_get_str(row, "uuid")] = std::move(record);
}

Object Fake_Catalog_Backend::row(std::string const& uuid) const {
    std::lock_guard const guard(mutex_);
    auto const found = sets_.find(uuid);
    return found == sets_.end() ? Object() : found->second.row;
}

bool Fake_Catalog_Backend::is_open(std::string const& uuid) const {
    std::lock_guard const guard(mutex_);
    auto const found = sets_.find(uuid);
    return found != sets_.end() && found->second.open;
}

bool Fake_Catalog_Backend::has(std::string const& uuid) const {
    std::lock_guard const guard(mutex_);
    return sets_.count(uuid) != 0;
}

void Fake_Catalog_Backend::restored(std::string const& resource_uuid, time_t when) {
    std::lock_guard const guard(mutex_);
    restored_[resource_uuid] = when;
}

Fake_Catalog::Fake_Catalog() : backend_(std::make_shared<Fake_Catalog_Backend>()) {
    Host_Services::instance().catalog(backend_);
}

Fake_Catalog::~Fake_Catalog() {
    Host_Services::instance().catalog(nullptr);
}
