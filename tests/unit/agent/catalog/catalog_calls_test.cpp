#include "agent/catalog/catalog_calls.h"

#include "agent/catalog/recorded_set.h"

#include "json_spirit/access.h"
#include "tests/support/fake_catalog.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

class Catalog_Calls_Test : public testing::Test {
protected:
    bool serve(char const* operation, Object const& params) {
        result_ = "untouched";
        message_.clear();
        return serve_catalog_call(catalog_, operation, params, result_, message_);
    }

    Fake_Catalog_Backend catalog_;
    Value result_;
    std::string message_;
};

TEST_F(Catalog_Calls_Test, a_recorded_set_gives_back_what_it_was_made_of) {
    Object const dump = {{"uuid", "a"}, {"storages", Array{Value(1)}}, {"big", UINT64_MAX}};
    Recorded_Set const set("kind", dump);
    EXPECT_EQ("a", set.uuid);
    EXPECT_EQ("kind", set.kind());
    EXPECT_EQ(Value(dump), Value(set.dump()));
    EXPECT_EQ("", Recorded_Set("kind", {{"uuid", 5}}).uuid);
}

TEST_F(Catalog_Calls_Test, the_limits_of_the_caller_are_the_catalogs) {
    ASSERT_TRUE(serve("initialize", {{"kind", "gaussdb"},
                                     {"set", Object{{"uuid", "a"}}},
                                     {"timeout", 3},
                                     {"max_seconds_retry", 9}}));
    EXPECT_EQ(3, catalog_.limits().timeout);
    EXPECT_EQ(9, catalog_.limits().max_seconds_retry);
    EXPECT_EQ(Value(Object()), result_);
    ASSERT_TRUE(
        serve("get_view", {{"type", "gaussdb"}, {"view", "catalogs"}, {"query", Object()}}));
    EXPECT_EQ(-1, catalog_.limits().timeout);
}

TEST_F(Catalog_Calls_Test, what_is_missing_or_of_another_kind_is_named_and_nothing_is_called) {
    std::pair<char const*, Object> const cases[] = {
        {"initialize", {{"set", Object()}}},
        {"initialize", {{"kind", "gaussdb"}}},
        {"complete", {{"kind", "gaussdb"}, {"set", "text"}}},
        {"commit", {{"kind", "g"}, {"set", Object{{"uuid", "a"}}}, {"overwrite", "yes"}}},
        {"abort", {}},
        {"abort", {{"uuid", 5}}},
        {"add_piece", {{"uuid", "a"}, {"pieces", Object()}}},
        {"get_view", {{"type", "gaussdb"}, {"view", "catalogs"}}},
        {"get_view",
         {{"type", "g"}, {"view", "catalogs"}, {"query", Object()}, {"timeout", "soon"}}},
        {"drop", {}},
        {"", {}}};
    for (auto const& [operation, params] : cases) {
        EXPECT_FALSE(serve(operation, params)) << operation;
        EXPECT_TRUE(message_.starts_with("Invalid params: ")) << message_;
        EXPECT_EQ(Value("untouched"), result_);
    }
    EXPECT_TRUE(catalog_.calls().empty());
}

TEST_F(Catalog_Calls_Test, a_name_that_nothing_can_have_reaches_no_catalog) {
    std::string const nul("a\0b", 3);
    for (std::string const& id : {std::string(), std::string("../x"), std::string("a\nb"), nul,
                                  std::string("\xff"), std::string(100'000, 'x')}) {
        for (char const* operation : {"initialize", "complete", "commit"}) {
            EXPECT_FALSE(serve(operation, {{"kind", "g"}, {"set", Object{{"uuid", id}}}}));
            EXPECT_TRUE(message_.starts_with("Invalid params: uuid: ")) << message_;
        }
        EXPECT_FALSE(serve("abort", {{"uuid", id}}));
        EXPECT_FALSE(serve("add_piece", {{"uuid", id}, {"pieces", Array()}}));
        EXPECT_TRUE(message_.starts_with("Invalid params: uuid: ")) << message_;
    }
    for (std::string const& path : {std::string(), std::string("../../etc/passwd"), nul,
                                    std::string("/"), std::string("a//b"), std::string("a\nb")}) {
        Array const pieces = {Object{{"path", "good"}}, Object{{"path", path}}};
        EXPECT_FALSE(serve("add_piece", {{"uuid", "a"}, {"pieces", pieces}}));
        EXPECT_TRUE(message_.starts_with("Invalid params: path: ")) << message_;
        EXPECT_FALSE(serve("initialize",
                           {{"kind", "g"}, {"set", Object{{"uuid", "a"}, {"pieces", pieces}}}}));
    }
    for (char const* key : {"pool_uuid", "resource_uuid", "backup_key", "uri"}) {
        EXPECT_FALSE(
            serve("initialize", {{"kind", "g"}, {"set", Object{{"uuid", "a"}, {key, "../x"}}}}));
        EXPECT_TRUE(message_.starts_with("Invalid params: " + std::string(key) + ": ")) << message_;
    }
    EXPECT_TRUE(catalog_.calls().empty());
}

TEST_F(Catalog_Calls_Test, a_failure_of_the_catalog_is_told) {
    EXPECT_FALSE(serve("abort", {{"uuid", "unknown"}}));
    EXPECT_LOGGED(LM_ERROR, "no open set");
    EXPECT_EQ("The catalog could not do abort; its log says why", message_);
}

} // namespace
