#include "agent/service/method_access.h"

#include "agent/catalog/sqlite_catalog.h"
#include "agent/service/group_instances.h"
#include "agent/service/group_members.h"
#include "agent/service/instance_probe.h"
#include "agent/service/run_access.h"
#include "host/job/run_hold.h"
#include "host/storage/xbsa_layout.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <map>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::object_get_str;

namespace {

constexpr char KIND[] = "gaussdb";
constexpr char ROACH_SOURCE[] = "gaussdb.roach_source";
/** That a run may claim to have stored with one call. */
constexpr uint64_t MOST_BYTES = uint64_t{1} << 50;
constexpr size_t MOST_TOLD = 1024; ///< after so many all are told again

Object const& object_or_empty(json_spirit::Value const& value) {
    static Object const none;
    return value.type() == json_spirit::obj_type ? value.get_obj() : none;
}

Array const& array_of(Object const& object, char const* key) {
    static Array const none;
    json_spirit::Value const& value = json_spirit::object_get_any(object, key);
    return value.type() == json_spirit::array_type ? value.get_array() : none;
}

/** Whether a path is within a folder: no part of it leads elsewhere. */
bool is_below(std::string const& path, std::string const& folder) {
    return !folder.empty() && path.starts_with(folder + "/") &&
           names::fault_of_relative_path(path).empty();
}

bool refuse(std::string& why, std::string text) {
    why = std::move(text);
    return false;
}

/** Whether a call from one host to another is what a run needs there. */
bool fits_run(Run_Scope const& run, std::string const& method, Object const& params,
              std::string& why) {
    std::string const action = object_get_str(params, "action");
    if (method != ROACH_SOURCE || (action != "add" && action != "remove" && action != "end"))
        return refuse(why, "an agent may call only gaussdb.roach_source of another one");
    if (action == "add" && object_get_str(params, "cluster_id") != run.cluster_id)
        return refuse(why, "'cluster_id' is not that of the run");
    if (object_get_str(params, "uuid") != (run.backup ? run.run_id : ""))
        return refuse(why, "'uuid' is not that of the run's set");
    if (run.backup && object_get_str(params, "pool_uuid") != run.pool_uuid)
        return refuse(why, "'pool_uuid' is not that of the run");
    return true;
}

} // namespace

/** The table. */
struct Method_Access::Table {
    using Check = bool (Method_Access::*)(Question const&);
    struct Row {
        unsigned callers;              ///< who may call it at all
        Check member = nullptr;        ///< which calls of a MEMBER
        Check run = nullptr;           ///< which calls of a RUN
        char const* subject = nullptr; ///< it makes a change, to what this parameter names
    };
    using C = Rpc_Caller;
    using A = Method_Access;
    static constexpr unsigned PEOPLE = C::LOCAL | C::ADMIN;
    static constexpr unsigned OR_MEMBER = PEOPLE | C::MEMBER;
    static constexpr unsigned LOOKING = PEOPLE | C::READER;

