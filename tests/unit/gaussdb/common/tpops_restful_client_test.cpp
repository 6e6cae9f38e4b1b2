#include "gaussdb/common/tpops_restful_client.h"

#include "host/process/cancellation.h"
#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/tpops_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace {

using json_spirit::Object_Maker;
using testing::ElementsAre;

/** Logins, tokens and the one retry. */
class TPOPS_Connect_Test : public testing::Test {
protected:
    /** The token that each request brought, "-" for none; logins as "login:". */
    std::vector<std::string> tokens_sent() {
        std::vector<std::string> result;
        for (Https_Server::Request const& request : platform_.requests()) {
            std::string const token = request.header("x-mini-token");
            result.push_back((request.target == "/rds/v3/auth/mini-token" ? "login:" : "") +
                             (token.empty() ? std::string("-") : token));
        }
        return result;
    }
    bool get() { return client_.get("/x", result_); }
    void expect_error_line(int status, std::string const& body) {
        EXPECT_LOGGED(LM_ERROR, "TPOPS request 'GET /x' with  returns error, http status = " +
                                    std::to_string(status) + ", response body: " + body +
                                    ", trace_id: ");
    }

    TPOPS_Platform platform_{{}, false};
    TPOPS_RESTful_Client client_;
    json_spirit::Value result_;
};

TEST_F(TPOPS_Connect_Test, a_login_sends_name_and_password_and_keeps_the_token) {
    platform_.on_login("t1");
    ASSERT_TRUE(client_.connect(platform_.login()));
    ASSERT_EQ(1u, platform_.requests().size());
    json_spirit::Value sent;
    ASSERT_TRUE(json_spirit::parse(platform_.requests()[0].body, sent, nullptr));
    EXPECT_EQ(
        Object_Maker()("username", TPOPS_Platform::USER)("password", TPOPS_Platform::PASSWORD),
        sent);
    EXPECT_EQ("t1", TPOPS_Token::instance()->get_token(TPOPS_Platform::USER));
    EXPECT_TRUE(client_);
    EXPECT_EQ(200, client_.status());
    EXPECT_NOT_LOGGED("Pa$s");
    EXPECT_NOT_LOGGED("t1");
}

TEST_F(TPOPS_Connect_Test, before_a_login_nothing_is_sent) {
    EXPECT_EQ(200, client_.status());
    TPOPS_Login login = platform_.login();
    platform_.on_login_refused();
    EXPECT_FALSE(client_.connect(login));
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty: {\"errCode\":\"DBS.1\",\"errMsg\":\"no\"}");
    EXPECT_FALSE(client_);
    EXPECT_EQ(401, client_.status());
    EXPECT_FALSE(get());
    EXPECT_FALSE(client_.put("/x", result_, &result_));
    EXPECT_FALSE(client_.post("/x", result_, nullptr));
    EXPECT_TRUE(platform_.calls().empty());
}

TEST_F(TPOPS_Connect_Test, a_login_without_an_answer_fails) {
    platform_.on(TPOPS_Platform::LOGIN, Https_Server::Steps().reset());
    EXPECT_FALSE(client_.connect(platform_.login()));
    EXPECT_EQ(0, client_.status());
    EXPECT_EQ(1u, platform_.logins()) << "a login is not repeated";
    EXPECT_LOGGED(LM_ERROR, "Failed to send HTTP request 'POST /rds/v3/auth/mini-token'");
    EXPECT_LOGGED(LM_ERROR, "Failed to get mini token with TPOPS API");
}

TEST_F(TPOPS_Connect_Test, a_refused_login_that_is_not_an_object_fails) {
    platform_.on(TPOPS_Platform::LOGIN, 500, "<html>");
    EXPECT_FALSE(client_.connect(platform_.login()));
    EXPECT_EQ(500, client_.status());
    EXPECT_LOGGED(LM_ERROR, "Failed to get mini token with TPOPS API");
}

TEST_F(TPOPS_Connect_Test, a_token_beside_an_error_status_is_taken) {
    platform_.on(TPOPS_Platform::LOGIN, 409, R"({"x_mini_token": "t1"})");
    EXPECT_TRUE(client_.connect(platform_.login()));
    EXPECT_TRUE(client_);
}

TEST_F(TPOPS_Connect_Test, an_empty_token_is_none) {
    platform_.on_login("");
    EXPECT_FALSE(client_.connect(platform_.login()));
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty: {\"x_mini_token\":\"******\"}");
}

TEST_F(TPOPS_Connect_Test, a_good_answer_that_is_not_an_object_throws) {
    platform_.on(TPOPS_Platform::LOGIN, 200, "[]");
    EXPECT_THROW((void)client_.connect(platform_.login()), json_spirit::Error);
}

