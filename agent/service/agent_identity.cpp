#include "agent/service/agent_identity.h"

#include "agent/database/agent_database.h"
#include "qmrt/uuid.h"

char const IDENTITY_TABLES[] =
    "CREATE TABLE identity(key TEXT PRIMARY KEY, value TEXT NOT NULL) STRICT, WITHOUT ROWID;";

namespace {

std::string value_of(SQLite::Database& database, char const* key) {
    SQLite::Statement insert(
        database, "INSERT INTO identity(key, value) VALUES(?, ?) ON CONFLICT DO NOTHING");
    insert.bind(1, key);
    insert.bind(2, uuid_string());
    insert.exec();
    SQLite::Statement select(database, "SELECT value FROM identity WHERE key = ?");
    select.bind(1, key);
    select.executeStep();
    return select.getColumn(0).getString();
}

} // namespace

bool Agent_Identity::load(Agent_Database& database) {
    return database.change("find out who this agent is", [this](SQLite::Database& sql) {
        host_uuid = value_of(sql, "host_uuid");
        uid = value_of(sql, "uid");
        return true;
    });
}
