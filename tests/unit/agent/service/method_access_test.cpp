#include "agent/service/method_access.h"

#include "agent/catalog/catalog_tables.h"
#include "agent/catalog/recorded_set.h"
#include "agent/catalog/sqlite_catalog.h"
#include "agent/instances/sqlite_instances.h"
#include "agent/service/agent_identity.h"
#include "agent/service/group_instances.h"
#include "agent/service/group_members.h"
#include "agent/service/instance_probe.h"
#include "agent/service/run_access.h"
#include "host/job/run_hold.h"
#include "tests/support/fake_jobs.h"
#include "tests/support/fake_upstream_backend.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/host/job/test_job.h"

#include <fstream>
#include <gtest/gtest.h>
#include <regex>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr unsigned PEOPLE = Rpc_Caller::LOCAL | Rpc_Caller::ADMIN;

class Method_Access_Test : public testing::Test {
protected:
    Method_Access_Test() {
        EXPECT_TRUE(members_.add({"m", "", false, {"p1"}}, key_, why_)) << why_;
        EXPECT_TRUE(members_.add({"n", "", true, {}}, other_key_, why_)) << why_;
        EXPECT_TRUE(access_.admit(caller(key_), "h1", why_)) << why_;
        EXPECT_TRUE(access_.admit(caller(other_key_), "h2", why_)) << why_;
        instances_.note("h1", "gaussdb", "c1", "c1");
        instances_.note("h2", "gaussdb", "c2", "c2");
        put("own", "h1", "c1", "p1", false);
        put("run", "h1", "c1", "p1", true);
        put("others", "h2", "c2", "p1", false);
        put("elsewhere", "h1", "c1", "p2", false);
        keys_.add({key_digest("backup key"), backup_});
        keys_.add({key_digest("restore key"), restore_});
    }
    ~Method_Access_Test() override { Log_Capture::instance().claim_all(LM_WARNING, "Refused"); }

    void put(std::string const& uuid, std::string const& host, std::string const& resource,
             std::string const& pool, bool open) {
        Recorded_Set const set("gaussdb", record(uuid, host, resource, pool));
        EXPECT_TRUE(open ? catalog_.initialize({-1, 0}, set)
                         : catalog_.commit({-1, 0}, set, false));
    }
    static Object record(std::string const& uuid, std::string const& host,
                         std::string const& resource, std::string const& pool) {
        return {{"uuid", uuid},
                {"host_uuid", host},
                {"resource_uuid", resource},
                {"instance", resource},
                {"storages", Array{Object{{"pool_uuid", pool}, {"size", 0}}}}};
    }
    Rpc_Caller caller(secure_string const& key) const {
        return access_.caller(key_digest(key.plain()));
    }
    bool may(Rpc_Caller const& caller, std::string const& method, Object params = {}) {
        Method_Fault fault;
        bool const allowed = access_.allows({method, std::move(params), caller}, fault);
        EXPECT_EQ(allowed ? "" : "refused to", fault.message.substr(0, 10));
        return allowed;
    }
    bool member_may(std::string const& method, Object params = {}) {
        return may(caller(key_), method, std::move(params));
    }
    bool backup_may(std::string const& method, Object params = {}) {
        return may(access_.caller(key_digest("backup key")), method, std::move(params));
    }
    bool restore_may(std::string const& method, Object params = {}) {
        return may(access_.caller(key_digest("restore key")), method, std::move(params));
    }
    static Object pieces(std::string const& uuid, std::string const& path) {
        return {{"uuid", uuid}, {"pieces", Array{Object{{"path", path}, {"size", 1}}}}};
    }
    static Object view(Object query) {
        return {{"type", "gaussdb"}, {"view", "catalogs"}, {"query", std::move(query)}};
    }
    static Object set(Object record) { return {{"kind", "gaussdb"}, {"set", std::move(record)}}; }
    /** Whether a call may go from a host to another one. */
    bool forwards(Rpc_Caller const& from, std::string const& to, std::string const& method,
                  Object const& params, char const* key) {
        why_.clear();
        Value const value = params;
        bool const run = bool(
            access_.run_of({from, to, method, value, secure_string(std::string_view(key))}, why_));
        EXPECT_EQ(run, why_.empty());
        return run;
    }

