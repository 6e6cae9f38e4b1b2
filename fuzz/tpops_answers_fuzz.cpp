#include "gaussdb/common/gaussdb_tpops_handler.h"
#include "gaussdb/common/tpops_restful_client.h"
#include "host/agent/credential.h"
#include "host/http/platform_settings.h"
#include "json_spirit/access.h"
#include "qmrt/file.h"
#include "qmrt/names.h"

#include <arpa/inet.h>
#include <cstdlib>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

/**
 * A platform on the loopback that answers with the fuzzer's bytes. An input is a list of answers,
 * separated by bytes of 0xFF. The first byte of each is its status, or says that the bytes are the
 * whole answer, its head included. Aborts on a request that a platform must not receive.
 */
class Fuzzed_Platform {
public:
    Fuzzed_Platform() : listener_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(listener_.get(), generic, length) != 0 || listen(listener_.get(), 8) != 0 ||
            getsockname(listener_.get(), generic, &length) != 0)
            std::abort();
        port_ = ntohs(address.sin_port);
        std::thread([this] { serve(); }).detach();
    }

    uint16_t port() const { return port_; }

    void answers(std::string_view input) {
        std::lock_guard const guard(mutex_);
        answers_.clear();
        next_ = 0;
        for (size_t begin = 0; begin <= input.size();) {
            size_t const end = std::min(input.find('\xff', begin), input.size());
            answers_.emplace_back(input.substr(begin, end - begin));
            begin = end + 1;
        }
    }

private:
    void serve() {
        for (;;)
            if (File_Descriptor client(accept(listener_.get(), nullptr, nullptr)); client)
                std::thread([this, connection = std::move(client)] {
                    while (answer(connection.get()))
                        ;
                }).detach();
    }

    /** @return false when the connection is to be closed */
    bool answer(int client) {
        std::string request;
        size_t head = std::string::npos;
        char buffer[4096];
        while ((head = request.find("\r\n\r\n")) == std::string::npos) {
            ssize_t const count = recv(client, buffer, sizeof buffer, 0);
            if (count <= 0)
                return false;
            request.append(buffer, static_cast<size_t>(count));
        }
        size_t left = head + 4 + body_length(request.substr(0, head)) - request.size();
        for (ssize_t count = 1; left > 0 && count > 0; left -= static_cast<size_t>(count))
            if ((count = recv(client, buffer, std::min(left, sizeof buffer), 0)) <= 0)
                return false;
        check(request.substr(0, request.find("\r\n")));
        std::string text;
        bool const goes_on = next(text);
        return send(client, text.data(), text.size(), MSG_NOSIGNAL) ==
                   static_cast<ssize_t>(text.size()) &&
               goes_on;
    }

    static size_t body_length(std::string const& head) {
        size_t const at = head.find("\r\nContent-Length: ");
        return at == std::string::npos ? 0 : std::strtoul(head.c_str() + at + 18, nullptr, 10);
    }

    /** An answer must not change the path of a later request. */
    static void check(std::string const& line) {
        std::string const target = line.substr(0, line.rfind(" HTTP/1.1"));
        std::string const path = target.substr(0, target.find('?'));
        bool const is_plain =
            path.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                                   "/-_. ") == std::string::npos;
        if (path.find("/rds/") == std::string::npos || path.find("..") != std::string::npos ||
            path.find("//") != std::string::npos || !is_plain)
            std::abort();
    }

    bool next(std::string& text) {
        static constexpr char const* STATUS[] = {"200 OK",    "401 Unauthorized", "403 Forbidden",
                                                 "302 Found", "500 Error",        "201 Created"};
        std::lock_guard const guard(mutex_);
        std::string const answer = next_ < answers_.size() ? answers_[next_++] : "0{}";
        size_t const kind = answer.empty() ? 0 : static_cast<unsigned char>(answer.front()) % 8;
        std::string const body = answer.empty() ? "" : answer.substr(1);
        if (kind >= std::size(STATUS)) {
            text = body;
            return false;
        }
        text = std::string("HTTP/1.1 ") + STATUS[kind] +
               "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
        return true;
    }

    File_Descriptor const listener_;
    uint16_t port_ = 0;
    std::mutex mutex_;
    std::vector<std::string> answers_; ///< guarded by mutex_
    size_t next_ = 0;                  ///< guarded by mutex_
};

/** Calls the client, which may throw json_spirit::Error for an answer. */
template <typename Call>
void attempt(Call call) {
    try {
        (void)call();
    } catch (json_spirit::Error const&) {
    }
}

void call_all(TPOPS_RESTful_Client& client) {
    std::vector<TPOPS_Instance_Info> instances;
    std::vector<TPOPS_Database_Info> databases;
    json_spirit::Value value;
    std::string text;
    attempt([&] { return client.get_instances_info(instances); });
    if (instances.size() > TPOPS_RESTful_Client::MAX_INSTANCES)
        std::abort();
    std::string const id = instances.empty() ? "i1" : instances.front().id;
    char const* const instance = id.empty() ? "i1" : id.c_str();
    attempt([&] { return client.list_databases(instance, databases); });
    attempt([&] { return client.get_extend_info(instance, "XbsaRoute", value); });
    attempt([&] { return client.change_backup_media(instance, "XBSA", text); });
    attempt([&] { return client.create_physical_backup(instance, Backup_Args(), text); });
    attempt([&] { return client.create_log_backup(instance, Backup_Args(), text); });
    attempt([&] { return client.get_job_details(text.empty() ? "j" : text.c_str(), value); });
    tpops_state_from_string(text.c_str(), static_cast<int>(text.size()));
}

} // namespace

/** Client and handler must survive any answers of a platform. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static Fuzzed_Platform platform;
    static std::string const password = encrypt_string("p", CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH);
    Platform_Settings settings;
    settings.timeout = std::chrono::milliseconds(200); // an answer may say that more comes
    Platform_Settings::set(settings);
    platform.answers({reinterpret_cast<char const*>(data), size});
    TPOPS_Login login;
    login.host = "127.0.0.1";
    login.port = platform.port();
    login.ssl = false;
    login.username = "u";
    login.password = "p";
    TPOPS_RESTful_Client client;
    attempt([&] { return client.connect(login); });
    call_all(client);

    GaussDB_TPOPS_Handler handler;
    GaussDB_Cluster_Info info;
    info.extend_attrs =
        json_spirit::Object_Maker()("tpops_host", login.host)("tpops_port", int{login.port})(
            "tpops_ssl", false)("id", "i1")("username", "u")("password", password);
    handler.info(info);
    std::string status;
    bool balanced = false;
    if (!handler.init("") || (handler.get_status(status, balanced) && status.empty()))
        std::abort();
    return 0;
}
