#ifndef HOST_RPC_JSON_RPC_THREAD_POOL_HANDLER_H
#define HOST_RPC_JSON_RPC_THREAD_POOL_HANDLER_H

#include "host/rpc/json_rpc_handler.h"
#include "qmrt/thread_helper.h"

#include <deque>
#include <memory>
#include <vector>

/**
 * A handler that takes its messages on threads of its own, so that a slow one holds up neither the
 * channel nor, while there are threads left, the others. Threads are made as they are needed.
 *
 * What is refused, because too many wait already or the handler is closed, is answered with
 * JSON_RPC_BUSY. An exception that leaves handle_object_i is caught: see guard_json_rpc_handler().
 *
 * The most derived class calls fini() in its destructor, or its owner does before it destroys it:
 * otherwise the object would go under a message that is being handled.
 */
class JSON_RPC_Thread_Pool_Handler : public JSON_RPC_Handler {
public:
    static constexpr size_t THREADS = 4;
    static constexpr size_t MAX_QUEUED = 64;

    /**
     * @param threads     how many messages are handled at once, 1 or more
     * @param max_queued  how many more may wait
     */
    explicit JSON_RPC_Thread_Pool_Handler(size_t threads = THREADS, size_t max_queued = MAX_QUEUED);
    ~JSON_RPC_Thread_Pool_Handler() override;
    JSON_RPC_Thread_Pool_Handler(JSON_RPC_Thread_Pool_Handler const&) = delete;
    JSON_RPC_Thread_Pool_Handler& operator=(JSON_RPC_Thread_Pool_Handler const&) = delete;

    /** Puts the message in the queue. Does not block. @return 0, or -1 when it is refused */
    int handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;

    /** Opens the handler again after fini(); a new one is open. The arguments are not used. */
    int init(int argc, char** argv) override;

    /**
     * Closes the handler: refuses what waits, and returns when what is being handled has ended. Not
     * to be called on one of the handler's own threads. More than once does no harm.
     */
    int fini() override;

protected:
    /** Handles one message, on a thread of the pool, several at once. */
    virtual int handle_object_i(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) = 0;

private:
    struct Job {
        JSON_RPC_Channel_ptr channel;
        JSON_RPC_Object_var object;
    };

    char const* enqueue(Job const& job);
    [[nodiscard]] bool have_a_thread_for_the_last();
    void work();
    void close();

    size_t const max_threads_;
    size_t const max_queued_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Job> queue_;
    std::vector<std::unique_ptr<Thread_Helper>> threads_;
    size_t busy_ = 0; ///< threads that handle a message
    bool closed_ = false;
    std::mutex closing_; ///< held while the handler is closed or opened
};

/** The same with one operation for each kind of message, called on a thread of the pool. */
class JSON_RPC_Thread_Pool_Handler_Impl : public JSON_RPC_Thread_Pool_Handler {
public:
    using JSON_RPC_Thread_Pool_Handler::JSON_RPC_Thread_Pool_Handler;

    /**
     * @param channel  null when the one who asked has gone
     * @return 0, or -1; this one answers "Method not found"
     */
    virtual int handle_request(JSON_RPC_Channel* channel, JSON_RPC_Request& request);
    /** This one does nothing. */
    virtual int handle_notify(JSON_RPC_Channel* channel, JSON_RPC_Notify& notify);
    /** These give the response to whoever waits for it in JSON_RPC_Channel::request(). */
    virtual int handle_response(JSON_RPC_Channel* channel, JSON_RPC_Response& response);
    virtual int handle_response_error(JSON_RPC_Channel* channel, JSON_RPC_Response_Error& error);

protected:
    int handle_object_i(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) override;
};

#endif