    Temporary_Directory directory_;
    std::string why_;
    std::unique_ptr<Agent_Database> database_ = Agent_Database::open(
        directory_.path("agent.db"),
        {std::string(CATALOG_TABLES) + INSTANCE_TABLES + GROUP_TABLES + MEMBER_TABLES}, why_);
    Agent_Identity const identity_{"server", "uid"};
    SQLite_Catalog catalog_{*database_};
    Group_Members members_{*database_};
    Group_Instances instances_{*database_, identity_};
    Run_Keys keys_;
    Run_Holds holds_{[this](std::string const& host, std::string const& run) {
        return keys_.find_run(host, run) != nullptr;
    }};
    Method_Access access_{catalog_, members_, instances_, keys_, holds_};
    secure_string key_, other_key_;
    Run_Scope const backup_{"run", true, "h1", "c1", "c1", "p1"};
    Run_Scope const restore_{"restore", false, "h1", "c1", "c1", ""};
};

/** The methods that docs/rpc.md describes. */
std::vector<std::string> described_methods() {
    std::ifstream manual(ZENBRAK3_RPC_MANUAL);
    std::regex const heading("^### ([a-z_.]+)$");
    std::vector<std::string> methods;
    std::smatch match;
    for (std::string line; std::getline(manual, line);)
        if (std::regex_match(line, match, heading))
            methods.push_back(match[1]);
    return methods;
}

} // namespace

TEST_F(Method_Access_Test, every_method_of_the_manual_has_a_row) {
    std::vector<std::string> const methods = described_methods();
    EXPECT_LT(40u, methods.size());
    for (std::string const& method : methods)
        EXPECT_TRUE(Method_Access::has_row(method)) << method;
}

TEST_F(Method_Access_Test, what_has_no_row_is_for_nobody) {
    for (Rpc_Caller const& caller : {Rpc_Caller::local(), Rpc_Caller::admin(),
                                     Rpc_Caller::backupd(), caller(key_), Rpc_Caller()})
        EXPECT_FALSE(may(caller, "no.such_method"));
}

TEST_F(Method_Access_Test, only_these_are_for_the_network_beside_the_administrator) {
    std::set<std::string> const of_members = {"backup.list",
                                              "backup.point",
                                              "backup.show",
                                              "backup_set.gaussdb_restore_branch",
                                              "backupd.instance.notify",
                                              "catalog.abort",
                                              "catalog.abort_open",
                                              "catalog.add_piece",
                                              "catalog.commit",
                                              "catalog.complete",
                                              "catalog.get_view",
                                              "catalog.initialize",
                                              "group.forward",
                                              "group.join",
                                              "pool.find",
                                              "pool.list",
                                              "run.begin",
                                              "run.end",
                                              "run.hold",
                                              "run.release"};
    std::set<std::string> const of_runs = {"catalog.add_piece", "catalog.get_view", "pool.find"};
    // what suits the checks of all of them
    Object const params{{"uuid", "run"},         {"host_uuid", "h1"},
                        {"resource_uuid", "c1"}, {"type", "gaussdb"},
                        {"view", "catalogs"},    {"query", Object{{"uuid", "own"}}},
                        {"run_id", "run"},       {"resources", Array{}},
                        {"kind", "gaussdb"},     {"set", record("run", "h1", "c1", "p1")}};
    for (std::string const& method : described_methods()) {
        Object wish = params;
        if (method == "backupd.instance.notify")
            wish.erase("uuid");
        EXPECT_EQ(of_members.contains(method), member_may(method, wish)) << method;
        wish = params;
        if (method == "pool.find")
            wish["uuid"] = "p1";
        EXPECT_EQ(of_runs.contains(method), backup_may(method, wish)) << method;
        EXPECT_EQ(method == "group.deliver", may(Rpc_Caller::backupd(), method, params)) << method;
        EXPECT_FALSE(may(Rpc_Caller(), method, params)) << method;
    }
}

