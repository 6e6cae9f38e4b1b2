#include "host/job/job_event_handler.h"

#include "host/job/job.h"
#include "host/job/job_backend.h"
#include "qmrt/format.h"

void Job_Event_Handler::handle_start_job() {
    job_.begin_work();
}

void Job_Event_Handler::handle_progress(int percent, unsigned long processed_size,
                                        unsigned long total_size, unsigned long speed) {
    job_.report({percent, processed_size, total_size, speed});
}

void Job_Event_Handler::handle_success() {
    job_.end(JOB_STATE_COMPLETED, 0, "");
}

void Job_Event_Handler::handle_canceled() {
    job_.end(JOB_STATE_CANCELED, 0, "");
}

void Job_Event_Handler::handle_failure(int code, char const* format, ...) {
    std::string message;
    if (format) {
        va_list arguments;
        va_start(arguments, format);
        message = string_vsprintf(format, arguments);
        va_end(arguments);
    }
    job_.end(JOB_STATE_ERROR, code, message);
}

std::string Job_Event_Handler::job_act_id() const {
    return job_.run_id();
}
