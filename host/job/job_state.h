#ifndef HOST_JOB_JOB_STATE_H
#define HOST_JOB_JOB_STATE_H

/** What a job is doing, or how its last run ended. The values are kept on disk. */
enum Job_State : int {
    JOB_STATE_NONE = 0,
    JOB_STATE_IDLE,
    JOB_STATE_STARTING,
    JOB_STATE_RUNNING,
    JOB_STATE_PAUSING,
    JOB_STATE_PAUSED,
    JOB_STATE_COMPLETING, ///< the post-action runs
    JOB_STATE_COMPLETED,
    JOB_STATE_CANCELING,
    JOB_STATE_CANCELED,
    JOB_STATE_ERROR,
    JOB_STATE_CREATED,
    JOB_STATE_UPDATED,
    JOB_STATE_DELETING,
    JOB_STATE_DELETED,
    JOB_STATE_COMPLETED_WITH_ERRORS,
    JOB_STATE_DISPATCHING,
    JOB_STATE_SKIPPED, ///< the run was not this host's to do
    JOB_STATE_EXPIRED,
    JOB_STATE_DISABLED,
    JOB_STATE_ABORTING,
    JOB_STATE_CREATING,
    JOB_STATE_SYNCING,
    JOB_STATE_SWITCHING,
    JOB_STATE_ACTIVATING,
    JOB_STATE_OPENING
};

/** "running" for JOB_STATE_RUNNING, and so on; "unknown" for a number that is no state. */
char const* job_state_to_string(Job_State state);

/** True for the states that a job has only while a run of it is on. */
[[nodiscard]] bool is_run_state(Job_State state);

/** True for a run that was asked to end before its time: CANCELING, CANCELED or ABORTING. */
[[nodiscard]] bool is_cancel_state(Job_State state);

#endif
