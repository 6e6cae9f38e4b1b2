#include "host/job/thread_log.h"

#include <ace/Log_Msg.h>
#include <ace/Log_Msg_Callback.h>

namespace {

class Thread_Log {
public:
    ~Thread_Log() { set(nullptr); }

    void set(std::shared_ptr<ACE_Log_Msg_Callback> callback) {
        if (callback && !callback_)
            before_ = ACE_LOG_MSG->msg_callback(callback.get());
        else if (callback)
            ACE_LOG_MSG->msg_callback(callback.get());
        else if (callback_)
            ACE_LOG_MSG->msg_callback(before_);
        // the old one goes only now that nothing points at it
        callback_.swap(callback);
    }

private:
    std::shared_ptr<ACE_Log_Msg_Callback> callback_;
    ACE_Log_Msg_Callback* before_ = nullptr;
};

thread_local Thread_Log thread_log;

} // namespace

void log_this_thread_to(std::shared_ptr<ACE_Log_Msg_Callback> callback) {
    thread_log.set(std::move(callback));
}
