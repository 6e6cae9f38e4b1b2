#include "gaussdb/job/gaussdb_tpops_run.h"

#include "gaussdb/common/gaussdb_tpops_handler.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_source.h"
#include "host/agent/host_services.h"
#include "host/job/job.h"
#include "host/job/job_backend.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"
#include "qmrt/names.h"

#include <ace/OS_NS_unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <mutex>
#include <set>
#include <unistd.h>

namespace {

constexpr char COUNTER_ENDING[] = "_act";
constexpr int MOST_PROGRESS = 99;

/** The policies of the running jobs. Only this process runs jobs on this host. */
class Policies_In_Use {
public:
    static Policies_In_Use& instance() {
        static Policies_In_Use policies;
        return policies;
    }
    /** Adds a policy, and removes the files of TPOPS policies that are not in use. */
    void begin(std::string const& name) {
        std::lock_guard const guard(mutex_);
        names_.insert(name);
        std::error_code ignored;
        for (auto const& entry :
             std::filesystem::directory_iterator(Xbsa_Info_Path_Conf::prefix, ignored))
            if (is_left(entry.path().filename()) && unlink(entry.path().c_str()) == 0)
                QMRT_LOG(LM_INFO, "Removed %s, which an earlier run has left\n",
                         entry.path().c_str());
    }
    void end(std::string const& name) {
        std::lock_guard const guard(mutex_);
        if (auto const found = names_.find(name); found != names_.end())
            names_.erase(found);
    }

private:
    bool is_left(std::string file) const {
        if (!file.starts_with(Roach_Source::TPOPS_PREFIX))
            return false;
        if (file.ends_with(COUNTER_ENDING))
            file.resize(file.size() - std::size(COUNTER_ENDING) + 1);
        return !names_.contains(file);
    }

    std::mutex mutex_;
    std::multiset<std::string> names_;
};

} // namespace

GaussDB_TPOPS_Run::~GaussDB_TPOPS_Run() {
    platform_answers(true);
    if (!policy_.empty())
        Policies_In_Use::instance().end(policy_);
}

bool GaussDB_TPOPS_Run::connect_to_platform(std::string const& instance,
                                            TPOPS_RESTful_Client& client) {
    cluster_ = find_cluster(instance);
    if (cluster_.null()) {
        QMRT_LOG(LM_EMERGENCY, "Unexpected error in %N:%l, cluster_ is NULL:\n%?\n");
        return false;
    }
    auto const* const handler = dynamic_cast<GaussDB_TPOPS_Handler const*>(cluster_.get());
    if (!handler)
        return false;
    TPOPS_Login const login = handler->get_login_info();
    platform_ = login.host + ":" + std::to_string(login.port);
    return ask_platform([&] { return client.connect(login); });
}

bool GaussDB_TPOPS_Run::find_backup_agent(std::string const& host, uint16_t port, bool ssl,
                                          std::string& user) {
    std::string found;
    if (!check_backup_agent_info(host.c_str(), port, ssl, found) ||
        !has_one_backup_agent_user(host.c_str(), port, found)) {
        QMRT_LOG(LM_ERROR,
                 "The retrieval of GaussDB backup client information for the host: %s, port: %d, "
                 "and ssl: %d has failed\n",
                 names::shown(host).c_str(), static_cast<int>(port), static_cast<int>(ssl));
        return false;
    }
    user = found;
    return true;
}

bool GaussDB_TPOPS_Run::ask_platform(std::function<bool()> const& call) const {
    try {
        return call();
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "The answer of platform %s cannot be used: %s\n", platform_.c_str(),
                 error.what());
        return false;
    }
}

// policy and counter file

bool GaussDB_TPOPS_Run::write_policy(Roach_Source& source, std::string const& name) {
    policy_ = name;
    Policies_In_Use::instance().begin(name);
    return source.dump_policy();
}

bool GaussDB_TPOPS_Run::open_counter(std::string const& user) {
    return counter_.open(Xbsa_Mem_Map_Handle::path_of(policy_ + COUNTER_ENDING).c_str(),
                         user.c_str()) == 0;
}

// the platform's job

bool GaussDB_TPOPS_Run::canceled() const {
    return is_canceled(run_job_.activity());
}

void GaussDB_TPOPS_Run::sleep() const {
    ACE_OS::sleep(sleep_interval_);
}

bool GaussDB_TPOPS_Run::is_running(TPOPS_Job_State state, bool building_runs) const {
    return state == TPOPS_JOB_STATE_RUNNING || (building_runs && state == TPOPS_JOB_STATE_BUILDING);
}

bool GaussDB_TPOPS_Run::wait_for_job(Job_Event_Handler& events, Ask_State const& ask,
                                     bool building_runs, TPOPS_Job_State& state) {
    int progress = 0;
    while (state != TPOPS_JOB_STATE_COMPLETED && state != TPOPS_JOB_STATE_ERROR) {
        if (canceled())
            return false;
        sleep();
        bool const answered = ask_platform([&] { return ask(state); });
        platform_answers(answered || state == TPOPS_JOB_STATE_ERROR);
        if (!is_running(state, building_runs))
            continue;
        std::optional<uint64_t> const moved = counter_.current_size();
        if (databases_size_ != 0 && moved)
            progress =
                static_cast<int>(std::min<uint64_t>(MOST_PROGRESS, *moved * 100 / databases_size_));
        events.handle_progress(progress, 0, 0, 0);
    }
    return true;
}

bool GaussDB_TPOPS_Run::read_job_state(TPOPS_RESTful_Client& client, char const* job_id,
                                       TPOPS_Job_State& state, json_spirit::Value& result) const {
    json_spirit::Object const* job = nullptr;
    std::string status;
    if (!ask_platform([&] { return client.get_job_details(job_id, result); }) ||
        result.type() != json_spirit::obj_type ||
        !json_spirit::object_get(result.get_obj(), "job", job) ||
        !json_spirit::object_get(*job, "status", status))
        return false;
    state = tpops_state_from_string(status.c_str(), static_cast<int>(status.size()));
    return state != TPOPS_JOB_STATE_ERROR;
}

void GaussDB_TPOPS_Run::platform_answers(bool answers) {
    if (answers != waits_)
        return;
    waits_ = !answers;
    if (std::shared_ptr<Job_Backend> const jobs = Host_Services::instance().jobs())
        jobs->waiting(run_job_, waits_ ? "platform " + platform_ + " to answer" : "");
}

void GaussDB_TPOPS_Run::tell_of_running(std::string const& what) const {
    QMRT_LOG(LM_WARNING, "Platform %s goes on with %s; stop it there if it is not wanted\n",
             platform_.c_str(), what.c_str());
}
