#include "agent/catalog/sqlite_catalog.h"

#include "agent/catalog/catalog_query.h"
#include "agent/catalog/kept_set.h"

#include "host/catalog/backup_set.h"
#include "host/storage/compression.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <algorithm>
#include <limits>
#include <map>
#include <set>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

/** What is known of a set before it is changed. */
struct Found_Set {
    int64_t id = 0; ///< 0: there is none
    bool open = false;
};

Found_Set find_set(SQLite::Database& database, std::string const& uuid) {
    SQLite::Statement statement(database, "SELECT id, open FROM backup_set WHERE uuid = ?");
    statement.bind(1, uuid);
    if (!statement.executeStep())
        return {};
    return {statement.getColumn(0).getInt64(), statement.getColumn(1).getInt() != 0};
}

Found_Set find_open_set(SQLite::Database& database, std::string const& uuid) {
    Found_Set const found = find_set(database, uuid);
    if (found.id != 0 && found.open)
        return found;
    QMRT_LOG(LM_ERROR, "The catalog has no open set \"%s\"\n", uuid.c_str());
    return {};
}

bool refuse(char const* what, std::string const& uuid, std::string const& why) {
    QMRT_LOG(LM_ERROR, "The catalog cannot %s set \"%s\": %s\n", what, uuid.c_str(), why.c_str());
    return false;
}

void erase_set(SQLite::Database& database, int64_t id) {
    SQLite::Statement statement(database, "DELETE FROM backup_set WHERE id = ?");
    statement.bind(1, id);
    statement.exec();
}

std::string without_slashes(std::string text) {
    while (text.ends_with('/'))
        text.pop_back();
    return text.substr(std::min(text.find_first_not_of('/'), text.size()));
}

/** What is to be known of a set before it is erased. */
Dropped_Set read_dropped(SQLite::Database& database, int64_t id, Array const& pieces) {
    SQLite::Statement statement(database,
                                "SELECT uuid, kind, coalesce(resource_uuid, ''), "
                                "coalesce(row ->> '$.uri', '') FROM backup_set WHERE id = ?");
    statement.bind(1, id);
    statement.executeStep();
    Dropped_Set set{statement.getColumn(0).getString(),
                    statement.getColumn(1).getString(),
                    statement.getColumn(2).getString(),
                    {},
                    {}};
    Array const storages = Set_Parts_Reader(database).storages(id);
    for (Object const& storage : json_spirit::objects_of(storages))
        set.pool_uuids.push_back(json_spirit::object_get_str(storage, "pool_uuid"));
    std::string const folder = without_slashes(statement.getColumn(3).getString());
    for (Object const& piece : json_spirit::objects_of(pieces)) {
        std::string const path = without_slashes(json_spirit::object_get_str(piece, "path"));
        if (path.empty())
            continue;
        // one name below a uri is never a folder of the pool, such as another resource's
        if (folder.empty() || path.find('/') != std::string::npos)
            set.piece_paths.push_back(path);
        if (!folder.empty())
            set.piece_paths.push_back(folder + "/" + path);
    }
    return set;
}

/** What a removal comes to, and the sets that go then. */
struct Planned_Removal {
    Set_Removal removal;
    std::vector<int64_t> ids;
};

