#include "agent/rpc/method_table.h"

#include "host/rpc/json_rpc_thread_pool_handler.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/utf8.h"

#include <map>
#include <mutex>

using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr size_t MAX_QUEUED_NOTIFICATIONS = 1024;
char const NO_METHOD[] = "Method not found";

/** One of the two. */
struct Entry {
    Agent_Method method;
    std::shared_ptr<JSON_RPC_Handler> handler;
};

/** What a message needs on its way through the pool beside itself. */
struct Routed {
    Entry entry;
    Rpc_Caller caller;
};

struct Routed_Request : JSON_RPC_Request, Routed {
    Routed_Request(JSON_RPC_Request& request, Routed route)
        : JSON_RPC_Request(request.id(), request.method(), std::move(request.params())),
          Routed(std::move(route)) {}
};

struct Routed_Notify : JSON_RPC_Notify, Routed {
    Routed_Notify(JSON_RPC_Notify& notify, Routed route)
        : JSON_RPC_Notify(notify.method(), std::move(notify.params())), Routed(std::move(route)) {}
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
    Pool(Method_Gate const& gate, size_t threads, size_t max_queued)
        : JSON_RPC_Thread_Pool_Handler(threads, max_queued), gate_(gate) {}
    ~Pool() override { fini(); }

protected:
    int handle_object_i(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override {
        auto const* const route = dynamic_cast<Routed const*>(object.get());
        auto const& message = static_cast<JSON_RPC_Notify const&>(*object);
        Method_Call const call{message.method(), object_or_given(message.params()), route->caller};
        Value result;
        Method_Fault fault;
        bool const allowed = gate_(call, fault);
        bool const handled = allowed && route->entry.handler;
        if (handled && are_good_params(message.params(), fault))
            return route->entry.handler->handle_object(channel, object);
        bool const done = allowed && !handled && run(route->entry.method, call, result, fault);
        if (object->type() == JSON_RPC_Object::TYPE_REQUEST)
            return answer(channel, static_cast<JSON_RPC_Request const&>(message).id(), done, result,
                          fault);
        if (!done)
            QMRT_LOG(LM_ERROR, "Failed to handle the notification '%s', %s\n",
                     qmrt::to_one_line(call.method).c_str(),
                     qmrt::to_one_line(fault.message).c_str());
        return done ? 0 : -1;
    }

private:
    static int answer(JSON_RPC_Channel_ptr const& channel, Value const& id, bool done,
                      Value& result, Method_Fault const& fault) {
        JSON_RPC_Channel_var const peer(channel);
        if (peer.null())
            return -1; // who asked has gone
        return done ? peer->send(JSON_RPC_Response(id, std::move(result)))
                    : peer->send_error(fault.code, id, fault.message.c_str(), fault.data);
    }

    Method_Gate const& gate_;
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
        : requests(gate, threads, max_queued), notifications(gate, 1, MAX_QUEUED_NOTIFICATIONS) {}

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
    Pool requests;
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
    Routed route{{}, caller};
    if (!impl_->find(message.method(), route.entry)) {
        refuse_json_rpc_request(channel, object, JSON_RPC_METHOD_NOT_FOUND, NO_METHOD);
        return -1;
    }
    if (object->type() == JSON_RPC_Object::TYPE_NOTIFY)
        return impl_->notifications.handle_object(
            channel, JSON_RPC_Object_var(new Routed_Notify(message, std::move(route))));
    return impl_->requests.handle_object(
        channel, JSON_RPC_Object_var(new Routed_Request(static_cast<JSON_RPC_Request&>(message),
                                                        std::move(route))));
}

bool Method_Table::call(std::string const& method, Value const& params, Rpc_Caller const& caller,
                        std::chrono::milliseconds timeout, JSON_RPC_Reply& reply) {
    Entry entry;
    if (!impl_->find(method, entry))
        return fail_with(reply, JSON_RPC_METHOD_NOT_FOUND, NO_METHOD);
    Method_Call const call{method, object_or_given(params), caller};
    Method_Fault fault;
    reply = JSON_RPC_Reply();
    try {
        if (!impl_->gate(call, fault))
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

void Method_Table::stop() {
    impl_->requests.fini();
    impl_->notifications.fini();
}
