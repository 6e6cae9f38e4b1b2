#include "gaussdb/job/cluster_job.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_source.h"
#include "host/agent/host_manager.h"
#include "host/job/job_activity.h"
#include "host/job/job_alert.h"
#include "host/job/run_hold.h"
#include "host/process/cancellation.h"
#include "qmrt/log.h"

#include <ctime>

GaussDB_Cluster_Handler_var find_cluster(std::string const& instance) {
    GaussDB_Cluster_Manager const* const clusters = GaussDB_Cluster_Manager::instance();
    return clusters ? clusters->get_cluster(instance.c_str()) : GaussDB_Cluster_Handler_var();
}

bool uses_python3(GaussDB_Version const& version) {
    return version.model_ == GAUSSDB_200 && version >= GAUSSDB_A_811;
}

bool get_hosts_of_cluster(Job& job, GaussDB_Cluster_Handler const& cluster,
                          std::string const& instance, std::vector<std::string>& host_uuids) {
    if (cluster.type() == GaussDB_Cluster_Handler::TYPE_SINGLE) {
        host_uuids.assign(1, Host_Manager::instance()->uuid());
        return true;
    }
    if (get_cluster_host_uuids(instance.c_str(), host_uuids))
        return true;
    raise_alert(job, 7, 6);
    QMRT_LOG(LM_ERROR, "Failed to get cluster hosts of %s\n", instance.c_str());
    return false;
}

bool is_cluster_on_record(Job& job, std::string const& instance, bool with_data) {
    GaussDB_Cluster_Manager* const clusters = GaussDB_Cluster_Manager::instance();
    std::string fault;
    if (!clusters || (clusters->owns_its_tools(instance.c_str(), fault) &&
                      clusters->is_same_cluster(instance.c_str(), with_data, fault)))
        return true;
    raise_alert(job, 7, 102);
    QMRT_LOG(LM_ERROR, "Nothing was touched, %s\n", fault.c_str());
    return false;
}

std::set<std::string> roach_resources(std::vector<std::string> const& host_uuids,
                                      std::string const& policy_name) {
    std::set<std::string> resources;
    for (std::string const& host : host_uuids) {
        resources.insert(Run_Hold::metadata(host));
        resources.insert(Run_Hold::policy(host, policy_name));
    }
    return resources;
}

std::string time_stamp(time_t time) {
    tm local = {};
    char text[32] = "";
    if (localtime_r(&time, &local))
        strftime(text, sizeof text, "%Y%m%d_%H%M%S", &local);
    return text;
}

bool is_canceled(Job_Activity const& activity) {
    Job_State const state = activity.state;
    return state == JOB_STATE_CANCELING || state == JOB_STATE_CANCELED ||
           state == JOB_STATE_ABORTING;
}

void let_cleanup_run(Job_Activity const& activity) {
    if (is_canceled(activity))
        Cancellation::current(nullptr);
}

void raise_alert(Job& job, unsigned long level, unsigned long code) {
    write_job_alert(&job, level, code, 0, json_spirit::Value::null, 1);
}

Cancelled_Run_Cleanup::Cancelled_Run_Cleanup(Job_Activity const& activity, Roach_Source& source,
                                             std::vector<std::string> const& host_uuids,
                                             std::string definition_uuid)
    : activity_(activity),
      source_(source),
      host_uuids_(host_uuids),
      definition_uuid_(std::move(definition_uuid)) {}

Cancelled_Run_Cleanup::~Cancelled_Run_Cleanup() {
    if (!dismissed_ && activity_.state == JOB_STATE_CANCELING)
        source_.end(host_uuids_, definition_uuid_);
}

void reset_activity(Job_Activity& activity) {
    activity.code = 0;
    activity.message.size = 0;
    activity.message.offset = 0;
    activity.progress = 0;
    activity.start_time = time(nullptr);
}
