#include "gaussdb/job/gaussdb_restore_job_executor.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_catalog.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_executor.h"
#include "gaussdb/job/roach_progress_handler.h"
#include "gaussdb/job/roach_source.h"
#include "host/catalog/backup_set.h"
#include "host/job/job_mutex.h"
#include "host/job/run_hold.h"
#include "json_spirit/access.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <boost/regex.hpp>
#include <exception>

using json_spirit::extract_or_throw;

namespace {

// between the directory of a data node and the hosts and directories of its standbys
boost::regex const RE_DATA_NODE_DIR(",");

void insert_directories(std::string const& path_list, std::set<std::string>& directories) {
    boost::sregex_token_iterator const end;
    for (boost::sregex_token_iterator piece(path_list.begin(), path_list.end(), RE_DATA_NODE_DIR,
                                            -1);
         piece != end; ++piece)
        if (piece->length() > 0 && *piece->first == '/')
            directories.insert(piece->str());
}

} // namespace

GaussDB_Restore_Job_Executor::GaussDB_Restore_Job_Executor(Job& job) : Job_Executor_T(job) {}

GaussDB_Restore_Job_Executor::~GaussDB_Restore_Job_Executor() {
    if (!cache_dir_.empty())
        (void)Roach_Source::remove_cache_directory(def_.id());
}

bool GaussDB_Restore_Job_Executor::is_active(Job::Action_Options const*) {
    if (!parse_instance_entry(src_->restore_as_, instance_))
        return false;
    cluster_ = find_cluster(instance_);
    return !cluster_.null() && cluster_->is_first_device();
}

bool GaussDB_Restore_Job_Executor::new_cluster() const {
    return src_->id() != tgt_.id();
}

bool GaussDB_Restore_Job_Executor::execute_i(Job::Action_Options const*) {
    Run_Hold const instance(job_, {Run_Hold::instance(tgt_.id())});
    if (!instance)
        return false;
    ACE_Guard<ACE_Thread_Mutex> const lock(Job_Mutex::get(tgt_.id()));
    if (!lock.locked())
        return false;
    if (cluster_.null()) {
        QMRT_LOG(LM_ERROR, "Unexpected error in %N:%l, cluster_ is NULL:\n%?\n");
        return false;
    }
    if (QMRT_IS_NULL_AT(LM_ERROR, opts_))
        return false;
    job_.phase("checking the cluster");
    // its databases need not be those on record: they are what is replaced
    if (!is_cluster_on_record(job_, instance_, false))
        return false;
    reset_activity(act_);

    Chain chain;
    Hosts hosts;
    if (!load_chain(chain) || !choose_cache_dir() ||
        !get_hosts_of_cluster(job_, *cluster_, instance_, hosts))
        return false;
    Run_Hold const tool(job_, roach_resources(hosts, chain.pool_uuid));
    if (!tool)
        return false;
    Roach_Source roach_source = make_roach_source(chain);
    // after a failure, too: the policy's key is void then
    Scoped_Deleter policy([&] { roach_source.drop_policy(); });
    job_.phase("fetching metadata");
    if (!restore_roach_metadata(roach_source, chain))
        return false;
    Cancelled_Run_Cleanup cleanup(act_, roach_source, hosts, def_.id());
    if (!notify(roach_source, hosts, chain))
        return false;

    Roach_Executor roach_executor(cluster_->user().c_str(), cluster_->env(),
                                  uses_python3(cluster_->get_gaussdb_version()),
                                  job_.log_msg_callback());
    if (!run_roach(roach_executor, roach_source, chain))
        return false;
    std::set<std::string> directories = data_directories();
    policy.release();
    (void)roach_source.remove(hosts, &directories, def_.id()); // what stays behind has been logged
    if (!start(roach_executor))
        return false;
    cleanup.dismiss();
    roach_source.delete_meta();
    GaussDB_Cluster_Manager::instance()->record_data(instance_.c_str());
    act_.size = chain.total_size;
    act_.set_size = chain.total_size;
    return true;
}

// the catalog

bool GaussDB_Restore_Job_Executor::load_chain(Chain& chain) {
    if (get_catalog(src_->backup_key_, chain.pool_uuid, chain.compression, chain.total_size,
                    chain.catalogs, cluster_->get_gaussdb_version().model_))
        return true;
    raise_alert(job_, 7, 1);
    QMRT_LOG(LM_ERROR, "Failed to get gaussdb catalog, backup key %s\n", src_->backup_key_.c_str());
    return false;
}

/**
 * Follows the sets from the one that is asked for to the full one that they build on.
 * @param pool_uuid, compression  of the set that is asked for
 * @param total_size  grows by the bytes of each set
 * @param catalogs    gets all rows, newest first, also of sets that are not on the way
 */
