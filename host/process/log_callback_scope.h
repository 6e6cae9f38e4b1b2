#ifndef HOST_PROCESS_LOG_CALLBACK_SCOPE_H
#define HOST_PROCESS_LOG_CALLBACK_SCOPE_H

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>

#include <memory>

/**
 * Sends what the calling thread logs to a callback too, until the end of the scope. With null
 * nothing is changed. The log must have been opened with ACE_Log_Msg::MSG_CALLBACK, as the agent's
 * is.
 */
class Log_Callback_Scope {
public:
    explicit Log_Callback_Scope(std::shared_ptr<ACE_Log_Msg_Callback> callback)
        : callback_(std::move(callback)) {
        if (callback_)
            old_ = ACE_LOG_MSG->msg_callback(callback_.get());
    }
    ~Log_Callback_Scope() {
        if (callback_)
            ACE_LOG_MSG->msg_callback(old_);
    }
    Log_Callback_Scope(Log_Callback_Scope const&) = delete;
    Log_Callback_Scope& operator=(Log_Callback_Scope const&) = delete;

private:
    std::shared_ptr<ACE_Log_Msg_Callback> callback_;
    ACE_Log_Msg_Callback* old_ = nullptr;
};

#endif