Planned_Removal plan_removal(SQLite::Database& database, std::string const& uuid, bool dependents) {
    Found_Set const found = find_set(database, uuid);
    Planned_Removal plan{{}, {found.id}};
    Set_Removal& removal = plan.removal;
    if (found.id == 0) {
        removal.kind = Set_Removal::NOT_FOUND;
        return plan;
    }
    removal.being_written = found.open;
    SQLite::Statement statement(
        database,
        "WITH RECURSIVE family(id) AS (SELECT ?1 UNION SELECT s.id FROM family AS f "
        "JOIN backup_set AS b ON b.id = f.id "
        "JOIN backup_set AS s ON s.resource_uuid = b.resource_uuid AND s.kind = b.kind AND "
        "((b.incarnation <> '' AND s.incarnation = b.incarnation AND "
        "s.backup_start_time >= b.backup_start_time) OR "
        "(b.backup_key <> '' AND s.prior_backup_key = b.backup_key))) "
        "SELECT s.id, s.uuid, s.open FROM family AS f JOIN backup_set AS s ON s.id = f.id "
        "WHERE s.id <> ?1 ORDER BY s.backup_start_time DESC, s.id DESC");
    statement.bind(1, found.id);
    while (statement.executeStep()) {
        plan.ids.push_back(statement.getColumn(0).getInt64());
        removal.needed_by.push_back(statement.getColumn(1).getString());
        removal.being_written |= statement.getColumn(2).getInt() != 0;
    }
    if (removal.being_written || (!dependents && !removal.needed_by.empty())) {
        removal.kind = Set_Removal::IN_USE;
        return plan;
    }
    Set_Parts_Reader parts(database);
    for (int64_t const id : plan.ids)
        removal.dropped.push_back(read_dropped(database, id, parts.pieces(id)));
    removal.kind = Set_Removal::REMOVED;
    return plan;
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

uint64_t content_size(Array const& pieces) {
    uint64_t total = 0;
    for (Object const& piece : json_spirit::objects_of(pieces)) {
        uint64_t size = 0;
        json_spirit::object_get(piece, "size", size);
        total += size;
    }
    return total;
}

/** The row of a set, with what the form asks for. */
Object read_row(SQLite::Statement& statement) {
    Value row;
    std::string error;
    if (!json_spirit::parse(statement.getColumn(1).getString(), row, &error))
        throw json_spirit::Error("the catalog holds what is no JSON: " + error);
    return std::move(row.get_obj());
}

void bind_all(SQLite::Statement& statement, std::vector<Column_Value> const& values) {
    int index = 0;
    for (Column_Value const& value : values)
        bind(statement, ++index, value);
}

/** How a set may name an object: by a piece's path, from a folder of the pool on. */
struct Piece_Place {
    std::string folder; ///< "" for the pool's own
    std::string path;
};

/** The likely ones first: its whole name, from the pool's folder on. */
std::vector<Piece_Place> places_of_piece(std::string const& object) {
    std::vector<Piece_Place> places;
    std::set<std::string> const names = {object, uncompressed_name(object)};
    for (std::string const& name : names) {
        for (size_t begin = 0; begin != std::string::npos;) {
            for (size_t end = name.size(); end != std::string::npos && end > begin;
                 end = name.rfind('/', end - 1))
                places.push_back(
                    {name.substr(0, begin == 0 ? 0 : begin - 1), name.substr(begin, end - begin)});
            size_t const slash = name.find('/', begin);
            begin = slash == std::string::npos ? slash : slash + 1;
        }
    }
    return places;
}

} // namespace

Database_Patience SQLite_Catalog::patience(Catalog_Limits const& limits) const {
    return {limits.max_seconds_retry < 0 ? DEFAULT_RETRY : limits.max_seconds_retry, limits.timeout,
            &clock_};
}

bool SQLite_Catalog::initialize(Catalog_Limits const& limits, Backup_Set const& set) {
    std::string error;
    auto const kept = Kept_Set::make(set, error);
    if (!kept)
        return refuse("open", set.uuid, error);
    return database_.change(
        "open a backup set",
        [&](SQLite::Database& database) {
            if (find_set(database, set.uuid).id != 0)
                return refuse("open", set.uuid, "it has it already");
            kept->insert(database, true);
            return true;
        },
        patience(limits));
}

bool SQLite_Catalog::complete(Catalog_Limits const& limits, Backup_Set const& set) {
    std::string error;
    auto const kept = Kept_Set::make(set, error);
    if (!kept)
        return refuse("complete", set.uuid, error);
    return database_.change(
        "complete a backup set",
        [&](SQLite::Database& database) {
            Found_Set const found = find_open_set(database, set.uuid);
            if (found.id == 0)
                return false;
            kept->replace(database, found.id, true);
            return true;
        },
        patience(limits));
}