    static std::map<std::string, Row> const& rows() {
        static std::map<std::string, Row> const table = {
            {"account.save", {.callers = PEOPLE, .subject = "instance"}},
            {"agent.check", {LOOKING}},
            {"agent.info", {LOOKING}},
            {"audit.list", {PEOPLE}},
            {"backup.list", {LOOKING | C::MEMBER, &A::any}},  // gets what lies in its pools
            {"backup.point", {LOOKING | C::MEMBER, &A::any}}, // the same
            {"backup.remove", {.callers = PEOPLE, .subject = "backup"}},
            {"backup.show", {LOOKING | C::MEMBER, &A::any}}, // the same
            {"backup_set.gaussdb_restore_branch", {OR_MEMBER, &A::of_own_resource}},
            {"backupd.instance.notify", {OR_MEMBER, &A::of_own_instance}},
            {"catalog.abort", {OR_MEMBER, &A::of_own_set}},
            {"catalog.abort_open", {OR_MEMBER, &A::of_own_host}},
            {"catalog.add_piece", {OR_MEMBER | C::RUN, &A::own_pieces, &A::pieces_of_run}},
            {"catalog.commit", {OR_MEMBER, &A::of_own_record}},
            {"catalog.complete", {OR_MEMBER, &A::of_own_record}},
            {"catalog.get_view", {OR_MEMBER | C::RUN, &A::a_view, &A::whether_set_is_there}},
            {"catalog.initialize", {OR_MEMBER, &A::of_own_record}},
            {"definition.change", {.callers = PEOPLE, .subject = "definition"}},
            {"definition.list", {PEOPLE}},
            {"definition.remove", {.callers = PEOPLE, .subject = "definition"}},
            {"definition.save", {.callers = PEOPLE, .subject = "name"}},
            {"definition.show", {PEOPLE}},
            {"gaussdb.add_tpops_instances", {.callers = PEOPLE, .subject = "tpops_host"}},
            {"gaussdb.create_instance", {.callers = PEOPLE, .subject = "name"}},
            {"gaussdb.get_instance", {PEOPLE}},
            {"gaussdb.list", {PEOPLE}},
            {"gaussdb.list_tpops_instances", {PEOPLE}},
            {"gaussdb.modify_instance", {.callers = PEOPLE, .subject = "name"}},
            {"gaussdb.remove_instance", {.callers = PEOPLE, .subject = "instance"}},
            {ROACH_SOURCE, {C::LOCAL | C::FORWARDED}},
            {"group.deliver", {C::BACKUPD}},
            {"group.forward", {C::MEMBER, &A::any}}, // run_of() checks it
            {"group.join", {C::MEMBER, &A::any}},    // admit() checks it
            {"guide.backup", {LOOKING}},
            {"guide.flavours", {LOOKING}},
            {"guide.instance", {LOOKING}},
            {"instance.list", {LOOKING}},
            {"instance.remove", {.callers = PEOPLE, .subject = "instance"}},
            {"instance.save", {.callers = PEOPLE, .subject = "name"}},
            {"instance.show", {LOOKING}},
            {"instance.try", {PEOPLE}},
            {"job.cancel", {.callers = PEOPLE, .subject = "job"}},
            {"job.list", {LOOKING}},
            {"job.log", {LOOKING}},
            {"job.pause", {.callers = PEOPLE, .subject = "job"}},
            {"job.resume", {.callers = PEOPLE, .subject = "job"}},
            {"job.show", {LOOKING}},
            {"job.start", {.callers = PEOPLE, .subject = "definition"}},
            {"job.stop", {.callers = PEOPLE, .subject = "job"}},
            {"job.watch", {LOOKING}},
            {"member.add", {.callers = PEOPLE, .subject = "name"}},
            {"member.list", {PEOPLE}},
            {"member.remove", {.callers = PEOPLE, .subject = "member"}},
            {"pool.create", {.callers = PEOPLE, .subject = "name"}},
            {"pool.find", {OR_MEMBER | C::RUN, &A::any, &A::of_runs_pool}}, // finds its own only
            {"pool.list", {LOOKING | C::MEMBER, &A::any}},                  // gets its own only
            {"pool.remove", {.callers = PEOPLE, .subject = "pool"}},
            {"pool.update", {.callers = PEOPLE, .subject = "pool"}},
            {"run.begin", {C::MEMBER, &A::of_own_host}},
            {"run.end", {C::MEMBER, &A::any}}, // ends runs of its own host only
            {"run.hold", {C::MEMBER, &A::resources_of_run}},
            {"run.release", {C::MEMBER, &A::any}}, // releases what runs of its own host have
            {"schedule.list", {PEOPLE}},
            {"schedule.show", {PEOPLE}},
        };
        return table;
    }
};

bool Method_Access::has_row(std::string const& method) {
    return Table::rows().contains(method);
}

