#include "agent/rpc/rest_routes.h"

#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <stdexcept>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char RESOURCES[] = "/d2/r/v2/resources";

class Instance_Hosts_Route : public testing::Test {
protected:
    Instance_Hosts_Route() {
        add_instance_hosts_route(routes_, [](std::string const& uuid) {
            if (uuid == "cluster")
                return std::vector<std::string>{"h1", "h2"};
            return uuid == "single" ? std::vector<std::string>{"h1"} : std::vector<std::string>();
        });
    }
    int get(HTTP_Query const& query) {
        return routes_.handle({HTTP_METHOD_GET, RESOURCES, query, Value(), Rpc_Caller::local()},
                              answer_);
    }
    Rest_Routes routes_;
    Value answer_;
};

} // namespace

TEST_F(Instance_Hosts_Route, a_cluster_has_one_row_with_its_hosts) {
    EXPECT_EQ(200,
              get({{"feature", "backup"}, {"instance_uuid", "cluster"}, {"scope", "instances"}}));
    EXPECT_EQ(
        Value(Object{{"rows", Array{Object{{"form", "cluster"},
                                           {"instances", Array{Object{{"host_uuid", "h1"}},
                                                               Object{{"host_uuid", "h2"}}}}}}}}),
        answer_);
}

TEST_F(Instance_Hosts_Route, one_host_is_no_cluster_and_none_is_no_row) {
    EXPECT_EQ(200,
              get({{"feature", "backup"}, {"instance_uuid", "single"}, {"scope", "instances"}}));
    EXPECT_EQ(
        Value(Object{{"rows", Array{Object{{"form", "single"},
                                           {"instances", Array{Object{{"host_uuid", "h1"}}}}}}}}),
        answer_);
    EXPECT_EQ(200, get({{"feature", "backup"}, {"instance_uuid", "x"}, {"scope", "instances"}}));
    EXPECT_EQ(Value(Object{{"rows", Array()}}), answer_);
}

TEST_F(Instance_Hosts_Route, anything_else_is_a_bad_request) {
    for (HTTP_Query const& query :
         {HTTP_Query(), HTTP_Query{{"feature", "backup"}, {"scope", "instances"}},
          HTTP_Query{{"feature", "x"}, {"instance_uuid", "single"}, {"scope", "instances"}},
          HTTP_Query{{"feature", "backup"}, {"instance_uuid", "single"}, {"scope", "x"}}}) {
        EXPECT_EQ(400, get(query));
        EXPECT_TRUE(answer_.get_obj().contains("error"));
    }
}

TEST(Rest_Routes, what_is_not_served_is_told_apart) {
    Rest_Routes routes;
    Value answer;
    routes.add(HTTP_METHOD_PUT, "/r", [](Rest_Request const&, Value&) { return 204; });
    EXPECT_EQ(204,
              routes.handle({HTTP_METHOD_PUT, "/r", {}, Value(), Rpc_Caller::local()}, answer));
    EXPECT_EQ(Value(), answer);
    EXPECT_EQ(405,
              routes.handle({HTTP_METHOD_GET, "/r", {}, Value(), Rpc_Caller::local()}, answer));
    EXPECT_EQ(405,
              routes.handle({HTTP_METHOD_TRACE, "/r", {}, Value(), Rpc_Caller::local()}, answer));
    EXPECT_EQ(404,
              routes.handle({HTTP_METHOD_PUT, "/r/", {}, Value(), Rpc_Caller::local()}, answer));
    EXPECT_EQ(404, routes.handle({HTTP_METHOD_PUT, "", {}, Value(), Rpc_Caller::local()}, answer));
}

TEST(Rest_Routes, an_exception_is_500_and_tells_nothing) {
    Rest_Routes routes;
    Value answer;
    routes.add(HTTP_METHOD_GET, "/r", [](Rest_Request const&, Value&) -> int {
        throw std::runtime_error("inner secret");
    });
    EXPECT_EQ(500,
              routes.handle({HTTP_METHOD_GET, "/r", {}, Value(), Rpc_Caller::local()}, answer));
    EXPECT_EQ(Value(Object{{"error", "internal error"}}), answer);
    EXPECT_LOGGED(LM_ERROR, "inner secret");
}

TEST(Rest_Routes, a_resource_is_for_administrators_unless_it_says_more) {
    Rest_Routes routes;
    auto const serve = [](Rest_Request const&, Value&) { return 204; };
    routes.add(HTTP_METHOD_GET, "/people", serve);
    routes.add(HTTP_METHOD_GET, "/runs", serve, Rpc_Caller::RUN);
    auto const run = std::make_shared<Run_Scope>();
    Rpc_Caller const caller{Rpc_Caller::RUN, {}, {}, run};
    Value answer;
    EXPECT_EQ(204,
              routes.handle({HTTP_METHOD_GET, "/people", {}, {}, Rpc_Caller::admin()}, answer));
    EXPECT_EQ(403, routes.handle({HTTP_METHOD_GET, "/people", {}, {}, caller}, answer));
    EXPECT_EQ(204, routes.handle({HTTP_METHOD_GET, "/runs", {}, {}, caller}, answer));
    EXPECT_EQ(403, routes.handle({HTTP_METHOD_GET, "/runs", {}, {}, Rpc_Caller::admin()}, answer));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_WARNING, "Refused GET"));
}
