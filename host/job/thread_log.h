#ifndef HOST_JOB_THREAD_LOG_H
#define HOST_JOB_THREAD_LOG_H

#include <memory>

class ACE_Log_Msg_Callback;

/**
 * Gives the lines that the calling thread logs to @a callback as well, which is kept alive for
 * that, until this is called again or the thread ends. Null gives the thread back the callback
 * that it had before the first call. ACE looks at callbacks only when the process's log was opened
 * with ACE_Log_Msg::MSG_CALLBACK.
 */
void log_this_thread_to(std::shared_ptr<ACE_Log_Msg_Callback> callback);

#endif