std::optional<std::string> Method_Access::subject_of_change(Method_Call const& call) {
    auto const found = Table::rows().find(call.method);
    if (found == Table::rows().end() || !found->second.subject)
        return std::nullopt;
    return object_get_str(object_or_empty(call.params), found->second.subject);
}

bool Method_Access::allows(Method_Call const& call, Method_Fault& fault) {
    auto const found = Table::rows().find(call.method);
    Rpc_Caller const& caller = call.caller;
    std::string why = "this method is not for it";
    bool allowed = found != Table::rows().end() && caller.is(found->second.callers);
    if (caller.is(Rpc_Caller::READER))
        allowed = allowed ? for_reader(call, why)
                          : refuse(why, "readers may only look at the agent, instances, backups, "
                                        "jobs, pools and check; run it as root");
    else if (allowed && !caller.is(Table::PEOPLE | Rpc_Caller::BACKUPD)) {
        Question const question{call, object_or_empty(call.params),
                                caller.run ? caller.run->host_uuid : caller.host_uuid, why};
        allowed = caller.is(Rpc_Caller::MEMBER) ? for_member(question) : for_run(question);
    }
    if (allowed)
        return true;
    if (is_news(caller.text(), call.method))
        QMRT_LOG(LM_WARNING, "Refused '%s' to %s, %s\n", qmrt::to_one_line(call.method).c_str(),
                 caller.text().c_str(), qmrt::to_one_line(why).c_str());
    fault = {AGENT_RPC_REFUSED, "refused to " + caller.text() + ": " + qmrt::to_one_line(why), {}};
    return false;
}

bool Method_Access::is_news(std::string const& who, std::string const& method) {
    std::lock_guard const guard(mutex_);
    if (told_.size() >= MOST_TOLD)
        told_.clear();
    return told_.insert(who + " " + method).second;
}

/** A check by root of a path that a reader names would tell what only root may know. */
bool Method_Access::for_reader(Method_Call const& call, std::string& why) {
    return !object_or_empty(call.params).contains("cache_dir") ||
           refuse(why, "only administrators may name a directory to check");
}

bool Method_Access::for_member(Question const& question) {
    if (!members_.find(question.call.caller.member))
        return refuse(question.why, "the member has been removed");
    if (question.host.empty() && question.call.method != "group.join")
        return refuse(question.why, "it has not joined yet");
    auto const check = Table::rows().at(question.call.method).member;
    return (this->*check)(question);
}

bool Method_Access::for_run(Question const& question) {
    Run_Scope const& run = *question.call.caller.run;
    if (question.call.caller.is(Rpc_Caller::FORWARDED))
        return fits_run(run, question.call.method, question.params, question.why);
    auto const check = Table::rows().at(question.call.method).run;
    return (this->*check)(question);
}

// members

bool Method_Access::any(Question const&) {
    return true;
}

bool Method_Access::of_own_host(Question const& question) {
    return object_get_str(question.params, "host_uuid") == question.host ||
           refuse(question.why, "'host_uuid' is not that of its own host");
}

bool Method_Access::of_own_set(Question const& question) {
    std::optional<Set_Facts> set;
    if (!catalog_.find_facts(object_get_str(question.params, "uuid"), set))
        return refuse(question.why, "the catalog could not be read");
    return !set || set->host_uuid == question.host ||
           refuse(question.why, "another host writes that set");
}

/** A set as a member describes it. */
bool Method_Access::of_own_record(Question const& question) {
    Object const& set = object_or_empty(json_spirit::object_get_any(question.params, "set"));
    std::string const resource = object_get_str(set, "resource_uuid");
    std::optional<Set_Facts> known;
    if (!catalog_.find_facts(object_get_str(set, "uuid"), known))
        return refuse(question.why, "the catalog could not be read");
    if (object_get_str(set, "host_uuid") != question.host ||
        (known && known->host_uuid != question.host))
        return refuse(question.why, "another host writes that set");
    if (known && known->resource_uuid != resource)
        return refuse(question.why, "that set is of another resource");
    for (Object const& storage : json_spirit::objects_of(array_of(set, "storages")))
        if (!may_use_pool(question.call.caller, object_get_str(storage, "pool_uuid")))
            return refuse(question.why, "it was not given the set's pool");
    return writes_resource(question, resource) && has_own_pieces(question, set, resource);
}

