#include "host/http/http_transfer.h"

#include "host/process/cancellation.h"

#include <algorithm>
#include <cstring>
#include <curl/curl.h>
#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <type_traits>
#include <vector>

namespace {

constexpr size_t MAX_HEADERS_SIZE = 256 * 1024;
constexpr char const* NO_TEXT = nullptr;

bool has_only(std::string_view text, std::string_view others) {
    return std::all_of(text.begin(), text.end(), [&](char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               others.find(c) != std::string_view::npos;
    });
}

std::string_view without_brackets(std::string_view host) {
    bool const bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return bracketed ? host.substr(1, host.size() - 2) : host;
}

/** The beginning of a URL: "https://[::1]:60305". */
std::string origin(HTTP_Transfer_Settings const& settings) {
    std::string host(without_brackets(settings.host));
    if (host.find(':') != std::string::npos)
        host = "[" + host + "]";
    return (settings.ssl ? "https://" : "http://") + host + ":" + std::to_string(settings.port);
}

/** What the callbacks of one request work on. */
struct Exchange {
    HTTP_Transfer_Settings const& settings;
    CURL* easy;
    HTTP_Response answer{};
    std::string body{};
    size_t headers_size = 0;
    bool handed_on = false; ///< the sink has got something
    std::chrono::steady_clock::time_point last_sign = std::chrono::steady_clock::now();
    std::string refusal{}; ///< why a callback ended the request
    std::shared_ptr<Cancellation> cancellation =
        settings.cancellable ? Cancellation::current() : nullptr;

    bool succeeded() const {
        long status = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
        return status >= 200 && status < 300;
    }

    bool take_header(std::string_view line) {
        headers_size += line.size();
        if (headers_size > MAX_HEADERS_SIZE) {
            refusal =
                "response headers are larger than " + std::to_string(MAX_HEADERS_SIZE) + " bytes";
            return false;
        }
        if (line.starts_with("HTTP/")) // what came before was an interim answer
            answer.headers().clear();
        size_t const colon = line.find(':');
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.remove_suffix(1);
        if (colon != std::string_view::npos)
            answer.headers().add(line.substr(0, colon), line.substr(colon + 1));
        return true;
    }

    bool take_body(std::string_view data) {
        last_sign = std::chrono::steady_clock::now();
        if (settings.streaming && succeeded()) {
            handed_on = true;
            if (settings.sink(data.data(), data.size()))
                return true;
            refusal = "the receiver refused the response's body";
            return false;
        }
        if (data.size() > settings.max_body_size - body.size()) {
            refusal =
                "response body is larger than " + std::to_string(settings.max_body_size) + " bytes";
            return false;
        }
        body.append(data);
        return true;
    }
};

/** Called by curl about once a second, whether or not anything comes. @return not 0 to end it */
int on_progress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    Exchange& exchange = *static_cast<Exchange*>(context);
    if (exchange.cancellation && exchange.cancellation->cancelled()) {
        exchange.refusal = exchange.cancellation->reason();
        return 1;
    }
    std::chrono::milliseconds const limit = exchange.settings.total_timeout;
    if (!exchange.settings.streaming || limit.count() == 0)
        return 0; // curl applies the limit itself
    if (std::chrono::steady_clock::now() - exchange.last_sign <= limit)
        return 0;
    exchange.refusal = "nothing came for " + std::to_string(limit.count()) + " ms";
    return 1;
}

/** Calls @a take; what it throws must not reach the C code that called. */
template <typename Take>
bool guarded(Exchange& exchange, Take take) {
    try {
        return take();
    } catch (std::exception const& fault) {
        exchange.refusal = fault.what();
        return false;
    }
}

size_t on_header(char* data, size_t size, size_t count, void* context) {
    Exchange& exchange = *static_cast<Exchange*>(context);
    std::string_view const line(data, size * count);
    return guarded(exchange, [&] { return exchange.take_header(line); }) ? line.size() : 0;
}

size_t on_body(char* data, size_t size, size_t count, void* context) {
    Exchange& exchange = *static_cast<Exchange*>(context);
    std::string_view const piece(data, size * count);
    return guarded(exchange, [&] { return exchange.take_body(piece); }) ? piece.size()
                                                                        : CURL_WRITEFUNC_ERROR;
}

/** A socket that no child process inherits. */
curl_socket_t on_open_socket(void*, curlsocktype, curl_sockaddr* address) {
    return socket(address->family, address->socktype | SOCK_CLOEXEC, address->protocol);
}

struct Slist_Deleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

/** The lines of the request's head that curl gets from us. */
class Header_Lines {
public:
    Header_Lines(HTTP_Headers const& headers, bool has_body) {
        for (HTTP_Headers::Field const& field : headers.fields())
            // curl takes "Name:" for a header to leave out, and "Name;" for one without a value
            append(field.name + (field.value.empty() ? ";" : ": " + field.value));
        if (!headers.contains("Accept"))
            append("Accept: application/json");
        if (!headers.contains("Content-Type"))
            append(has_body ? "Content-Type: application/json" : "Content-Type:");
        append("Expect:"); // no round trip before a large body
    }
    curl_slist* get() const { return list_.get(); }

private:
    void append(std::string const& line) {
        curl_slist* const longer = curl_slist_append(list_.get(), line.c_str());
        if (!longer)
            throw std::bad_alloc();
        list_.release();
        list_.reset(longer);
    }
    std::unique_ptr<curl_slist, Slist_Deleter> list_;
};