TEST_F(TPOPS_Connect_Test, a_huge_token_is_refused) {
    platform_.on_login(std::string(TPOPS_RESTful_Client::MAX_TOKEN_SIZE + 1, 'x'));
    EXPECT_FALSE(client_.connect(platform_.login()));
    EXPECT_LOGGED(LM_ERROR, "Refused a mini token of 65537 bytes, the limit is 65536");
    EXPECT_FALSE(client_);
}

TEST_F(TPOPS_Connect_Test, a_token_with_a_line_break_adds_no_header) {
    platform_.on_login("t1\r\nX-Other: 1");
    platform_.on("GET /x", 200, "{}");
    EXPECT_TRUE(client_.connect(platform_.login()));
    EXPECT_TRUE(get());
    EXPECT_EQ("", platform_.calls()[0].header("x-other"));
    EXPECT_EQ("", platform_.calls()[0].header("x-mini-token"));
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, ""));
    EXPECT_NOT_LOGGED("t1");
}

TEST_F(TPOPS_Connect_Test, the_old_token_goes_out_with_the_next_login) {
    platform_.on_login("t1");
    platform_.on_login("t2");
    EXPECT_TRUE(client_.connect(platform_.login()));
    EXPECT_TRUE(client_.connect(platform_.login()));
    platform_.on("GET /x", 200, "{}");
    EXPECT_TRUE(get());
    EXPECT_THAT(tokens_sent(), ElementsAre("login:-", "login:t1", "t2"));
}

TEST_F(TPOPS_Connect_Test, after_a_failed_login_the_old_token_is_still_sent) {
    platform_.on_login("t1");
    platform_.on_login_refused();
    platform_.on("GET /x", 200, "{}");
    EXPECT_TRUE(client_.connect(platform_.login()));
    EXPECT_FALSE(client_.connect(platform_.login()));
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty");
    EXPECT_TRUE(client_);
    EXPECT_TRUE(get());
    EXPECT_THAT(tokens_sent(), ElementsAre("login:-", "login:t1", "t1"));
}

TEST_F(TPOPS_Connect_Test, a_refused_token_is_renewed_once) {
    for (int const refusal : {401, 403}) {
        TPOPS_Platform platform({}, false);
        platform.on_login("t1");
        platform.on_login("t2");
        platform.on("GET /x", refusal, R"({"errCode": "DBS.2"})");
        platform.on("GET /x", 201, R"({"a": 1})");
        TPOPS_RESTful_Client client;
        ASSERT_TRUE(client.connect(platform.login()));
        EXPECT_TRUE(client.get("/x", result_));
        EXPECT_EQ(Object_Maker()("a", 1), result_);
        EXPECT_EQ(201, client.status());
        EXPECT_EQ("t2", platform.calls()[1].header("x-mini-token"));
        EXPECT_EQ(2u, platform.logins());
    }
}

TEST_F(TPOPS_Connect_Test, a_token_refused_twice_is_a_failure) {
    platform_.on_login("t1");
    platform_.on("GET /x", 401, R"({"errCode": "DBS.2"})", {{"X-TRACE-ID", "trace-7"}});
    ASSERT_TRUE(client_.connect(platform_.login()));
    EXPECT_FALSE(get());
    EXPECT_EQ(2u, platform_.calls().size());
    EXPECT_EQ(2u, platform_.logins());
    EXPECT_LOGGED(LM_ERROR, "TPOPS request 'GET /x' with  returns error, http status = 401, "
                            "response body: {\"errCode\":\"DBS.2\"}, trace_id: trace-7.");
    EXPECT_EQ(Object_Maker()("errCode", "DBS.2"), result_);
}

TEST_F(TPOPS_Connect_Test, a_renewal_that_is_refused_gives_the_logins_status) {
    platform_.on_login("t1");
    platform_.on_login_refused(403);
    platform_.on("GET /x", 401, "{}");
    ASSERT_TRUE(client_.connect(platform_.login()));
    EXPECT_FALSE(get());
    EXPECT_EQ(403, client_.status());
    EXPECT_EQ(1u, platform_.calls().size());
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty");
    expect_error_line(403, "{}");
}

TEST_F(TPOPS_Connect_Test, other_failures_are_not_repeated) {
    platform_.on_login("t1");
    ASSERT_TRUE(client_.connect(platform_.login()));
    platform_.on("GET /x", 500, "{}");
    EXPECT_FALSE(get());
    expect_error_line(500, "{}");
    EXPECT_EQ(1u, platform_.calls().size());
    EXPECT_EQ(1u, platform_.logins());
}