bool Method_Access::of_own_resource(Question const& question) {
    return writes_resource(question, object_get_str(question.params, "resource_uuid"));
}

bool Method_Access::own_pieces(Question const& question) {
    std::optional<Set_Facts> set;
    if (!catalog_.find_facts(object_get_str(question.params, "uuid"), set))
        return refuse(question.why, "the catalog could not be read");
    if (set && set->host_uuid != question.host)
        return refuse(question.why, "another host writes that set");
    return !set || has_own_pieces(question, question.params, set->resource_uuid);
}

/** What a set's pieces name is removed with it. One name is in the folder of the set's "uri". */
bool Method_Access::has_own_pieces(Question const& question, Object const& holder,
                                   std::string const& resource) {
    auto const is_own = [&](std::string const& path) {
        return is_below(path, resource) || is_below(path, question.host);
    };
    std::string const uri = object_get_str(holder, "uri");
    if (!uri.empty() && !is_own(uri))
        return refuse(question.why, "its uri is outside of the folders of resource and host");
    for (Object const& piece : json_spirit::objects_of(array_of(holder, "pieces"))) {
        std::string path = object_get_str(piece, "path");
        if (!uri.empty() && path.find('/') == std::string::npos)
            path = uri + "/" + path;
        if (!is_own(path))
            return refuse(question.why, "a piece is outside of the folders of resource and host");
    }
    return true;
}

/** A resource is the business of the hosts that have it; of one that nobody has, of its last. */
bool Method_Access::writes_resource(Question const& question, std::string const& resource) {
    std::vector<std::string> const hosts = instances_.hosts_of(resource);
    if (std::ranges::count(hosts, question.host))
        return true;
    std::optional<Set_Facts> newest;
    if (!catalog_.find_newest_facts(resource, newest))
        return refuse(question.why, "the catalog could not be read");
    return (hosts.empty() && (!newest || newest->host_uuid == question.host)) ||
           refuse(question.why, "the resource is another host's");
}

/** One that is limited to some pools gets the rows of these; a list without rows cannot be cut. */
bool Method_Access::a_view(Question const& question) {
    std::optional<Member_Record> const member = members_.find(question.call.caller.member);
    return (member && member->all_pools) || object_get_str(question.params, "view") != "depends" ||
           refuse(question.why, "the view \"depends\" is for members with all pools");
}

/**
 * A member speaks of its own host. Which name it gives to an instance is its own word, since the
 * hosts of a cluster find it each for itself; but the uuid is made of the name, so that it has no
 * instance of another name.
 */
bool Method_Access::of_own_instance(Question const& question) {
    std::string const uuid = object_get_str(question.params, "uuid");
    return uuid.empty() ||
           uuid == Instance_Probe::uuid_of(object_get_str(question.params, "type"),
                                           object_get_str(question.params, "name")) ||
           refuse(question.why, "'uuid' is not that of an instance of this name");
}

bool Method_Access::resources_of_run(Question const& question) {
    std::shared_ptr<Run_Scope const> const run =
        keys_.find_run(question.host, object_get_str(question.params, "run_id"));
    if (!run)
        return refuse(question.why, "it is not for a run of that host that is on");
    return may_reserve(*run, array_of(question.params, "resources"), question.why);
}