bool SQLite_Catalog::commit(Catalog_Limits const& limits, Backup_Set const& set, bool overwrite) {
    std::string error;
    auto const kept = Kept_Set::make(set, error);
    if (!kept)
        return refuse("take", set.uuid, error);
    return database_.change(
        "commit a backup set",
        [&](SQLite::Database& database) {
            Found_Set const found = find_set(database, set.uuid);
            if (found.open)
                return refuse("take", set.uuid, "it is being written");
            if (found.id != 0 && !overwrite)
                return refuse("take", set.uuid, "it has it already");
            if (found.id != 0)
                kept->replace(database, found.id, false);
            else
                kept->insert(database, false);
            return true;
        },
        patience(limits));
}

bool SQLite_Catalog::abort(Catalog_Limits const& limits, std::string const& uuid, Array& pieces) {
    Array had;
    Dropped_Set dropped;
    bool const done = database_.change(
        "abort a backup set",
        [&](SQLite::Database& database) {
            Found_Set const found = find_open_set(database, uuid);
            if (found.id == 0)
                return false;
            had = Set_Parts_Reader(database).pieces(found.id);
            dropped = read_dropped(database, found.id, had);
            erase_set(database, found.id);
            return true;
        },
        patience(limits));
    if (!done)
        return false;
    pieces = std::move(had);
    if (on_abort_)
        on_abort_(dropped);
    return true;
}

bool SQLite_Catalog::add_piece(Catalog_Limits const& limits, std::string const& uuid,
                               Array const& pieces) {
    if (!Kept_Set::are_pieces(pieces))
        return refuse("add pieces to", uuid, "one has no path");
    bool const done = database_.change(
        "add pieces to a backup set",
        [&](SQLite::Database& database) {
            Found_Set const found = find_set(database, uuid);
            if (found.id == 0)
                return refuse("add pieces to", uuid, "it has no such set");
            Kept_Set::put_pieces(database, found.id, pieces, false);
            Kept_Set::grow_storage(database, found.id, stored_size(pieces));
            return true;
        },
        patience(limits));
    if (done && on_pieces_)
        on_pieces_(uuid, content_size(pieces));
    return done;
}

bool SQLite_Catalog::form_of(std::string const& view, Object const& query, Row_Form& form) {
    form.limit = std::numeric_limits<int64_t>::max();
    form.storages = view == "restore" || query.count("with_storages");
    form.pieces = query.count("with_pieces");
    if (view != "catalogs" && view != "restore" && view != "depends")
        return false;
    return !query.count("limit") ||
           (json_spirit::object_get(query, "limit", form.limit) && form.limit >= 0);
}

SQLite_Catalog::Rows SQLite_Catalog::catalogs(SQLite::Database& database,
                                              Catalog_Query const& query, Row_Form const& form) {
    SQLite::Statement statement(database, query.sql());
    bind_all(statement, query.values());
    Set_Parts_Reader parts(database);
    Rows rows;
    bool const can_stop = query.sorted_by_sql();
    int64_t left = form.limit;
    while ((!can_stop || left > 0) && statement.executeStep()) {
        Object row = read_row(statement);
        if (!query.fits(row))
            continue;
        int64_t const id = statement.getColumn(0).getInt64();
        if (form.storages)
            row["storages"] = parts.storages(id);
        if (form.pieces)
            row["pieces"] = parts.pieces(id);
        rows.push_back(std::move(row));
        --left;
    }
    if (!can_stop)
        Catalog_Query::sort(rows, query.sort_key(), query.falling());
    return rows;
}

SQLite_Catalog::Rows SQLite_Catalog::with_key(SQLite::Database& database, std::string const& type,
                                              Object const& resource, std::string const& key,
                                              Row_Form const& form) {
    Object by_key = resource;
    json_spirit::insert(by_key)("backup_key", key)("order", "desc"); // of two the later
    return catalogs(database, Catalog_Query(type, by_key), {form.storages, form.pieces, 1});
}

