#ifndef HOST_RPC_JSON_RPC_HANDLER_H
#define HOST_RPC_JSON_RPC_HANDLER_H

#include "host/rpc/json_rpc_channel.h"

/** Serves the messages of one method, or of several. */
class JSON_RPC_Handler {
public:
    virtual ~JSON_RPC_Handler() = default;

    /**
     * Takes one message. A request is answered through the channel, by a response or an error; it
     * is weak, for the peer may go meanwhile. May be called on several threads at once.
     * @return 0, or -1 when the message could not be handled or the answer not be sent
     */
    virtual int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) = 0;

    /** Called once before the first message. @return 0, or -1 when it cannot serve */
    virtual int init(int argc, char** argv);
    /** Called once after the last message. */
    virtual int fini();
};

/**
 * Calls a handler, and lets no std::exception go further: that becomes a line in the log at
 * LM_ERROR and, for a request, the error -32603 "Internal error" to the one who asked. The
 * exception's text stays here. A handler that throws after it has answered makes a second answer.
 * @return what @a handle returns; -1 after an exception
 */
template <typename Handle>
int guard_json_rpc_handler(JSON_RPC_Channel_ptr const& channel, JSON_RPC_Object_var const& object,
                           Handle handle);

/** Does what guard_json_rpc_handler() says of an exception with that text. @return -1 */
int handle_json_rpc_exception(JSON_RPC_Channel_ptr const& channel,
                              JSON_RPC_Object_var const& object, char const* what);

/** Answers with an error if the object is a request and the one who asked is still there. */
void refuse_json_rpc_request(JSON_RPC_Channel_ptr const& channel, JSON_RPC_Object_var const& object,
                             int code, char const* message);

template <typename Handle>
int guard_json_rpc_handler(JSON_RPC_Channel_ptr const& channel, JSON_RPC_Object_var const& object,
                           Handle handle) {
    try {
        return handle();
    } catch (std::exception const& fault) {
        return handle_json_rpc_exception(channel, object, fault.what());
    }
}

#endif