/** What the hosts of the run's instance have; what another instance has would be kept from it. */
bool Method_Access::may_reserve(Run_Scope const& run, Array const& resources, std::string& why) {
    for (std::string const& name : json_spirit::strings_of(resources)) {
        Run_Hold::Resource resource;
        if (!Run_Hold::parse(name, resource))
            return refuse(why, "a resource has no valid name");
        if (resource.kind == Run_Hold::Resource::NODE)
            continue; // no agent runs there; any run may lead to it
        bool const own =
            resource.kind == Run_Hold::Resource::INSTANCE
                ? resource.owner == run.cluster_id ||
                      std::ranges::count(instances_.hosts_of(resource.owner), run.host_uuid) > 0
                : resource.owner == run.host_uuid ||
                      instances_.has(resource.owner, KIND, run.instance);
        if (!own)
            return refuse(why, "a resource is not one of the run's instance");
    }
    return true;
}

// runs

bool Method_Access::of_runs_pool(Question const& question) {
    return run_may_use_pool(*question.call.caller.run, object_get_str(question.params, "uuid")) ||
           refuse(question.why, "the pool is not that of the run");
}

/** A restore reads wherever its cluster has sets. */
bool Method_Access::run_may_use_pool(Run_Scope const& run, std::string const& pool_uuid) {
    if (run.backup)
        return pool_uuid == run.pool_uuid;
    json_spirit::Value rows;
    return catalog_.get_view(
               {-1, 0}, KIND, "catalogs",
               {{"resource_uuid", run.cluster_id}, {"pool_uuid", pool_uuid}, {"limit", 1}}, rows) &&
           rows.type() == json_spirit::array_type && !rows.get_array().empty();
}

bool Method_Access::pieces_of_run(Question const& question) {
    Run_Scope const& run = *question.call.caller.run;
    std::optional<Set_Facts> set;
    if (!run.backup || object_get_str(question.params, "uuid") != run.run_id)
        return refuse(question.why, "the set is not that of the run");
    if (!catalog_.find_facts(run.run_id, set))
        return refuse(question.why, "the catalog could not be read");
    if (!set || !set->open || set->host_uuid != run.host_uuid ||
        set->resource_uuid != run.cluster_id)
        return refuse(question.why, "the set of the run is not open");
    std::string const folder = xbsa_set_folder(run.cluster_id, run.run_id);
    uint64_t total = 0;
    for (Object const& piece : json_spirit::objects_of(array_of(question.params, "pieces"))) {
        if (!is_below(object_get_str(piece, "path"), folder))
            return refuse(question.why, "a piece is outside of the set's folder");
        for (char const* key : {"size", "storage_size"}) {
            uint64_t size = 0;
            if (piece.contains(key) && !json_spirit::object_get(piece, key, size))
                return refuse(question.why, "the size of a piece is not a number of bytes");
            if (size > MOST_BYTES - total)
                return refuse(question.why, "the pieces are larger than 1 PiB");
            total += size;
        }
    }
    return true;
}

/** The one question of the data path: whether the catalog has a set, of the run's cluster. */
bool Method_Access::whether_set_is_there(Question const& question) {
    Run_Scope const& run = *question.call.caller.run;
    Object const& query = object_or_empty(json_spirit::object_get_any(question.params, "query"));
    bool const plain =
        object_get_str(question.params, "type") == KIND &&
        object_get_str(question.params, "view") == "catalogs" &&
        std::ranges::all_of(query, [](auto const& one) {
            return one.first == "uuid" || one.first == "cmode" || one.first == "limit";
        });
    std::string const uuid = object_get_str(query, "uuid");
    if (!plain || uuid.empty())
        return refuse(question.why, "a run may ask only whether a set is there");
    std::optional<Set_Facts> set;
    if (!catalog_.find_facts(uuid, set))
        return refuse(question.why, "the catalog could not be read");
    if (set && set->resource_uuid != run.cluster_id)
        return refuse(question.why, "the set is of another cluster");
    return !set || run.pool_uuid.empty() || std::ranges::count(set->pool_uuids, run.pool_uuid) ||
           refuse(question.why, "the set is in another pool");
}

// the group

bool Method_Access::may_use_pool(Rpc_Caller const& caller, std::string const& pool_uuid) const {
    if (!caller.is(Rpc_Caller::MEMBER))
        return true;
    std::optional<Member_Record> const member = members_.find(caller.member);
    return member && member->may_use(pool_uuid);
}