TEST_F(Method_Access_Test, readers_look_and_nothing_else) {
    std::set<std::string> const looking{
        "agent.check",  "agent.info",     "backup.list",    "backup.point",  "backup.show",
        "guide.backup", "guide.flavours", "guide.instance", "instance.list", "instance.show",
        "job.list",     "job.log",        "job.show",       "job.watch",     "pool.list"};
    Rpc_Caller const reader{Rpc_Caller::READER, {}, {}, nullptr, 1001};
    std::vector<std::string> const methods = described_methods();
    EXPECT_LT(40u, methods.size());
    for (std::string const& method : methods) {
        EXPECT_EQ(looking.contains(method), may(reader, method)) << method;
        EXPECT_FALSE(looking.contains(method) &&
                     Method_Access::subject_of_change({method, {}, reader}))
            << method;
    }
    EXPECT_FALSE(may(reader, "agent.check", {{"instance", "c1"}, {"cache_dir", "/root/.ssh"}}));
    Method_Fault fault;
    EXPECT_FALSE(access_.allows({"pool.remove", Object(), reader}, fault));
    EXPECT_EQ("refused to reader with uid 1001: readers may only look at the agent, instances, "
              "backups, jobs, pools and check; run it as root",
              fault.message);
}

TEST_F(Method_Access_Test, a_change_has_a_subject) {
    Rpc_Caller const local = Rpc_Caller::local();
    EXPECT_EQ("main", Method_Access::subject_of_change(
                          {"pool.update", Object{{"pool", "main"}, {"name", "x"}}, local}));
    EXPECT_EQ("", Method_Access::subject_of_change({"pool.update", Object{}, local}));
    EXPECT_EQ("", Method_Access::subject_of_change({"pool.update", Value(), local}));
    EXPECT_EQ(std::nullopt, Method_Access::subject_of_change({"pool.list", Object{}, local}));
    EXPECT_EQ(std::nullopt, Method_Access::subject_of_change({"no.such_method", {}, local}));
}

/** Whatever people can do beside asking is a change, and so is a method that is added later. */
TEST_F(Method_Access_Test, what_only_administrators_may_call_is_a_change_or_asks_for_details) {
    std::set<std::string> const asking{"audit.list",      "definition.list",
                                       "definition.show", "gaussdb.get_instance",
                                       "gaussdb.list",    "gaussdb.list_tpops_instances",
                                       "instance.try",    "member.list",
                                       "schedule.list",   "schedule.show"};
    Rpc_Caller const reader{Rpc_Caller::READER, {}, {}, nullptr, 1001};
    for (std::string const& method : described_methods()) {
        bool const is_peoples = may(Rpc_Caller::admin(), method) && !may(reader, method) &&
                                !may(caller(other_key_), method) && !backup_may(method);
        bool const is_change =
            Method_Access::subject_of_change({method, {}, Rpc_Caller::admin()}).has_value();
        if (is_peoples && !method.starts_with("catalog.") && !method.starts_with("backup")) {
            EXPECT_NE(asking.contains(method), is_change) << method;
        }
    }
}

TEST_F(Method_Access_Test, administration_is_for_administrators) {
    for (char const* method : {"job.start", "definition.save", "pool.create", "account.save",
                               "member.add", "agent.info"})
        for (Rpc_Caller const& caller : {Rpc_Caller::local(), Rpc_Caller::admin()}) {
            ASSERT_TRUE(caller.is(PEOPLE));
            EXPECT_TRUE(may(caller, method)) << method;
        }
    EXPECT_FALSE(may(Rpc_Caller::admin(), "gaussdb.roach_source"));
}

TEST_F(Method_Access_Test, a_run_adds_pieces_to_its_own_open_set_below_its_folder) {
    EXPECT_TRUE(backup_may("catalog.add_piece", pieces("run", "c1/xbsa/run/a/b.1")));
    for (char const* path : {"", "/", "x", "c1/xbsa/run", "c1/xbsa/run/", "c1/xbsa/run/../own/x",
                             "c1/xbsa/run//x", "c1/xbsa/run/./x", "c1/xbsa/own/x", "c2/xbsa/run/x",
                             "/c1/xbsa/run/x", "c1/xbsa/run/x/.."})
        EXPECT_FALSE(backup_may("catalog.add_piece", pieces("run", path))) << path;
    EXPECT_FALSE(backup_may("catalog.add_piece", pieces("own", "c1/xbsa/own/x")));
    EXPECT_FALSE(restore_may("catalog.add_piece", pieces("run", "c1/xbsa/run/x")));
    Array ignored;
    ASSERT_TRUE(catalog_.abort({-1, 0}, "run", ignored));
    EXPECT_FALSE(backup_may("catalog.add_piece", pieces("run", "c1/xbsa/run/x"))) << "not open";
}

