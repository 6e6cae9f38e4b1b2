#include "agent/catalog/kept_set.h"

#include "agent/catalog/catalog_query.h"
#include "agent/catalog/catalog_tables.h"

#include "host/catalog/backup_set.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <SQLiteCpp/Statement.h>

#include <limits>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

/** "a, b, c" of what each column gives. */
template <typename Text_of>
std::string column_list(Text_of text_of) {
    std::string list;
    for (char const* const column : CATALOG_COLUMNS)
        list += (list.empty() ? "" : ", ") + text_of(std::string(column));
    return list;
}

std::string const INSERT =
    "INSERT INTO backup_set(" + column_list([](std::string const& column) { return column; }) +
    ", row, uuid, kind, open) VALUES(" +
    column_list([](std::string const&) { return std::string("?"); }) + ", ?, ?, ?, ?)";
std::string const UPDATE = "UPDATE backup_set SET " +
                           column_list([](std::string const& column) { return column + " = ?"; }) +
                           ", row = ?, uuid = ?, kind = ?, open = ? WHERE id = ?";

/** Takes an array out of a row; what is no array counts as an empty one. */
Array take_array(Object& row, char const* key) {
    Array array;
    auto const found = row.find(key);
    if (found == row.end())
        return array;
    if (found->second.type() == json_spirit::array_type)
        array = std::move(found->second.get_array());
    row.erase(found);
    return array;
}

/** The size as a column has it: for sums, and never below zero. */
int64_t size_column(Value const& storage) {
    uint64_t size = 0;
    if (storage.type() == json_spirit::obj_type)
        json_spirit::object_get(storage.get_obj(), "size", size);
    return static_cast<int64_t>(std::min<uint64_t>(size, std::numeric_limits<int64_t>::max()));
}

Value parsed(std::string const& text) {
    Value value;
    std::string error;
    if (!json_spirit::parse(text, value, &error))
        throw json_spirit::Error("the catalog holds what is no JSON: " + error);
    return value;
}

int bind_set(SQLite::Statement& statement, std::vector<Column_Value> const& columns) {
    int index = 0;
    for (Column_Value const& column : columns)
        bind(statement, ++index, column);
    return index;
}

} // namespace

bool Kept_Set::are_pieces(Array const& pieces) {
    for (Value const& piece : pieces)
        if (piece.type() != json_spirit::obj_type ||
            json_spirit::object_get_str(piece.get_obj(), "path").empty())
            return false;
    return true;
}

std::optional<Kept_Set> Kept_Set::make(Backup_Set const& set, std::string& error) {
    Kept_Set kept;
    kept.uuid_ = set.uuid;
    kept.kind_ = set.kind();
    if (set.uuid.empty()) {
        error = "it has no uuid";
        return std::nullopt;
    }
    try {
        Object row = set.dump();
        kept.storages_ = take_array(row, "storages");
        kept.pieces_ = take_array(row, "pieces");
        kept.row_ = json_spirit::to_text(row);
        // the columns of what is kept: a byte that is no text is replaced in both
        Object const read_back = as_kept(row);
        for (char const* const column : CATALOG_COLUMNS)
            kept.columns_.push_back(column_value(json_spirit::object_get_any(read_back, column)));
        json_spirit::to_text(kept.storages_);
        json_spirit::to_text(kept.pieces_);
    } catch (json_spirit::Error const& fault) {
        error = fault.what();
        return std::nullopt;
    }
    if (!are_pieces(kept.pieces_)) {
        error = "it has a piece without a path";
        return std::nullopt;
    }
    return kept;
}

void Kept_Set::insert(SQLite::Database& database, bool open) const {
    SQLite::Statement statement(database, INSERT);
    int index = bind_set(statement, columns_);
    statement.bind(++index, row_);
    statement.bind(++index, uuid_);
    statement.bind(++index, kind_);
    statement.bind(++index, open ? 1 : 0);
    statement.exec();
    int64_t const id = database.getLastInsertRowid();
    write_storages(database, id);
    put_pieces(database, id, pieces_, false);
}

