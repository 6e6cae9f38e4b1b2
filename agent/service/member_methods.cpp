#include "agent/jobs/member_reader.h"
#include "agent/rpc/group_server.h"
#include "agent/rpc/run_keys.h"
#include "agent/service/agent_methods.h"
#include "agent/service/group_members.h"
#include "agent/service/run_access.h"
#include "agent/storage/sqlite_pools.h"
#include "host/job/run_hold.h"
#include "json_spirit/access.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

/** The pools that a member is given, each by name or uuid. */
bool read_pools(SQLite_Pools& pools, Array const& given, Member_Record& member,
                Method_Fault& fault) {
    for (Value const& name : given) {
        if (name.type() != json_spirit::str_type)
            return invalid_params("pools: wanted names or uuids", fault);
        if (std::string const bad = names::fault_of_label(name.get_str()); !bad.empty())
            return invalid_params("pools[]: " + bad, fault);
        Pool_Record record;
        if (!answer(pools.find_record(name.get_str(), record), fault))
            return false;
        member.pools.insert(record.uuid);
    }
    return true;
}

bool add(Group_Members& members, SQLite_Pools& pools, Method_Call const& call, Value& result,
         Method_Fault& fault) {
    std::string error, why;
    Member_Record member;
    Object rest = call.params.get_obj();
    Array names;
    if (auto const given = rest.find("pools"); given != rest.end()) {
        if (given->second.type() != json_spirit::array_type)
            return invalid_params("pools: wanted an array", fault);
        names = given->second.get_array();
        rest.erase(given);
    }
    Member_Reader reader(rest, "", error);
    reader.required_text("name", member.name, names::fault_of_label);
    reader.text("host", member.host_uuid, names::fault_of_id);
    reader.flag("all_pools", member.all_pools);
    if (error.empty() && member.all_pools != names.empty())
        reader.blame("pools", "wanted this or \"all_pools\"");
    if (!reader.finish())
        return invalid_params(error, fault);
    secure_string key;
    if (!read_pools(pools, names, member, fault))
        return false;
    if (!members.add(member, key, why))
        return refused(why, fault);
    result = Object{{"key", key}};
    return true;
}

Object describe(Member_Record const& member, std::vector<Group_Member> const& joined) {
    Object object{{"name", member.name},
                  {"host_uuid", member.host_uuid},
                  {"all_pools", member.all_pools},
                  {"pools", Array(member.pools.begin(), member.pools.end())},
                  {"connected", false},
                  {"last_seen", 0}};
    for (Group_Member const& one : joined)
        if (!member.host_uuid.empty() && one.host_uuid == member.host_uuid)
            json_spirit::insert(object)("host", one.name)("version", one.version)(
                "connected", one.connected)("last_seen", one.last_seen);
    return object;
}

/** The params of run.hold and run.release. */
struct Run_Wish {
    std::string run_id;
    std::string name;
    std::set<std::string> resources;

    bool read(Method_Call const& call, Method_Fault& fault);
};

bool Run_Wish::read(Method_Call const& call, Method_Fault& fault) {
    constexpr size_t MOST = 4096;
    std::string error;
    Object rest = call.params.get_obj();
    Array given;
    bool const has_resources = json_spirit::object_get(rest, "resources", given);
    rest.erase("resources");
    Member_Reader reader(rest, "", error);
    reader.required_text("run_id", run_id, names::fault_of_id);
    reader.text("name", name, names::fault_of_title);
    if (!has_resources || given.empty() || given.size() > MOST)
        reader.blame("resources", "wanted an array of resources");
    for (Value const& one : given) {
        Run_Hold::Resource resource;
        if (one.type() == json_spirit::str_type && Run_Hold::parse(one.get_str(), resource))
            resources.insert(one.get_str());
        else
            reader.blame("resources", "wanted names of resources");
    }
    return reader.finish() || invalid_params(error, fault);
}

} // namespace

void add_group_member_methods(Method_Table& methods, Group_Members& members, SQLite_Pools& pools,
                              Group_Server& group) {
    methods.add("member.add", [&](Method_Call const& call, Value& result, Method_Fault& fault) {
        return add(members, pools, call, result, fault);
    });
    methods.add("member.list", [&](Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error;
        if (!Member_Reader(call.params.get_obj(), "", error).finish())
            return invalid_params(error, fault);
        Array array;
        for (Member_Record const& member : members.list())
            array.emplace_back(describe(member, group.members()));
        result = Object{{"members", std::move(array)}};
        return true;
    });
    methods.add("member.remove", [&](Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string name, why;
        if (!only_name(call, "member", names::fault_of_label, name, fault))
            return false;
        std::optional<Member_Record> const member = members.find(name);
        if (!member)
            return not_found("member " + name, fault);
        if (!members.remove(name, why))
            return refused(why, fault);
        if (!member->host_uuid.empty())
            group.close(member->host_uuid);
        result = Object();
        return true;
    });
}

void add_run_methods(Method_Table& methods, Run_Keys& keys, Run_Holds& holds) {
    methods.add("run.hold", [&](Method_Call const& call, Value& result, Method_Fault& fault) {
        Run_Wish wish;
        if (!wish.read(call, fault))
            return false;
        std::shared_ptr<Run_Scope const> const run =
            keys.find_run(call.caller.host_uuid, wish.run_id);
        if (!run)
            return refused("it is not for a run of that host that is on", fault);
        result = Object{{"waits_for", holds.hold({run->host_uuid, run->run_id,
                                                  Run_Access::text_of(wish.name, run->instance)},
                                                 wish.resources)}};
        return true;
    });
    methods.add("run.release", [&](Method_Call const& call, Value& result, Method_Fault& fault) {
        Run_Wish wish;
        if (!wish.read(call, fault))
            return false;
        holds.release(call.caller.host_uuid, wish.run_id, wish.resources);
        result = Object();
        return true;
    });

    methods.add("run.begin", [&](Method_Call const& call, Value& result, Method_Fault& fault) {
        Run_Keys::Entry entry;
        if (!entry.read(call.params.get_obj()))
            return invalid_params("wanted a run and the hash of its key", fault);
        if (!keys.add(std::move(entry)))
            return refused("too many runs of that host are on", fault);
        result = Object();
        return true;
    });
    methods.add("run.end", [&](Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string run_id;
        if (!only_name(call, "run_id", names::fault_of_id, run_id, fault))
            return false;
        keys.end(call.caller.host_uuid, run_id);
        result = Object();
        return true;
    });
}
