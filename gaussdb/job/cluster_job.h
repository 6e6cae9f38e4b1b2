#ifndef GAUSSDB_JOB_CLUSTER_JOB_H
#define GAUSSDB_JOB_CLUSTER_JOB_H

#include "gaussdb/common/gaussdb_cluster_handler.h"

#include <ctime>
#include <set>
#include <string>
#include <vector>

class Job;
class Roach_Source;
struct Job_Activity;

/** What the executors have in common beside what gaussdb_utils.h has. Any thread. */

/** The cluster of that name; an empty pointer, with nothing logged, when it is not known. */
GaussDB_Cluster_Handler_var find_cluster(std::string const& instance);

/** True for a cluster whose backup tool is run by "python3": the 200 series from 8.1.1 on. */
[[nodiscard]] bool uses_python3(GaussDB_Version const& version);

/**
 * Gets the uuids of a cluster's hosts: of a lone instance this host's, else as the backup server
 * knows them.
 * @return false after error lines and alert (7, 6) on the job
 */
[[nodiscard]] bool get_hosts_of_cluster(Job& job, GaussDB_Cluster_Handler const& cluster,
                                        std::string const& instance,
                                        std::vector<std::string>& host_uuids);

/**
 * Checks that the cluster's tools are still its user's, and answer for the cluster on record.
 * Before a job touches anything.
 * @param with_data  whether the databases have to be those on record
 * @return false after an error line and alert (7, 102)
 */
[[nodiscard]] bool is_cluster_on_record(Job& job, std::string const& instance, bool with_data);

/**
 * What a run of the backup tool uses alone on each of the cluster's hosts, for Run_Hold: the tool's
 * metadata directory, which a host has one of, and the policy file.
 */
std::set<std::string> roach_resources(std::vector<std::string> const& host_uuids,
                                      std::string const& policy_name);

/** A time as it stands in the names of directories, "20200102_030405", in local time. */
std::string time_stamp(time_t time);

/** True when the run is to end: by a cancel, a stop or an abort. */
[[nodiscard]] bool is_canceled(Job_Activity const& activity);
/** Lets the calling thread of a canceled run start programs again, to clean up. */
void let_cleanup_run(Job_Activity const& activity);

/** Raises an alert that has nothing to add to its two numbers; see write_job_alert(). */
void raise_alert(Job& job, unsigned long level, unsigned long code);

/**
 * Cleans up on all hosts behind a cancelled run: when this goes while the run is being cancelled,
 * unless dismiss() was called, the backup tool's programs are ended and the policy is removed.
 */
class Cancelled_Run_Cleanup {
public:
    /** All must outlive this object. @param definition_uuid  see Roach_Source::end() */
    Cancelled_Run_Cleanup(Job_Activity const& activity, Roach_Source& source,
                          std::vector<std::string> const& host_uuids, std::string definition_uuid);
    ~Cancelled_Run_Cleanup();
    Cancelled_Run_Cleanup(Cancelled_Run_Cleanup const&) = delete;
    Cancelled_Run_Cleanup& operator=(Cancelled_Run_Cleanup const&) = delete;

    /** The run has succeeded. */
    void dismiss() { dismissed_ = true; }

private:
    Job_Activity const& activity_;
    Roach_Source& source_;
    std::vector<std::string> const& host_uuids_;
    std::string const definition_uuid_;
    bool dismissed_ = false;
};

/** The run's work starts now: no code, no message, no progress. For the job thread. */
void reset_activity(Job_Activity& activity);

#endif
