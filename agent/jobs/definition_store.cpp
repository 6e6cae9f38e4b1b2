#include "agent/jobs/definition_store.h"

#include "agent/database/agent_database.h"
#include "agent/jobs/definition_json.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/uuid.h"

#include <optional>

using json_spirit::Object;

namespace {

constexpr char SELECT_DEFINITION[] =
    "SELECT id, name, instance, enabled, body, planned FROM job_definitions ";

Stored_Definition definition_of(SQLite::Statement& statement) {
    Stored_Definition row;
    row.id = statement.getColumn(0).getString();
    row.name = statement.getColumn(1).getString();
    row.instance = statement.getColumn(2).getString();
    row.enabled = statement.getColumn(3).getInt() != 0;
    json_spirit::Value body;
    std::string const text = statement.getColumn(4).getString();
    std::string error;
    if (!json_spirit::parse(text, body, &error))
        throw json_spirit::Error("definition " + row.id + " is damaged: " + error);
    row.body = body.get_obj();
    row.planned = statement.getColumn(5).getInt64();
    return row;
}

std::optional<Stored_Definition> find_row(SQLite::Database& database, char const* column,
                                          std::string const& key) {
    SQLite::Statement select(database, std::string(SELECT_DEFINITION) + "WHERE " + column + " = ?");
    select.bind(1, key);
    if (!select.executeStep())
        return std::nullopt;
    return definition_of(select);
}

/** Whether an earlier definition's times are those of a later one. */
bool same_times(Stored_Definition const& old, Object const& body, bool enabled) {
    return old.enabled == enabled && json_spirit::object_get_any(old.body, "schedule") ==
                                         json_spirit::object_get_any(body, "schedule");
}

} // namespace

Job_Answer Definition_Store::save(Object const& body, time_t now) {
    std::string const id = json_spirit::object_get_str(body, "id");
    std::string const name = json_spirit::object_get_str(body, "name");
    bool enabled = true;
    json_spirit::object_get(body, "enabled", enabled);
    bool taken = false;
    bool const done = database_.change("save a definition", [&](SQLite::Database& database) {
        SQLite::Statement other(database,
                                "SELECT 1 FROM job_definitions WHERE name = ? AND id <> ?");
        other.bind(1, name);
        other.bind(2, id);
        taken = other.executeStep();
        if (taken)
            return false;
        std::optional<Stored_Definition> const old = find_row(database, "id", id);
        SQLite::Statement insert(
            database, "INSERT INTO job_definitions(id, name, enabled, instance, body, planned) "
                      "VALUES(?, ?, ?, ?, ?, ?) ON CONFLICT(id) DO UPDATE SET name=excluded.name, "
                      "enabled=excluded.enabled, instance=excluded.instance, body=excluded.body, "
                      "planned=excluded.planned");
        insert.bind(1, id);
        insert.bind(2, name);
        insert.bind(3, enabled ? 1 : 0);
        insert.bind(4, instance_of_definition(body));
        insert.bind(5, json_spirit::to_text(body));
        insert.bind(
            6, static_cast<int64_t>(old && same_times(*old, body, enabled) ? old->planned : now));
        return insert.exec() == 1;
    });
    if (taken)
        return Job_Answer::refused("there is another definition called \"" + name +
                                   "\"; choose another name, or save under its id");
    return done ? Job_Answer() : Job_Answer::failed();
}

Job_Answer Definition_Store::find(std::string const& id_or_name, Stored_Definition& result) {
    std::optional<Stored_Definition> row;
    uuid_binary id;
    bool const is_id = uuid_string_to_binary(id_or_name, id);
    bool const done = database_.read("find a definition", [&](SQLite::Database& database) {
        if (is_id) // in capitals it is the same
            row = find_row(database, "id", uuid_binary_to_string(id));
        if (!row)
            row = find_row(database, "name", id_or_name);
        return true;
    });
    if (!done)
        return Job_Answer::failed();
    if (!row)
        return Job_Answer::not_found("definition \"" + id_or_name + "\"");
    result = std::move(*row);
    return {};
}

Job_Answer Definition_Store::list(std::vector<Stored_Definition>& result) {
    std::vector<Stored_Definition> rows;
    bool const done = database_.read("list the definitions", [&](SQLite::Database& database) {
        SQLite::Statement select(database, std::string(SELECT_DEFINITION) + "ORDER BY name");
        while (select.executeStep())
            rows.push_back(definition_of(select));
        return true;
    });
    if (!done)
        return Job_Answer::failed();
    result = std::move(rows);
    return {};
}

Job_Answer Definition_Store::remove(std::string const& id) {
    int rows = 0;
    bool const done = database_.change("remove a definition", [&](SQLite::Database& database) {
        SQLite::Statement erase(database, "DELETE FROM job_definitions WHERE id = ?");
        erase.bind(1, id);
        rows = erase.exec();
        return true;
    });
    if (!done)
        return Job_Answer::failed();
    return rows ? Job_Answer() : Job_Answer::not_found("definition \"" + id + "\"");
}

Job_Answer Definition_Store::set_planned(std::string const& id, time_t planned) {
    bool const done = database_.change("plan a run", [&](SQLite::Database& database) {
        SQLite::Statement update(database, "UPDATE job_definitions SET planned = ? WHERE id = ?");
        update.bind(1, static_cast<int64_t>(planned));
        update.bind(2, id);
        update.exec();
        return true;
    });
    return done ? Job_Answer() : Job_Answer::failed();
}
