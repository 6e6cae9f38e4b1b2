#ifndef AGENT_SERVICE_GROUP_MEMBERS_H
#define AGENT_SERVICE_GROUP_MEMBERS_H

#include "agent/rpc/access_key.h"
#include "agent/rpc/rpc_caller.h"
#include "json_spirit/secure_string.h"

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

class Agent_Database;

/** The table behind Group_Members. */
extern char const MEMBER_TABLES[];

/** An agent that may join the group. */
struct Member_Record {
    std::string name;
    std::string host_uuid; ///< the only host that it may be; "" until it joins for the first time
    bool all_pools = false;
    std::set<std::string> pools; ///< uuids of those that it may use, unless all

    [[nodiscard]] bool may_use(std::string const& pool_uuid) const {
        return all_pools || pools.contains(pool_uuid);
    }
};

/**
 * The members of the group and the hashes of their keys, in the backup server's database. For any
 * thread. What has to read the database is done by load(), add(), bind() and remove(); false from
 * these has been logged, unless @a why says it.
 */
class Group_Members {
public:
    explicit Group_Members(Agent_Database& database) : database_(database) {}

    /** Reads what is on record. Once, before anything else. */
    [[nodiscard]] bool load();

    /**
     * Adds a member and makes its key, which is kept nowhere.
     * @param why  when false
     */
    [[nodiscard]] bool add(Member_Record const& member, secure_string& key, std::string& why);
    /** @return false with why: the member does not exist, or the database failed */
    [[nodiscard]] bool remove(std::string const& name, std::string& why);
    /** Takes @a host_uuid for the only host of a member that has none. @return false with why */
    [[nodiscard]] bool bind(std::string const& name, std::string const& host_uuid,
                            std::string& why);

    std::optional<Member_Record> find(std::string const& name) const;
    std::vector<Member_Record> list() const;
    /** The member that has a key; a caller of kind NOBODY for none. Does not block. */
    Rpc_Caller caller(Key_Digest const& key) const;

private:
    struct Entry {
        Key_Digest digest;
        Member_Record member;
    };
    [[nodiscard]] bool write(Entry const& entry);

    Agent_Database& database_;
    std::mutex changing_; ///< held during a whole change; taken before the other
    mutable std::mutex mutex_;
    std::map<std::string, Entry> members_; ///< by name
};

#endif
