#include "gaussdb/websvcs_agent/gaussdb_create_instance_handler.h"

#include "tests/unit/gaussdb/websvcs_agent/instance_handler_fixture.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char DWS_TEXT[] = "gs_check (GaussDB 8.2.1 build 1234) compiled";
constexpr char OPENGAUSS_TEXT[] = "gs_check (GaussDB Kernel 505.1.0 build 1234) compiled";

class Create_Instance_Test
    : public Instance_Handler_Fixture<JSON_RPC_GaussDB_Create_Instance_Handler> {
protected:
    void SetUp() override { node_is(DWS_TEXT); }

    /** What the node answers to the question for its version, and then for its port. */
    void node_is(std::string const& version) {
        std::filesystem::remove(host_.tools.path("calls/ssh.count"));
        host_.tools.script("ssh", "out " + version + "\n---\nout port='8000'");
    }
    static Object params(Object const& changes = {}) {
        Object object{{"name", "c1"},
                      {"uid", "user-1"},
                      {"meta_path", "/gauss/meta"},
                      {"address", "10.0.0.1"},
                      {"backup_port", 9000}};
        for (auto const& [key, value] : changes)
            object[key] = value;
        return object;
    }
    std::vector<std::string> ssh(size_t number) { return host_.tools.call("ssh", number).args; }
    void expect_nothing_left() {
        EXPECT_FALSE(is_known("c1"));
        EXPECT_FALSE(record("c1"));
        EXPECT_THAT(upstream_->notifications(), IsEmpty());
    }
};

TEST_F(Create_Instance_Test, only_requests_are_handled) {
    expect_only_requests_are_handled();
}

TEST_F(Create_Instance_Test, a_dws_cluster_is_recorded) {
    std::string const uuid = result(params()).get_str();
    EXPECT_EQ(36u, uuid.size());
    ASSERT_TRUE(record("c1"));
    EXPECT_EQ(uuid, record("c1")->uuid);
    Object const expected{
        {"name", "c1"},
        {"instance", "c1"},
        {"meta_path", "/gauss/meta"},
        {"address", "10.0.0.1"},
        {"backup_port", 9000},
        {"source_commands",
         "source /etc/profile; test -f $BIGDATA_HOME/mppdb/.mppdbgs_profile && source "
         "$BIGDATA_HOME/mppdb/.mppdbgs_profile; "},
        {"ssh_options", "-o ConnectTimeout=4"},
        {"manual", true},
        {"version", 4},
        {"major", 8},
        {"edition", "8.2.1"}};
    EXPECT_EQ(Value(expected), Value(record("c1")->options));
    GaussDB_Cluster_Handler_var const cluster =
        GaussDB_Cluster_Manager::instance()->get_cluster("c1");
    ASSERT_FALSE(cluster.null());
    EXPECT_TRUE(dynamic_cast<GaussDB_Non_Intrusive_Handler*>(cluster.get()));
    EXPECT_EQ(Value(expected), Value(cluster->info().extend_attrs));
    EXPECT_EQ("c1", cluster->info().name);
    EXPECT_TRUE(cluster->get_gaussdb_version() == GaussDB_Version(GAUSSDB_DWS, 8, 2, 1));
}

TEST_F(Create_Instance_Test, the_version_is_asked_without_the_flavours_prefix) {
    result(params());
    EXPECT_THAT(ssh(1),
                ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.1",
                            "test -f ~/gauss_env_file && source ~/gauss_env_file; source "
                            "/etc/profile; test -f $BIGDATA_HOME/mppdb/.mppdbgs_profile && source "
                            "$BIGDATA_HOME/mppdb/.mppdbgs_profile; gs_check -V"));
}

TEST_F(Create_Instance_Test, an_opengauss_cluster_gets_its_own_prefix) {
    node_is(OPENGAUSS_TEXT);
    result(params());
    Object const options = record("c1")->options;
    EXPECT_EQ(5, options.at("version").get_int());
    EXPECT_EQ(505, options.at("major").get_int());
    EXPECT_EQ("test -f ~/gauss_env_file && source ~/gauss_env_file; ",
              options.at("source_commands").get_str());
}

