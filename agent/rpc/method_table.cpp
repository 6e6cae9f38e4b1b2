#include "agent/rpc/method_table.h"

#include "agent/rpc/answer_source.h"
#include "host/rpc/json_rpc_thread_pool_handler.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/scoped_deleter.h"
#include "qmrt/utf8.h"

#include <map>
#include <mutex>
#include <set>

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr size_t MAX_QUEUED_NOTIFICATIONS = 1024;
char const NO_METHOD[] = "Method not found";

/** The calls that are being handled, to be cancelled together. */
class Live_Calls {
public:
    void add(std::shared_ptr<Cancellation> const& call) {
        std::lock_guard const guard(mutex_);
        calls_.insert(call);
        if (closed_)
            call->cancel();
    }
    void remove(std::shared_ptr<Cancellation> const& call) {
        std::lock_guard const guard(mutex_);
        calls_.erase(calls_.find(call));
    }
    /** @param for_good  those that come later, too */
    void cancel(bool for_good) {
        std::lock_guard const guard(mutex_);
        closed_ = closed_ || for_good;
        for (auto const& call : calls_)
            call->cancel();
    }

private:
    std::mutex mutex_;
    std::multiset<std::shared_ptr<Cancellation>> calls_; ///< one may call another on its thread
    bool closed_ = false;
};

/** What runs while there is one ends when its caller goes. */
class Live_Call {
public:
    /** @param caller  null: nobody tells when the caller goes */
    Live_Call(Live_Calls& calls, std::shared_ptr<Cancellation> caller)
        : calls_(calls),
          cancellation_(caller ? std::move(caller) : std::make_shared<Cancellation>()),
          scope_(cancellation_) {
        calls_.add(cancellation_);
    }
    ~Live_Call() { calls_.remove(cancellation_); }
    Live_Call(Live_Call const&) = delete;
    Live_Call& operator=(Live_Call const&) = delete;

private:
    Live_Calls& calls_;
    std::shared_ptr<Cancellation> const cancellation_;
    Cancellation_Scope const scope_;
};

/** Counts the calls that may wait for tools. */
class Tool_Turns : public std::enable_shared_from_this<Tool_Turns> {
public:
    /** @return the turn, to be kept until the call is over; null when there are too many */
    std::shared_ptr<void> take(std::string const& instance, Rpc_Caller const& caller) {
        bool const reads = caller.is(Rpc_Caller::READER);
        std::lock_guard const guard(mutex_);
        size_t& here = of_instance_[instance];
        if (all_ >= Method_Table::TOOL_CALLS || here >= Method_Table::TOOL_CALLS_OF_INSTANCE ||
            (reads && of_readers_ >= Method_Table::TOOL_CALLS_OF_READERS))
            return nullptr;
        ++all_;
        ++here;
        of_readers_ += reads ? 1 : 0;
        return std::shared_ptr<void>(this, [self = shared_from_this(), instance, reads](void*) {
            self->give_back(instance, reads);
        });
    }

private:
    void give_back(std::string const& instance, bool reads) {
        std::lock_guard const guard(mutex_);
        --all_;
        of_readers_ -= reads ? 1 : 0;
        if (--of_instance_[instance] == 0)
            of_instance_.erase(instance);
    }

    std::mutex mutex_;
    size_t all_ = 0;
    size_t of_readers_ = 0;
    std::map<std::string, size_t> of_instance_;
};

std::string busy_with(std::string const& instance) {
    return "Server is busy: many calls wait for the tools of " +
           (instance.empty() ? std::string("the instances")
                             : "the instance " + names::shown(instance)) +
           " already; look whether its tools answer, and try again later";
}

/** One of the two. */
struct Entry {
    Agent_Method method;
    std::shared_ptr<JSON_RPC_Handler> handler;
};

/** What a message needs on its way through the pool beside itself. */
struct Routed {
    Entry entry;
    Rpc_Caller caller;
    std::shared_ptr<void> turn; ///< null for a method that waits for no tool
};

struct Routed_Request : JSON_RPC_Request, Routed {
    Routed_Request(JSON_RPC_Request& request, Routed route)
        : JSON_RPC_Request(request.id(), request.method(), std::move(request.params())),
          Routed(std::move(route)) {
        hold(request.held());
    }
};

struct Routed_Notify : JSON_RPC_Notify, Routed {
    Routed_Notify(JSON_RPC_Notify& notify, Routed route)
        : JSON_RPC_Notify(notify.method(), std::move(notify.params())), Routed(std::move(route)) {
        hold(notify.held());
    }
};

