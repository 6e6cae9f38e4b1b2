#ifndef AGENT_RPC_METHOD_TABLE_H
#define AGENT_RPC_METHOD_TABLE_H

#include "agent/rpc/rpc_caller.h"
#include "host/rpc/json_rpc_handler.h"
#include "json_spirit/value.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

/** Codes of our own beside those of host/rpc/json_rpc_object.h. */
enum {
    AGENT_RPC_NOT_FOUND = -32004, ///< the data says what was not found
    AGENT_RPC_REFUSED = -32005    ///< the message says why and what to do
};

/** What a method answers when it fails. */
struct Method_Fault {
    int code = JSON_RPC_INTERNAL_ERROR;
    std::string message;
    json_spirit::Value data;
};

/** One call of a method. */
struct Method_Call {
    std::string method;
    json_spirit::Value params; ///< an object, empty when none were given
    Rpc_Caller caller;
};

/**
 * Says whether a call may be made, before it is. Called on the thread that serves the call.
 * @param fault  when false: what the caller is told
 */
using Method_Gate = std::function<bool(Method_Call const& call, Method_Fault& fault)>;

/**
 * Records how a call ended that the gate has let through. Called on the thread that serves the
 * call, before it is answered, or on the thread on which a handler answers.
 * @param code  0 for success, else that of the fault
 */
using Method_Audit =
    std::function<void(Method_Call const& call, int code, std::string const& message)>;

/**
 * Serves one method: sets @a result and returns true, or sets the fault and returns false. Called
 * on several threads at once. A json_spirit::Error that leaves it is answered as
 * JSON_RPC_INVALID_PARAMS with its text, so params may be read with the throwing extractors; any
 * other exception is logged and answered as JSON_RPC_INTERNAL_ERROR.
 */
using Agent_Method =
    std::function<bool(Method_Call const& call, json_spirit::Value& result, Method_Fault& fault)>;

/**
 * Tells which instance's tools a call with these params may wait for; "" for all of them, nothing
 * when it waits for no tool. Called on several threads at once.
 */
using Instance_Of_Call =
    std::function<std::optional<std::string>(json_spirit::Value const& params)>;

/**
 * The methods that this agent serves, by name. All operations may be called on any thread.
 *
 * Requests are handled on a pool of threads, notifications on one thread of their own, so that they
 * are handled in the order in which they came. When too many wait, a request is answered with
 * JSON_RPC_BUSY and a notification is lost, with an error line for either.
 *
 * A call of a method that may wait for the database's tools takes none of these threads: it has
 * others, and few calls at once may wait for one instance, so that one whose tools hang holds up
 * neither the other methods nor, soon, the other instances. Further ones get JSON_RPC_BUSY.
 *
 * A call runs in a Cancellation_Scope: when its caller goes, or at cancel(), the tool that it waits
 * for is ended.
 */
class Method_Table {
public:
    /**
     * @param threads     how many requests are handled at once
     * @param max_queued  how many more may wait
     */
    explicit Method_Table(size_t threads = 8, size_t max_queued = 512);
    /** Calls stop(). */
    ~Method_Table();
    Method_Table(Method_Table const&) = delete;
    Method_Table& operator=(Method_Table const&) = delete;

    /**
     * Asks @a gate before each call and notification. Until it is set, only local callers are
     * served. To be set before anybody calls.
     */
    void gate(Method_Gate gate);
    /** The same for what is to be recorded. */
    void audit(Method_Audit audit);

    /** Serves a method by a function, in place of whatever served it. */
    void add(std::string const& name, Agent_Method method);

    /**
     * Serves a method by a handler, which gets the message itself and answers through the channel.
     * Its init() and fini() are the caller's to call.
     */
    void bind(std::string const& name, std::shared_ptr<JSON_RPC_Handler> handler);

    void remove(std::string const& name);

    /** Calls of this method may wait for a tool. Before it is served. */
    void may_wait_for_tools(std::string const& name, Instance_Of_Call instance_of);
    static constexpr size_t TOOL_CALLS = 16;            ///< at once, of all
    static constexpr size_t TOOL_CALLS_OF_INSTANCE = 4; ///< at once, of those for one instance
    static constexpr size_t TOOL_CALLS_OF_READERS = 2;  ///< at once, of all readers

    /** Cancels the calls that are being handled. */
    void cancel();

    /** In ascending order. */
    std::vector<std::string> names() const;

    /**
     * Takes one message and does not block: a request is answered through the channel later, maybe
     * from another thread; an unknown method at once, with JSON_RPC_METHOD_NOT_FOUND; a response is
     * given to who waits for it in the channel.
     * @param object  the params are taken out of it
     * @return 0; -1 when it was refused, which who asked has been told
     */
    int handle(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object, Rpc_Caller const& caller);

    /**
     * Calls a method from within this process. A function runs on the caller's own thread, however
     * long it takes; a handler's answer is waited for.
     * @return true for a result; false with the code, the message and the data of the fault
     */
    [[nodiscard]] bool call(std::string const& method, json_spirit::Value const& params,
                            Rpc_Caller const& caller, std::chrono::milliseconds timeout,
                            JSON_RPC_Reply& reply);

    /**
     * Refuses what waits and comes, cancels what is being handled, and returns when that has ended.
     */
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

#endif
