#include "agent/instances/sqlite_instances.h"

#include "host/agent/credential.h"
#include "host/agent/host_services.h"
#include "host/rpc/upstream_backend.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <string_view>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

char const INSTANCE_TABLES[] = R"(
CREATE TABLE instance(
    type TEXT NOT NULL,
    name TEXT NOT NULL,
    uuid TEXT NOT NULL,
    options TEXT NOT NULL,
    PRIMARY KEY(type, name)
) STRICT, WITHOUT ROWID;

CREATE TABLE account(
    type TEXT NOT NULL,
    name TEXT NOT NULL,
    uid TEXT NOT NULL,
    password TEXT,
    account TEXT NOT NULL,
    PRIMARY KEY(type, name, uid),
    FOREIGN KEY(type, name) REFERENCES instance(type, name) ON DELETE CASCADE
) STRICT, WITHOUT ROWID;
)";

namespace {

void bind_all(SQLite::Statement& statement, std::vector<std::string> const& values) {
    int index = 0;
    for (std::string const& value : values)
        statement.bind(++index, value);
}

Object object_in(SQLite::Column const& column) {
    Value value;
    std::string error;
    if (!json_spirit::parse(column.getString(), value, &error) ||
        value.type() != json_spirit::obj_type)
        throw json_spirit::Error("a record holds no JSON object " + error);
    return std::move(value.get_obj());
}

Object read_accounts(SQLite::Database& database, Instance const& instance) {
    SQLite::Statement statement(
        database, "SELECT uid, account FROM account WHERE type = ? AND name = ? ORDER BY uid");
    bind_all(statement, {instance.type, instance.name});
    Object accounts;
    while (statement.executeStep())
        accounts[statement.getColumn(0).getString()] = object_in(statement.getColumn(1));
    return accounts;
}

/** Takes the password out of an account. @return false when there is none */
bool take_password(Object& account, secure_string& password) {
    bool const found = json_spirit::object_get(account, "password", password);
    account.erase("password");
    return found;
}

} // namespace

bool SQLite_Instances::read(std::string const& condition, std::vector<std::string> const& values,
                            Instances& instances) {
    Instances found;
    bool const done = database_.read("read the instances", [&](SQLite::Database& database) {
        SQLite::Statement statement(database, "SELECT type, name, uuid, options FROM instance " +
                                                  condition + " ORDER BY type, name");
        bind_all(statement, values);
        while (statement.executeStep()) {
            auto instance = std::make_shared<Instance>();
            instance->type = statement.getColumn(0).getString();
            instance->name = statement.getColumn(1).getString();
            instance->uuid = statement.getColumn(2).getString();
            instance->options = object_in(statement.getColumn(3));
            instance->logon_options = read_accounts(database, *instance);
            found.push_back(std::move(instance));
        }
        return true;
    });
    if (done)
        instances = std::move(found);
    return done;
}

std::shared_ptr<Instance> SQLite_Instances::find(std::string const& type, std::string const& name) {
    Instances found;
    (void)read("WHERE type = ? AND name = ?", {type, name}, found);
    return found.empty() ? nullptr : found.front();
}

SQLite_Instances::Instances SQLite_Instances::list(std::string const& type) {
    Instances found;
    (void)read("WHERE type = ?", {type}, found);
    return found;
}

SQLite_Instances::Instances SQLite_Instances::list_all() {
    Instances found;
    (void)read("", {}, found);
    return found;
}

bool SQLite_Instances::put(Instance const& instance) {
    return database_.change("record an instance", [&](SQLite::Database& database) {
        SQLite::Statement statement(
            database, "INSERT INTO instance(type, name, uuid, options) VALUES(?, ?, ?, ?) "
                      "ON CONFLICT DO UPDATE SET uuid = excluded.uuid, options = excluded.options");
        bind_all(statement, {instance.type, instance.name, instance.uuid,
                             json_spirit::to_text(instance.options)});
        statement.exec();
        return true;
    });
}

