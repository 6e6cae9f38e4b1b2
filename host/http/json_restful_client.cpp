#include "host/http/json_restful_client.h"

#include "json_spirit/text.h"
#include "qmrt/log.h"
#include "qmrt/scoped_deleter.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <thread>

namespace {

using std::chrono::milliseconds;

/** What clients trust that were told nothing of their own. */
struct Default_Trust {
    std::mutex mutex;
    std::string ca_file;
    std::map<std::string, std::string> pinned_keys; ///< host to key

    static Default_Trust& instance() {
        static Default_Trust trust;
        return trust;
    }
};

/** "sha256//" and 43 Base64 digits with the "=" that 32 bytes need. */
bool is_pin(std::string const& text) {
    constexpr std::string_view PREFIX = "sha256//";
    constexpr size_t DIGITS = 43;
    return text.size() == PREFIX.size() + DIGITS + 1 && text.starts_with(PREFIX) &&
           text.back() == '=' &&
           text.find_first_not_of(
               "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/", PREFIX.size()) ==
               text.size() - 1;
}

/** The value of a response's body, or its beginning as text. @return true for JSON or nothing */
bool read_body(HTTP_Response& response, json_spirit::Value& value) {
    constexpr size_t MAX_TEXT = 4096;
    if (response.body().empty())
        return true;
    std::string fault;
    if (json_spirit::parse(response.body(), value, &fault))
        return true;
    response.error("the response's body is no JSON, " + fault);
    value = qmrt::to_utf8(std::string_view(response.body()).substr(0, MAX_TEXT));
    return false;
}

} // namespace

JSON_RESTful_Client::JSON_RESTful_Client(bool verify) {
    settings_.verify = verify;
}

JSON_RESTful_Client::~JSON_RESTful_Client() = default;

void JSON_RESTful_Client::reset(char const* host, unsigned short port, bool ssl) {
    std::string const name = host ? host : "";
    if (name != settings_.host || port != settings_.port || ssl != settings_.ssl)
        transfer_.close();
    settings_.host = name;
    settings_.port = port;
    settings_.ssl = ssl;
}

bool JSON_RESTful_Client::pinned_key(std::string const& pin) {
    if (!pin.empty() && !is_pin(pin))
        return false;
    settings_.pinned_key = pin;
    return true;
}

void JSON_RESTful_Client::default_ca_file(std::string const& path) {
    Default_Trust& trust = Default_Trust::instance();
    std::lock_guard const guard(trust.mutex);
    trust.ca_file = path;
}

bool JSON_RESTful_Client::default_pinned_key(std::string const& host, std::string const& pin) {
    if (!pin.empty() && !is_pin(pin))
        return false;
    Default_Trust& trust = Default_Trust::instance();
    std::lock_guard const guard(trust.mutex);
    if (pin.empty())
        trust.pinned_keys.erase(host);
    else
        trust.pinned_keys[host] = pin;
    return true;
}

HTTP_Transfer_Settings JSON_RESTful_Client::with_defaults() const {
    HTTP_Transfer_Settings result = settings_;
    Default_Trust& trust = Default_Trust::instance();
    std::lock_guard const guard(trust.mutex);
    if (result.ca_file.empty())
        result.ca_file = trust.ca_file;
    auto const pinned = trust.pinned_keys.find(result.host);
    if (result.pinned_key.empty() && pinned != trust.pinned_keys.end())
        result.pinned_key = pinned->second;
    return result;
}

bool JSON_RESTful_Client::get(HTTP_Request const& request, HTTP_Response& response,
                              json_spirit::Value* result) {
    return send(HTTP_METHOD_GET, request, nullptr, response, result);
}

bool JSON_RESTful_Client::post(HTTP_Request const& request, json_spirit::Value const* body,
                               HTTP_Response& response, json_spirit::Value* result) {
    return send(HTTP_METHOD_POST, request, body, response, result);
}

bool JSON_RESTful_Client::put(HTTP_Request const& request, json_spirit::Value const* body,
                              HTTP_Response& response, json_spirit::Value* result) {
    return send(HTTP_METHOD_PUT, request, body, response, result);
}

bool JSON_RESTful_Client::del(HTTP_Request const& request, HTTP_Response& response,
                              json_spirit::Value* result) {
    return send(HTTP_METHOD_DELETE, request, nullptr, response, result);
}

bool JSON_RESTful_Client::send(int method, HTTP_Request const& request,
                               json_spirit::Value const* body, HTTP_Response& response,
                               json_spirit::Value* result) {
    std::string text;
    Scoped_Deleter const wiper([&] { secure_memset(text.data(), 0, text.size()); });
    response.clear();
    try {
        if (method != request.method())
            response.error("the request was made for another method");
        else if (body)
            text = json_spirit::to_text(*body);
    } catch (json_spirit::Error const& fault) {
        response.error(fault.what());
    }

    json_spirit::Value value;
    bool done = response.error().empty() && exchange(request, body ? &text : nullptr, response);
    if (done)
        done = read_body(response, value) && response.ok();
    else
        QMRT_LOG(LM_ERROR, "Failed to send HTTP request '%s %s' to %s:%d, %s\n",
                 http_method_name(method), qmrt::to_one_line(request.path()).c_str(),
                 qmrt::to_one_line(settings_.host).c_str(), static_cast<int>(settings_.port),
                 qmrt::to_one_line(response.error()).c_str());
    if (result)
        *result = std::move(value);
    return done;
}

bool JSON_RESTful_Client::exchange(HTTP_Request const& request, std::string const* body,
                                   HTTP_Response& response) {
    constexpr milliseconds FIRST_PAUSE{200};
    constexpr milliseconds LONGEST_PAUSE{5000};
    HTTP_Transfer_Settings const settings = with_defaults();
    response.error(http_transfer_fault(settings, request));
    if (!response.error().empty())
        return false;

    int left = http_method_idempotent(request.method()) ? retries_ : 0;
    for (milliseconds pause = FIRST_PAUSE;; pause = std::min(pause * 2, LONGEST_PAUSE)) {
        HTTP_Transfer::Outcome const outcome = transfer_.perform(settings, request, body, response);
        if (outcome == HTTP_Transfer::DONE)
            return true;
        if (outcome == HTTP_Transfer::FAILED || left-- <= 0)
            return false;
        QMRT_LOG(LM_DEBUG, "HTTP request '%s %s' is sent again in %d ms, %s\n",
                 request.method_name(), request.path().c_str(), static_cast<int>(pause.count()),
                 response.error().c_str());
        pause_i(pause);
    }
}

void JSON_RESTful_Client::pause_i(milliseconds duration) {
    std::this_thread::sleep_for(duration);
}