TEST_F(Method_Access_Test, a_run_may_ask_only_whether_a_set_of_its_cluster_is_there) {
    Object const plain{{"uuid", "own"}, {"cmode", "rb_orm_rows"}, {"limit", 1}};
    EXPECT_TRUE(backup_may("catalog.get_view", view(plain)));
    EXPECT_TRUE(restore_may("catalog.get_view", view(plain)));
    EXPECT_TRUE(backup_may("catalog.get_view", view({{"uuid", "not there"}})));
    EXPECT_FALSE(backup_may("catalog.get_view", view({{"uuid", "others"}})));
    EXPECT_FALSE(restore_may("catalog.get_view", view({{"uuid", "others"}})));
    EXPECT_FALSE(backup_may("catalog.get_view", view({{"uuid", "elsewhere"}}))) << "another pool";
    EXPECT_TRUE(restore_may("catalog.get_view", view({{"uuid", "elsewhere"}})));
    for (Object const& query :
         {Object(), Object{{"resource_uuid", "c1"}}, Object{{"uuid", "own"}, {"with_pieces", "1"}},
          Object{{"uuid", 1}}, Object{{"uuid", ""}}})
        EXPECT_FALSE(backup_may("catalog.get_view", view(query)));
    for (char const* key : {"type", "view"}) {
        Object params = view(plain);
        params[key] = "restore";
        EXPECT_FALSE(backup_may("catalog.get_view", params)) << key;
    }
}

TEST_F(Method_Access_Test, a_run_finds_its_own_pool) {
    EXPECT_TRUE(backup_may("pool.find", {{"uuid", "p1"}}));
    EXPECT_FALSE(backup_may("pool.find", {{"uuid", "p2"}}));
    EXPECT_FALSE(backup_may("pool.find"));
    for (char const* pool : {"p1", "p2"})
        EXPECT_TRUE(restore_may("pool.find", {{"uuid", pool}})) << "where its cluster has sets";
    EXPECT_FALSE(restore_may("pool.find", {{"uuid", "p3"}}));
}

TEST_F(Method_Access_Test, a_runs_key_is_nobodys_when_the_run_has_ended) {
    EXPECT_EQ(Rpc_Caller::RUN, access_.caller(key_digest("backup key")).kind);
    keys_.end("h1", "run");
    EXPECT_EQ(Rpc_Caller::NOBODY, access_.caller(key_digest("backup key")).kind);
}

TEST_F(Method_Access_Test, a_member_writes_its_own_hosts_sets) {
    for (char const* method : {"catalog.initialize", "catalog.complete", "catalog.commit"}) {
        EXPECT_TRUE(member_may(method, set(record("run", "h1", "c1", "p1")))) << method;
        EXPECT_TRUE(member_may(method, set(record("new", "h1", "c1", "p1")))) << method;
        EXPECT_TRUE(member_may(method, set(record("new", "h1", "nobodys", "p1")))) << method;
        EXPECT_FALSE(member_may(method, set(record("new", "h2", "c1", "p1")))) << "another host";
        EXPECT_FALSE(member_may(method, set(record("others", "h1", "c2", "p1")))) << "its set";
        EXPECT_FALSE(member_may(method, set(record("new", "h1", "c2", "p1")))) << "its resource";
        EXPECT_FALSE(member_may(method, set(record("new", "h1", "c1", "p2")))) << "another pool";
        EXPECT_FALSE(member_may(method, set(record("run", "h1", "c3", "p1")))) << "changed";
        Object strange = record("new", "h1", "c1", "p1");
        for (char const* path : {"c2/x", "x", "c1/../c2/x", "/c1/x"}) {
            strange["pieces"] = Array{Object{{"path", path}}};
            EXPECT_FALSE(member_may(method, set(strange))) << path;
        }
        for (char const* path : {"c1/x", "h1/roach/x/y.mtf"}) {
            strange["pieces"] = Array{Object{{"path", path}}};
            EXPECT_TRUE(member_may(method, set(strange))) << path;
        }
        for (auto const& [uri, path, allowed] : {std::tuple{"c1/FULL_1", "x.zst", true},
                                                 {"c1/FULL_1", "c2/x", false},
                                                 {"c1/FULL_1", "..", false},
                                                 {"c2/FULL_1", "x.zst", false},
                                                 {"c1/../c2", "x.zst", false},
                                                 {"c2/FULL_1", "c1/x", false},
                                                 {"", "x.zst", false}}) {
            strange["uri"] = uri;
            strange["pieces"] = Array{Object{{"path", path}}};
            EXPECT_EQ(allowed, member_may(method, set(strange))) << uri << " " << path;
        }
        EXPECT_FALSE(member_may(method)) << "without a set";
    }
    EXPECT_TRUE(member_may("catalog.abort", {{"uuid", "run"}}));
    EXPECT_FALSE(member_may("catalog.abort", {{"uuid", "others"}}));
    EXPECT_TRUE(member_may("catalog.add_piece", pieces("run", "c1/roach/x")));
    EXPECT_FALSE(member_may("catalog.add_piece", pieces("run", "c2/roach/x")));
    EXPECT_FALSE(member_may("catalog.add_piece", pieces("others", "c1/roach/x")));
    EXPECT_TRUE(member_may("catalog.abort_open", {{"host_uuid", "h1"}}));
    EXPECT_FALSE(member_may("catalog.abort_open", {{"host_uuid", "h2"}}));
    char const branch[] = "backup_set.gaussdb_restore_branch";
    EXPECT_TRUE(member_may(branch, {{"resource_uuid", "c1"}}));
    EXPECT_FALSE(member_may(branch, {{"resource_uuid", "c2"}}));
}