/**
 * Why params cannot be taken, whatever the method: a text with a NUL or invalid UTF-8 in it, or a
 * key that is not one line. They go into paths, records and logs, wherever they lie.
 * @param path  of the value, for the reason
 */
std::string fault_of_params(Value const& value, std::string const& path) {
    std::string fault;
    if (value.type() == json_spirit::str_type) {
        fault = names::fault_of_bytes(value.get_str());
        return fault.empty() ? "" : path + ": " + fault;
    }
    if (value.type() == json_spirit::array_type)
        for (Value const& element : value.get_array())
            if (fault = fault_of_params(element, path + "[]"); !fault.empty())
                return fault;
    if (value.type() == json_spirit::obj_type)
        for (auto const& [key, element] : value.get_obj()) {
            std::string const member =
                (path.empty() ? path : path + ".") + names::shown(std::string_view(key));
            fault = names::fault_of_line(key);
            if (!fault.empty())
                return member + ": a key that " + fault;
            if (fault = fault_of_params(element, member); !fault.empty())
                return fault;
        }
    return "";
}

bool are_good_params(Value const& params, Method_Fault& fault) {
    std::string const why = fault_of_params(params, "");
    if (why.empty())
        return true;
    fault = {JSON_RPC_INVALID_PARAMS, "Invalid params: " + why, Value()};
    return false;
}

/** Runs a function; its exceptions other than json_spirit::Error go through. */
bool run(Agent_Method const& method, Method_Call const& call, Value& result, Method_Fault& fault) {
    if (call.params.type() != json_spirit::obj_type) {
        fault = {JSON_RPC_INVALID_PARAMS, "Invalid params: one object is expected", Value()};
        return false;
    }
    if (!are_good_params(call.params, fault))
        return false;
    try {
        return method(call, result, fault);
    } catch (json_spirit::Error const& error) {
        fault = {JSON_RPC_INVALID_PARAMS, std::string("Invalid params: ") + error.what(), Value()};
        return false;
    }
}

Value object_or_given(Value const& params) {
    return params.is_null() ? Value(Object()) : params;
}

bool only_local(Method_Call const& call, Method_Fault& fault) {
    if (call.caller.is(Rpc_Caller::LOCAL))
        return true;
    fault = {AGENT_RPC_REFUSED, "this method is not for " + call.caller.text(), Value()};
    return false;
}

