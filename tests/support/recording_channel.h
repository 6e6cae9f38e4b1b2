#ifndef TESTS_SUPPORT_RECORDING_CHANNEL_H
#define TESTS_SUPPORT_RECORDING_CHANNEL_H

#include "host/rpc/json_rpc_channel.h"

#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

/** A channel that keeps what is sent through it. For any thread. */
class Recording_Channel : public JSON_RPC_Channel {
public:
    /** All messages so far, as they would go over the wire. */
    std::vector<json_spirit::Value> sent() const {
        std::lock_guard const guard(mutex_);
        return sent_;
    }
    /** The messages, once there are that many. */
    std::vector<json_spirit::Value> await(size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return sent_.size() >= count; });
        return sent_;
    }
    /** Called with each message, on the thread that sends it, after it was kept. */
    std::function<void(JSON_RPC_Object const&)> on_send;
    /** What send() returns from now on. */
    int outcome = 0;

protected:
    int send_i(JSON_RPC_Object const& object) override {
        {
            std::lock_guard const guard(mutex_);
            sent_.push_back(object.value());
            changed_.notify_all();
        }
        if (on_send)
            on_send(object);
        return outcome;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<json_spirit::Value> sent_;
};

#endif