SQLite_Catalog::Rows SQLite_Catalog::incarnation_until(SQLite::Database& database,
                                                       std::string const& type,
                                                       Object const& resource, Object const& set,
                                                       Row_Form const& form) {
    std::string const incarnation = json_spirit::object_get_str(set, "incarnation");
    if (incarnation.empty())
        return {};
    Object query = resource;
    json_spirit::insert(query)("incarnation", incarnation);
    Column_Value const latest = column_value(json_spirit::object_get_any(set, "backup_start_time"));
    Catalog_Query chosen(type, query);
    chosen.not_after(latest);
    Rows rows = catalogs(database, chosen, form);
    std::erase_if(rows, [&latest](Object const& row) {
        return is_less(latest, column_value(json_spirit::object_get_any(row, "backup_start_time")));
    });
    return rows;
}

SQLite_Catalog::Rows SQLite_Catalog::restore_chain(SQLite::Database& database,
                                                   std::string const& type,
                                                   Catalog_Query const& query, Object const& keys,
                                                   Row_Form form) {
    form.limit = std::numeric_limits<int64_t>::max(); // counts behind the sorting
    Object const resource = {{"resource_uuid", json_spirit::object_get_any(keys, "resource_uuid")}};
    std::string key = json_spirit::object_get_str(keys, "backup_key");
    Rows chain = key.empty() ? Rows() : with_key(database, type, resource, key, form);
    if (chain.empty())
        return chain;
    // most of what the set builds on is of its incarnation, which one query gives
    Rows const incarnation = incarnation_until(database, type, resource, chain.front(), form);
    std::map<std::string, Object const*> by_key;
    for (Object const& row : incarnation)
        by_key[json_spirit::object_get_str(row, "backup_key")] = &row;
    std::set<std::string> seen;
    for (; !key.empty() && seen.insert(key).second;
         key = json_spirit::object_get_str(chain.back(), "prior_backup_key")) {
        if (seen.size() == 1)
            continue; // the set itself
        if (auto const found = by_key.find(key); found != by_key.end()) {
            chain.push_back(*found->second);
            continue;
        }
        Rows link = with_key(database, type, resource, key, form);
        if (link.empty())
            break;
        chain.push_back(std::move(link.front()));
    }
    for (Object const& row : incarnation)
        if (!seen.count(json_spirit::object_get_str(row, "backup_key")))
            chain.push_back(row);
    if (!query.sort_key().empty())
        Catalog_Query::sort(chain, query.sort_key(), query.falling());
    return chain;
}

Array SQLite_Catalog::depends(SQLite::Database& database, Catalog_Query query) {
    Array ids;
    if (query.is_exact()) {
        SQLite::Statement statement(database, query.backup_ids_sql());
        bind_all(statement, query.values());
        while (statement.executeStep())
            if (SQLite::Column const id = statement.getColumn(0); id.isText() && id.size() > 0)
                ids.emplace_back(id.getString());
        return ids;
    }
    query.sort_by("backup_start_time");
    Row_Form const bare = {false, false, std::numeric_limits<int64_t>::max()};
    for (Object const& row : catalogs(database, query, bare))
        if (std::string const id = json_spirit::object_get_str(row, "backup_id"); !id.empty())
            ids.emplace_back(id);
    return ids;
}

bool SQLite_Catalog::get_view(Catalog_Limits const& limits, std::string const& type,
                              std::string const& view, Object const& query, Value& result) {
    Row_Form form;
    if (!form_of(view, query, form)) {
        QMRT_LOG(LM_ERROR, "The catalog cannot answer a query of view \"%s\"\n", view.c_str());
        return false;
    }
    Rows rows;
    Array ids;
    bool const done = database_.read(
        "answer a query of the catalog",
        [&](SQLite::Database& database) {
            Catalog_Query chosen(type, query);
            if (view == "depends")
                ids = depends(database, chosen);
            else if (view == "restore")
                rows = restore_chain(database, type, chosen, query, form);
            else
                rows = catalogs(database, chosen, form);
            return true;
        },
        patience(limits));
    if (!done)
        return false;
    if (view == "depends") {
        result = std::move(ids);
        return true;
    }
    Array array;
    for (Object& row : rows) {
        if (static_cast<int64_t>(array.size()) >= form.limit)
            break;
        array.emplace_back(std::move(row));
    }
    if (json_spirit::object_get_str(query, "cmode") == "rb_orm_rows")
        result = Object{{"rows", std::move(array)}};
    else
        result = std::move(array);
    return true;
}