class Pool : public JSON_RPC_Thread_Pool_Handler {
public:
    Pool(Method_Gate const& gate, Method_Audit const& audit, Live_Calls& calls, size_t threads,
         size_t max_queued)
        : JSON_RPC_Thread_Pool_Handler(threads, max_queued),
          gate_(gate),
          audit_(audit),
          calls_(calls) {}
    ~Pool() override { fini(); }

protected:
    int handle_object_i(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override {
        JSON_RPC_Channel_var const asker(channel);
        Live_Call const live(calls_, asker.null() ? nullptr : asker->cancellation());
        auto const* const route = dynamic_cast<Routed const*>(object.get());
        auto const& message = static_cast<JSON_RPC_Notify const&>(*object);
        Method_Call const call{message.method(), object_or_given(message.params()), route->caller};
        Value result;
        Method_Fault fault;
        bool const allowed = gate_(call, fault);
        bool const handled = allowed && route->entry.handler;
        if (handled && are_good_params(message.params(), fault)) {
            audit_answer(asker, call);
            return route->entry.handler->handle_object(channel, object);
        }
        bool const done = allowed && !handled && run(route->entry.method, call, result, fault);
        if (allowed)
            audit_(call, done ? 0 : fault.code, done ? "" : fault.message);
        if (object->type() == JSON_RPC_Object::TYPE_REQUEST) {
            object->hold(nullptr); // whoever has the answer has the room for the next request
            return answer(channel, static_cast<JSON_RPC_Request const&>(message).id(), done, result,
                          fault);
        }
        if (!done)
            QMRT_LOG(LM_ERROR, "Failed to handle the notification '%s', %s\n",
                     qmrt::to_one_line(call.method).c_str(),
                     qmrt::to_one_line(fault.message).c_str());
        return done ? 0 : -1;
    }

private:
    /** A handler answers when it wants, on a thread of its own. */
    void audit_answer(JSON_RPC_Channel_var const& channel, Method_Call const& call) {
        auto* const source = dynamic_cast<Answer_Source*>(channel.get());
        if (!source)
            return;
        source->when_answered([audit = audit_, call](JSON_RPC_Object const& object) {
            auto const* const error = dynamic_cast<JSON_RPC_Response_Error const*>(&object);
            audit(call, error ? error->code() : 0, error ? error->message() : "");
        });
    }

    static int answer(JSON_RPC_Channel_ptr const& channel, Value const& id, bool done,
                      Value& result, Method_Fault const& fault) {
        JSON_RPC_Channel_var const peer(channel);
        if (peer.null())
            return -1; // who asked has gone
        return done ? peer->send(JSON_RPC_Response(id, std::move(result)))
                    : peer->send_error(fault.code, id, fault.message.c_str(), fault.data);
    }

    Method_Gate const& gate_;
    Method_Audit const& audit_;
    Live_Calls& calls_;
};

/** The channel of a call from within the process: what is sent to it is the reply. */
class Reply_Catcher : public JSON_RPC_Channel {
public:
    /** Hands the request to the handler in place of sending it. */
    bool ask(JSON_RPC_Handler& handler, JSON_RPC_Channel_ptr self, JSON_RPC_Object_var object,
             std::chrono::milliseconds timeout, JSON_RPC_Reply& reply) {
        handler_ = &handler;
        self_ = self;
        object_ = object;
        return request(static_cast<JSON_RPC_Request const&>(*object), timeout, reply);
    }

protected:
    int send_i(JSON_RPC_Object const& object) override {
        if (object.type() == JSON_RPC_Object::TYPE_REQUEST) {
            // a refusal has been answered, and the answer is what is waited for
            guard_json_rpc_handler(self_, object_,
                                   [this] { return handler_->handle_object(self_, object_); });
            return 0;
        }
        return handle_reply(object) ? 0 : -1;
    }

private:
    JSON_RPC_Handler* handler_ = nullptr;
    JSON_RPC_Channel_ptr self_;
    JSON_RPC_Object_var object_;
};

bool fail_with(JSON_RPC_Reply& reply, int code, std::string message, Value data = Value()) {
    reply = {Value(), code, std::move(message), std::move(data)};
    return false;
}

} // namespace

struct Method_Table::Impl {
    Impl(size_t threads, size_t max_queued)
        : requests(gate, audit, calls, threads, max_queued),
          tool_requests(gate, audit, calls, Method_Table::TOOL_CALLS, Method_Table::TOOL_CALLS),
          notifications(gate, audit, calls, 1, MAX_QUEUED_NOTIFICATIONS) {}

    /** The instance whose tools a call may wait for. */
    std::optional<std::string> instance_of(std::string const& method, Value const& params) const {
        Instance_Of_Call function;
        {
            std::lock_guard const guard(mutex);
            auto const found = waiting.find(method);
            if (found == waiting.end())
                return std::nullopt;
            function = found->second;
        }
        return function(params);
    }

    bool find(std::string const& name, Entry& entry) const {
        std::lock_guard const guard(mutex);
        auto const found = entries.find(name);
        if (found == entries.end())
            return false;
        entry = found->second;
        return true;
    }

    mutable std::mutex mutex;
    std::map<std::string, Entry> entries;
    Method_Gate gate = only_local;
    Method_Audit audit = [](Method_Call const&, int, std::string const&) {};
    std::map<std::string, Instance_Of_Call> waiting;
    std::shared_ptr<Tool_Turns> const turns = std::make_shared<Tool_Turns>();
    Live_Calls calls;
    Pool requests;
    Pool tool_requests;
    Pool notifications;
};

Method_Table::Method_Table(size_t threads, size_t max_queued)
    : impl_(std::make_unique<Impl>(threads, max_queued)) {}

Method_Table::~Method_Table() {
    stop();
}

void Method_Table::gate(Method_Gate gate) {
    impl_->gate = std::move(gate);
}

void Method_Table::audit(Method_Audit audit) {
    impl_->audit = std::move(audit);
}

void Method_Table::add(std::string const& name, Agent_Method method) {
    std::lock_guard const guard(impl_->mutex);
    impl_->entries[name] = {std::move(method), nullptr};
}

void Method_Table::bind(std::string const& name, std::shared_ptr<JSON_RPC_Handler> handler) {
    std::lock_guard const guard(impl_->mutex);
    impl_->entries[name] = {nullptr, std::move(handler)};
}

