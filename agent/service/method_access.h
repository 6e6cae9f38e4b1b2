#ifndef AGENT_SERVICE_METHOD_ACCESS_H
#define AGENT_SERVICE_METHOD_ACCESS_H

#include "agent/jobs/run_holds.h"
#include "agent/rpc/group_server.h"
#include "agent/rpc/method_table.h"
#include "agent/rpc/run_keys.h"

#include <mutex>
#include <optional>
#include <set>
#include <string>

class Group_Instances;
class Group_Members;
class SQLite_Catalog;
struct Member_Record;
struct Set_Facts;

/**
 * Who may call which method: the one table of it is in method_access.cpp. What has no row there is
 * refused to everybody.
 *
 * - Administrators, at the socket or with the administrator's key, may call every method for
 * people.
 * - Readers, at the socket, may look at instances, backups, jobs and pools.
 * - A member of the group may do its own host's business: write the sets that its own host writes,
 *   of resources that it has, into pools that it was given; and read what lies in those pools.
 * - A run's key opens the three calls that the data path needs, for that run's set and for the sets
 *   of its cluster.
 * - The backup server may deliver calls of another host's run, and nothing else.
 *
 * A refusal is logged: once for each caller and method. For any thread.
 */
class Method_Access : public Group_Rules {
public:
    /** All must outlive this object. */
    Method_Access(SQLite_Catalog& catalog, Group_Members& members, Group_Instances& instances,
                  Run_Keys& keys, Run_Holds& holds)
        : catalog_(catalog), members_(members), instances_(instances), keys_(keys), holds_(holds) {}

    /** A Method_Gate. */
    [[nodiscard]] bool allows(Method_Call const& call, Method_Fault& fault);
    /** Whether the table says anything of a method. */
    [[nodiscard]] static bool has_row(std::string const& method);
    /** What a call by a person would change; none for a method that changes nothing. */
    [[nodiscard]] static std::optional<std::string> subject_of_change(Method_Call const& call);
    /** Whether a caller may see what lies in a pool. Only members are limited. */
    [[nodiscard]] bool may_use_pool(Rpc_Caller const& caller, std::string const& pool_uuid) const;
    /** Who has a key that is not the administrator's. Does not block. */
    Rpc_Caller caller(Key_Digest const& key) const;

    [[nodiscard]] bool admit(Rpc_Caller const& member, std::string const& host_uuid,
                             std::string& why) override;
    void joined(std::string const& host_uuid, json_spirit::Array const& runs) override;
    void left(std::string const& host_uuid) override;
    std::shared_ptr<Run_Scope const> run_of(Forward const& forward, std::string& why) override;

private:
    struct Table;

    /** A call by a member or a run, with what the checks ask of it. */
    struct Question {
        Method_Call const& call;
        json_spirit::Object const& params;
        std::string const& host; ///< the caller's
        std::string& why;        ///< gets the reason of a refusal
    };
    [[nodiscard]] static bool for_reader(Method_Call const& call, std::string& why);
    [[nodiscard]] bool for_member(Question const& question);
    [[nodiscard]] bool for_run(Question const& question);

    // checks of members' calls
    [[nodiscard]] bool any(Question const& question);
    [[nodiscard]] bool of_own_host(Question const& question);
    [[nodiscard]] bool of_own_set(Question const& question);
    [[nodiscard]] bool of_own_record(Question const& question);
    [[nodiscard]] bool of_own_resource(Question const& question);
    [[nodiscard]] bool of_own_instance(Question const& question);
    [[nodiscard]] bool own_pieces(Question const& question);
    [[nodiscard]] bool a_view(Question const& question);
    [[nodiscard]] bool resources_of_run(Question const& question);
    // checks of runs' calls
    [[nodiscard]] bool of_runs_pool(Question const& question);
    [[nodiscard]] bool pieces_of_run(Question const& question);
    [[nodiscard]] bool whether_set_is_there(Question const& question);

    [[nodiscard]] bool writes_resource(Question const& question, std::string const& resource);
    [[nodiscard]] bool has_own_pieces(Question const& question, json_spirit::Object const& holder,
                                      std::string const& resource);
    [[nodiscard]] bool run_may_use_pool(Run_Scope const& run, std::string const& pool_uuid);
    [[nodiscard]] bool may_reserve(Run_Scope const& run, json_spirit::Array const& resources,
                                   std::string& why);
    void restore_holds(Run_Scope const& run, json_spirit::Object const& told);
    [[nodiscard]] bool is_news(std::string const& who, std::string const& method);

    SQLite_Catalog& catalog_;
    Group_Members& members_;
    Group_Instances& instances_;
    Run_Keys& keys_;
    Run_Holds& holds_;
    std::mutex mutex_;
    std::set<std::string> told_; ///< refusals that have been logged
};

#endif
