#include "host/rpc/json_rpc_forward.h"

#include "tests/support/fake_upstream_backend.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

using namespace json_spirit;

namespace {

class JSON_RPC_Forward_Test : public testing::Test {
protected:
    bool forward(Value_type type) {
        return json_rpc_forward("gaussdb.roach_source", Object{{"action", "add"}}, "host-1",
                                &result_, type);
    }
    bool call(Value_type type) {
        return global_json_rpc("backup_set.gaussdb_restore_branch", Object{}, -1, result_, type,
                               -1);
    }
    Scoped_Fake_Upstream upstream_;
    Value result_ = "untouched";
};

TEST_F(JSON_RPC_Forward_Test, forwards_method_params_and_host) {
    upstream_->serve_forward("host-1", "gaussdb.roach_source", rpc_result(true));
    EXPECT_TRUE(forward(bool_type));
    EXPECT_EQ(Value(true), result_);
    ASSERT_EQ(1u, upstream_->rpc_calls().size());
    EXPECT_EQ("host-1", upstream_->rpc_calls()[0].host_uuid);
    EXPECT_EQ("gaussdb.roach_source", upstream_->rpc_calls()[0].method);
    EXPECT_EQ(Value(Object{{"action", "add"}}), upstream_->rpc_calls()[0].params);
}

TEST_F(JSON_RPC_Forward_Test, null_type_takes_a_result_of_any_type_and_the_result_may_be_left_out) {
    for (Value const& result : {Value(true), Value(), Value(Object{})}) {
        upstream_->serve_forward("host-1", "m", rpc_result(result));
        EXPECT_TRUE(json_rpc_forward("m", Value(), "host-1", nullptr, null_type));
        EXPECT_TRUE(json_rpc_forward("m", Value(), "host-1", &result_, null_type));
        EXPECT_EQ(result, result_);
    }
}

TEST_F(JSON_RPC_Forward_Test, a_result_of_another_type_is_a_failure) {
    upstream_->serve_forward("host-1", "gaussdb.roach_source", rpc_result("yes"));
    EXPECT_FALSE(forward(bool_type));
    EXPECT_LOGGED(LM_ERROR,
                  "Failed to call 'gaussdb.roach_source' of agent host-1, the result is of "
                  "type string instead of bool\n");
    EXPECT_EQ(Value("untouched"), result_);
}

TEST_F(JSON_RPC_Forward_Test, an_error_of_the_agent_is_logged_in_one_line) {
    upstream_->serve_forward("host-1", "gaussdb.roach_source",
                             rpc_error(-32603, "Failed to write roach policy\n"));
    EXPECT_FALSE(forward(null_type));
    EXPECT_LOGGED(LM_ERROR,
                  "Failed to call 'gaussdb.roach_source' of agent host-1, Failed to write "
                  "roach policy? (-32603)\n");
    EXPECT_EQ(Value("untouched"), result_);
}

TEST_F(JSON_RPC_Forward_Test, an_unknown_agent_is_a_failure) {
    EXPECT_FALSE(forward(null_type));
    EXPECT_LOGGED(LM_ERROR, "there is no agent host-1 (-32001)\n");
}

TEST_F(JSON_RPC_Forward_Test, no_method_or_host_is_a_broken_precondition) {
    EXPECT_FALSE(json_rpc_forward(nullptr, Value(), "host-1", nullptr, null_type));
    EXPECT_CHECK_LOGGED("method is NULL or \"\"");
    EXPECT_FALSE(json_rpc_forward("m", Value(), "", nullptr, null_type));
    EXPECT_CHECK_LOGGED("host_uuid is empty");
    EXPECT_FALSE(global_json_rpc("", Value(), -1, result_, null_type, -1));
    EXPECT_CHECK_LOGGED("method is NULL or \"\"");
    EXPECT_TRUE(upstream_->rpc_calls().empty());
}

TEST_F(JSON_RPC_Forward_Test, without_a_back_end_it_fails) {
    Host_Services::instance().upstream(nullptr);
    EXPECT_FALSE(forward(null_type));
    EXPECT_LOGGED(LM_ERROR, "there is no upstream server (-32001)\n");
    EXPECT_FALSE(call(null_type));
    EXPECT_LOGGED(LM_ERROR, "of the server, there is no upstream server (-32001)\n");
}

TEST_F(JSON_RPC_Forward_Test, the_server_itself_is_called_within_the_limits_given) {
    upstream_->serve_call("m", rpc_result(true));
    EXPECT_TRUE(global_json_rpc("m", Object{{"a", 1}}, 30, result_, bool_type, 5));
    EXPECT_EQ(Value(true), result_);
    ASSERT_EQ(1u, upstream_->rpc_calls().size());
    EXPECT_EQ(30, upstream_->rpc_calls()[0].limits.retry);
    EXPECT_EQ(5, upstream_->rpc_calls()[0].limits.answer);
    EXPECT_EQ(Value(Object{{"a", 1}}), upstream_->rpc_calls()[0].params);
}

TEST_F(JSON_RPC_Forward_Test, a_failure_of_the_server_is_logged) {
    EXPECT_FALSE(call(bool_type));
    EXPECT_LOGGED(LM_ERROR,
                  "Failed to call 'backup_set.gaussdb_restore_branch' of the server, Method "
                  "not found (-32601)\n");
    upstream_->serve_call("backup_set.gaussdb_restore_branch", rpc_result(Value()));
    EXPECT_FALSE(call(bool_type));
    EXPECT_LOGGED(LM_ERROR, "of type null instead of bool\n");
    EXPECT_EQ(Value("untouched"), result_);
}

} // namespace
