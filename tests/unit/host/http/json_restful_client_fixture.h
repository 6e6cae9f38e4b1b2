#ifndef TESTS_UNIT_HOST_HTTP_JSON_RESTFUL_CLIENT_FIXTURE_H
#define TESTS_UNIT_HOST_HTTP_JSON_RESTFUL_CLIENT_FIXTURE_H

#include "host/http/json_restful_client.h"
#include "tests/support/https_server.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

/** A client that only notes how long it would have waited. */
class Unhurried_Client : public JSON_RESTful_Client {
public:
    using JSON_RESTful_Client::JSON_RESTful_Client;
    std::vector<long> pauses;

private:
    void pause_i(std::chrono::milliseconds duration) override {
        pauses.push_back(static_cast<long>(duration.count()));
    }
};

/** A client and a server over TLS that trust each other. */
class JSON_RESTful_Client_Fixture : public testing::Test {
protected:
    explicit JSON_RESTful_Client_Fixture(Https_Server::Options const& options = {})
        : server_(options), client_(true) {
        client_.ca_file(Test_Certificates::instance().certificate("ca"));
        client_.reset("localhost", server_.port(), !options.certificate.empty());
    }

    bool get(std::string const& path = "/x") {
        return client_.get(HTTP_Request(HTTP_METHOD_GET, path.c_str(), true), response_, &result_);
    }
    bool post(json_spirit::Value const& body) {
        return client_.post(HTTP_Request(HTTP_METHOD_POST, "/x", true), &body, response_, &result_);
    }
    /** A request that must end without an answer, with one line in the log. @return its error */
    std::string get_without_answer() {
        EXPECT_FALSE(get());
        EXPECT_EQ(0, response_.status());
        EXPECT_EQ("", response_.body());
        EXPECT_EQ(json_spirit::Value(), result_);
        EXPECT_LOGGED(LM_ERROR, "Failed to send HTTP request 'GET /x' to ");
        return response_.error();
    }

    Https_Server server_;
    Unhurried_Client client_;
    HTTP_Response response_;
    json_spirit::Value result_ = "not yet";
};

#define EXPECT_IN(part, whole)                                                                     \
    EXPECT_NE(std::string::npos, std::string(whole).find(part)) << (whole)

#endif