void Kept_Set::replace(SQLite::Database& database, int64_t id, bool keep_pieces) const {
    SQLite::Statement statement(database, UPDATE);
    int index = bind_set(statement, columns_);
    statement.bind(++index, row_);
    statement.bind(++index, uuid_);
    statement.bind(++index, kind_);
    statement.bind(++index, 0);
    statement.bind(++index, id);
    statement.exec();
    for (char const* const table : {"backup_storage", "backup_piece"}) {
        if (keep_pieces && table == std::string("backup_piece"))
            continue;
        SQLite::Statement remove(database,
                                 std::string("DELETE FROM ") + table + " WHERE set_id = ?");
        remove.bind(1, id);
        remove.exec();
    }
    write_storages(database, id);
    put_pieces(database, id, pieces_, keep_pieces);
}

void Kept_Set::write_storages(SQLite::Database& database, int64_t id) const {
    SQLite::Statement statement(
        database,
        "INSERT INTO backup_storage(set_id, position, pool_uuid, size, row) VALUES(?, ?, ?, ?, ?)");
    int position = 0;
    for (Value const& storage : storages_) {
        statement.reset();
        statement.bind(1, id);
        statement.bind(2, ++position);
        statement.bind(3);
        if (storage.type() == json_spirit::obj_type)
            if (Value const& pool = json_spirit::object_get_any(storage.get_obj(), "pool_uuid");
                pool.type() == json_spirit::str_type)
                statement.bind(3, pool.get_str());
        statement.bind(4, size_column(storage));
        statement.bind(5, json_spirit::to_text(storage));
        statement.exec();
    }
}

void Kept_Set::put_pieces(SQLite::Database& database, int64_t id, Array const& pieces,
                          bool keep_known) {
    std::string const insert = "INSERT INTO backup_piece(set_id, path, row) VALUES(?, ?, ?) ";
    SQLite::Statement put(database,
                          insert + "ON CONFLICT(set_id, path) DO UPDATE SET row = excluded.row");
    SQLite::Statement put_new(database, insert + "ON CONFLICT(set_id, path) DO NOTHING");
    for (Object piece : json_spirit::objects_of(pieces)) {
        std::string const path = json_spirit::object_get_str(piece, "path");
        piece.erase("path");
        bool const yields = keep_known && !has_content(json_spirit::object_get_any(piece, "size"));
        SQLite::Statement& statement = yields ? put_new : put;
        statement.reset();
        statement.bind(1, id);
        statement.bind(2, path);
        statement.bind(3, json_spirit::to_text(piece));
        statement.exec();
    }
}

void Kept_Set::grow_storage(SQLite::Database& database, int64_t id, uint64_t bytes) {
    SQLite::Statement first(database, "SELECT position, row FROM backup_storage WHERE set_id = ? "
                                      "ORDER BY position LIMIT 1");
    first.bind(1, id);
    if (bytes == 0 || !first.executeStep())
        return;
    Value storage = parsed(first.getColumn(1).getString());
    if (storage.type() != json_spirit::obj_type)
        return;
    uint64_t size = 0;
    json_spirit::object_get(storage.get_obj(), "size", size);
    storage.get_obj()["size"] = size + bytes;
    SQLite::Statement update(
        database, "UPDATE backup_storage SET size = ?, row = ? WHERE set_id = ? AND position = ?");
    update.bind(1, size_column(storage));
    update.bind(2, json_spirit::to_text(storage));
    update.bind(3, id);
    update.bind(4, first.getColumn(0).getInt());
    update.exec();
}

Set_Parts_Reader::Set_Parts_Reader(SQLite::Database& database)
    : pieces_(database, "SELECT path, row FROM backup_piece WHERE set_id = ? ORDER BY id"),
      storages_(database, "SELECT row FROM backup_storage WHERE set_id = ? ORDER BY position") {}

Array Set_Parts_Reader::pieces(int64_t id) {
    pieces_.reset();
    pieces_.bind(1, id);
    Array pieces;
    while (pieces_.executeStep()) {
        Value piece = parsed(pieces_.getColumn(1).getString());
        piece.get_obj()["path"] = pieces_.getColumn(0).getString();
        pieces.push_back(std::move(piece));
    }
    return pieces;
}

Array Set_Parts_Reader::storages(int64_t id) {
    storages_.reset();
    storages_.bind(1, id);
    Array storages;
    while (storages_.executeStep())
        storages.push_back(parsed(storages_.getColumn(0).getString()));
    return storages;
}
