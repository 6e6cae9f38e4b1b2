#ifndef AGENT_RPC_ANSWER_SOURCE_H
#define AGENT_RPC_ANSWER_SOURCE_H

#include "host/rpc/json_rpc_object.h"

#include <functional>

/** A channel of one request that tells of its answer. */
class Answer_Source {
public:
    virtual ~Answer_Source() = default;

    /** Calls @a function with the answer, on the thread that sends it. Set before that. */
    virtual void when_answered(std::function<void(JSON_RPC_Object const&)> function) = 0;
};

#endif
