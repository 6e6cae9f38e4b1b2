#include "agent/rpc/group_link.h"

#include "agent/rpc/group_connection.h"
#include "agent/rpc/group_delivery.h"
#include "host/agent/host_manager.h"
#include "host/http/http_transfer.h"
#include "host/http/uri.h"
#include "json_spirit/text.h"
#include "qmrt/constants.h"

#include <atomic>
#include <mutex>
#include <vector>

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr size_t MAX_TEXT = 4096; ///< of a body that is no JSON, for messages

Value body_value(std::string const& body) {
    Value value;
    if (!body.empty() && !json_spirit::parse(body, value, nullptr))
        value = body.substr(0, MAX_TEXT);
    return value;
}

bool fail(JSON_RPC_Reply& reply, int code, std::string message) {
    reply = {Value(), code, std::move(message), Value()};
    return false;
}

std::chrono::milliseconds seconds_or(int seconds, std::chrono::milliseconds otherwise) {
    return seconds < 0 ? otherwise : std::chrono::seconds(seconds);
}

} // namespace

struct Group_Link::Impl {
    Impl(Method_Table& methods, Group_Link_Options the_options)
        : options(std::move(the_options)), connection(methods, options) {}

    bool ask(std::string const& method, Value const& params, std::chrono::milliseconds wait,
             std::chrono::milliseconds answer, JSON_RPC_Reply& reply);
    HTTP_Transfer::Outcome exchange(HTTP_Request const& request, std::string const* body,
                                    HTTP_Response& response);
    std::unique_ptr<HTTP_Transfer> take_transfer();

    Group_Link_Options const options;
    HTTP_Transfer_Settings settings;
    std::atomic<uint64_t> last_id = 0;
    std::mutex mutex;
    std::vector<std::unique_ptr<HTTP_Transfer>> transfers; ///< with their connections kept
    Group_Connection connection;
};

Group_Link::Group_Link(Method_Table& methods, Group_Link_Options options)
    : impl_(std::make_unique<Impl>(methods, std::move(options))) {
    serve_deliveries(methods);
}

Group_Link::~Group_Link() {
    stop();
}

bool Group_Link::start(std::string& error) {
    URI url;
    std::string why;
    if (!url.parse(impl_->options.url, &why) || url.scheme() != "wss" ||
        (url.path() != "" && url.path() != "/")) {
        error = "the backup server's URL has to be of the form wss://host:port, not '" +
                impl_->options.url + "'" + (why.empty() ? "" : ", " + why);
        return false;
    }
    if (impl_->options.access_key.empty() || impl_->options.host_uuid.empty()) {
        error = "an agent needs an access key and a host uuid to join a group";
        return false;
    }
    impl_->settings.host = url.host();
    impl_->settings.port = url.port() ? url.port() : DEFAULT_BACKUPD_PORT_HTTPS;
    impl_->settings.ssl = true;
    impl_->settings.ca_file = impl_->options.ca_file;
    return impl_->connection.start(url.host(), impl_->settings.port, error);
}

void Group_Link::stop() {
    impl_->connection.stop();
}

bool Group_Link::connected() const {
    return await(true, std::chrono::milliseconds(0));
}

bool Group_Link::await(bool connected, std::chrono::milliseconds timeout) const {
    return impl_->connection.await(connected, timeout);
}

bool Group_Link::Impl::ask(std::string const& method, Value const& params,
                           std::chrono::milliseconds wait, std::chrono::milliseconds answer,
                           JSON_RPC_Reply& reply) {
    std::string reason;
    JSON_RPC_Channel_var const channel = connection.channel(wait, reason);
    if (channel.null())
        return fail(reply, JSON_RPC_UNREACHABLE, reason);
    reply = JSON_RPC_Reply();
    Value const id = "c" + std::to_string(++last_id);
    return channel->request(JSON_RPC_Request(id, method, params), answer, reply);
}

bool Group_Link::call(std::string const& method, Value const& params, Limits const& limits,
                      JSON_RPC_Reply& reply) {
    return impl_->ask(method, params, seconds_or(limits.retry, impl_->options.wait),
                      seconds_or(limits.answer, impl_->options.answer), reply);
}

bool Group_Link::forward(std::string const& host_uuid, std::string const& method,
                         Value const& params, JSON_RPC_Reply& reply) {
    if (host_uuid.empty())
        return fail(reply, JSON_RPC_UNREACHABLE, "there is no agent without a uuid");
    Object const wrapped{{"host_uuid", host_uuid},
                         {"method", method},
                         {"params", params},
                         {"key", Host_Manager::instance()->access_key()}};
    return impl_->ask("group.forward", wrapped, impl_->options.wait, impl_->options.forward, reply);
}

bool Group_Link::notify(std::string const& method, Value const& params, std::string& error) {
    JSON_RPC_Channel_var const channel =
        impl_->connection.channel(std::chrono::milliseconds(0), error);
    if (channel.null())
        return false;
    if (channel->send(JSON_RPC_Notify(method, params)) == 0)
        return true;
    error = "the connection to the backup server broke";
    return false;
}

std::unique_ptr<HTTP_Transfer> Group_Link::Impl::take_transfer() {
    std::lock_guard const guard(mutex);
    if (transfers.empty())
        return std::make_unique<HTTP_Transfer>();
    std::unique_ptr<HTTP_Transfer> transfer = std::move(transfers.back());
    transfers.pop_back();
    return transfer;
}

/** What may be done twice is done again when the connection broke. */
HTTP_Transfer::Outcome Group_Link::Impl::exchange(HTTP_Request const& request,
                                                  std::string const* body,
                                                  HTTP_Response& response) {
    bool const again = http_method_idempotent(request.method());
    std::unique_ptr<HTTP_Transfer> transfer = take_transfer();
    if (!again)
        transfer->close(); // a kept connection may prove dead when it is too late to know
    HTTP_Transfer::Outcome outcome = transfer->perform(settings, request, body, response);
    if (outcome == HTTP_Transfer::NO_ANSWER && again)
        outcome = transfer->perform(settings, request, body, response);
    std::lock_guard const guard(mutex);
    transfers.push_back(std::move(transfer));
    return outcome;
}

bool Group_Link::rest(HTTP_Request const& request, Value const* body, HTTP_Response& response,
                      Value* result) {
    response.clear();
    if (result)
        *result = Value();
    HTTP_Request sent(request);
    secure_string const& key = impl_->options.access_key;
    std::string text;
    try {
        if (body)
            text = json_spirit::to_text(*body);
    } catch (json_spirit::Error const& error) {
        response.error(error.what());
        return false;
    }
    sent.headers().put("Authorization", "Bearer " + std::string(key.data(), key.size()));
    sent.headers().put("Accept", "application/json");
    if (body)
        sent.headers().put("Content-Type", "application/json");
    std::string fault = http_transfer_fault(impl_->settings, sent);
    if (fault.empty() &&
        impl_->exchange(sent, body ? &text : nullptr, response) == HTTP_Transfer::DONE) {
        if (result)
            *result = body_value(response.body());
        return response.ok();
    }
    if (fault.empty())
        fault = response.error().empty() ? "there was no answer" : response.error();
    response.clear();
    response.error(std::move(fault));
    return false;
}
