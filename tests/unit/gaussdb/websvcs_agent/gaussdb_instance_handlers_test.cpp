#include "gaussdb/websvcs_agent/gaussdb_get_instance_handler.h"
#include "gaussdb/websvcs_agent/gaussdb_modify_instance_handler.h"
#include "gaussdb/websvcs_agent/gaussdb_remove_instance_handler.h"
#include "tests/unit/gaussdb/websvcs_agent/instance_handler_fixture.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

using Get_Instance_Test = Instance_Handler_Fixture<JSON_RPC_GaussDB_Get_Instance_Handler>;

TEST_F(Get_Instance_Test, only_requests_are_handled) {
    expect_only_requests_are_handled();
}

TEST_F(Get_Instance_Test, the_record_of_a_declared_cluster) {
    Object const record = enter_manual("c1")->info().extend_attrs;
    EXPECT_EQ(Value(record), result(Object{{"instance", "c1"}}));
}

TEST_F(Get_Instance_Test, a_cluster_that_was_found_has_an_empty_record) {
    Scripted_Cluster::enter("c1");
    EXPECT_EQ(Value(Object{}), result(Object{{"instance", "c1"}}));
}

TEST_F(Get_Instance_Test, params_that_name_no_cluster) {
    enter_manual("c1");
    for (Value const& other : {Value(Array{}), Value("c1"), Value()})
        EXPECT_EQ("-32602 Params is not Object", error(other));
    for (Object const& other :
         {Object{}, Object{{"instance", ""}}, Object{{"instance", 5}}, Object{{"name", "c1"}}})
        EXPECT_EQ("-32602 Invalid params", error(other));
    EXPECT_EQ("-32602 cluster does not exists", error(Object{{"instance", "c2"}}));
}

TEST_F(Get_Instance_Test, without_memory_for_the_answer) {
    enter_manual("c1");
    errno = 0;
    Failing_New const no_memory(sizeof(JSON_RPC_Response));
    EXPECT_EQ("-32603 Internal error, out of memory.", error(Object{{"instance", "c1"}}));
    EXPECT_EQ(ENOMEM, errno);
}

class Modify_Instance_Test
    : public Instance_Handler_Fixture<JSON_RPC_GaussDB_Modify_Instance_Handler> {
protected:
    void SetUp() override {
        cluster_ = enter_manual("c1");
        host_.tools.prints("ssh", "port='8000'");
    }
    GaussDB_Non_Intrusive_Handler* cluster_ = nullptr;
};

TEST_F(Modify_Instance_Test, only_requests_are_handled) {
    expect_only_requests_are_handled();
}

TEST_F(Modify_Instance_Test, changes_registry_record_and_server) {
    EXPECT_EQ(
        Value(true),
        result(Object{
            {"name", "c1"}, {"address", "10.0.0.2"}, {"backup_port", 9001}, {"node_count", 3}}));
    for (Object const& seen :
         {cluster_->info().extend_attrs, record("c1")->options, instances_->told("c1")->options}) {
        EXPECT_EQ("10.0.0.2", seen.at("address").get_str());
        EXPECT_EQ(9001, seen.at("backup_port").get_int());
        EXPECT_EQ(3, seen.at("node_count").get_int());
        EXPECT_EQ("/gauss/meta", seen.at("meta_path").get_str());
    }
    EXPECT_EQ("uuid-1", record("c1")->uuid);
    EXPECT_EQ("10.0.0.2", host_.tools.call("ssh").args[2]) << "the node is asked anew";
}

TEST_F(Modify_Instance_Test, every_member_that_can_be_changed) {
    Object const changes{{"meta_path", "/m"},   {"address", "h"},    {"source_commands", "b;"},
                         {"ssh_options", "-6"}, {"backup_port", 1},  {"tpops_host", "t"},
                         {"tpops_port", 2},     {"tpops_ssl", true}, {"xbsa_host", "x"},
                         {"xbsa_port", 3},      {"xbsa_ssl", false}, {"node_count", 4}};
    Object params = changes;
    params["name"] = "c1";
    result(params);
    for (auto const& [key, value] : changes)
        EXPECT_EQ(value, record("c1")->options.at(key)) << key;
}

TEST_F(Modify_Instance_Test, members_of_a_platform_that_cannot_be_one_change_nothing) {
    Object const before = record("c1")->options;
    for (auto const& [key, value] : Object{{"tpops_host", "h/x"},
                                           {"xbsa_host", "-h"},
                                           {"tpops_port", 65536},
                                           {"xbsa_port", "8002"},
                                           {"xbsa_ssl", 1}}) {
        EXPECT_EQ("-32602 Invalid params", error(Object{{"name", "c1"}, {key, value}})) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid request to modify instance c1, ");
    }
    EXPECT_EQ(before, record("c1")->options);
}