Rpc_Caller Method_Access::caller(Key_Digest const& key) const {
    if (std::shared_ptr<Run_Scope const> run = keys_.find(key))
        return {Rpc_Caller::RUN, {}, {}, std::move(run)};
    return members_.caller(key);
}

bool Method_Access::admit(Rpc_Caller const& member, std::string const& host_uuid,
                          std::string& why) {
    why.clear();
    return members_.bind(member.member, host_uuid, why);
}

void Method_Access::joined(std::string const& host_uuid, Array const& runs) {
    std::vector<Run_Keys::Entry> entries;
    std::vector<std::pair<Run_Scope, Object const*>> told;
    for (Object const& run : json_spirit::objects_of(runs)) {
        Run_Keys::Entry entry;
        if (entries.size() >= Run_Keys::MOST_OF_A_HOST || !entry.read(run) ||
            entry.scope.host_uuid != host_uuid)
            continue;
        told.emplace_back(entry.scope, &run);
        entries.push_back(std::move(entry));
    }
    keys_.replace(host_uuid, std::move(entries));
    for (auto const& [scope, run] : told)
        restore_holds(scope, *run);
    holds_.host_joined(host_uuid);
}

/** Gives a run back what it had before this server was started. */
void Method_Access::restore_holds(Run_Scope const& run, Object const& told) {
    std::string const name = object_get_str(told, "name");
    std::string const text =
        Run_Access::text_of(names::fault_of_title(name).empty() ? name : "", run.instance);
    for (json_spirit::Value const& one : array_of(told, "holds")) {
        std::string why = "other runs have some of it";
        if (one.type() != json_spirit::array_type || !may_reserve(run, one.get_array(), why)) {
            QMRT_LOG(LM_WARNING, "Run %s of host %s gets back nothing, %s\n", run.run_id.c_str(),
                     run.host_uuid.c_str(), why.c_str());
            continue;
        }
        auto const resources = json_spirit::strings_of(one.get_array());
        if (!holds_.restore({run.host_uuid, run.run_id, text},
                            {resources.begin(), resources.end()}))
            QMRT_LOG(LM_WARNING,
                     "Run %s of host %s goes on without what it had reserved, %s: the next run "
                     "that uses the backup tool on its hosts ends it\n",
                     run.run_id.c_str(), run.host_uuid.c_str(), why.c_str());
    }
}

void Method_Access::left(std::string const& host_uuid) {
    keys_.host_lost(host_uuid);
}

std::shared_ptr<Run_Scope const> Method_Access::run_of(Forward const& forward, std::string& why) {
    std::shared_ptr<Run_Scope const> const run =
        forward.key.empty()
            ? nullptr
            : keys_.find(key_digest(std::string_view(forward.key.data(), forward.key.size())));
    std::string const& host = run ? run->host_uuid : forward.from.host_uuid;
    Object const& params = object_or_empty(forward.params);
    if (!run || (!forward.from.is(Rpc_Caller::LOCAL) && host != forward.from.host_uuid)) {
        why = "it is not for a run of that host that is on";
        return nullptr;
    }
    if (!fits_run(*run, forward.method, params, why))
        return nullptr;
    if (!holds_.has(run->host_uuid, run->run_id, Run_Hold::metadata(forward.to))) {
        why = "the run has not reserved the backup tool of host " + qmrt::to_one_line(forward.to);
        return nullptr;
    }
    if (!run_may_use_pool(*run, object_get_str(params, "pool_uuid"))) {
        why = "the pool is not that of the run";
        return nullptr;
    }
    if (!instances_.has(forward.to, KIND, run->instance)) {
        why = "host " + qmrt::to_one_line(forward.to) + " does not have the run's instance '" +
              qmrt::to_one_line(run->instance) + "'";
        return nullptr;
    }
    return run;
}
