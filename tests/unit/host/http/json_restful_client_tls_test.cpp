#include "host/http/json_restful_client.h"

#include "qmrt/scoped_deleter.h"
#include "tests/unit/host/http/json_restful_client_fixture.h"

namespace {

std::string const WRONG_PIN = "sha256//AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=";

class JSON_RESTful_Client_TLS_Test : public testing::Test {
protected:
    /** Starts a server with that certificate and sends it one request. */
    bool reach(std::string const& certificate, char const* host = "127.0.0.1") {
        server_ = std::make_unique<Https_Server>(Https_Server::Options{certificate});
        server_->on("GET /x", 200, "{}");
        client_.reset(host, server_->port(), true);
        return again();
    }
    bool again() {
        return client_.get(HTTP_Request(HTTP_METHOD_GET, "/x", true), response_, nullptr);
    }
    /** After a request that must have been refused before anything was said. @return its error */
    std::string refusal() {
        EXPECT_EQ(0, response_.status());
        EXPECT_LOGGED(LM_ERROR, "Failed to send HTTP request 'GET /x' to ");
        EXPECT_TRUE(server_->requests().empty());
        return response_.error();
    }
    std::string certificate(std::string const& name) {
        return Test_Certificates::instance().certificate(name);
    }
    std::string pin(std::string const& name) { return Test_Certificates::instance().pin(name); }