bool SQLite_Instances::erase(std::string const& type, std::string const& name) {
    return database_.change("forget an instance", [&](SQLite::Database& database) {
        SQLite::Statement statement(database, "DELETE FROM instance WHERE type = ? AND name = ?");
        bind_all(statement, {type, name});
        if (statement.exec() == 1)
            return true;
        QMRT_LOG(LM_ERROR, "There is no %s instance %s to remove\n", type.c_str(), name.c_str());
        return false;
    });
}

bool SQLite_Instances::save_account(std::string const& type, std::string const& name,
                                    std::string const& uid, Object const& account) {
    Object kept = account;
    secure_string password;
    std::string encrypted;
    bool const has_password = take_password(kept, password);
    if (has_password) {
        encrypted = encrypt_string(std::string_view(password.data(), password.size()), key_.data(),
                                   key_.size());
        if (encrypted.empty())
            return false;
    }
    return database_.change("record an account", [&](SQLite::Database& database) {
        SQLite::Statement instance(database, "SELECT 1 FROM instance WHERE type = ? AND name = ?");
        bind_all(instance, {type, name});
        if (!instance.executeStep()) {
            QMRT_LOG(LM_ERROR, "There is no %s instance %s for an account\n", type.c_str(),
                     name.c_str());
            return false;
        }
        SQLite::Statement statement(
            database,
            "INSERT INTO account(type, name, uid, account, password) VALUES(?, ?, ?, ?, ?) "
            "ON CONFLICT DO UPDATE SET account = excluded.account, password = excluded.password");
        bind_all(statement, {type, name, uid, json_spirit::to_text(kept)});
        if (has_password)
            statement.bind(5, encrypted);
        statement.exec();
        return true;
    });
}

bool SQLite_Instances::get_account(std::string const& type, std::string const& name,
                                   std::string const& uid, Object& account) {
    Object found;
    std::string encrypted;
    bool has_password = false;
    bool const done = database_.read("read an account", [&](SQLite::Database& database) {
        SQLite::Statement statement(database, "SELECT account, password FROM account "
                                              "WHERE type = ? AND name = ? AND uid = ?");
        bind_all(statement, {type, name, uid});
        if (!statement.executeStep())
            return false;
        found = object_in(statement.getColumn(0));
        has_password = !statement.getColumn(1).isNull();
        encrypted = statement.getColumn(1).getString();
        return true;
    });
    if (!done)
        return false;
    secure_string password;
    if (has_password && !decrypt_secure_string(encrypted, key_.data(), key_.size(), password)) {
        QMRT_LOG(LM_ERROR,
                 "The password of user %s for the %s instance %s cannot be read with the agent's "
                 "key; enter it again\n",
                 uid.c_str(), type.c_str(), name.c_str());
        return false;
    }
    if (has_password)
        found["password"] = std::move(password);
    account = std::move(found);
    return true;
}

bool SQLite_Instances::tell_server(Change change, Instance const& instance) {
    if (!has_server_)
        return true;
    static char const* const names[] = {"added", "updated", "removed"};
    Object params = {{"type", instance.type},
                     {"name", instance.name},
                     {"uuid", instance.uuid},
                     {"change", names[change]}};
    if (change != REMOVED) {
        Array accounts;
        for (auto const& [uid, account] : instance.logon_options)
            if (account.type() == json_spirit::obj_type)
                accounts.emplace_back(
                    Object{{"user_uuid", uid},
                           {"name", json_spirit::object_get_str(account.get_obj(), "username")}});
        json_spirit::insert(params)("options", instance.options)("accounts", std::move(accounts));
    }
    auto const upstream = Host_Services::instance().upstream();
    std::string error = "it has not been set up";
    if (upstream && upstream->notify("backupd.instance.notify", params, error))
        return true;
    QMRT_LOG(LM_ERROR, "The backup server cannot be told of the %s instance %s: %s\n",
             instance.type.c_str(), instance.name.c_str(), error.c_str());
    return false;
}
