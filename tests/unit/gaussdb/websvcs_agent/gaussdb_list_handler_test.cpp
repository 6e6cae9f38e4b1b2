#include "gaussdb/websvcs_agent/gaussdb_list_handler.h"

#include "gaussdb/common/gaussdb_tpops_handler.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "tests/support/failing_new.h"
#include "tests/support/fake_instances.h"
#include "tests/support/log_capture.h"
#include "tests/support/no_more_descriptors.h"
#include "tests/support/product_directories.h"
#include "tests/support/recording_channel.h"
#include "tests/support/scripted_cluster.h"
#include "tests/unit/gaussdb/tpops_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::ElementsAre;
using testing::HasSubstr;

class List_Handler_Test : public testing::Test {
protected:
    List_Handler_Test() {
        auto const instance = std::make_shared<Instance>();
        instance->type = "gaussdb";
        instance->name = "c1";
        Instance_Manager::instance()->add_instance(instance);
        Instance_Manager::instance()->save_account("gaussdb", "c1", "user-1",
                                                   Object{{"username", "u"}, {"password", "p"}});
    }
    ~List_Handler_Test() override { GaussDB_Cluster_Manager::close_instance(); }

    /** What is sent back for these params. */
    Value ask(Value const& params, int outcome = 0) {
        JSON_RPC_Channel_var channel(new Recording_Channel);
        JSON_RPC_Object_var const request(new JSON_RPC_Request(Value(7), "gaussdb.list", params));
        EXPECT_EQ(outcome, handler_.handle_object(JSON_RPC_Channel_ptr(channel), request));
        auto const sent = static_cast<Recording_Channel*>(channel.get())->sent();
        EXPECT_EQ(outcome == 0 ? 1u : 0u, sent.size());
        return sent.empty() ? Value() : sent.front();
    }
    Value result(Value const& params) {
        Value const reply = ask(params);
        EXPECT_EQ(Value(7), reply.get_obj().at("id"));
        return json_spirit::object_get_any(reply.get_obj(), "result");
    }
    /** "CODE TEXT" of the error that is sent back; its id and its null data are looked at too. */
    std::string error(Value const& params) {
        Value const reply = ask(params);
        EXPECT_EQ(Value(7), reply.get_obj().at("id"));
        Object const& error = reply.get_obj().at("error").get_obj();
        EXPECT_TRUE(json_spirit::object_get_any(error, "data").is_null());
        return std::to_string(error.at("code").get_int64()) + " " + error.at("message").get_str();
    }
    static Object params(char const* database = nullptr) {
        Object object{{"uid", "user-1"}, {"instance", "c1"}};
        if (database)
            object["database"] = database;
        return object;
    }

    Product_Directories host_;
    Fake_Instances records_;
    JSON_RPC_GaussDB_List_Handler handler_;
};

TEST_F(List_Handler_Test, what_is_no_request_is_refused) {
    JSON_RPC_Channel_var channel(new Recording_Channel);
    JSON_RPC_Object_var const notify(new JSON_RPC_Notify("gaussdb.list", Value()));
    EXPECT_EQ(-1, handler_.handle_object(JSON_RPC_Channel_ptr(channel), notify));
    EXPECT_LOGGED(LM_EMERGENCY, "obj is not JSON-RPC request!\n");
    EXPECT_EQ(-1, handler_.handle_object(JSON_RPC_Channel_ptr(channel), JSON_RPC_Object_var()));
    EXPECT_LOGGED(LM_EMERGENCY, "obj is not JSON-RPC request!\n");
}