    std::unique_ptr<Https_Server> server_;
    Unhurried_Client client_{true};
    HTTP_Response response_;
};

TEST_F(JSON_RESTful_Client_TLS_Test, a_server_of_a_trusted_authority_is_reached) {
    client_.ca_file(certificate("ca"));
    EXPECT_TRUE(reach("good")) << response_.error();
    EXPECT_TRUE(reach("good", "localhost")) << response_.error();
}

TEST_F(JSON_RESTful_Client_TLS_Test, a_server_of_an_unknown_authority_is_refused) {
    EXPECT_FALSE(reach("good"));
    EXPECT_IN("certificate", refusal());
    EXPECT_TRUE(client_.pauses.empty()) << "there is no use in trying again";
}

TEST_F(JSON_RESTful_Client_TLS_Test, a_server_of_another_authority_is_refused) {
    client_.ca_file(certificate("other_ca"));
    EXPECT_FALSE(reach("good"));
    EXPECT_IN("certificate", refusal());
}

TEST_F(JSON_RESTful_Client_TLS_Test, a_certificate_for_another_host_is_refused) {
    client_.ca_file(certificate("ca"));
    EXPECT_FALSE(reach("wrong_host"));
    refusal();
    EXPECT_FALSE(reach("wrong_host", "localhost"));
    refusal();
}

TEST_F(JSON_RESTful_Client_TLS_Test, an_expired_certificate_is_refused) {
    client_.ca_file(certificate("ca"));
    EXPECT_FALSE(reach("expired"));
    EXPECT_IN("expired", refusal());
}

TEST_F(JSON_RESTful_Client_TLS_Test, without_verification_anyone_is_reached) {
    for (char const* name : {"good", "expired", "wrong_host"}) {
        Unhurried_Client trusting(false);
        Https_Server server({name});
        server.on("GET /x", 200, "{}");
        trusting.reset("127.0.0.1", server.port(), true);
        EXPECT_TRUE(trusting.get(HTTP_Request(HTTP_METHOD_GET, "/x", true), response_, nullptr));
    }
}

TEST_F(JSON_RESTful_Client_TLS_Test, the_pinned_key_is_accepted) {
    client_.ca_file(certificate("ca"));
    ASSERT_TRUE(client_.pinned_key(pin("good")));
    EXPECT_TRUE(reach("good")) << response_.error();
}

TEST_F(JSON_RESTful_Client_TLS_Test, another_key_than_the_pinned_one_is_refused) {
    client_.ca_file(certificate("ca"));
    ASSERT_TRUE(client_.pinned_key(WRONG_PIN));
    EXPECT_FALSE(reach("good"));
    EXPECT_IN("public key", refusal());
}

TEST_F(JSON_RESTful_Client_TLS_Test, the_pinned_key_does_not_make_a_certificate_good) {
    ASSERT_TRUE(client_.pinned_key(pin("good")));
    EXPECT_FALSE(reach("good")) << "nobody trusts its authority";
    refusal();
    client_.ca_file(certificate("ca"));
    ASSERT_TRUE(client_.pinned_key(pin("expired")));
    EXPECT_FALSE(reach("expired"));
    refusal();
}

TEST_F(JSON_RESTful_Client_TLS_Test, the_pinned_key_counts_without_verification_too) {
    for (bool const right : {true, false}) {
        Unhurried_Client client(false);
        ASSERT_TRUE(client.pinned_key(right ? pin("expired") : WRONG_PIN));
        Https_Server server({"expired"});
        server.on("GET /x", 200, "{}");
        client.reset("127.0.0.1", server.port(), true);
        EXPECT_EQ(right, client.get(HTTP_Request(HTTP_METHOD_GET, "/x", true), response_, nullptr));
        EXPECT_EQ(right ? 0u : 1u, Log_Capture::instance().claim_all(LM_ERROR, "public key"));
    }
}

TEST_F(JSON_RESTful_Client_TLS_Test, a_text_that_is_no_pin_is_refused_and_the_old_one_stays) {
    ASSERT_TRUE(client_.pinned_key(WRONG_PIN));
    for (std::string const& text :
         {std::string("/etc/passwd"), std::string("sha256//"), WRONG_PIN + "=",
          WRONG_PIN + ";" + WRONG_PIN, "sha1//" + WRONG_PIN.substr(8),
          "sha256//" + std::string(44, '='), "sha256//" + std::string(43, '-') + "="})
        EXPECT_FALSE(client_.pinned_key(text)) << text;
    client_.ca_file(certificate("ca"));
    EXPECT_FALSE(reach("good"));
    refusal();
    EXPECT_TRUE(client_.pinned_key(""));
    EXPECT_TRUE(reach("good"));
}

TEST_F(JSON_RESTful_Client_TLS_Test, with_a_pinned_key_nothing_goes_out_in_plain) {
    ASSERT_TRUE(client_.pinned_key(pin("good")));
    server_ = std::make_unique<Https_Server>(Https_Server::Options{""});
    client_.reset("127.0.0.1", server_->port(), false);
    EXPECT_FALSE(again());
    EXPECT_EQ("a key is pinned, but the connection has no TLS", refusal());
    EXPECT_EQ(0, server_->connections());
}

TEST_F(JSON_RESTful_Client_TLS_Test, authorities_that_cannot_be_read_are_an_error) {
    client_.ca_file("/nonexistent/ca.pem");
    EXPECT_FALSE(reach("good"));
    EXPECT_IN("certificate", refusal());
    client_.ca_file(Test_Certificates::instance().files().write("empty.pem", "no PEM\n"));
    EXPECT_FALSE(reach("good"));
    refusal();
}

TEST_F(JSON_RESTful_Client_TLS_Test,
       a_kept_connection_does_not_outlive_the_trust_it_was_made_with) {
    client_.ca_file(certificate("ca"));
    EXPECT_TRUE(reach("good"));
    client_.ca_file(certificate("other_ca"));
    EXPECT_FALSE(again());
    EXPECT_LOGGED(LM_ERROR, "certificate");
    EXPECT_EQ(1u, server_->requests().size());
    client_.ca_file(certificate("ca"));
    ASSERT_TRUE(client_.pinned_key(WRONG_PIN));
    EXPECT_FALSE(again());
    EXPECT_LOGGED(LM_ERROR, "public key");
    EXPECT_EQ(1u, server_->requests().size());
}

TEST_F(JSON_RESTful_Client_TLS_Test,
       the_default_authorities_are_those_of_clients_without_their_own) {
    JSON_RESTful_Client::default_ca_file(certificate("ca"));
    Scoped_Deleter const guard([] { JSON_RESTful_Client::default_ca_file(""); });
    EXPECT_TRUE(reach("good")) << response_.error();
    client_.ca_file(certificate("other_ca"));
    EXPECT_FALSE(reach("good"));
    refusal();
}

TEST_F(JSON_RESTful_Client_TLS_Test,
       the_default_key_of_a_host_is_that_of_clients_without_their_own) {
    client_.ca_file(certificate("ca"));
    ASSERT_TRUE(JSON_RESTful_Client::default_pinned_key("127.0.0.1", WRONG_PIN));
    Scoped_Deleter const guard([] { JSON_RESTful_Client::default_pinned_key("127.0.0.1", ""); });
    EXPECT_FALSE(JSON_RESTful_Client::default_pinned_key("127.0.0.1", "no pin"));
    EXPECT_FALSE(reach("good"));
    refusal();
    EXPECT_TRUE(reach("good", "localhost")) << "another host";
    ASSERT_TRUE(client_.pinned_key(pin("good")));
    EXPECT_TRUE(reach("good")) << "a key of its own";
}

TEST_F(JSON_RESTful_Client_TLS_Test, tls_does_not_speak_to_a_plain_server_nor_plain_to_tls) {
    client_.ca_file(certificate("ca"));
    // a plain server may wait for the end of the line that it takes the greeting for
    client_.connect_timeout(std::chrono::milliseconds(300));
    server_ = std::make_unique<Https_Server>(Https_Server::Options{""});
    client_.reset("127.0.0.1", server_->port(), true);
    EXPECT_FALSE(again());
    refusal();
    server_ = std::make_unique<Https_Server>();
    client_.reset("127.0.0.1", server_->port(), false);
    EXPECT_FALSE(again());
    refusal();
}

TEST_F(JSON_RESTful_Client_TLS_Test, tls_older_than_1_2_is_not_spoken) {
    client_.ca_file(certificate("ca"));
    Https_Server::Options options;
    options.newest_tls = "TLSv1_1";
    server_ = std::make_unique<Https_Server>(options);
    client_.reset("127.0.0.1", server_->port(), true);
    EXPECT_FALSE(again());
    refusal();
    options.newest_tls = "TLSv1_2";
    server_ = std::make_unique<Https_Server>(options);
    server_->on("GET /x", 200, "{}");
    client_.reset("127.0.0.1", server_->port(), true);
    EXPECT_TRUE(again()) << response_.error();
}

} // namespace
