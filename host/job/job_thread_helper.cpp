#include "host/job/job_thread_helper.h"

#include "host/agent/host_manager.h"
#include "host/job/job.h"
#include "host/job/thread_log.h"
#include "host/process/cancellation.h"

void Job_Thread_Helper::handle_starting() {
    if (!job_)
        return;
    log_this_thread_to(job_->log_msg_callback());
    Host_Manager::instance()->access_key(job_->run_key());
    Cancellation::current(job_->cancellation());
}
