#ifndef TESTS_UNIT_GAUSSDB_WEBSVCS_AGENT_INSTANCE_HANDLER_FIXTURE_H
#define TESTS_UNIT_GAUSSDB_WEBSVCS_AGENT_INSTANCE_HANDLER_FIXTURE_H

#include "gaussdb/common/gaussdb_non_intrusive_handler.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/failing_new.h"
#include "tests/support/fake_instances.h"
#include "tests/support/fake_upstream_backend.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"
#include "tests/support/recording_channel.h"
#include "tests/support/scripted_cluster.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

/** A handler of instances with records, a registry, a backup server and a scripted ssh. */
template <typename Handler>
class Instance_Handler_Fixture : public testing::Test {
protected:
    using Array = json_spirit::Array;
    using Object = json_spirit::Object;
    using Value = json_spirit::Value;

    ~Instance_Handler_Fixture() override { GaussDB_Cluster_Manager::close_instance(); }

    /** What is sent back for these params; null when nothing is. */
    Value ask(Value const& params, int outcome = 0) {
        JSON_RPC_Channel_var channel(new Recording_Channel);
        JSON_RPC_Object_var const request(new JSON_RPC_Request(Value(7), "method", params));
        EXPECT_EQ(outcome, handler_.handle_object(JSON_RPC_Channel_ptr(channel), request));
        auto const sent = static_cast<Recording_Channel*>(channel.get())->sent();
        EXPECT_GE(1u, sent.size());
        return sent.empty() ? Value() : sent.front();
    }
    Value result(Value const& params) {
        Value const reply = ask(params);
        EXPECT_EQ(Value(7), reply.get_obj().at("id"));
        EXPECT_FALSE(reply.get_obj().count("error")) << JSON_Dump(reply, false).c_str();
        return json_spirit::object_get_any(reply.get_obj(), "result");
    }
    /** "CODE TEXT" of the error that is sent back. */
    std::string error(Value const& params) {
        Value const reply = ask(params);
        if (reply.type() != json_spirit::obj_type || !reply.get_obj().count("error"))
            return "no error";
        Object const& error = reply.get_obj().at("error").get_obj();
        return std::to_string(error.at("code").get_int64()) + " " + error.at("message").get_str();
    }
    /** What every handler refuses in the same way. */
    void expect_only_requests_are_handled() {
        JSON_RPC_Channel_var channel(new Recording_Channel);
        JSON_RPC_Object_var const notify(new JSON_RPC_Notify("method", Value()));
        EXPECT_EQ(-1, handler_.handle_object(JSON_RPC_Channel_ptr(channel), notify));
        EXPECT_LOGGED(LM_EMERGENCY, "obj is not JSON-RPC request!\n");
        EXPECT_EQ(-1, handler_.handle_object(JSON_RPC_Channel_ptr(channel), JSON_RPC_Object_var()));
        EXPECT_LOGGED(LM_EMERGENCY, "obj is not JSON-RPC request!\n");
        JSON_RPC_Channel_ptr gone;
        {
            JSON_RPC_Channel_var brief(new Recording_Channel);
            gone = JSON_RPC_Channel_ptr(brief);
        }
        JSON_RPC_Object_var const request(new JSON_RPC_Request(Value(7), "m", Value(Object{})));
        EXPECT_EQ(-1, handler_.handle_object(gone, request));
        EXPECT_LOGGED(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
    }
    /** A cluster that was declared by hand, in the registry and on record. */
    GaussDB_Non_Intrusive_Handler* enter_manual(char const* name) {
        Object const record{{"name", name},          {"instance", name},
                            {"address", "10.0.0.1"}, {"meta_path", "/gauss/meta"},
                            {"backup_port", 9000},   {"source_commands", "a;"},
                            {"ssh_options", "-4"},   {"manual", true},
                            {"version", 5}};
        auto* const cluster = new GaussDB_Non_Intrusive_Handler({GAUSSDB_FOR_OPENGAUSS, 505, 1, 0});
        GaussDB_Cluster_Info info;
        info.name = name;
        info.extend_attrs = record;
        cluster->info(info);
        EXPECT_TRUE(GaussDB_Cluster_Manager::instance()->add_cluster(name, cluster));
        put_record(name, record);
        return cluster;
    }
    void put_record(char const* name, Object const& options) {
        instances_->put({"gaussdb", name, "uuid-1", options, {}});
    }
    bool is_known(char const* name) const {
        return GaussDB_Cluster_Manager::instance()->cluster_exists(name);
    }
    std::shared_ptr<Instance> record(char const* name) { return instances_->find("gaussdb", name); }

    Product_Directories host_;
    Fake_Instances instances_;
    Scoped_Fake_Upstream upstream_;
    Handler handler_;
};

#endif
