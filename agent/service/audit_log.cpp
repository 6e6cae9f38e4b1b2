#include "agent/service/audit_log.h"

#include "agent/database/agent_database.h"
#include "agent/jobs/member_reader.h"
#include "agent/service/agent_methods.h"
#include "agent/service/method_access.h"
#include "host/process/password_file_entry.h"
#include "qmrt/log.h"
#include "qmrt/names.h"

// The number ascends, so that entries of one second keep their order.
char const AUDIT_TABLES[] = R"sql(
CREATE TABLE audit(
    number INTEGER PRIMARY KEY AUTOINCREMENT,
    time INTEGER NOT NULL,    -- seconds since the epoch
    user TEXT NOT NULL,
    uid TEXT NOT NULL,
    login TEXT NOT NULL,
    address TEXT NOT NULL,
    method TEXT NOT NULL,
    subject TEXT NOT NULL,
    code INTEGER NOT NULL,    -- 0, or the code of the answer's error
    message TEXT NOT NULL
) STRICT;
)sql";

namespace {

/** "" for a user without a name. */
std::string user_name(uid_t uid) {
    Password_File_Entry entry;
    return entry.get_by_uid(uid) == 0 ? entry.name() : "";
}

std::string name_or_number(uid_t uid) {
    std::string name = user_name(uid);
    return name.empty() ? std::to_string(uid) : name;
}

Audit_Entry entry_of(Method_Call const& call, std::string const& subject, int code,
                     std::string const& message) {
    Audit_Entry entry;
    entry.time = time(nullptr);
    if (call.caller.uid) {
        entry.user = user_name(*call.caller.uid);
        entry.uid = std::to_string(*call.caller.uid);
    }
    if (call.caller.login)
        entry.login = name_or_number(*call.caller.login);
    entry.address = call.caller.address;
    entry.method = call.method;
    entry.subject = names::shown(subject);
    entry.code = code;
    entry.message = names::shown(message);
    return entry;
}

Audit_Entry entry_of(SQLite::Statement& row) {
    Audit_Entry entry;
    entry.time = row.getColumn(0).getInt64();
    int column = 1;
    for (std::string* text : {&entry.user, &entry.uid, &entry.login, &entry.address, &entry.method,
                              &entry.subject, &entry.message})
        *text = row.getColumn(column++).getString();
    entry.code = row.getColumn(column).getInt();
    return entry;
}

} // namespace

json_spirit::Object Audit_Entry::dump() const {
    return {{"time", int64_t{time}}, {"user", user},       {"uid", uid},
            {"login", login},        {"address", address}, {"method", method},
            {"subject", subject},    {"code", code},       {"outcome", code ? message : "done"}};
}

void Audit_Log::record(Method_Call const& call, int code, std::string const& message) {
    Rpc_Caller const& caller = call.caller;
    if (!caller.is(Rpc_Caller::LOCAL | Rpc_Caller::ADMIN) ||
        (caller.is(Rpc_Caller::LOCAL) && !caller.uid))
        return;
    std::optional<std::string> const subject = Method_Access::subject_of_change(call);
    if (!subject)
        return;
    Audit_Entry const entry = entry_of(call, *subject, code, message);
    QMRT_LOG(LM_INFO, "Audit: %s %s by %s%s%s, %s\n", entry.method.c_str(), entry.subject.c_str(),
             entry.uid.empty() ? entry.address.c_str() : ("uid " + entry.uid).c_str(),
             entry.login.empty() ? "" : " after a login as ", entry.login.c_str(),
             code == 0 ? "done" : entry.message.c_str());
    (void)store(entry); // a failure has been logged, and the change is made
}

bool Audit_Log::store(Audit_Entry const& entry) {
    return database_.change("record a change", [&](SQLite::Database& database) {
        SQLite::Statement insert(database,
                                 "INSERT INTO audit(time, user, uid, login, address, method, "
                                 "subject, message, code) VALUES(?, ?, ?, ?, ?, ?, ?, ?, ?)");
        insert.bind(1, int64_t{entry.time});
        int index = 2;
        for (std::string const* text : {&entry.user, &entry.uid, &entry.login, &entry.address,
                                        &entry.method, &entry.subject, &entry.message})
            insert.bind(index++, *text);
        insert.bind(index, entry.code);
        insert.exec();
        SQLite::Statement drop(database, "DELETE FROM audit WHERE number <= ?");
        drop.bind(1, database.getLastInsertRowid() - static_cast<int64_t>(Audit_Query::MOST));
        drop.exec();
        return true;
    });
}

bool Audit_Log::list(Audit_Query const& query, std::vector<Audit_Entry>& entries) {
    std::vector<Audit_Entry> found;
    bool const done = database_.read("list the changes", [&](SQLite::Database& database) {
        found.clear();
        SQLite::Statement select(
            database, "SELECT time, user, uid, login, address, method, subject, message, code "
                      "FROM audit WHERE (?1 = '' OR user = ?1 OR uid = ?1 OR login = ?1) AND "
                      "(?2 = '' OR subject = ?2) AND time >= ?3 ORDER BY number DESC LIMIT ?4");
        select.bind(1, query.user);
        select.bind(2, query.subject);
        select.bind(3, int64_t{query.since});
        select.bind(4, static_cast<int64_t>(query.limit));
        while (select.executeStep())
            found.push_back(entry_of(select));
        return true;
    });
    if (done)
        entries = std::move(found);
    return done;
}

void add_audit_methods(Method_Table& methods, std::shared_ptr<Audit_Log> const& audit) {
    methods.add("audit.list",
                [audit](Method_Call const& call, json_spirit::Value& result, Method_Fault& fault) {
                    std::string error;
                    Audit_Query query;
                    int64_t since = 0;
                    int64_t limit = static_cast<int64_t>(query.limit);
                    Member_Reader reader(call.params.get_obj(), "", error);
                    reader.text("user", query.user);
                    reader.text("subject", query.subject);
                    reader.number("since", 0, INT64_MAX, since);
                    reader.number("limit", 1, static_cast<int64_t>(Audit_Query::MOST), limit);
                    if (!reader.finish())
                        return invalid_params(error, fault);
                    query.since = since;
                    query.limit = static_cast<size_t>(limit);
                    std::vector<Audit_Entry> entries;
                    if (!audit->list(query, entries))
                        return false;
                    json_spirit::Array list;
                    for (Audit_Entry const& entry : entries)
                        list.push_back(entry.dump());
                    result = json_spirit::Object{{"changes", std::move(list)}};
                    return true;
                });
}