void Method_Table::remove(std::string const& name) {
    Entry removed; // destroyed after the lock is given back: a handler may wait for its threads
    std::lock_guard const guard(impl_->mutex);
    auto const found = impl_->entries.find(name);
    if (found == impl_->entries.end())
        return;
    removed = std::move(found->second);
    impl_->entries.erase(found);
}

void Method_Table::may_wait_for_tools(std::string const& name, Instance_Of_Call instance_of) {
    std::lock_guard const guard(impl_->mutex);
    impl_->waiting[name] = std::move(instance_of);
}

std::vector<std::string> Method_Table::names() const {
    std::lock_guard const guard(impl_->mutex);
    std::vector<std::string> result;
    for (auto const& [name, entry] : impl_->entries)
        result.push_back(name);
    return result;
}

int Method_Table::handle(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object,
                         Rpc_Caller const& caller) {
    if (object->type() != JSON_RPC_Object::TYPE_REQUEST &&
        object->type() != JSON_RPC_Object::TYPE_NOTIFY) {
        JSON_RPC_Channel_var const asker(channel);
        return !asker.null() && asker->handle_reply(*object) ? 0 : -1;
    }
    auto& message = static_cast<JSON_RPC_Notify&>(*object);
    Routed route{{}, caller, nullptr};
    if (!impl_->find(message.method(), route.entry)) {
        refuse_json_rpc_request(channel, object, JSON_RPC_METHOD_NOT_FOUND, NO_METHOD);
        return -1;
    }
    if (object->type() == JSON_RPC_Object::TYPE_NOTIFY)
        return impl_->notifications.handle_object(
            channel, JSON_RPC_Object_var(new Routed_Notify(message, std::move(route))));
    Pool* pool = &impl_->requests;
    if (auto const instance = impl_->instance_of(message.method(), message.params())) {
        pool = &impl_->tool_requests;
        route.turn = impl_->turns->take(*instance, caller);
        if (!route.turn) {
            refuse_json_rpc_request(channel, object, JSON_RPC_BUSY, busy_with(*instance).c_str());
            return -1;
        }
    }
    return pool->handle_object(
        channel, JSON_RPC_Object_var(new Routed_Request(static_cast<JSON_RPC_Request&>(message),
                                                        std::move(route))));
}

bool Method_Table::call(std::string const& method, Value const& params, Rpc_Caller const& caller,
                        std::chrono::milliseconds timeout, JSON_RPC_Reply& reply) {
    Entry entry;
    if (!impl_->find(method, entry))
        return fail_with(reply, JSON_RPC_METHOD_NOT_FOUND, NO_METHOD);
    Method_Call const call{method, object_or_given(params), caller};
    bool allowed = false;
    Scoped_Deleter const record([&] {
        if (allowed)
            impl_->audit(call, reply.code, reply.message);
    });
    std::shared_ptr<void> turn;
    if (auto const instance = impl_->instance_of(method, params)) {
        turn = impl_->turns->take(*instance, caller);
        if (!turn)
            return fail_with(reply, JSON_RPC_BUSY, busy_with(*instance));
    }
    Live_Call const live(impl_->calls, Cancellation::current());
    Method_Fault fault;
    reply = JSON_RPC_Reply();
    try {
        allowed = impl_->gate(call, fault);
        if (!allowed)
            return fail_with(reply, fault.code, std::move(fault.message), std::move(fault.data));
        if (!entry.handler && run(entry.method, call, reply.result, fault))
            return true;
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "The handler of JSON-RPC '%s' ended with an exception, %s\n",
                 qmrt::to_one_line(method).c_str(), qmrt::to_one_line(error.what()).c_str());
        return fail_with(reply, JSON_RPC_INTERNAL_ERROR, "Internal error");
    }
    if (entry.handler && are_good_params(params, fault)) {
        auto* const catcher = new Reply_Catcher;
        JSON_RPC_Channel_var const channel(catcher);
        return catcher->ask(*entry.handler, channel,
                            JSON_RPC_Object_var(new JSON_RPC_Request("call", method, params)),
                            timeout, reply);
    }
    return fail_with(reply, fault.code, std::move(fault.message), std::move(fault.data));
}

void Method_Table::cancel() {
    impl_->calls.cancel(false);
}

void Method_Table::stop() {
    impl_->calls.cancel(true);
    impl_->requests.fini();
    impl_->tool_requests.fini();
    impl_->notifications.fini();
}