/** Sets options, and remembers when one could not be: a request never goes out without it. */
class Options {
public:
    explicit Options(CURL* easy) : easy_(easy) {}
    template <typename Value>
    void operator()(CURLoption option, Value value) {
        static_assert(std::is_pointer_v<Value> || std::is_same_v<Value, long> ||
                      std::is_same_v<Value, curl_off_t>);
        if (code_ == CURLE_OK)
            code_ = curl_easy_setopt(easy_, option, value);
    }
    CURLcode code() const { return code_; }

private:
    CURL* easy_;
    CURLcode code_ = CURLE_OK;
};

void set_trust(Options& set, HTTP_Transfer_Settings const& settings) {
    set(CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2});
    set(CURLOPT_SSL_VERIFYPEER, settings.verify ? 1L : 0L);
    set(CURLOPT_SSL_VERIFYHOST, settings.verify ? 2L : 0L);
    if (!settings.ca_file.empty()) {
        set(CURLOPT_CAINFO, settings.ca_file.c_str());
        set(CURLOPT_CAPATH, NO_TEXT); // the system's authorities count no longer
    }
    if (!settings.pinned_key.empty())
        set(CURLOPT_PINNEDPUBLICKEY, settings.pinned_key.c_str());
    if (!settings.environment_proxy)
        set(CURLOPT_PROXY, "");
}

void set_bounds(Options& set, HTTP_Transfer_Settings const& settings, Exchange& exchange) {
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connect_timeout.count()));
    if (!settings.streaming)
        set(CURLOPT_TIMEOUT_MS, static_cast<long>(settings.total_timeout.count()));
    if (exchange.cancellation || (settings.streaming && settings.total_timeout.count() > 0)) {
        set(CURLOPT_NOPROGRESS, 0L);
        set(CURLOPT_XFERINFOFUNCTION, on_progress);
        set(CURLOPT_XFERINFODATA, &exchange);
    }
}

void set_method(Options& set, int method, std::string const* body) {
    if (body || method == HTTP_METHOD_POST || method == HTTP_METHOD_PUT) {
        set(CURLOPT_POSTFIELDS, body ? body->c_str() : "");
        set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body ? body->size() : 0));
    }
    set(CURLOPT_CUSTOMREQUEST, http_method_name(method));
    // curl sends a request again when a kept connection proves dead, and the server may have acted
    // on it by then
    if (!http_method_idempotent(method))
        set(CURLOPT_FRESH_CONNECT, 1L);
}

void set_connection(Options& set, std::string const& url, Header_Lines const& lines) {
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_PROTOCOLS_STR, "http,https");
    set(CURLOPT_PATH_AS_IS, 1L);
    set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
    set(CURLOPT_HTTPHEADER, lines.get());
    set(CURLOPT_USERAGENT, "zenbrak3");
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_TCP_KEEPALIVE, 1L);
    set(CURLOPT_MAXCONNECTS, 2L);
    set(CURLOPT_OPENSOCKETFUNCTION, on_open_socket);
}

void set_receivers(Options& set, Exchange& exchange, char* error_text) {
    set(CURLOPT_ERRORBUFFER, error_text);
    set(CURLOPT_HEADERFUNCTION, on_header);
    set(CURLOPT_HEADERDATA, &exchange);
    set(CURLOPT_WRITEFUNCTION, on_body);
    set(CURLOPT_WRITEDATA, &exchange);
}

bool is_broken_connection(CURLcode code) {
    switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
        return true;
    default:
        return false;
    }
}

CURL* new_easy() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    return curl_easy_init();
}

} // namespace

std::string http_transfer_fault(HTTP_Transfer_Settings const& settings,
                                HTTP_Request const& request) {
    std::string_view const host = without_brackets(settings.host);
    bool const is_address = host.find(':') != std::string_view::npos;
    if (host.empty() || !has_only(host, is_address ? ":.%" : "-._"))
        return "the host is not a valid name or address";
    if (settings.port == 0)
        return "there is no port";
    if (!request.well_formed())
        return "the path or the query has characters that may not be there";
    if (!settings.pinned_key.empty() && !settings.ssl)
        return "a key is pinned, but the connection has no TLS";
    if (settings.streaming && !settings.sink)
        return "streaming is on, but there is no receiver";
    return "";
}

HTTP_Transfer::~HTTP_Transfer() {
    close();
}

void HTTP_Transfer::close() {
    curl_easy_cleanup(static_cast<CURL*>(easy_));
    easy_ = nullptr;
}

HTTP_Transfer::Outcome HTTP_Transfer::perform(HTTP_Transfer_Settings const& settings,
                                              HTTP_Request const& request, std::string const* body,
                                              HTTP_Response& response) {
    response.clear();
    if (!easy_ && !(easy_ = new_easy())) {
        response.error("out of memory");
        return FAILED;
    }
    CURL* const easy = static_cast<CURL*>(easy_);
    curl_easy_reset(easy); // connections, sessions and looked-up names stay

    std::string const url = origin(settings) + request.target();
    Header_Lines const lines(request.headers(), body != nullptr);
    Exchange exchange{settings, easy};
    char error_text[CURL_ERROR_SIZE] = "";
    Options set(easy);
    set_connection(set, url, lines);
    set_trust(set, settings);
    set_bounds(set, settings, exchange);
    set_method(set, request.method(), body);
    set_receivers(set, exchange, error_text);

    CURLcode const code = set.code() == CURLE_OK ? curl_easy_perform(easy) : set.code();
    if (code != CURLE_OK) {
        response.error(!exchange.refusal.empty() ? exchange.refusal
                       : *error_text             ? error_text
                                                 : curl_easy_strerror(code));
        return is_broken_connection(code) && !exchange.handed_on ? NO_ANSWER : FAILED;
    }
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    response = std::move(exchange.answer);
    response.status(static_cast<int>(status));
    response.body(std::move(exchange.body));
    return DONE;
}