bool GaussDB_Restore_Job_Executor::get_catalog(std::string const& backup_key,
                                               std::string& pool_uuid, std::string& compression,
                                               ACE_UINT64& total_size, json_spirit::Array& catalogs,
                                               GAUSSDB_VERSION const& version) {
    if (QMRT_IS_EMPTY_AT(LM_ERROR, backup_key) ||
        !GaussDB_Catalog(def_.max_seconds_retry()).get_chain(src_->id(), backup_key, catalogs))
        return false;
    try {
        std::string old_backup_key = backup_key;
        for (json_spirit::Value const& value : catalogs) {
            json_spirit::Object const& row = value.get_obj();
            std::string key, prior_key;
            uint64_t size = 0;
            json_spirit::Array const* storages = nullptr;
            extract_or_throw(row)("backup_key", key, true)("prior_backup_key", prior_key, true)(
                "backup_set_size", size, true)("storages", storages, true);
            if (key != old_backup_key)
                continue;
            total_size += size;
            if (key == backup_key) {
                pool_uuid =
                    Backup_Set_Storage_Selector(*storages, Backup_Set_Storage_Selector::M_SOURCE)
                        .pool_uuid();
                extract_or_throw(row)("compression", compression, true);
            }
            int series = 0;
            extract_or_throw(row)("series", series, true);
            if (series != version) {
                QMRT_LOG(LM_ERROR, "Failed to restore, gaussdb version mismatch.\n");
                return false;
            }
            old_backup_key = prior_key;
        }
        if (old_backup_key.empty())
            return true;
        QMRT_LOG(LM_ERROR, "Failed to get base gaussdb backup set\n");
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get gaussdb catalog, %s\n", error.what());
    }
    return false;
}

// what the backup tool is told, and its run

/** It is removed with all that is in it: an id that leads elsewhere is refused. */
bool GaussDB_Restore_Job_Executor::choose_cache_dir() {
    cache_dir_ = Roach_Source::cache_directory(def_.id());
    if (cache_dir_.empty())
        QMRT_LOG(LM_ERROR, "Failed to restore, invalid job definition id '%s'\n",
                 def_.id().c_str());
    return !cache_dir_.empty();
}

Roach_Source GaussDB_Restore_Job_Executor::make_roach_source(Chain const& chain) const {
    Client_IO_Base::Options opts;
    set_options_by_job_def(opts, def_, static_cast<unsigned long>(std::max(opts_->channels_, 0)));
    return {src_->id(),
            "",
            chain.pool_uuid,
            "",
            compression_name_to_value(chain.compression.c_str(), -1),
            1,
            cluster_->user(),
            def_.max_seconds_retry(),
            def_.resumption_buffer_size(),
            opts.rate_limits,
            cluster_->get_gaussdb_version(),
            true,
            chain.pool_uuid};
}

bool GaussDB_Restore_Job_Executor::restore_roach_metadata(Roach_Source& roach_source,
                                                          Chain const& chain) {
    if (cluster_->get_gaussdb_version().model_ != GAUSSDB_200)
        return true;
    return std::all_of(
        chain.catalogs.begin(), chain.catalogs.end(), [&](json_spirit::Value const& row) {
            return row.type() != json_spirit::obj_type ||
                   roach_source.restore_roach_metadata(row.get_obj(), chain.pool_uuid, def_.id(),
                                                       cache_dir_, cluster_->user(), new_cluster(),
                                                       {});
        });
}

bool GaussDB_Restore_Job_Executor::notify(Roach_Source& roach_source, Hosts const& hosts,
                                          Chain const& chain) {
    GaussDB_Version const& version = cluster_->get_gaussdb_version();
    bool const with_chain = version.model_ == GAUSSDB_200 && version >= GAUSSDB_A_811;
    if (roach_source.notify(hosts, src_->backup_key_.c_str(), def_.id(),
                            with_chain ? &chain.catalogs : nullptr, false))
        return true;
    raise_alert(job_, 7, 7);
    QMRT_LOG(LM_ERROR, "Failed to notify cluster nodes\n");
    return false;
}

bool GaussDB_Restore_Job_Executor::run_roach(Roach_Executor& roach_executor,
                                             Roach_Source const& roach_source, Chain const& chain) {
    job_.phase("the backup tool fetches the data");
    // a step for each set, and one for the end
    Roach_Progress_Handler progress(static_cast<int>(cluster_->nodes()), &evt_handler_,
                                    static_cast<int>(chain.catalogs.size() + 1));
    bool done = true;
    switch (cluster_->get_gaussdb_version().model_) {
    case GAUSSDB_200:
        done = roach_executor.restore_200(chain.pool_uuid.c_str(), roach_source.meta_path().c_str(),
                                          src_->backup_key_, &progress, new_cluster(),
                                          opts_->channels_, opts_->max_memory_usage_,
                                          opts_->buffer_size_, opts_->buffer_block_size_);
        break;
    case GAUSSDB_100:
        done = roach_executor.restore_100(
            chain.pool_uuid.c_str(), roach_source.media_path().c_str(), new_cluster(),
            roach_source.meta_path(), src_->backup_key_,
            cluster_->type() == GaussDB_Cluster_Handler::TYPE_SINGLE, opts_->channels_);
        break;
    default:
        break;
    }
    if (!done)
        QMRT_LOG(LM_ERROR, "Failed to restore gaussdb data\n");
    return done;
}

// the database

/** All of the cluster's data directories: what runs in them no longer does. */
std::set<std::string> GaussDB_Restore_Job_Executor::data_directories() const {
    std::set<std::string> directories;
    GaussDB_Cluster_Info const info = cluster_->info();
    for (GaussDB_Device_Info const& device : info.devices) {
        directories.insert(device.coordinators.dirs.begin(), device.coordinators.dirs.end());
        for (std::string const& path_list : device.data_nodes.dirs)
            insert_directories(path_list, directories);
    }
    return directories;
}

bool GaussDB_Restore_Job_Executor::start(Roach_Executor& roach_executor) {
    job_.phase("starting the cluster");
    char const* const new_config = new_cluster() ? cluster_->conf().c_str() : nullptr;
    if (roach_executor.start(cluster_->get_gaussdb_version().model_, new_config))
        return true;
    raise_alert(job_, 7, 11);
    QMRT_LOG(LM_ERROR, "Failed to start gaussdb, start manually\n");
    return false;
}
