#include "agent/rpc/http_session.h"

#include "json_spirit/text.h"
#include "qmrt/log.h"

#include <boost/asio/post.hpp>

namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
using boost::system::error_code;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr uint32_t MAX_HEADER = 16 * 1024;
/** HTTP/1.1, as Beast writes a version. */
constexpr unsigned int HTTP_1_1 = 11;
/** How often a caller that waits for its answer is looked after. */
constexpr std::chrono::milliseconds CALLER_INTERVAL{500};

/** @return false, with what is wrong, for a query or a body that cannot be read */
bool read_request(http::request<http::string_body> const& from, Rest_Request& to,
                  std::string& fault) {
    std::string const target(from.target());
    size_t const mark = target.find('?');
    to.method = http_method_value(std::string(from.method_string()));
    to.path = target.substr(0, mark);
    if (mark != std::string::npos && !http_parse_query(target.substr(mark + 1), to.query)) {
        fault = "the query has a broken escape in it";
        return false;
    }
    return from.body().empty() || json_spirit::parse(from.body(), to.body, &fault);
}

} // namespace

Http_Session::Http_Session(std::shared_ptr<void> lease,
                           std::shared_ptr<Connection_Slots::Slot> slot,
                           std::unique_ptr<Tls_Stream> stream, std::string address,
                           Http_Service& service)
    : lease_(std::move(lease)),
      slot_(std::move(slot)),
      key_by_(Rpc_Peer::Clock::now() + std::min(service.limits.key, service.limits.message)),
      stream_(std::move(stream)),
      address_(std::move(address)),
      service_(service),
      delay_(stream_->get_executor()) {}

void Http_Session::start() {
    beast::get_lowest_layer(*stream_).expires_at(key_by_);
    stream_->async_handshake(boost::asio::ssl::stream_base::server,
                             [self = shared_from_this()](error_code const& error) {
                                 if (!error)
                                     return self->read_header();
                                 QMRT_LOG(LM_DEBUG, "No TLS handshake with %s, %s\n",
                                          self->address_.c_str(), error.message().c_str());
                             });
}

void Http_Session::close() {
    closed_ = true;
    if (call_)
        call_->cancel();
    delay_.cancel();
    if (stream_)
        beast::get_lowest_layer(*stream_).close();
    if (upgrading_)
        beast::get_lowest_layer(*upgrading_).close();
}

void Http_Session::read_header() {
    if (closed_)
        return;
    parser_.emplace();
    parser_->header_limit(MAX_HEADER);
    parser_->body_limit(service_.limits.message_bytes);
    if (keyed_)
        beast::get_lowest_layer(*stream_).expires_after(service_.limits.message);
    else
        beast::get_lowest_layer(*stream_).expires_at(key_by_);
    http::async_read_header(
        *stream_, buffer_, *parser_,
        [self = shared_from_this()](error_code const& error, size_t) { self->on_header(error); });
}

void Http_Session::on_header(error_code const& error) {
    if (error == http::error::body_limit || error == http::error::header_limit)
        QMRT_LOG(LM_WARNING, "Closed a connection from %s, its request is too large\n",
                 address_.c_str());
    if (error || closed_)
        return; // it goes with the last who holds it
    caller_ = find_caller();
    caller_.address = address_;
    if (!caller_.kind)
        return deny();
    if (!slot_->show_key())
        return refuse_for_want_of_room();
    keyed_ = true;
    if (!websocket::is_upgrade(parser_->get()))
        return has_room_for_body() ? read_body() : refuse_for_want_of_room();
    if (caller_.is(Rpc_Caller::RUN))
        return forbid(); // the connection would outlive the key
    upgrade();
}

Rpc_Caller Http_Session::find_caller() const {
    auto const& field = parser_->get()[http::field::authorization];
    std::string_view const authorization(field.data(), field.size());
    std::string_view const key = bearer_key(authorization);
    if (service_.key.opens(authorization))
        return Rpc_Caller::admin();
    return key.empty() || !service_.known_keys ? Rpc_Caller()
                                               : service_.known_keys(key_digest(key));
}

void Http_Session::forbid() {
    QMRT_LOG(LM_WARNING, "Refused a WebSocket connection to %s\n", caller_.text().c_str());
    Response response(http::status::forbidden, HTTP_1_1);
    response.keep_alive(false);
    send(std::move(response));
}

bool Http_Session::has_room_for_body() {
    if (!service_.limits.budget)
        return true;
    charge_ = service_.limits.budget->begin();
    // one that comes in pieces may be as long as any
    auto const length = parser_->content_length();
    uint64_t const most = service_.limits.message_bytes;
    return charge_->grow_to(static_cast<size_t>(
        parser_->chunked() ? most : std::min<uint64_t>(length.value_or(0), most)));
}

