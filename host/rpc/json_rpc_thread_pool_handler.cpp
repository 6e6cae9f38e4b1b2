#include "host/rpc/json_rpc_thread_pool_handler.h"

#include "qmrt/check.h"

#include <algorithm>

JSON_RPC_Thread_Pool_Handler::JSON_RPC_Thread_Pool_Handler(size_t threads, size_t max_queued)
    : max_threads_(std::max<size_t>(threads, 1)), max_queued_(max_queued) {}

JSON_RPC_Thread_Pool_Handler::~JSON_RPC_Thread_Pool_Handler() {
    close();
}

int JSON_RPC_Thread_Pool_Handler::handle_object(JSON_RPC_Channel_ptr channel,
                                                JSON_RPC_Object_var object) {
    if (QMRT_IS_NULL(object.get()))
        return -1;
    char const* const refusal = enqueue({channel, object});
    if (!refusal)
        return 0;
    QMRT_LOG(LM_ERROR, "Refused a JSON-RPC message, %s\n", refusal);
    refuse_json_rpc_request(channel, object, JSON_RPC_BUSY, refusal);
    return -1;
}

/** @return null, or why the message is refused */
char const* JSON_RPC_Thread_Pool_Handler::enqueue(Job const& job) {
    std::lock_guard const guard(mutex_);
    if (closed_)
        return "Server is shutting down";
    // a message for which a thread is free or can be made is none that has to wait
    if (queue_.size() >= max_queued_ + max_threads_ - busy_)
        return "Server is busy";
    queue_.push_back(job);
    if (!have_a_thread_for_the_last()) {
        queue_.pop_back();
        return "Server has no thread left";
    }
    changed_.notify_one();
    return nullptr;
}

/** Makes a thread when all are busy and there may be more. @return false when there is none at all
 */
bool JSON_RPC_Thread_Pool_Handler::have_a_thread_for_the_last() {
    if (queue_.size() + busy_ <= threads_.size() || threads_.size() >= max_threads_)
        return true;
    auto thread = std::make_unique<Thread_Helper>(THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED,
                                                  ACE_DEFAULT_THREAD_PRIORITY);
    if (thread->spawn([this] { work(); }) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to make a JSON-RPC thread, errno=%d, %m\n", errno);
        return !threads_.empty();
    }
    thread->set_name("json-rpc");
    threads_.push_back(std::move(thread));
    return true;
}

void JSON_RPC_Thread_Pool_Handler::work() {
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return closed_ || !queue_.empty(); });
        if (queue_.empty())
            return;
        Job const job = queue_.front();
        queue_.pop_front();
        ++busy_;
        lock.unlock();
        guard_json_rpc_handler(job.channel, job.object,
                               [&] { return handle_object_i(job.channel, job.object); });
        lock.lock();
        --busy_;
    }
}

int JSON_RPC_Thread_Pool_Handler::init(int, char**) {
    std::lock_guard const after_a_close(closing_); // whose threads must still see that it is closed
    std::lock_guard const guard(mutex_);
    closed_ = false;
    return 0;
}

int JSON_RPC_Thread_Pool_Handler::fini() {
    close();
    return 0;
}

void JSON_RPC_Thread_Pool_Handler::close() {
    std::lock_guard const one_at_a_time(closing_);
    std::deque<Job> waiting;
    std::vector<std::unique_ptr<Thread_Helper>> threads;
    {
        std::lock_guard const guard(mutex_);
        closed_ = true;
        waiting.swap(queue_);
        threads.swap(threads_);
        changed_.notify_all();
    }
    for (Job const& job : waiting)
        refuse_json_rpc_request(job.channel, job.object, JSON_RPC_BUSY, "Server is shutting down");
    threads.clear(); // waits for each
}

int JSON_RPC_Thread_Pool_Handler_Impl::handle_request(JSON_RPC_Channel* channel,
                                                      JSON_RPC_Request& request) {
    if (!channel) {
        QMRT_LOG(LM_ERROR, "Abort handling JSON-RPC request, requester has gone.\n");
        return -1;
    }
    return channel->send_error(JSON_RPC_METHOD_NOT_FOUND, request.id(), "Method not found");
}

int JSON_RPC_Thread_Pool_Handler_Impl::handle_notify(JSON_RPC_Channel*, JSON_RPC_Notify&) {
    return 0;
}

int JSON_RPC_Thread_Pool_Handler_Impl::handle_response(JSON_RPC_Channel* channel,
                                                       JSON_RPC_Response& response) {
    return channel && channel->handle_reply(response) ? 0 : -1;
}

int JSON_RPC_Thread_Pool_Handler_Impl::handle_response_error(JSON_RPC_Channel* channel,
                                                             JSON_RPC_Response_Error& error) {
    return channel && channel->handle_reply(error) ? 0 : -1;
}

int JSON_RPC_Thread_Pool_Handler_Impl::handle_object_i(JSON_RPC_Channel_ptr channel,
                                                       JSON_RPC_Object_var object) {
    JSON_RPC_Channel_var const peer(channel);
    switch (object->type()) {
    case JSON_RPC_Object::TYPE_REQUEST:
        return handle_request(peer.get(), static_cast<JSON_RPC_Request&>(*object));
    case JSON_RPC_Object::TYPE_NOTIFY:
        return handle_notify(peer.get(), static_cast<JSON_RPC_Notify&>(*object));
    case JSON_RPC_Object::TYPE_RESPONSE:
        return handle_response(peer.get(), static_cast<JSON_RPC_Response&>(*object));
    case JSON_RPC_Object::TYPE_RESPONSE_ERROR:
        return handle_response_error(peer.get(), static_cast<JSON_RPC_Response_Error&>(*object));
    case JSON_RPC_Object::TYPE_NONE:
        break;
    }
    QMRT_LOG(LM_ERROR, "Refused a JSON-RPC object that is no message\n");
    return -1;
}