TEST_F(Create_Instance_Test, the_callers_texts_are_used_and_the_prefix_ends_with_a_semicolon) {
    for (char const* commands : {"a", "a;"}) {
        node_is(DWS_TEXT);
        result(params({{"source_commands", commands},
                       {"ssh_options", "-o Port=2222"},
                       {"address", "omm@cn1"}}));
        EXPECT_EQ("a;", record("c1")->options.at("source_commands").get_str());
        EXPECT_EQ("-o Port=2222", record("c1")->options.at("ssh_options").get_str());
        EXPECT_THAT(ssh(1), ElementsAre("ssh", "-o", "Port=2222", "omm@cn1", "a;gs_check -V"));
        GaussDB_Cluster_Manager::instance()->remove_cluster("c1");
        instances_->erase("gaussdb", "c1");
    }
}

TEST_F(Create_Instance_Test, the_account_has_no_credentials) {
    result(params());
    Object account;
    ASSERT_TRUE(instances_->get_account("gaussdb", "c1", "user-1", account));
    EXPECT_EQ("null", account.at("username").get_str());
    EXPECT_EQ("instance", account.at("auth_type").get_str());
    std::string username;
    secure_string password;
    EXPECT_EQ(0, Instance_Manager::instance()->get_account("gaussdb", "user-1", "c1", username,
                                                           password));
    EXPECT_EQ("null", password);
}

TEST_F(Create_Instance_Test, the_backup_server_is_told) {
    result(params());
    ASSERT_EQ(1u, upstream_->notifications().size());
    auto const [method, told] = upstream_->notifications().front();
    EXPECT_EQ("backupd.instance.notify", method);
    EXPECT_EQ(Value(Object{{"type", "gaussdb"},
                           {"name", "c1"},
                           {"accounts", Array{Object{{"user_uuid", "user-1"}, {"name", "null"}}}}}),
              told);
}

TEST_F(Create_Instance_Test, a_server_that_was_not_told_is_no_failure) {
    upstream_->reachable(false);
    EXPECT_EQ(36u, result(params()).get_str().size());
    EXPECT_LOGGED(LM_ERROR, "Failed to notify the server");
    EXPECT_TRUE(record("c1"));
}

TEST_F(Create_Instance_Test, without_memory_for_the_message_the_server_is_not_told) {
    Failing_New const no_memory(sizeof(JSON_RPC_Request));
    EXPECT_EQ(36u, result(params()).get_str().size());
    EXPECT_LOGGED(LM_ERROR,
                  "Failed to create 'backupd.instance.notify' JSON-RPC request object.\n");
    Log_Capture::instance().claim_all(LM_ERROR, "memory");
    EXPECT_THAT(upstream_->notifications(), IsEmpty());
}

TEST_F(Create_Instance_Test, params_that_are_no_object) {
    for (Value const& other : {Value(Array{}), Value("x"), Value(5), Value()})
        EXPECT_EQ("-32602 Invalid params", error(other));
}

TEST_F(Create_Instance_Test, keys_that_are_missing_or_of_another_kind) {
    for (char const* key : {"name", "uid", "meta_path", "address", "backup_port"}) {
        Object missing = params();
        missing.erase(key);
        EXPECT_EQ("-32602 Invalid params", error(missing)) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid request to create an instance, ");
        EXPECT_EQ("-32602 Invalid params", error(params({{key, Array{}}}))) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid request to create an instance, ");
    }
    for (char const* key : {"source_commands", "ssh_options"}) {
        EXPECT_EQ("-32602 Invalid params", error(params({{key, 5}}))) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid request to create an instance, ");
    }
    for (int64_t port : {int64_t(65536), int64_t(-1)}) {
        EXPECT_EQ("-32602 Invalid params", error(params({{"backup_port", port}})));
        EXPECT_LOGGED(LM_ERROR, "Invalid request to create an instance, ");
    }
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
    expect_nothing_left();
}

TEST_F(Create_Instance_Test, names_that_could_be_more_than_names_reach_no_shell) {
    for (char const* hostile : {"", "a;id", "$(id)", "`id`", "a'b", "a\"b", "-oProxyCommand=id",
                                "a b", "a\nb", "../x", "a\\b"})
        for (char const* key : {"name", "uid", "meta_path", "address"}) {
            EXPECT_EQ("-32602 Invalid params", error(params({{key, hostile}})))
                << key << " " << hostile;
            EXPECT_LOGGED(LM_ERROR, "Invalid request to create an instance, ");
        }
    for (auto const& [key, hostile] : {std::pair{"ssh_options", "-o ProxyCommand=id"},
                                       {"ssh_options", "-o StrictHostKeyChecking=no"},
                                       {"ssh_options", "-oStrictHostKeyChecking=accept-new"},
                                       {"ssh_options", "-F /tmp/x"},
                                       {"ssh_options", "10.0.0.2 id"},
                                       {"source_commands", "a' -oProxyCommand=id '"},
                                       {"source_commands", "a\nb"}}) {
        EXPECT_EQ("-32602 Invalid params", error(params({{key, hostile}}))) << hostile;
        EXPECT_LOGGED(LM_ERROR, "Invalid request to create an instance, ");
    }
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
    expect_nothing_left();
}

