#include "agent/catalog/remote_catalog.h"

#include "agent/catalog/catalog_calls.h"
#include "agent/catalog/catalog_tables.h"
#include "agent/catalog/sqlite_catalog.h"

#include "json_spirit/text.h"
#include "tests/contract/catalog_contract.h"
#include "tests/support/agent_database.h"
#include "tests/support/fake_upstream_backend.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

constexpr Catalog_Limits LIMITS = {-1, -1};

/** A backup server whose catalog answers in JSON texts, as it does over a wire. */
struct Own_Server {
    Own_Server() {
        for (std::string const operation :
             {"initialize", "complete", "commit", "abort", "add_piece", "get_view"})
            upstream->serve_call("catalog." + operation,
                                 [this, operation](Value const& params, JSON_RPC_Reply& reply) {
                                     return serve(operation, params, reply);
                                 });
    }
    bool serve(std::string const& operation, Value const& params, JSON_RPC_Reply& reply) {
        Value sent, result;
        EXPECT_TRUE(json_spirit::parse(json_spirit::to_text(params), sent, nullptr));
        if (!serve_catalog_call(catalog, operation, sent.get_obj(), result, reply.message)) {
            // the server's own log is on another machine; params that are refused are not logged
            EXPECT_TRUE(reply.message.starts_with("Invalid params") ||
                        Log_Capture::instance().claim_all(LM_ERROR, "The catalog") != 0);
            return false;
        }
        return json_spirit::parse(json_spirit::to_text(result), reply.result, nullptr);
    }

    Test_Database database{{CATALOG_TABLES}};
    SQLite_Catalog catalog{*database};
    Scoped_Fake_Upstream upstream;
    Remote_Catalog remote;
};

std::shared_ptr<Catalog_Backend> make_remote() {
    auto const own = std::make_shared<Own_Server>();
    return {own, &own->remote};
}

INSTANTIATE_TEST_SUITE_P(Remote, Catalog_Contract, testing::Values(make_remote));

TEST(Remote_Catalog, without_a_server_and_with_one_out_of_reach_all_fails) {
    Remote_Catalog catalog;
    Value result = "before";
    EXPECT_FALSE(catalog.initialize(LIMITS, Contract_Set("a")));
    EXPECT_LOGGED(LM_ERROR, "could not do initialize: there is no backup server");
    Scoped_Fake_Upstream upstream;
    upstream->reachable(false);
    EXPECT_FALSE(catalog.get_view(LIMITS, "gaussdb", "catalogs", {}, result));
    EXPECT_LOGGED(LM_ERROR, "The catalog of the backup server could not do get_view: ");
    EXPECT_EQ(Value("before"), result);
}

TEST(Remote_Catalog, an_answer_that_is_none_fails_and_changes_nothing) {
    Scoped_Fake_Upstream upstream;
    Remote_Catalog catalog;
    Value result = "before";
    Array pieces = {Value("before")};
    for (Value const& answer : {Value(), Value("x"), Value(Array())}) {
        upstream->serve_call("catalog.complete", rpc_result(answer));
        EXPECT_FALSE(catalog.complete(LIMITS, Contract_Set("a")));
        EXPECT_LOGGED(LM_ERROR, "gave no object for complete");
    }
    upstream->serve_call("catalog.get_view", rpc_result(Object()));
    EXPECT_FALSE(catalog.get_view(LIMITS, "gaussdb", "catalogs", {}, result));
    EXPECT_LOGGED(LM_ERROR, "gave no result of view \"catalogs\"");
    EXPECT_EQ(Value("before"), result);
    upstream->serve_call("catalog.abort", rpc_result(Object{{"pieces", "none"}}));
    EXPECT_FALSE(catalog.abort(LIMITS, "a", pieces));
    EXPECT_LOGGED(LM_ERROR, "did not tell the pieces");
    EXPECT_EQ(Value("before"), pieces.at(0));
}

TEST(Remote_Catalog, limits_go_with_the_call) {
    Scoped_Fake_Upstream upstream;
    upstream->serve_call("catalog.initialize", rpc_result(Object()));
    Remote_Catalog catalog;
    ASSERT_TRUE(catalog.initialize({-1, -1}, Contract_Set("a")));
    ASSERT_TRUE(catalog.initialize({5, 60}, Contract_Set("a")));
    auto const calls = upstream->rpc_calls();
    ASSERT_EQ(2u, calls.size());
    EXPECT_EQ(-1, calls[0].limits.answer);
    EXPECT_EQ(-1, calls[0].limits.retry);
    EXPECT_EQ(65, calls[1].limits.answer);
    EXPECT_EQ(60, calls[1].limits.retry);
    EXPECT_EQ(Value(60),
              json_spirit::object_get_any(calls[1].params.get_obj(), "max_seconds_retry"));
}

} // namespace
