#ifndef TESTS_UNIT_GAUSSDB_TPOPS_PLATFORM_H
#define TESTS_UNIT_GAUSSDB_TPOPS_PLATFORM_H

#include "gaussdb/common/tpops_defs.h"
#include "gaussdb/common/tpops_token.h"
#include "host/agent/credential.h"
#include "host/http/platform_settings.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/https_server.h"

#include <algorithm>

/**
 * A TPOPS platform of one test over TLS, trusted by the module as long as this object lives: it
 * answers what the test says. It takes every login until the test says otherwise. Its end clears
 * the cached tokens and the settings for platforms.
 */
class TPOPS_Platform : public Https_Server {
public:
    static constexpr char LOGIN[] = "POST /rds/v3/auth/mini-token";
    static constexpr char USER[] = "backup_user";
    static constexpr char PASSWORD[] = "Pa$s\"word;1";

    explicit TPOPS_Platform(Options const& options = {}, bool takes_logins = true)
        : Https_Server(options), is_tls_(!options.certificate.empty()) {
        Platform_Settings settings;
        settings.ca_file = Test_Certificates::instance().certificate("ca");
        Platform_Settings::set(settings);
        if (takes_logins)
            on_login("token-1");
    }
    ~TPOPS_Platform() {
        Platform_Settings::set(Platform_Settings());
        TPOPS_Token::close_instance();
    }

    void on_login(std::string const& token) {
        on(LOGIN, 200, text(json_spirit::Object_Maker()("x_mini_token", token)));
    }
    void on_login_refused(int status = 401) {
        on(LOGIN, status, R"({"errCode": "DBS.1", "errMsg": "no"})");
    }
    using Https_Server::on;
    void on(std::string const& request, json_spirit::Object const& body) {
        on(request, 200, text(body));
    }
    static std::string text(json_spirit::Value const& value) { return json_spirit::to_text(value); }

    TPOPS_Login login() const {
        TPOPS_Login result;
        result.host = "localhost";
        result.port = port();
        result.ssl = is_tls_;
        result.username = USER;
        result.password = PASSWORD;
        return result;
    }
    /** What an instance's record has of this platform. */
    json_spirit::Object record(std::string const& id) const {
        return json_spirit::Object_Maker()("tpops_host", "localhost")("tpops_port", int{port()})(
            "tpops_ssl", is_tls_)("id", id)("username", USER)(
            "password", encrypt_string(PASSWORD, CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH));
    }

    /** Requests other than logins. */
    std::vector<Request> calls() {
        std::vector<Request> result = requests();
        std::erase_if(result, [](Request const& each) { return is_login(each); });
        return result;
    }
    size_t logins() {
        std::vector<Request> const all = requests();
        return static_cast<size_t>(std::count_if(all.begin(), all.end(), is_login));
    }
    /** "GET /path?query" of the last request that was not a login; "" without one. */
    std::string last_call() {
        std::vector<Request> const all = calls();
        return all.empty() ? "" : all.back().method + " " + all.back().target;
    }

private:
    static bool is_login(Request const& request) {
        return request.target == "/rds/v3/auth/mini-token";
    }

    bool is_tls_;
};

#endif