bool SQLite_Catalog::mark_restored(std::string const& resource_uuid, time_t when) {
    return database_.change(
        "note a restore",
        [&](SQLite::Database& database) {
            SQLite::Statement statement(
                database, "INSERT INTO restored_resource(resource_uuid, at) VALUES(?, ?) "
                          "ON CONFLICT(resource_uuid) DO UPDATE SET at = max(at, excluded.at)");
            statement.bind(1, resource_uuid);
            statement.bind(2, static_cast<int64_t>(when));
            statement.exec();
            return true;
        },
        patience({-1, -1}));
}

bool SQLite_Catalog::abort_open_sets(std::string const& host_uuid, time_t before,
                                     std::vector<Dropped_Set>& dropped, std::string const& uuid) {
    std::vector<Dropped_Set> sets;
    bool const done = database_.change(
        "drop the sets that nobody writes any more",
        [&](SQLite::Database& database) {
            sets.clear();
            SQLite::Statement open(database, "SELECT id FROM backup_set"
                                             " WHERE open = 1 AND row ->> '$.host_uuid' = ?"
                                             " AND backup_start_time < ?"
                                             " AND (?3 = '' OR uuid = ?3) ORDER BY id");
            open.bind(1, host_uuid);
            open.bind(2, static_cast<int64_t>(before));
            open.bind(3, uuid);
            Set_Parts_Reader parts(database);
            std::vector<int64_t> ids;
            while (open.executeStep()) {
                ids.push_back(open.getColumn(0).getInt64());
                sets.push_back(read_dropped(database, ids.back(), parts.pieces(ids.back())));
            }
            for (int64_t const id : ids)
                erase_set(database, id);
            return true;
        },
        patience({-1, -1}));
    if (done)
        dropped = std::move(sets);
    return done;
}

Set_Removal
SQLite_Catalog::remove(std::string const& uuid, bool dependents,
                       std::function<bool(std::vector<Dropped_Set> const&)> const& prepare) {
    Set_Removal planned;
    if (!database_.read("look for what builds on a set", [&](SQLite::Database& database) {
            planned = plan_removal(database, uuid, dependents).removal;
            return true;
        }))
        return {};
    if (planned.kind != Set_Removal::REMOVED)
        return planned;
    if (!prepare(planned.dropped))
        return {};
    Set_Removal removal;
    bool const done = database_.change(
        "remove a backup set",
        [&](SQLite::Database& database) {
            Planned_Removal now = plan_removal(database, uuid, dependents);
            removal = std::move(now.removal);
            if (removal.kind != Set_Removal::REMOVED)
                return true;
            if (removal.needed_by != planned.needed_by)
                return refuse("remove", uuid, "what builds on it has changed meanwhile");
            for (int64_t const id : now.ids)
                erase_set(database, id);
            return true;
        },
        patience({-1, 0}));
    return done ? removal : Set_Removal();
}

bool SQLite_Catalog::find_dependents(std::string const& uuid, std::vector<std::string>& uuids) {
    return database_.read("look for what builds on a set", [&](SQLite::Database& database) {
        uuids = plan_removal(database, uuid, false).removal.needed_by;
        return true;
    });
}

bool SQLite_Catalog::find_facts(std::string const& uuid, std::optional<Set_Facts>& facts) {
    return read_facts("uuid = ?", uuid, facts);
}