TEST_F(TPOPS_Connect_Test, a_cut_connection_is_not_repeated) {
    platform_.on_login("t1");
    ASSERT_TRUE(client_.connect(platform_.login()));
    platform_.on("POST /x", Https_Server::Steps().reset());
    result_ = "old";
    EXPECT_FALSE(client_.post("/x", json_spirit::Object(), &result_));
    EXPECT_EQ(0, client_.status());
    EXPECT_LOGGED(LM_ERROR, "Failed to send HTTP request 'POST /x' to localhost:");
    EXPECT_LOGGED(LM_ERROR, "TPOPS request 'POST /x' with {} returns error, http status = 0, "
                            "response body: null, trace_id: .");
    EXPECT_EQ(1u, platform_.calls().size());
}

TEST_F(TPOPS_Connect_Test, the_error_line_has_the_body_that_was_sent) {
    platform_.on_login("t1");
    platform_.on("PUT /x", 400, R"({"a": 1})");
    ASSERT_TRUE(client_.connect(platform_.login()));
    EXPECT_FALSE(client_.put("/x", Object_Maker()("b", 2), nullptr));
    EXPECT_LOGGED(LM_ERROR, "TPOPS request 'PUT /x' with {\"b\":2} returns error, http status = "
                            "400, response body: null, trace_id: .");
    EXPECT_EQ(R"({"b":2})", platform_.calls()[0].body);
}

TEST_F(TPOPS_Connect_Test, secrets_that_a_platform_sends_back_are_not_logged) {
    std::string const password = TPOPS_Platform::PASSWORD;
    platform_.on_login("token-one");
    platform_.on_login_refused();
    platform_.on(
        "GET /x", 401,
        TPOPS_Platform::text(Object_Maker()("why", "not " + password + ", token-one")(
            "x_mini_token", "unknown-token")("key token-one", json_spirit::Array{password})),
        {{"X-TRACE-ID", "of token-one"}});
    ASSERT_TRUE(client_.connect(platform_.login()));
    EXPECT_FALSE(get());
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty");
    expect_error_line(401, "{\"key ******\":[\"******\"],\"why\":\"not ******, ******\","
                           "\"x_mini_token\":\"******\"}");
    EXPECT_NOT_LOGGED("token-one");
    EXPECT_NOT_LOGGED("unknown-token");
    EXPECT_NOT_LOGGED("Pa$s");
    EXPECT_NOT_LOGGED("word;1");
}

TEST_F(TPOPS_Connect_Test, a_refused_login_that_repeats_the_password_does_not_reach_the_log) {
    platform_.on(TPOPS_Platform::LOGIN, 401,
                 TPOPS_Platform::text(Object_Maker()("sent", TPOPS_Platform::PASSWORD)));
    EXPECT_FALSE(client_.connect(platform_.login()));
    EXPECT_LOGGED(LM_ERROR, "Mini token is empty: {\"sent\":\"******\"}");
}

TEST_F(TPOPS_Connect_Test, a_long_answer_is_cut_in_the_log) {
    platform_.on_login("t1");
    ASSERT_TRUE(client_.connect(platform_.login()));
    platform_.on("GET /x", 500, TPOPS_Platform::text(std::string(100'000, 'a')));
    EXPECT_FALSE(get());
    expect_error_line(500, "\"" + std::string(1499, 'a') + "...");
}

TEST_F(TPOPS_Connect_Test, an_answer_that_is_too_long_is_refused) {
    platform_.on_login("t1");
    ASSERT_TRUE(client_.connect(platform_.login()));
    platform_.on("GET /x", Https_Server::Steps()
                               .send("HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n")
                               .endless("10000\r\n" + std::string(0x10000, ' ') + "\r\n"));
    EXPECT_FALSE(get());
    EXPECT_LOGGED(LM_ERROR, "response body is larger than 16777216 bytes");
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, "returns error"));
}

TEST_F(TPOPS_Connect_Test, a_platform_that_hangs_is_given_up) {
    Platform_Settings settings = Platform_Settings::get();
    settings.timeout = std::chrono::milliseconds(50);
    Platform_Settings::set(settings);
    platform_.on(TPOPS_Platform::LOGIN, Https_Server::Steps().gate("never"));
    EXPECT_FALSE(client_.connect(platform_.login()));
    EXPECT_EQ(0, client_.status());
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, "Failed to send HTTP request"));
    EXPECT_LOGGED(LM_ERROR, "Failed to get mini token");
}

TEST_F(TPOPS_Connect_Test, a_cancelled_run_does_not_wait_for_a_platform_that_hangs) {
    platform_.on(TPOPS_Platform::LOGIN, Https_Server::Steps().gate("never"));
    auto const cancellation = std::make_shared<Cancellation>("the run was cancelled");
    std::thread canceller([&] {
        platform_.await_requests(1);
        cancellation->cancel();
    });
    Cancellation_Scope const scope(cancellation);
    EXPECT_FALSE(client_.connect(platform_.login()));
    canceller.join();
    EXPECT_EQ("the run was cancelled", client_.fault());
    EXPECT_LOGGED(LM_ERROR, "the run was cancelled");
    EXPECT_LOGGED(LM_ERROR, "Failed to get mini token");
}