TEST_F(Method_Access_Test, a_member_tells_of_its_own_runs_only) {
    EXPECT_TRUE(member_may("run.begin", {{"host_uuid", "h1"}}));
    EXPECT_FALSE(member_may("run.begin", {{"host_uuid", "h2"}}));
    access_.joined("h2", Array{Run_Keys::Entry{key_digest("stolen"), backup_}.dump()});
    EXPECT_EQ(Rpc_Caller::NOBODY, access_.caller(key_digest("stolen")).kind) << "a run of h1";
    access_.joined("h1", Array{});
    EXPECT_EQ(Rpc_Caller::NOBODY, access_.caller(key_digest("backup key")).kind);
}

TEST_F(Method_Access_Test, a_member_reserves_what_the_hosts_of_its_runs_instance_have) {
    auto const may_hold = [&](std::string const& run, Array const& resources) {
        return member_may("run.hold", {{"run_id", run}, {"resources", resources}});
    };
    EXPECT_TRUE(may_hold("run", {"metadata/h1", "policy/h1/p1", "instance/c1"}));
    EXPECT_FALSE(may_hold("run", {"metadata/h1", "metadata/h2"}));
    EXPECT_FALSE(may_hold("run", {"policy/h2/p1"}));
    EXPECT_FALSE(may_hold("run", {"instance/c2"}));
    EXPECT_FALSE(may_hold("run", {"meta"}));
    EXPECT_TRUE(may_hold("run", {"metadata/h1", "node/db1"})) << "a node has no agent";
    EXPECT_FALSE(may_hold("run", {"node/db 1"}));
    EXPECT_FALSE(may_hold("another run", {"node/db1"}));
    EXPECT_FALSE(may_hold("another run", {"metadata/h1"}));
    instances_.note("h2", "gaussdb", "c1", "c1"); // the cluster lies there, too
    EXPECT_TRUE(may_hold("run", {"metadata/h1", "metadata/h2", "policy/h2/p1"}));
    keys_.end("h1", "run");
    keys_.end("h1", "restore");
    EXPECT_FALSE(may_hold("run", {"metadata/h1"}));
}

TEST_F(Method_Access_Test, a_member_that_connects_again_brings_what_its_runs_have) {
    std::set<std::string> const tool{Run_Hold::metadata("h1")};
    holds_.await({"h1"});
    Object run = Run_Keys::Entry{key_digest("backup key"), backup_}.dump();
    run["name"] = "nightly";
    run["holds"] = Array{Array{"instance/c1"}, Array{"metadata/h1"}};
    access_.joined("h1", Array{run});
    EXPECT_TRUE(holds_.has("h1", "run", "metadata/h1"));
    EXPECT_TRUE(holds_.has("h1", "run", "instance/c1"));
    keys_.add({key_digest("other"), {"other", true, "h2", "c2", "c2", "p1"}});
    EXPECT_EQ("job \"nightly\" of instance \"c1\", which uses the backup tool's metadata directory "
              "on the same host",
              holds_.hold({"h2", "other", "another"}, tool));
}