TEST_F(List_Handler_Test, a_requester_that_has_gone_gets_nothing_done) {
    Scripted_Cluster const* const cluster = Scripted_Cluster::enter("c1");
    JSON_RPC_Channel_ptr gone;
    {
        JSON_RPC_Channel_var channel(new Recording_Channel);
        gone = JSON_RPC_Channel_ptr(channel);
    }
    JSON_RPC_Object_var const request(new JSON_RPC_Request(Value(7), "m", Value(params())));
    EXPECT_EQ(-1, handler_.handle_object(gone, request));
    EXPECT_LOGGED(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
    EXPECT_TRUE(cluster->accounts.empty());
}

TEST_F(List_Handler_Test, params_of_another_kind) {
    for (Value const& other : {Value(Array{}), Value("x"), Value(5), Value(true)})
        EXPECT_EQ("-32602 Invalid params", error(other));
}

TEST_F(List_Handler_Test, without_params_the_instances_of_the_host) {
    Scripted_Cluster* const cluster = Scripted_Cluster::enter("c1");
    GaussDB_Cluster_Info info;
    info.name = "c1";
    cluster->info(info);
    Value const listed = result(Value());
    ASSERT_EQ(json_spirit::array_type, listed.type());
    ASSERT_EQ(1u, listed.get_array().size());
    Object const& record = listed.get_array()[0].get_obj();
    EXPECT_EQ("c1", record.at("instance").get_str());
    EXPECT_EQ(GAUSSDB_200, record.at("version").get_int());
    EXPECT_EQ("8.1.3", record.at("edition").get_str());
}

TEST_F(List_Handler_Test, a_host_without_instances_has_an_empty_list) {
    EXPECT_EQ(Value(Array{}), result(Value()));
}

TEST_F(List_Handler_Test, instances_that_cannot_be_listed) {
    No_More_Descriptors const none; // /proc cannot be read
    EXPECT_EQ("-32603 Internal error: failed to list servers", error(Value()));
    Log_Capture::instance().claim_all(LM_ERROR, "Failed to list services");
}

TEST_F(List_Handler_Test, required_keys) {
    for (char const* key : {"uid", "instance"}) {
        Object missing = params();
        missing.erase(key);
        EXPECT_EQ("-32602 Invalid params", error(missing)) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid request to list databases, ");
        Object unfit = params();
        unfit[key] = 5;
        EXPECT_EQ("-32602 Invalid params", error(unfit)) << key;
        EXPECT_LOGGED(LM_ERROR, "Invalid request to list databases, ");
    }
}

TEST_F(List_Handler_Test, a_database_of_another_kind) {
    Object unfit = params();
    unfit["database"] = Array{};
    EXPECT_EQ("-32602 Invalid params", error(unfit));
    EXPECT_LOGGED(LM_ERROR, "Invalid request to list databases, ");
}

TEST_F(List_Handler_Test, a_database_that_is_more_than_a_name_reaches_no_client) {
    Scripted_Cluster const* const cluster = Scripted_Cluster::enter("c1");
    for (char const* name : {"x; reboot", "$(id)", "`id`", "a'b", "a\"b", "a\\b", "-h", "a\nb"}) {
        EXPECT_EQ("-32602 Invalid params", error(params(name))) << name;
        EXPECT_LOGGED(LM_ERROR, "database '");
    }
    EXPECT_TRUE(cluster->accounts.empty());
}

TEST_F(List_Handler_Test, the_databases_without_the_templates) {
    Scripted_Cluster const* const cluster = Scripted_Cluster::enter("c1");
    cluster->answers.rows = {"template1", "postgres", "template0", "Template1", "template12"};
    Value const expected(
        Object{{"databases", Array{Object{{"name", "postgres"}}, Object{{"name", "Template1"}},
                                   Object{{"name", "template12"}}}}});
    EXPECT_EQ(expected, result(params()));
    EXPECT_THAT(cluster->accounts, ElementsAre("u/p@(null)"));
    EXPECT_THAT(cluster->answers.asked, ElementsAre("databases"));
}

TEST_F(List_Handler_Test, an_empty_database_is_as_none) {
    Scripted_Cluster const* const cluster = Scripted_Cluster::enter("c1");
    EXPECT_EQ(Value(Object{{"databases", Array{}}}), result(params("")));
    EXPECT_THAT(cluster->answers.asked, ElementsAre("databases"));
}

TEST_F(List_Handler_Test, an_account_that_is_not_there) {
    Scripted_Cluster const* const cluster = Scripted_Cluster::enter("c1");
    Object stranger = params();
    stranger["uid"] = "user-2";
    EXPECT_EQ("-32603 Internal error: get login info fail", error(stranger));
    EXPECT_TRUE(cluster->accounts.empty());
}

TEST_F(List_Handler_Test, a_cluster_that_is_not_known_is_not_searched_for) {
    host_.tools.prints("gs_check", "");
    EXPECT_EQ("-32603 Internal error: fail to get cluster", error(params()));
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
}

TEST_F(List_Handler_Test, databases_that_cannot_be_listed) {
    Scripted_Cluster::enter("c1")->answers.succeeds = false;
    EXPECT_EQ("-32603 Internal error: fail to get databases info", error(params()));
}

TEST_F(List_Handler_Test, the_schemas_of_a_database_are_listed_without_the_account) {
    Scripted_Cluster const* const cluster = Scripted_Cluster::enter("c1");
    cluster->answers.rows = {"public", "sales"};
    EXPECT_EQ(Value(Object{{"schemas", Array{"public", "sales"}}}), result(params("db1")));
    EXPECT_THAT(cluster->accounts, ElementsAre("/@db1"));
    EXPECT_THAT(cluster->answers.asked,
                ElementsAre(HasSubstr("where (oid >= 16384 or oid = 2200)")));
}

TEST_F(List_Handler_Test, the_schemas_of_a_new_version_are_told_apart_by_their_owner) {
    Scripted_Cluster const* const cluster = Scripted_Cluster::enter("c1", {GAUSSDB_DWS, 8, 2, 1});
    result(params("db1"));
    EXPECT_THAT(cluster->answers.asked, ElementsAre(HasSubstr("where nspowner != 10")));
}

TEST_F(List_Handler_Test, schemas_without_a_client) {
    Scripted_Cluster::enter("c1")->has_client = false;
    EXPECT_EQ("-32603 Internal error: fail to create client", error(params("db1")));
}

TEST_F(List_Handler_Test, schemas_that_cannot_be_listed) {
    Scripted_Cluster::enter("c1")->answers.succeeds = false;
    EXPECT_EQ("-32603 Internal error: fail to get schemas", error(params("db1")));
    EXPECT_LOGGED(LM_ERROR, "Failed to get database schemas.\n");
}

TEST_F(List_Handler_Test, without_memory_for_the_response_nothing_is_done) {
    Scripted_Cluster const* const cluster = Scripted_Cluster::enter("c1");
    for (Value const& wanted : {Value(), Value(params())}) {
        errno = 0;
        Failing_New const no_memory(sizeof(JSON_RPC_Response));
        ask(wanted, -1);
        EXPECT_EQ(ENOMEM, errno);
    }
    EXPECT_TRUE(cluster->accounts.empty());
}

TEST_F(List_Handler_Test, databases_of_a_platforms_instance) {
    TPOPS_Platform platform;
    auto* const cluster = new GaussDB_TPOPS_Handler;
    GaussDB_Cluster_Info info;
    info.extend_attrs = platform.record("i1");
    cluster->info(info);
    ASSERT_TRUE(cluster->init(""));
    ASSERT_TRUE(GaussDB_Cluster_Manager::instance()->add_cluster("c1", cluster));
    Array databases;
    for (char const* name : {"template0", "sales", "template1"}) {
        TPOPS_Database_Info database;
        database.name = name;
        databases.push_back(database.dump());
    }
    platform.on("GET /rds/gaussdb/v3/instances/i1/databases", Object{{"databases", databases}});
    Value const reply = ask(Object{{"uid", "user-1"}, {"instance", "c1"}});
    EXPECT_EQ(Value(Object{{"databases", Array{Object{{"name", "sales"}}}}}),
              reply.get_obj().at("result"));
    Value sent;
    ASSERT_TRUE(json_spirit::parse(platform.requests().front().body, sent, nullptr));
    EXPECT_EQ(Value(Object{{"username", "u"}, {"password", "p"}}), sent) << "of the user's account";
    Value const schemas = ask(Object{{"uid", "user-1"}, {"instance", "c1"}, {"database", "sales"}});
    EXPECT_EQ(Value(Object{{"schemas", Array{}}}), schemas.get_obj().at("result"))
        << "a platform takes no SQL";
}

} // namespace