/** What it sent beside the header is not read. */
void Http_Session::refuse_for_want_of_room() {
    Response response(http::status::service_unavailable, HTTP_1_1);
    response.set(http::field::retry_after, "1");
    response.keep_alive(false);
    send(std::move(response));
}

/** Lets one without the key wait, then tells it so; what it sent beside the header is not read. */
void Http_Session::deny() {
    auto const delay = service_.denials.deny(address_, std::chrono::steady_clock::now());
    QMRT_LOG(LM_WARNING, "Refused a request from %s without the right key\n", address_.c_str());
    Rpc_Peer::Clock::duration const left = key_by_ - Rpc_Peer::Clock::now();
    delay_.expires_after(keyed_ ? delay
                                : std::max(std::min<Rpc_Peer::Clock::duration>(delay, left), {}));
    delay_.async_wait([self = shared_from_this()](error_code const& error) {
        if (error || self->closed_)
            return;
        Response response(http::status::unauthorized, HTTP_1_1);
        response.set(http::field::www_authenticate, "Bearer");
        response.keep_alive(false);
        self->send(std::move(response));
    });
}

void Http_Session::read_body() {
    beast::get_lowest_layer(*stream_).expires_after(service_.limits.message);
    http::async_read(*stream_, buffer_, *parser_,
                     [self = shared_from_this()](error_code const& error, size_t) {
                         if (!error)
                             self->answer(self->parser_->release());
                     });
}

/** Nothing is read while a request is answered, so that a caller that goes is to be looked for. */
void Http_Session::watch_caller() {
    delay_.expires_after(CALLER_INTERVAL);
    delay_.async_wait([self = shared_from_this()](error_code const& error) {
        if (error || self->closed_ || !self->call_)
            return;
        auto& socket = beast::get_lowest_layer(*self->stream_).socket();
        if (socket.is_open() && !is_gone(socket.native_handle(), true))
            return self->watch_caller();
        self->call_->cancel();
        self->close();
    });
}

void Http_Session::answer(Request request) {
    call_ = std::make_shared<Cancellation>();
    beast::get_lowest_layer(*stream_).expires_never();
    watch_caller();
    boost::asio::post(*service_.rest_threads, [self = shared_from_this(), &service = service_,
                                               call = call_, request = std::move(request)] {
        Cancellation_Scope const scope(call);
        Rest_Request asked;
        asked.caller = self->caller_;
        Value value;
        std::string fault;
        int status = 400;
        if (read_request(request, asked, fault))
            status = service.routes.handle(asked, value);
        else
            value = Object{{"error", fault}};
        Response response(static_cast<http::status>(status), HTTP_1_1);
        response.keep_alive(request.keep_alive());
        if (!value.is_null()) {
            response.set(http::field::content_type, "application/json");
            try {
                response.body() = json_spirit::to_text(value);
            } catch (json_spirit::Error const&) {
                response.result(http::status::internal_server_error);
            }
        }
        boost::asio::post(
            self->delay_.get_executor(),
            [self, response = std::move(response)]() mutable { self->send(std::move(response)); });
    });
}

void Http_Session::send(Response response) {
    if (closed_)
        return;
    call_.reset();
    delay_.cancel();
    response_ = std::move(response);
    response_.prepare_payload();
    beast::get_lowest_layer(*stream_).expires_after(service_.limits.message);
    http::async_write(*stream_, response_,
                      [self = shared_from_this()](error_code const& error, size_t) {
                          self->charge_.reset();
                          if (!error && self->response_.keep_alive())
                              self->read_header();
                      });
}

void Http_Session::upgrade() {
    if (buffer_.size() > 0)
        return; // no client sends frames before it has seen that they are welcome
    beast::get_lowest_layer(*stream_).expires_never();
    upgrading_ = std::make_unique<Ws_Stream>(std::move(*stream_));
    stream_.reset();
    websocket::stream_base::timeout limit{};
    limit.handshake_timeout = service_.limits.message;
    limit.idle_timeout = websocket::stream_base::none();
    upgrading_->set_option(limit);
    upgrading_->async_accept(parser_->get(), [self = shared_from_this()](error_code const& error) {
        if (error || self->closed_)
            return;
        auto const peer = std::make_shared<Ws_Peer>(
            std::make_shared<std::pair<std::shared_ptr<void>, std::shared_ptr<void>>>(self->lease_,
                                                                                      self->slot_),
            std::move(self->upgrading_), self->service_.methods, self->service_.limits,
            self->caller_);
        self->service_.sessions.add(peer);
        peer->start();
    });
}