TEST_F(Modify_Instance_Test, a_name_alone_initialises_anew_and_changes_nothing) {
    Object const before = record("c1")->options;
    EXPECT_EQ(Value(true), result(Object{{"name", "c1"}}));
    EXPECT_EQ(Value(before), Value(record("c1")->options));
    EXPECT_EQ(1u, host_.tools.calls("ssh"));
}

TEST_F(Modify_Instance_Test, other_members_are_ignored) {
    result(Object{
        {"name", "c1"}, {"manual", false}, {"version", 1}, {"instance", "c9"}, {"user", "root"}});
    EXPECT_TRUE(record("c1")->options.at("manual").get_bool());
    EXPECT_EQ(5, record("c1")->options.at("version").get_int());
    EXPECT_EQ("c1", record("c1")->options.at("instance").get_str());
    EXPECT_FALSE(record("c1")->options.count("user"));
}

TEST_F(Modify_Instance_Test, params_that_name_no_cluster) {
    for (Value const& other : {Value(Array{}), Value("c1"), Value()})
        EXPECT_EQ("-32602 Invalid params", error(other));
    for (Object const& other :
         {Object{}, Object{{"name", ""}}, Object{{"name", 5}}, Object{{"instance", "c1"}}})
        EXPECT_EQ("-32602 Missing instance name", error(other));
    EXPECT_EQ("-32602 Instance does not exists", error(Object{{"name", "c2"}}));
}

TEST_F(Modify_Instance_Test, values_that_are_not_accepted_change_nothing) {
    Object const before = cluster_->info().extend_attrs;
    for (auto const& [key, value] :
         std::vector<std::pair<std::string, Value>>{{"address", "-oProxyCommand=id"},
                                                    {"address", "a;id"},
                                                    {"address", 5},
                                                    {"meta_path", "/a $(id)"},
                                                    {"meta_path", "relative"},
                                                    {"source_commands", "a' b"},
                                                    {"ssh_options", "-o ProxyCommand=id"},
                                                    {"ssh_options", "-o StrictHostKeyChecking=no"},
                                                    {"backup_port", 65536},
                                                    {"backup_port", "9000"}}) {
        EXPECT_EQ("-32602 Invalid params", error(Object{{"name", "c1"}, {key, value}})) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid request to modify instance c1, " + key);
    }
    EXPECT_EQ(Value(before), Value(cluster_->info().extend_attrs));
    EXPECT_EQ(Value(before), Value(record("c1")->options));
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Modify_Instance_Test, a_handler_that_cannot_be_initialised_keeps_the_new_values) {
    struct Unready : Scripted_Cluster {
        bool init(char const*) override { return false; }
    };
    GaussDB_Cluster_Manager::instance()->add_cluster("c2", new Unready);
    put_record("c2", {});
    EXPECT_EQ("-32602 Init gaussdb instance handler error.",
              error(Object{{"name", "c2"}, {"node_count", 9}}));
    EXPECT_LOGGED(LM_ERROR, "Failed to init gaussdb instance handler.\n");
    EXPECT_EQ(9, GaussDB_Cluster_Manager::instance()
                     ->get_cluster("c2")
                     ->info()
                     .extend_attrs.at("node_count")
                     .get_int());
    EXPECT_TRUE(record("c2")->options.empty());
}

TEST_F(Modify_Instance_Test, a_cluster_that_is_not_on_record) {
    instances_->erase("gaussdb", "c1");
    EXPECT_EQ("-32602 Instance does not exists", error(Object{{"name", "c1"}}));
}

TEST_F(Modify_Instance_Test, the_owner_of_a_cluster_that_was_found_stays_on_record) {
    Scripted_Cluster::enter("c3");
    put_record("c3", {{"user", "omm"}, {"version", 2}});
    EXPECT_EQ(Value(true), result(Object{{"name", "c3"}, {"node_count", 2}}));
    EXPECT_EQ("omm", record("c3")->options.at("user").get_str());
    EXPECT_EQ(2, record("c3")->options.at("node_count").get_int());
}

TEST_F(Modify_Instance_Test, a_record_that_is_not_saved) {
    instances_->fail("put");
    EXPECT_EQ("-32603 Failed to add instance.", error(Object{{"name", "c1"}}));
    EXPECT_LOGGED(LM_ERROR, "Failed to add instance to agent.\n");
    Log_Capture::instance().claim_all(LM_ERROR, "put");
}

TEST_F(Modify_Instance_Test, a_server_that_is_not_told) {
    instances_->fail("tell_server");
    EXPECT_EQ("-32603 Failed to update instance.", error(Object{{"name", "c1"}}));
    EXPECT_LOGGED(LM_ERROR, "Failed to update instance c1 to backupd.\n");
    Log_Capture::instance().claim_all(LM_ERROR, "tell_server");
}

