#include "gaussdb/job/gaussdb_tpops_restore_executor.h"

#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_source.h"
#include "host/agent/host_manager.h"
#include "host/catalog/backup_set.h"
#include "host/catalog/catalog_operator.h"
#include "host/job/job_mutex.h"
#include "host/job/run_hold.h"
#include "host/rpc/json_rpc_forward.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/posix_time.h"
#include "qmrt/scoped_deleter.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <exception>

using json_spirit::extract_or_throw;
using json_spirit::Object;
using json_spirit::Value;

using TPOPS_Restore = GaussDB_TPOPS_Restore_Executor;

namespace {

constexpr uint64_t MS_PER_SECOND = 1000;

std::string present_local_time() {
    time_t const now = time(nullptr);
    tm local = {};
    char text[32] = "";
    if (localtime_r(&now, &local))
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

} // namespace

TPOPS_Restore::GaussDB_TPOPS_Restore_Executor(Job& job)
    : Job_Executor_T(job), GaussDB_TPOPS_Run(job) {}

TPOPS_Restore::~GaussDB_TPOPS_Restore_Executor() = default;

bool TPOPS_Restore::execute_i(Job::Action_Options const*) {
    Run_Hold const instance(job_, {Run_Hold::instance(tgt_.id())});
    if (!instance)
        return false;
    ACE_Guard<ACE_Thread_Mutex> const lock(Job_Mutex::get(tgt_.id()));
    if (!lock.locked() || QMRT_IS_NULL_AT(LM_ERROR, opts_))
        return false;
    act_.progress = 0;
    act_.start_time = time(nullptr);
    job_.phase("asking the platform");
    std::string pool_uuid;
    std::string compression;
    if (!parse_instance_entry(src_->restore_as_, tgt_instance_) ||
        !connect_to_platform(tgt_instance_, client_) || !load_catalog(pool_uuid, compression))
        return false;
    (void)check_agent_info(); // without the agent's user the policy is root's
    return read_instance_id() && restore(pool_uuid, compression);
}

bool TPOPS_Restore::restore(std::string const& pool_uuid, std::string const& compression) {
    std::string const policy_name =
        string_sprintf("tpops_%s_%s", src_->id().c_str(), tgt_.id().c_str());
    Run_Hold const policy_hold(job_,
                               {Run_Hold::policy(Host_Manager::instance()->uuid(), policy_name)});
    if (!policy_hold)
        return false;
    Roach_Source policy = make_roach_source(pool_uuid, compression, policy_name);
    if (!write_policy(policy, policy_name)) {
        QMRT_LOG(LM_ERROR, "Failed to dump policy file for GaussDB instance '%s'\n",
                 tgt_instance_.c_str());
        return false;
    }
    if (!open_counter(os_user_))
        QMRT_LOG(LM_ERROR,
                 "Failed to create xbsa info handle for GaussDB instance '%s', errno=%d, %m\n",
                 tgt_instance_.c_str(), errno);
    bool restore_successful = false;
    Scoped_Deleter const clean_up([&] {
        counter_.remove();
        if (restore_successful)
            (void)policy.remove_policy(); // what stays behind is replaced by the next run
    });
    restore_successful = restore_on_platform();
    return restore_successful;
}

bool TPOPS_Restore::restore_on_platform() {
    if (!set_restore_time() || !start_restore())
        return false;
    job_.phase("the platform restores the instance");
    TPOPS_Job_State state = TPOPS_JOB_STATE_NONE;
    auto const ask = [this](TPOPS_Job_State& now) { return get_job_state(job_id_.c_str(), now); };
    if (!wait_for_job(evt_handler_, ask, false, state)) {
        tell_of_running(string_sprintf("the restore of instance '%s', job '%s'",
                                       tgt_instance_.c_str(), names::shown(job_id_).c_str()));
        return false;
    }
    if (state == TPOPS_JOB_STATE_ERROR) {
        QMRT_LOG(LM_ERROR, "Restore GaussDB instance '%s' failed\n", tgt_instance_.c_str());
        return false;
    }
    act_.set_size = databases_size_;
    act_.size = databases_size_;
    return true;
}

Roach_Source TPOPS_Restore::make_roach_source(std::string const& pool_uuid,
                                              std::string const& compression,
                                              std::string const& policy_name) const {
    Client_IO_Base::Options opts;
    set_options_by_job_def(opts, def_, static_cast<unsigned long>(std::max(opts_->channels_, 0)));
    return {src_->id(),
            "",
            pool_uuid,
            uuid_binary_to_string(act_.id),
            compression_name_to_value(compression.c_str(), -1),
            1,
            os_user_,
            def_.max_seconds_retry(),
            def_.resumption_buffer_size(),
            opts.rate_limits,
            cluster_->get_gaussdb_version(),
            true,
            policy_name};
}

// the catalog

bool TPOPS_Restore::load_catalog(std::string& pool_uuid, std::string& compression) {
    if (get_catalog(src_->backup_key_, pool_uuid, compression))
        return true;
    raise_alert(job_, 7, 1);
    QMRT_LOG(LM_ERROR, "Failed to get GaussDB catalog with backup key %s\n",
             names::shown(src_->backup_key_).c_str());
    return false;
}

bool TPOPS_Restore::get_catalog(std::string const& backup_key, std::string& pool_uuid,
                                std::string& compression) {
    Object query;
    json_spirit::insert(query)("resource_uuid", src_->id())("backup_key", backup_key)(
        "sort", "backup_start_time")("order", "desc")("cmode", "rb_orm_rows");
    Value result;
    if (!Catalog_Operator(-1, def_.max_seconds_retry())
             .get_view("gaussdb", "restore", query, result) ||
        result.type() != json_spirit::obj_type)
        return false;
    try {
        json_spirit::Array const* rows = nullptr;
        json_spirit::Array const* storages = nullptr;
        extract_or_throw(result.get_obj())("rows", rows, true);
        for (Object const& row : json_spirit::objects_of(*rows)) {
            read_row(row, backup_key);
            if (storages)
                continue;
            extract_or_throw(row)("storages", storages, true)("compression", compression, true);
            if (pool_uuid.empty())
                pool_uuid =
                    Backup_Set_Storage_Selector(*storages, Backup_Set_Storage_Selector::M_SOURCE)
                        .pool_uuid();
        }
        return !rows->empty();
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB catalog of '%s': %s\n", tgt_instance_.c_str(),
                 error.what());
        return false;
    }
}

