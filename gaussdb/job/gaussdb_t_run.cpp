#include "gaussdb/job/gaussdb_t_run.h"

#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "host/job/job.h"
#include "host/job/job_event_handler.h"
#include "qmrt/format.h"
#include "qmrt/log.h"
#include "qmrt/names.h"

#include <algorithm>

namespace {

/** Whether a mount of the pool compresses and encrypts itself. */
bool is_dedup_url(std::string const& url) {
    constexpr char const* SCHEMES[] = {"dedup://", "dedups://", "ws://", "wss://"};
    return std::ranges::any_of(SCHEMES,
                               [&](char const* scheme) { return url.starts_with(scheme); });
}

} // namespace

bool GaussDB_T_Run::find_instance() {
    Job_Definition const& def = *run_job_.definition();
    std::string username;
    secure_string password;
    if (!get_instance_config(instance_.c_str(), def.uid().c_str(), username, password, &os_user_)) {
        QMRT_LOG(LM_ERROR, "Job %s is ignored: failed to get instance info!\n", def.id().c_str());
        return false;
    }
    cluster_ = find_cluster(instance_);
    if (cluster_.null()) {
        QMRT_LOG(LM_EMERGENCY, "Unexpected error in %N:%l, cluster_ is NULL:\n%?\n");
        return false;
    }
    // files and tools are used as this user
    if (os_user_ != cluster_->user()) {
        QMRT_LOG(LM_ERROR,
                 "Job %s is ignored: instance %s is on record for the user '%s', but runs as '%s'; "
                 "run: zenbrak3 instances --refresh\n",
                 def.id().c_str(), instance_.c_str(), os_user_.c_str(), cluster_->user().c_str());
        return false;
    }
    client_ = cluster_->create_client(username.c_str(), password.c_str(), nullptr);
    return client_ != nullptr;
}

bool GaussDB_T_Run::canceled() const {
    return is_canceled(run_job_.activity());
}

Client_IO_Ex::Progress GaussDB_T_Run::report_from(uint64_t done, uint64_t total) const {
    return [this, done, total](uint64_t bytes) {
        double const part =
            static_cast<double>(done + bytes) / static_cast<double>(std::max<uint64_t>(total, 1));
        // reported bytes would replace the database's size in the job's record
        Job_Event_Handler(run_job_).handle_progress(static_cast<int>(std::min(part, 0.99) * 100), 0,
                                                    0, 0);
        return !canceled();
    };
}

bool GaussDB_T_Run::connect_to(Pool_Info const& pool, std::string const& folder,
                               Client_IO_Base::Options const& opts) {
    std::string const url = pool.url + "/" + folder;
    if (io_.connect(url.c_str(), opts))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to connect to storage server %s: %s\n", url.c_str(),
             io_.error().c_str());
    return false;
}

bool GaussDB_T_Run::mount_pool(Mount_Fuse& fuse, Pool_Info const& pool, std::string const& folder,
                               std::string const& mount_point,
                               Client_IO_Base::Options const& opts) const {
    if (is_dedup_url(pool.url) && !set_fuse_for_dedup(fuse, opts, pool)) {
        QMRT_LOG(LM_ERROR, "Failed to set fuse for dedup.\n");
        return false;
    }
    fuse.retry_timeout(opts.max_seconds_retry);
    fuse.read_mode(SYNC_READ);
    fuse.big_write(true);
    fuse.allow_user_access(os_user_);
    fuse.other_fuse_options("-o remember=60");
    fuse.access(opts.access());
    return fuse.mount((pool.url + "/" + folder).c_str(), mount_point.c_str(),
                      run_job_.log_msg_callback());
}

bool GaussDB_T_Run::check_path(char const* what, std::string const& path) {
    std::string const fault = names::fault_of_bare_path(path);
    if (fault.empty())
        return true;
    QMRT_LOG(LM_ERROR, "Invalid %s '%s': it %s\n", what, names::shown(path).c_str(), fault.c_str());
    return false;
}