TEST_F(Method_Access_Test, nothing_is_restored_that_a_run_may_not_have_or_another_one_has) {
    keys_.add({key_digest("other"), {"other", true, "h2", "c2", "c2", "p1"}});
    EXPECT_EQ("", holds_.hold({"h2", "other", "another"}, {Run_Hold::metadata("h1")}));
    Object run = Run_Keys::Entry{key_digest("backup key"), backup_}.dump();
    run["holds"] = Array{Array{"metadata/h2"}, Array{"no resource"}, "no array",
                         Array{"metadata/h1"}, Array{"instance/c1"}};
    access_.joined("h1", Array{run});
    EXPECT_FALSE(holds_.has("h1", "run", "metadata/h2"));
    EXPECT_FALSE(holds_.has("h1", "run", "metadata/h1"));
    EXPECT_TRUE(holds_.has("h1", "run", "instance/c1"));
    EXPECT_EQ(3u, Log_Capture::instance().claim_all(LM_WARNING, "gets back nothing"));
    EXPECT_LOGGED(LM_WARNING, "goes on without what it had reserved");
}

TEST_F(Method_Access_Test, a_member_has_no_instance_by_the_uuid_of_another_name) {
    auto const may_tell = [&](char const* uuid, char const* name) {
        return member_may("backupd.instance.notify",
                          {{"type", "gaussdb"}, {"name", name}, {"uuid", uuid}});
    };
    std::string const uuid = Instance_Probe::uuid_of("gaussdb", "c1");
    EXPECT_TRUE(may_tell(uuid.c_str(), "c1"));
    EXPECT_TRUE(may_tell("", "c1")) << "it is made of the name then";
    EXPECT_FALSE(may_tell(uuid.c_str(), "mine"));
    EXPECT_FALSE(may_tell("c1", "c1"));
}

TEST_F(Method_Access_Test, a_second_host_that_says_it_has_an_instance_is_noticed) {
    Method_Table methods;
    methods.gate([this](Method_Call const& call, Method_Fault& fault) {
        return access_.allows(call, fault);
    });
    add_group_methods(methods, instances_, catalog_, identity_);
    auto const tell = [&](secure_string const& key) {
        JSON_RPC_Reply reply;
        EXPECT_TRUE(methods.call("backupd.instance.notify",
                                 Object{{"type", "gaussdb"}, {"name", "c9"}}, caller(key),
                                 std::chrono::minutes(1), reply));
    };
    tell(key_);
    tell(key_);
    EXPECT_EQ(0u, Log_Capture::instance().claim_all(LM_WARNING, "instance"));
    tell(other_key_);
    EXPECT_LOGGED(LM_WARNING, "has the instance c9, as host h1 does; if it is not a node");
    tell(other_key_);
    EXPECT_EQ((std::vector<std::string>{"h1", "h2"}),
              instances_.hosts_of(Instance_Probe::uuid_of("gaussdb", "c9")));
}

TEST_F(Method_Access_Test, a_run_claims_sizes_within_bounds) {
    auto const may_add = [&](Value const& size, Value const& stored) {
        Object piece{{"path", "c1/xbsa/run/a.1"}, {"size", size}, {"storage_size", stored}};
        return backup_may("catalog.add_piece",
                          {{"uuid", "run"}, {"pieces", Array{std::move(piece)}}});
    };
    constexpr uint64_t PIB = uint64_t{1} << 50;
    EXPECT_TRUE(may_add(0, 0));
    EXPECT_TRUE(may_add(PIB - 1, 1));
    EXPECT_FALSE(may_add(PIB, 1));
    EXPECT_FALSE(may_add(1, PIB));
    EXPECT_FALSE(may_add(UINT64_MAX, 2));
    for (Value const& none : {Value(-1), Value("1"), Value(1.5), Value()}) {
        EXPECT_FALSE(may_add(none, 1));
        EXPECT_FALSE(may_add(1, none));
    }
}

TEST_F(Method_Access_Test, a_member_sees_the_pools_that_it_was_given) {
    EXPECT_TRUE(access_.may_use_pool(caller(key_), "p1"));
    EXPECT_FALSE(access_.may_use_pool(caller(key_), "p2"));
    EXPECT_TRUE(access_.may_use_pool(caller(other_key_), "p2"));
    EXPECT_TRUE(access_.may_use_pool(Rpc_Caller::local(), "p2"));
    Object depends = view({});
    depends["view"] = "depends";
    EXPECT_FALSE(member_may("catalog.get_view", depends));
    EXPECT_TRUE(may(caller(other_key_), "catalog.get_view", depends));
}