TEST_F(TPOPS_Connect_Test, a_redirect_is_not_followed) {
    TPOPS_Platform other;
    platform_.on_login("t1");
    platform_.on("GET /x", 302, "{}",
                 {{"Location", "https://localhost:" + std::to_string(other.port()) + "/x"}});
    ASSERT_TRUE(client_.connect(platform_.login()));
    EXPECT_FALSE(get());
    expect_error_line(302, "{}");
    EXPECT_TRUE(other.requests().empty());
}

TEST_F(TPOPS_Connect_Test, a_method_that_is_not_known_is_refused) {
    EXPECT_STREQ("DELETE", http_method_name(HTTP_METHOD_DELETE));
    struct Open : TPOPS_RESTful_Client {
        using TPOPS_RESTful_Client::send_request;
    } client;
    platform_.on_login("t1");
    ASSERT_TRUE(client.connect(platform_.login()));
    HTTP_Request request(HTTP_METHOD_DELETE, "/x", true);
    EXPECT_FALSE(client.send_request(request, nullptr, nullptr));
    EXPECT_LOGGED(LM_ERROR, "Unsupported method 'DELETE' for TPOPS RESTful API.");
    EXPECT_LOGGED(LM_ERROR, "TPOPS request 'DELETE /x' with  returns error, http status = 0");
    EXPECT_TRUE(platform_.calls().empty());
}

// trust

TEST_F(TPOPS_Connect_Test, a_platform_of_another_authority_gets_no_password) {
    Platform_Settings settings;
    settings.ca_file = Test_Certificates::instance().certificate("other_ca");
    Platform_Settings::set(settings);
    EXPECT_FALSE(client_.connect(platform_.login()));
    EXPECT_LOGGED(LM_ERROR, "Failed to send HTTP request");
    EXPECT_LOGGED(LM_ERROR, "Failed to get mini token");
    Platform_Settings::set(Platform_Settings());
    EXPECT_FALSE(client_.connect(platform_.login())) << "nor one that the system does not know";
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, ""));
    EXPECT_TRUE(platform_.requests().empty());
}

TEST_F(TPOPS_Connect_Test, a_certificate_of_another_host_gets_no_password) {
    TPOPS_Platform wrong({"wrong_host"});
    EXPECT_FALSE(client_.connect(wrong.login()));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, ""));
    EXPECT_TRUE(wrong.requests().empty());
}

TEST_F(TPOPS_Connect_Test, without_verification_every_login_warns) {
    TPOPS_Platform wrong({"wrong_host"});
    Platform_Settings settings;
    settings.verify = false;
    Platform_Settings::set(settings);
    std::string const line =
        "The certificate of TPOPS platform localhost:" + std::to_string(wrong.port()) +
        " is not verified";
    EXPECT_TRUE(client_.connect(wrong.login()));
    EXPECT_LOGGED(LM_WARNING, line);
    EXPECT_TRUE(client_.connect(wrong.login()));
    EXPECT_LOGGED(LM_WARNING, line);
}

TEST_F(TPOPS_Connect_Test, without_tls_every_login_warns) {
    Https_Server::Options plain;
    plain.certificate = "";
    TPOPS_Platform open(plain);
    EXPECT_TRUE(client_.connect(open.login()));
    EXPECT_LOGGED(LM_WARNING, "The connection to TPOPS platform localhost:" +
                                  std::to_string(open.port()) + " has no TLS");
}

TEST_F(TPOPS_Connect_Test, a_login_without_a_host_fails) {
    TPOPS_Login login = platform_.login();
    login.host = "";
    EXPECT_FALSE(client_.connect(login));
    EXPECT_LOGGED(LM_ERROR, "the host is not a valid name or address");
    EXPECT_LOGGED(LM_ERROR, "Failed to get mini token");
}

// two platforms whose users have one name

TEST_F(TPOPS_Connect_Test, a_token_of_another_platform_is_refused_and_renewed) {
    TPOPS_Platform other({}, false);
    other.on_login("of the other");
    platform_.on_login("t1");
    platform_.on_login("t2");
    platform_.on("GET /x", 401, "{}");
    platform_.on("GET /x", 200, R"({"at": "this"})");
    TPOPS_RESTful_Client there;
    ASSERT_TRUE(client_.connect(platform_.login()));
    ASSERT_TRUE(there.connect(other.login()));
    EXPECT_TRUE(get());
    EXPECT_EQ(Object_Maker()("at", "this"), result_);
    EXPECT_THAT(tokens_sent(), ElementsAre("login:-", "of the other", "login:of the other", "t2"));
    EXPECT_TRUE(other.calls().empty()) << "the request went to the platform of its login only";
}

} // namespace