TEST_F(Create_Instance_Test, a_name_that_is_there_is_refused) {
    Scripted_Cluster::enter("c1");
    EXPECT_EQ("-32602 Name already exists", error(params()));
    EXPECT_LOGGED(LM_ERROR, "GaussDB instance c1 already exists.\n");
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Create_Instance_Test, the_record_of_a_stopped_cluster_is_not_taken_over) {
    put_record("c1", {{"user", "omm"}});
    EXPECT_EQ("-32602 Name already exists", error(params()));
    EXPECT_LOGGED(LM_ERROR, "GaussDB instance c1 already exists.\n");
    EXPECT_EQ("omm", record("c1")->options.at("user").get_str());
}

TEST_F(Create_Instance_Test, a_node_that_does_not_answer) {
    host_.tools.script("ssh", "err Host key verification failed.\nexit 255");
    EXPECT_EQ("-32602 Failed to get GaussDB version", error(params()));
    EXPECT_LOGGED(LM_ERROR, "Failed to get GaussDB version.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "Host key verification failed");
    expect_nothing_left();
}

TEST_F(Create_Instance_Test, versions_that_need_an_agent) {
    for (char const* text :
         {"gs_check (GaussDB 7.9.9 build 1) compiled", "gs_check GaussDB_100_1.0.1"}) {
        node_is(text);
        EXPECT_EQ("-32602 This GaussDB version does not support non-intrusive backup",
                  error(params()))
            << text;
        expect_nothing_left();
    }
    node_is("gs_check (GaussDB 8.0.0 build 1) compiled");
    result(params());
    EXPECT_EQ(4, record("c1")->options.at("version").get_int());
}

TEST_F(Create_Instance_Test, a_cluster_that_cannot_be_initialised) {
    Read_Only_Mount const read_only("/usr/openv");
    EXPECT_EQ("-32603 Failed to init DWS cluster handler.", error(params()));
    Log_Capture::instance().claim_all(LM_ERROR, "Failed to mkdir");
    expect_nothing_left();
}

TEST_F(Create_Instance_Test, without_memory_for_the_handler_the_record_stands) {
    Failing_New const no_memory(sizeof(GaussDB_Non_Intrusive_Handler));
    result(params());
    EXPECT_TRUE(record("c1"));
    EXPECT_FALSE(is_known("c1"));
}

TEST_F(Create_Instance_Test, without_memory_for_the_record_nothing_is_answered_and_nothing_left) {
    errno = 0;
    Failing_New const no_memory(sizeof(Instance));
    EXPECT_TRUE(ask(params()).is_null());
    EXPECT_EQ(ENOMEM, errno);
    expect_nothing_left();
}

TEST_F(Create_Instance_Test, a_record_that_is_not_saved) {
    for (char const* operation : {"put", "tell_server"}) {
        node_is(DWS_TEXT);
        instances_->fail(operation);
        EXPECT_EQ("-32603 Failed to save instance.", error(params()));
        EXPECT_LOGGED(LM_ERROR, "Failed to add instance.\n");
        Log_Capture::instance().claim_all(LM_ERROR, operation);
        expect_nothing_left();
        instances_->fail(operation, false);
    }
    node_is(DWS_TEXT);
    result(params());
}

TEST_F(Create_Instance_Test, an_account_that_is_not_saved) {
    instances_->fail("save_account");
    EXPECT_EQ("-32603 Failed to save account.", error(params()));
    EXPECT_LOGGED(LM_ERROR, "Failed to save account.\n");
    Log_Capture::instance().claim_all(LM_ERROR, "save_account");
    expect_nothing_left();
}

TEST_F(Create_Instance_Test, without_memory_for_the_answer) {
    errno = 0;
    Failing_New const no_memory(sizeof(JSON_RPC_Response));
    EXPECT_EQ("-32603 Internal error, out of memory.", error(params()));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_TRUE(record("c1"));
}

} // namespace
