#ifndef HOST_JOB_JOB_ACTIVITY_H
#define HOST_JOB_JOB_ACTIVITY_H

#include "host/job/job_definition_type.h"
#include "host/job/job_state.h"
#include "host/job/shared_value.h"
#include "qmrt/mem_map_handle.h"
#include "qmrt/uuid.h"

#include <ace/Basic_Types.h>

#include <ctime>
#include <type_traits>

/** Where in a job's activity file a text stands. Both 0: there is none. */
struct JOB_ACT_ADDR {
    Shared_Value<ACE_UINT16> size;   ///< bytes, without a NUL
    Shared_Value<ACE_UINT16> offset; ///< from the beginning of the file
};

/** Where activity files lie. */
struct Job_Activity_Path_Conf {
    static constexpr char const* prefix = "/var/opt/quilmot/zenbrak3/agent/jobs";
};

/**
 * What a job is doing: a record of fixed layout at the beginning of a file that the agent and the
 * tools beside it map. Behind it, up to JOB_ACTIVITY_SIZE, stand the texts that it refers to.
 *
 * The job thread reads and writes the fields of its run directly; requests from other threads
 * write only `state`. Nobody takes a lock for that: each Shared_Value is atomic by itself, and
 * looks like a plain field. The uuids and `type` change only while no run is on, and on the job
 * thread at the beginning of one; other threads get the run's id from Job::run_id(), and the text
 * from Job::message().
 */
struct Job_Activity {
    static constexpr unsigned int MAGIC = 0x4a4f4241; // "JOBA"
    static constexpr unsigned int VERSION = 1;

    unsigned int magic = MAGIC;
    unsigned int version = VERSION;
    uuid_binary id = {};     ///< of the run; all zeros before the first
    uuid_binary def_id = {}; ///< of the definition
    uuid_binary uid = {};    ///< of the user who owns the definition
    Job_Definition_Type type = JOB_DEFINITION_NONE;
    Shared_Value<bool> enabled;
    Shared_Value<Job_State> state;
    Shared_Value<time_t> last_run_time;
    Shared_Value<time_t> next_run_time;
    Shared_Value<time_t> start_time;
    Shared_Value<ACE_UINT64> size;             ///< bytes to protect or to restore
    Shared_Value<ACE_UINT64> set_size;         ///< bytes of the backup set
    Shared_Value<ACE_UINT64> set_storage_size; ///< bytes that the set takes in its pool
    Shared_Value<int> progress;                ///< percent
    Shared_Value<ACE_UINT64> processed_size;   ///< bytes
    Shared_Value<ACE_UINT64> speed;            ///< bytes a second
    Shared_Value<int> code;                    ///< why the run failed; 0 for a success
    JOB_ACT_ADDR message;                      ///< the same in words
};
static_assert(std::is_standard_layout_v<Job_Activity>);

/** Length of an activity file. */
constexpr size_t JOB_ACTIVITY_SIZE = 4096;

using Job_Activity_Handle = Mem_Map_Handle<Job_Activity, Job_Activity_Path_Conf, JOB_ACTIVITY_SIZE>;

#endif
