#include "agent/service/group_members.h"

#include "agent/database/agent_database.h"
#include "agent/rpc/run_keys.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"

using json_spirit::Array;
using json_spirit::Value;

char const MEMBER_TABLES[] =
    "CREATE TABLE group_member("
    "    name TEXT PRIMARY KEY, key_hash TEXT NOT NULL UNIQUE, host_uuid TEXT NOT NULL,"
    "    all_pools INTEGER NOT NULL, pools TEXT NOT NULL) STRICT, WITHOUT ROWID;";

namespace {

constexpr char DATABASE_FAILED[] =
    "the record of members could not be changed; the agent's log says why";

} // namespace

bool Group_Members::load() {
    std::map<std::string, Entry> members;
    bool const done = database_.read("list the members", [&](SQLite::Database& database) {
        members.clear();
        SQLite::Statement rows(
            database, "SELECT name, key_hash, host_uuid, all_pools, pools FROM group_member");
        while (rows.executeStep()) {
            Entry entry{{},
                        {rows.getColumn(0).getString(),
                         rows.getColumn(2).getString(),
                         rows.getColumn(3).getInt() != 0,
                         {}}};
            Value pools;
            if (!read_key_digest(rows.getColumn(1).getString(), entry.digest) ||
                !json_spirit::parse(rows.getColumn(4).getString(), pools, nullptr) ||
                pools.type() != json_spirit::array_type)
                continue; // such a row opens nothing
            for (std::string const& pool : json_spirit::strings_of(pools.get_array()))
                entry.member.pools.insert(pool);
            members.emplace(entry.member.name, std::move(entry));
        }
        return true;
    });
    std::lock_guard const guard(mutex_);
    members_ = std::move(members);
    return done;
}

bool Group_Members::write(Entry const& entry) {
    return database_.change("write a member", [&](SQLite::Database& database) {
        Member_Record const& member = entry.member;
        SQLite::Statement put(database,
                              "INSERT OR REPLACE INTO group_member VALUES(?, ?, ?, ?, ?)");
        put.bind(1, member.name);
        put.bind(2, key_digest_text(entry.digest));
        put.bind(3, member.host_uuid);
        put.bind(4, member.all_pools ? 1 : 0);
        put.bind(5, json_spirit::to_text(Array(member.pools.begin(), member.pools.end())));
        put.exec();
        return true;
    });
}

bool Group_Members::add(Member_Record const& member, secure_string& key, std::string& why) {
    std::lock_guard const changing(changing_);
    secure_string const made = Run_Keys::make();
    if (find(member.name))
        why = "there is a member \"" + member.name +
              "\" already; remove it first, or choose another name";
    else if (made.empty())
        why = "cannot read random bytes for a key";
    else if (Entry const entry{key_digest(std::string_view(made.data(), made.size())), member};
             !write(entry))
        why = DATABASE_FAILED;
    else {
        std::lock_guard const guard(mutex_);
        members_[member.name] = entry;
        key = made;
        return true;
    }
    return false;
}

bool Group_Members::remove(std::string const& name, std::string& why) {
    std::lock_guard const changing(changing_);
    if (!find(name)) {
        why = "member \"" + name + "\" does not exist";
        return false;
    }
    bool const done = database_.change("remove a member", [&](SQLite::Database& database) {
        SQLite::Statement erase(database, "DELETE FROM group_member WHERE name = ?");
        erase.bind(1, name);
        erase.exec();
        return true;
    });
    if (!done) {
        why = DATABASE_FAILED;
        return false;
    }
    std::lock_guard const guard(mutex_);
    members_.erase(name);
    return true;
}

bool Group_Members::bind(std::string const& name, std::string const& host_uuid, std::string& why) {
    std::lock_guard const changing(changing_);
    Entry entry;
    {
        std::lock_guard const guard(mutex_);
        auto const found = members_.find(name);
        if (found != members_.end())
            entry = found->second;
        for (auto const& [other, one] : members_)
            if (other != name && one.member.host_uuid == host_uuid)
                why = "host " + host_uuid + " is that of another member, \"" + other + "\"";
    }
    if (entry.member.name.empty())
        why = "the member has been removed";
    else if (why.empty() && entry.member.host_uuid == host_uuid)
        return true;
    else if (why.empty() && !entry.member.host_uuid.empty())
        why = "its key is for host " + entry.member.host_uuid +
              "; remove the member and add it again if its agent was installed anew";
    if (!why.empty())
        return false;
    entry.member.host_uuid = host_uuid;
    if (!write(entry)) {
        why = DATABASE_FAILED;
        return false;
    }
    std::lock_guard const guard(mutex_);
    members_[name] = entry;
    return true;
}

std::optional<Member_Record> Group_Members::find(std::string const& name) const {
    std::lock_guard const guard(mutex_);
    auto const found = members_.find(name);
    if (found == members_.end())
        return std::nullopt;
    return found->second.member;
}

std::vector<Member_Record> Group_Members::list() const {
    std::lock_guard const guard(mutex_);
    std::vector<Member_Record> result;
    for (auto const& [name, entry] : members_)
        result.push_back(entry.member);
    return result;
}

Rpc_Caller Group_Members::caller(Key_Digest const& key) const {
    std::lock_guard const guard(mutex_);
    for (auto const& [name, entry] : members_)
        if (entry.digest == key)
            return {Rpc_Caller::MEMBER, name, entry.member.host_uuid, nullptr};
    return {};
}