void TPOPS_Restore::read_row(Object const& row, std::string const& backup_key) {
    std::string key;
    uint64_t size = 0;
    extract_or_throw(row)("instance_id", source_id_, true)("backup_key", key,
                                                           true)("backup_set_size", size, true);
    databases_size_ += size;
    if (opts_->restore_time_.empty() && key == backup_key)
        extract_or_throw(row)("backup_id", backup_id_, false);
}

// the platform

bool TPOPS_Restore::read_instance_id() {
    Object record = cluster_->info().extend_attrs;
    if (json_spirit::object_get(record, "id", instance_id_))
        return true;
    record.erase("password");
    QMRT_LOG(LM_ERROR, "Failed to get GaussDB id of instance '%s': %s\n", tgt_instance_.c_str(),
             JSON_Dump(Value(record), false).c_str());
    return false;
}

bool TPOPS_Restore::check_agent_info() {
    Value route;
    if (!read_route(route))
        return false;
    std::string host;
    uint16_t port = 0;
    bool ssl = false;
    try {
        extract_or_throw(route.get_obj())("ip", host, true)("port", port, true)("ssl", ssl, true);
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB instance '%s' xbsa info: %s\n",
                 tgt_instance_.c_str(), error.what());
        return false;
    }
    return find_backup_agent(host, port, ssl, os_user_);
}

bool TPOPS_Restore::read_route(Value& route) {
    Value result;
    if (!ask_platform(
            [&] { return client_.get_extend_info(source_id_.c_str(), "XbsaRoute", result); }) ||
        result.type() != json_spirit::obj_type) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB instance '%s' XbsaRoute info\n",
                 tgt_instance_.c_str());
        return false;
    }
    std::string const text = json_spirit::object_get_str(result.get_obj(), "value");
    if (!text.empty() && loads_json(text.data(), text.size(), route, 0) &&
        route.type() == json_spirit::obj_type)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to get GaussDB instance '%s XbsaRoute info: %s\n",
             tgt_instance_.c_str(), client_.shown(result).c_str());
    return false;
}

bool TPOPS_Restore::set_restore_time() const {
    Object params;
    json_spirit::insert(params)("resource_uuid", tgt_.id())("restore_time", present_local_time());
    Value result;
    if (global_json_rpc("backup_set.gaussdb_restore_branch", Value(params), -1, result,
                        json_spirit::bool_type, -1) &&
        result.get_bool())
        return true;
    QMRT_LOG(LM_ERROR, "Failed to set GaussDB restore time of '%s'\n", tgt_instance_.c_str());
    return false;
}

bool TPOPS_Restore::start_restore() {
    Restore_Args args;
    args.source_id = source_id_;
    args.backup_id = backup_id_;
    args.target_id = instance_id_;
    args.backup_type = opts_->restore_time_.empty() ? "backup" : "timestamp";
    if (!opts_->restore_time_.empty()) {
        time_t when = 0;
        if (!iso8601_to_posix_time(opts_->restore_time_, when))
            return false;
        args.restore_time = static_cast<uint64_t>(when) * MS_PER_SECOND;
    }
    QMRT_LOG(LM_DEBUG, "Restore job of GaussDB instance '%s' is running...\n",
             tgt_instance_.c_str());
    Value result;
    if (!ask_platform([&] { return client_.create_restore(args, result); }) ||
        result.type() != json_spirit::obj_type) {
        QMRT_LOG(LM_ERROR,
                 "Failed to create restore job for GaussDB instance '%s' with '%s', res: %s\n",
                 tgt_instance_.c_str(), JSON_Dump(Value(args.dump()), false).c_str(),
                 client_.shown(result).c_str());
        return false;
    }
    job_id_ = json_spirit::object_get_str(result.get_obj(), "job_id");
    return !job_id_.empty();
}

bool TPOPS_Restore::get_job_state(char const* job_id, TPOPS_Job_State& state) {
    if (QMRT_IS_NULL_OR_EMPTY(job_id))
        return false;
    Value result;
    if (read_job_state(client_, job_id, state, result))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to get GaussDB restore job '%s' details: %s\n",
             names::shown(job_id).c_str(), client_.shown(result).c_str());
    return false;
}