TEST_F(Method_Access_Test, a_key_is_for_one_host) {
    EXPECT_TRUE(access_.admit(caller(key_), "h1", why_));
    EXPECT_FALSE(access_.admit(caller(key_), "h3", why_));
    EXPECT_NE(std::string::npos, why_.find("its key is for host h1"));
    secure_string key;
    ASSERT_TRUE(members_.add({"late", "", true, {}}, key, why_));
    EXPECT_FALSE(access_.admit(caller(key), "h2", why_));
    EXPECT_NE(std::string::npos, why_.find("another member"));
    EXPECT_FALSE(may(caller(key), "pool.list")) << "it has not joined";
    EXPECT_TRUE(may(caller(key), "group.join"));
}

TEST_F(Method_Access_Test, members_are_kept_without_their_keys_and_end_when_removed) {
    EXPECT_FALSE(members_.add({"m", "", true, {}}, key_, why_));
    Group_Members again(*database_);
    ASSERT_TRUE(again.load());
    Rpc_Caller const known = again.caller(key_digest(key_.plain()));
    EXPECT_EQ("m", known.member);
    EXPECT_EQ("h1", known.host_uuid);
    EXPECT_EQ((std::set<std::string>{"p1"}), again.find("m")->pools);
    std::ifstream file(directory_.path("agent.db-wal"), std::ios::binary);
    std::string const bytes((std::istreambuf_iterator<char>(file)), {});
    EXPECT_NE(std::string::npos, bytes.find(key_digest_text(key_digest(key_.plain()))));
    EXPECT_EQ(std::string::npos, bytes.find(key_.plain()));
    Rpc_Caller const before = caller(key_);
    EXPECT_TRUE(members_.remove("m", why_));
    EXPECT_EQ(Rpc_Caller::NOBODY, caller(key_).kind);
    EXPECT_FALSE(may(before, "pool.list")) << "on a connection that is there";
    EXPECT_FALSE(members_.remove("m", why_));
}

TEST_F(Method_Access_Test, a_call_goes_to_another_host_only_for_a_run_and_its_instance) {
    instances_.note("h3", "gaussdb", "c1", "c1");
    Object const add{{"action", "add"}, {"cluster_id", "c1"}, {"uuid", "run"}, {"pool_uuid", "p1"}};
    Rpc_Caller const member = caller(key_);
    char const method[] = "gaussdb.roach_source";
    std::set<std::string> const tools{Run_Hold::metadata("h2"), Run_Hold::metadata("h3")};
    EXPECT_FALSE(forwards(member, "h3", method, add, "backup key")) << "another run may use it";
    EXPECT_EQ("", holds_.hold({"h1", "run", "a run"}, tools));
    EXPECT_TRUE(forwards(member, "h3", method, add, "backup key"));
    EXPECT_FALSE(forwards(member, "h2", method, add, "backup key")) << "it has not the instance";
    EXPECT_FALSE(forwards(member, "h3", "job.start", add, "backup key"));
    EXPECT_FALSE(forwards(member, "h3", "group.deliver", add, "backup key"));
    EXPECT_FALSE(forwards(member, "h3", method, add, "no key"));
    EXPECT_FALSE(forwards(member, "h3", method, add, ""));
    EXPECT_FALSE(forwards(caller(other_key_), "h3", method, add, "backup key")) << "a run of h1";
    EXPECT_FALSE(forwards(Rpc_Caller(), "h3", method, add, "backup key"));
    for (char const* key : {"action", "cluster_id", "uuid", "pool_uuid"}) {
        Object other = add;
        other[key] = "c2";
        EXPECT_FALSE(forwards(member, "h3", method, other, "backup key")) << key;
        other.erase(key);
        EXPECT_FALSE(forwards(member, "h3", method, other, "backup key")) << key;
    }
    Object const restore{
        {"action", "add"}, {"cluster_id", "c1"}, {"uuid", ""}, {"pool_uuid", "p2"}};
    EXPECT_NE("", holds_.hold({"h1", "restore", "a restore"}, tools));
    EXPECT_FALSE(forwards(member, "h3", method, restore, "restore key")) << "it still waits";
    holds_.release("h1", "run", tools);
    EXPECT_EQ("", holds_.hold({"h1", "restore", "a restore"}, tools));
    EXPECT_TRUE(forwards(member, "h3", method, restore, "restore key"));
    EXPECT_FALSE(forwards(member, "h3", method, add, "restore key"));
}

