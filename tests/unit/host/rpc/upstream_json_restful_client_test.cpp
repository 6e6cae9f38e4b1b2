#include "host/rpc/upstream_json_restful_client.h"

#include "host/http/http_query_string_builder_t.h"
#include "tests/support/fake_upstream_backend.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

class Upstream_JSON_RESTful_Client_Test : public testing::Test {
protected:
    bool get(char const* path = "/d2/r/v2/resources") {
        return client_.get(HTTP_Request(HTTP_METHOD_GET, path, true), response_, &result_);
    }
    Scoped_Fake_Upstream upstream_;
    Upstream_JSON_RESTful_Client& client_ = *Upstream_JSON_RESTful_Client::instance();
    HTTP_Response response_;
    Value result_ = "old";
};

TEST_F(Upstream_JSON_RESTful_Client_Test, a_get_reaches_the_back_end_with_its_query) {
    upstream_->serve(HTTP_METHOD_GET, "/d2/r/v2/resources",
                     rest_answer(200, Object{{"rows", Array{}}}));
    HTTP_Request request(HTTP_METHOD_GET, "/d2/r/v2/resources", true);
    HTTP_Query_String_Builder(std::back_inserter(request.query_string_buffer()),
                              false)("feature", "backup")("instance_uuid", "a/b");
    EXPECT_TRUE(client_.get(request, response_, &result_));
    EXPECT_EQ(Value(Object{{"rows", Array{}}}), result_);
    EXPECT_EQ("feature=backup&instance_uuid=a%2fb", upstream_->rest_calls().at(0).query);
}

TEST_F(Upstream_JSON_RESTful_Client_Test, each_method_goes_out_as_itself) {
    for (int const method : {HTTP_METHOD_POST, HTTP_METHOD_PUT, HTTP_METHOD_DELETE})
        upstream_->serve(method, "/r", rest_answer(200, method));
    Value const body = 1;
    EXPECT_TRUE(
        client_.post(HTTP_Request(HTTP_METHOD_POST, "/r", true), &body, response_, &result_));
    EXPECT_EQ(Value(int{HTTP_METHOD_POST}), result_);
    EXPECT_TRUE(client_.put(HTTP_Request(HTTP_METHOD_PUT, "/r", true), &body, response_, nullptr));
    EXPECT_TRUE(client_.del(HTTP_Request(HTTP_METHOD_DELETE, "/r", true), response_, &result_));
    EXPECT_EQ(Value(1), upstream_->rest_calls().at(1).body);
}

TEST_F(Upstream_JSON_RESTful_Client_Test, an_error_status_is_false_and_not_logged) {
    upstream_->serve(HTTP_METHOD_GET, "/d2/r/v2/resources", rest_answer(500, "why"));
    EXPECT_FALSE(get());
    EXPECT_EQ(500, response_.status());
    EXPECT_EQ(Value("why"), result_);
}

TEST_F(Upstream_JSON_RESTful_Client_Test, a_server_that_cannot_be_reached_is_logged) {
    upstream_->reachable(false);
    EXPECT_FALSE(get());
    EXPECT_EQ(0, response_.status());
    EXPECT_EQ(Value(), result_);
    EXPECT_LOGGED(LM_ERROR,
                  "Failed to send HTTP request 'GET /d2/r/v2/resources' upstream, the server "
                  "cannot be reached\n");
}

TEST_F(Upstream_JSON_RESTful_Client_Test, without_a_back_end_it_fails) {
    Host_Services::instance().upstream(nullptr);
    response_.status(200);
    EXPECT_FALSE(get());
    EXPECT_EQ(0, response_.status());
    EXPECT_EQ(Value(), result_);
    EXPECT_LOGGED(LM_ERROR, "upstream, there is no upstream server\n");
}

TEST_F(Upstream_JSON_RESTful_Client_Test,
       a_request_that_may_not_be_sent_does_not_reach_the_back_end) {
    EXPECT_FALSE(get("/x\r\nforged"));
    EXPECT_LOGGED(LM_ERROR,
                  "'GET /x??forged' upstream, the path or the query has characters that may "
                  "not be there\n");
    EXPECT_FALSE(
        client_.put(HTTP_Request(HTTP_METHOD_GET, "/x", true), nullptr, response_, &result_));
    EXPECT_LOGGED(LM_ERROR, "the request was made for another method\n");
    EXPECT_TRUE(upstream_->rest_calls().empty());
}

} // namespace