bool SQLite_Catalog::find_newest_facts(std::string const& resource_uuid,
                                       std::optional<Set_Facts>& facts) {
    return read_facts("resource_uuid = ? ORDER BY backup_start_time DESC, id DESC LIMIT 1",
                      resource_uuid, facts);
}

bool SQLite_Catalog::read_facts(char const* where, std::string const& value,
                                std::optional<Set_Facts>& facts) {
    return database_.read("look for whose a set is", [&](SQLite::Database& database) {
        facts.reset();
        SQLite::Statement set(database,
                              std::string("SELECT id, open, coalesce(row ->> '$.host_uuid', ''), "
                                          "coalesce(resource_uuid, ''), coalesce(instance, '') "
                                          "FROM backup_set WHERE ") +
                                  where);
        set.bind(1, value);
        if (!set.executeStep())
            return true;
        facts = {set.getColumn(1).getInt() != 0,
                 set.getColumn(2).getString(),
                 set.getColumn(3).getString(),
                 set.getColumn(4).getString(),
                 {}};
        SQLite::Statement pools(
            database,
            "SELECT pool_uuid FROM backup_storage WHERE set_id = ? AND pool_uuid IS NOT NULL");
        pools.bind(1, set.getColumn(0).getInt64());
        while (pools.executeStep())
            facts->pool_uuids.push_back(pools.getColumn(0).getString());
        return true;
    });
}

bool SQLite_Catalog::find_uuids(std::string const& beginning, size_t limit,
                                std::vector<std::string>& uuids) {
    std::vector<std::string> found;
    bool const done = database_.read("look for a backup set", [&](SQLite::Database& database) {
        // from the text itself on, in the order of the index, until one does not begin with it
        SQLite::Statement statement(database,
                                    "SELECT uuid FROM backup_set WHERE uuid >= ? ORDER BY uuid");
        statement.bind(1, beginning);
        while (found.size() < limit && statement.executeStep()) {
            std::string uuid = statement.getColumn(0).getString();
            if (!uuid.starts_with(beginning))
                break;
            found.push_back(std::move(uuid));
        }
        return true;
    });
    if (done)
        uuids = std::move(found);
    return done;
}

bool SQLite_Catalog::names_object(std::string const& pool_uuid, std::string const& object,
                                  bool& named) {
    return database_.read("look for the set of an object", [&](SQLite::Database& database) {
        SQLite::Statement statement(
            database, "SELECT json_extract(s.row, '$.uri') FROM backup_piece AS p "
                      "JOIN backup_set AS s ON s.id = p.set_id AND s.open = 0 "
                      "WHERE p.path = ? AND EXISTS (SELECT 1 FROM backup_storage AS t "
                      "WHERE t.set_id = s.id AND t.pool_uuid = ?)");
        named = false;
        for (Piece_Place const& place : places_of_piece(object)) {
            statement.reset();
            statement.bind(1, place.path);
            statement.bind(2, pool_uuid);
            while (!named && statement.executeStep())
                named = place.folder.empty() ||
                        without_slashes(statement.getColumn(0).getString()) == place.folder;
            if (named)
                break;
        }
        return true;
    });
}

bool SQLite_Catalog::pool_usage(std::string const& pool_uuid, std::vector<Resource_Usage>& usage) {
    std::vector<Resource_Usage> found;
    bool const done = database_.read("sum up a pool", [&](SQLite::Database& database) {
        SQLite::Statement statement(
            database,
            "SELECT ifnull(s.resource_uuid, '') AS resource, total(t.size), count(DISTINCT s.id) "
            "FROM backup_storage AS t JOIN backup_set AS s ON s.id = t.set_id "
            "WHERE t.pool_uuid = ? GROUP BY resource ORDER BY resource");
        statement.bind(1, pool_uuid);
        while (statement.executeStep())
            found.push_back({statement.getColumn(0).getString(),
                             static_cast<uint64_t>(statement.getColumn(1).getDouble()),
                             static_cast<uint64_t>(statement.getColumn(2).getInt64())});
        return true;
    });
    if (done)
        usage = std::move(found);
    return done;
}