TEST_F(Method_Access_Test, the_other_host_takes_what_is_of_the_run_and_nothing_else) {
    Rpc_Caller const forwarded{Rpc_Caller::FORWARDED, {}, {}, std::make_shared<Run_Scope>(backup_)};
    Object const remove{{"action", "remove"}, {"uuid", "run"}, {"pool_uuid", "p1"}};
    EXPECT_TRUE(may(forwarded, "gaussdb.roach_source", remove));
    Object other = remove;
    other["uuid"] = "own";
    EXPECT_FALSE(may(forwarded, "gaussdb.roach_source", other));
    for (char const* method : {"job.start", "group.deliver", "pool.find", "catalog.add_piece"})
        EXPECT_FALSE(may(forwarded, method, remove)) << method;
}

TEST_F(Method_Access_Test, a_refusal_is_logged_once_for_each_caller_and_method) {
    for (int i = 0; i < 5; ++i) {
        backup_may("job.start");
        restore_may("job.start");
    }
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_WARNING, "Refused 'job.start' to run "));
}

namespace {

class Plain_Source : public Job_Source {
public:
    int generate(yajl_gen) override { return 0; }
};

/** A run of a member, which asks a backup server that the test plays. */
class Run_Access_Test : public testing::Test {
protected:
    Run_Access_Test() {
        Job_Definition_var definition = make_definition("nightly");
        definition->source(Job_Source_var(new Plain_Source));
        definition->source()->id("c1");
        job_ = Job_var(new Test_Job(definition), false);
        EXPECT_EQ(0, job_->start());
        upstream_->serve_call("run.begin", rpc_result(Object()));
        grant("");
        EXPECT_FALSE(access_.begin(*job_, "c1").empty());
    }
    ~Run_Access_Test() override { static_cast<Test_Job&>(*job_).complete(); }
    void grant(std::string const& waits_for) {
        upstream_->serve_call("run.hold", rpc_result(Object{{"waits_for", waits_for}}));
    }
    /** What the server is told of the only run. */
    Object told() const {
        Array const runs = access_.runs();
        EXPECT_EQ(1u, runs.size());
        return runs.empty() ? Object() : runs[0].get_obj();
    }

    Fake_Jobs jobs_;
    Scoped_Fake_Upstream upstream_;
    Run_Keys keys_;
    Run_Holds holds_{[](std::string const&, std::string const&) { return true; }};
    Run_Access access_{keys_, holds_, "h1", true};
    Job_var job_;
};

TEST_F(Run_Access_Test, a_server_that_has_restarted_is_told_what_a_run_has) {
    EXPECT_FALSE(told().contains("holds"));
    EXPECT_EQ(Hold_Answer::GRANTED, access_.hold(*job_, {"instance/c1"}).kind);
    EXPECT_EQ(Hold_Answer::GRANTED, access_.hold(*job_, {"metadata/h1", "metadata/h2"}).kind);
    grant("another run");
    EXPECT_EQ(Hold_Answer::WAIT, access_.hold(*job_, {"metadata/h3"}).kind);
    EXPECT_EQ(Value("nightly"), told().at("name"));
    EXPECT_EQ((Value(Array{Array{"instance/c1"}, Array{"metadata/h1", "metadata/h2"}})),
              told().at("holds"));
    access_.release(*job_, {"instance/c1"});
    Array left; // a list in braces with one array in it can be a copy of that array
    left.emplace_back(Array{"metadata/h1", "metadata/h2"});
    EXPECT_EQ(Value(left), told().at("holds"));
    access_.end(job_->run_id());
    EXPECT_TRUE(access_.runs().empty());
}

TEST_F(Run_Access_Test, a_run_of_the_same_id_begins_with_nothing) {
    EXPECT_EQ(Hold_Answer::GRANTED, access_.hold(*job_, {"instance/c1"}).kind);
    access_.end(job_->run_id());
    EXPECT_FALSE(access_.begin(*job_, "c1").empty());
    EXPECT_FALSE(told().contains("holds"));
}

} // namespace