TEST_F(Modify_Instance_Test, without_memory_for_the_answer) {
    errno = 0;
    Failing_New const no_memory(sizeof(JSON_RPC_Response));
    EXPECT_EQ("-32603 Internal error, out of memory.", error(Object{{"name", "c1"}}));
    EXPECT_EQ(ENOMEM, errno);
}

class Remove_Instance_Test
    : public Instance_Handler_Fixture<JSON_RPC_GaussDB_Remove_Instance_Handler> {
protected:
    void SetUp() override {
        enter_manual("c1");
        serve_hosts({"here"});
    }
    void serve_hosts(std::vector<std::string> const& uuids) {
        Array hosts;
        for (std::string const& uuid : uuids)
            hosts.emplace_back(Object{{"host_uuid", uuid}});
        upstream_->serve(
            HTTP_METHOD_GET, "/d2/r/v2/resources",
            rest_answer(200, Object{{"rows", Array{Object{{"form", "x"}, {"instances", hosts}}}}}));
    }
};

TEST_F(Remove_Instance_Test, only_requests_are_handled) {
    expect_only_requests_are_handled();
}

TEST_F(Remove_Instance_Test, a_cluster_of_one_host_goes_from_registry_record_and_server) {
    GaussDB_Cluster_Handler_var const held =
        GaussDB_Cluster_Manager::instance()->get_cluster("c1"); // by a running job
    EXPECT_EQ(Value(true), result(Object{{"instance", "c1"}}));
    EXPECT_FALSE(is_known("c1"));
    EXPECT_FALSE(record("c1"));
    EXPECT_THAT(instances_->calls(), testing::Contains("tell_server removed c1"));
    EXPECT_EQ("c1", held->info().name);
}

TEST_F(Remove_Instance_Test, a_cluster_of_two_hosts_stays) {
    serve_hosts({"here", "other"});
    EXPECT_EQ("-32602 The instance to be deleted is still bound to a cluster",
              error(Object{{"instance", "c1"}}));
    EXPECT_TRUE(is_known("c1"));
    EXPECT_TRUE(record("c1"));
}

TEST_F(Remove_Instance_Test, hosts_that_cannot_be_asked_for_are_no_hindrance) {
    upstream_->reachable(false);
    EXPECT_EQ(Value(true), result(Object{{"instance", "c1"}}));
    Log_Capture::instance().claim_all(LM_ERROR, "");
    EXPECT_FALSE(is_known("c1"));
}

TEST_F(Remove_Instance_Test, params_that_name_no_cluster) {
    for (Value const& other : {Value(Array{}), Value("c1"), Value()})
        EXPECT_EQ("-32602 Invalid params", error(other));
    for (Object const& other :
         {Object{}, Object{{"instance", ""}}, Object{{"instance", 5}}, Object{{"name", "c1"}}})
        EXPECT_EQ("-32602 Missing cluster name", error(other));
    EXPECT_EQ("-32602 Cluster does not exist", error(Object{{"instance", "c2"}}));
    EXPECT_LOGGED(LM_ERROR, "can't find gaussdb instance.\n");
}

TEST_F(Remove_Instance_Test, a_cluster_that_was_found_stays) {
    auto* const cluster = Scripted_Cluster::enter("c2");
    put_record("c2", {});
    for (Object const& record : {Object{}, Object{{"manual", false}}, Object{{"manual", "yes"}}}) {
        GaussDB_Cluster_Info info;
        info.extend_attrs = record;
        cluster->info(info);
        EXPECT_EQ("-32602 Cluster is not manual added", error(Object{{"instance", "c2"}}));
    }
    EXPECT_TRUE(is_known("c2"));
}

TEST_F(Remove_Instance_Test, a_cluster_that_is_not_on_record) {
    instances_->erase("gaussdb", "c1");
    EXPECT_EQ("-32602 Cluster instance does not exist", error(Object{{"instance", "c1"}}));
    EXPECT_LOGGED(LM_ERROR, "can't find gaussdb instance.\n");
    EXPECT_TRUE(is_known("c1"));
}

TEST_F(Remove_Instance_Test, a_record_that_cannot_be_removed) {
    instances_->fail("tell_server");
    EXPECT_EQ("-32602 Remove instance failed", error(Object{{"instance", "c1"}}));
    EXPECT_LOGGED(LM_ERROR, "Failed to remove instance c1.\n");
    Log_Capture::instance().claim_all(LM_ERROR, "tell_server");
    EXPECT_TRUE(is_known("c1"));
}

TEST_F(Remove_Instance_Test, without_memory_for_the_answer) {
    errno = 0;
    Failing_New const no_memory(sizeof(JSON_RPC_Response));
    EXPECT_EQ("-32603 Internal error, out of memory.", error(Object{{"instance", "c1"}}));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_FALSE(is_known("c1"));
}

} // namespace
