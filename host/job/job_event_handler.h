#ifndef HOST_JOB_JOB_EVENT_HANDLER_H
#define HOST_JOB_JOB_EVENT_HANDLER_H

#include <string>

class Job;

/**
 * How a run tells its beginning, its progress and its end: writes the job's activity record and
 * hands on to the Job_Backend. A run ends once: a second outcome is ignored with an error line.
 * May be used on any thread while the job lives; the job's own lock orders the calls.
 */
class Job_Event_Handler {
public:
    explicit Job_Event_Handler(Job& job) : job_(job) {}

    /**
     * The run begins in earnest: now is its start time, progress and code are 0, and the state is
     * JOB_STATE_RUNNING, unless a cancel came before: that one stands.
     */
    void handle_start_job();
    /**
     * @param percent  taken as it is, also when it falls or is beyond 0 to 100
     * The others are bytes, bytes and bytes a second; a 0 leaves what the record holds.
     */
    void handle_progress(int percent, unsigned long processed_size, unsigned long total_size,
                         unsigned long speed);
    /** JOB_STATE_COMPLETED, code 0, progress 100. */
    void handle_success();
    /** JOB_STATE_CANCELED. */
    void handle_canceled();
    /** JOB_STATE_ERROR. @param format  printf's; null for no message. Cut at about 3900 bytes. */
    void handle_failure(int code, char const* format, ...) __attribute__((format(printf, 3, 4)));

    /** The run's id as text. */
    std::string job_act_id() const;

private:
    Job& job_;
};

#endif
