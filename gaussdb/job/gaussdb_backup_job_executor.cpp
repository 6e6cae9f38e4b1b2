#include "gaussdb/job/gaussdb_backup_job_executor.h"

#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_catalog.h"
#include "gaussdb/job/gaussdb_event_handler.h"
#include "gaussdb/job/roach_executor.h"
#include "gaussdb/job/roach_meta_parser.h"
#include "gaussdb/job/roach_progress_handler.h"
#include "gaussdb/job/roach_source.h"
#include "host/agent/instance_manager.h"
#include "host/catalog/catalog_operator.h"
#include "host/job/job_mutex.h"
#include "host/job/job_thread_helper.h"
#include "host/job/minor_resource_id.h"
#include "host/job/run_hold.h"
#include "host/mtf/archive_path.h"
#include "host/mtf/mtf_backup.h"
#include "qmrt/names.h"
#include "qmrt/natoi.h"
#include "qmrt/regex.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <ctime>
#include <exception>
#include <new>
#include <unistd.h>

namespace {

constexpr char RESOURCE_LABEL[] = "gaussdb physical backup";
constexpr char PROGRESS_QUERY[] = "select count(*), SUM(PROGRESS) from DV_BACKUP_PROCESSES where "
                                  "STATUS='processing' and TYPE='backup';";

// how many processes there are, and their percentages together
boost::regex const RE_PROGRESS("(\\d+)\\s+(\\d+).*");

MTF::Metadata describe(GaussDB_Backup_Set const& bset, std::string const& pool_uuid) {
    MTF::Metadata metadata;
    metadata.pool_uuid(pool_uuid);
    metadata.host_uuid(bset.host_uuid);
    metadata.definition_uuid(bset.definition_uuid);
    metadata.uuid(bset.uuid);
    metadata.agent(bset.agent);
    metadata.host(bset.host);
    metadata.name(bset.name);
    metadata.type(bset.type);
    metadata.resource_uuid(bset.resource_uuid);
    metadata.uid(bset.uid);
    return metadata;
}

} // namespace

GaussDB_Backup_Job_Executor::GaussDB_Backup_Job_Executor(Job& job) : Job_Executor_T(job) {}

GaussDB_Backup_Job_Executor::~GaussDB_Backup_Job_Executor() {
    if (!abort_catalog_)
        return;
    json_spirit::Array pieces;
    if (!Catalog_Operator(-1, -1).abort(job_instance_uuid_, pieces))
        QMRT_LOG(LM_WARNING, "Failed to abort gaussdb catalog\n");
}

bool GaussDB_Backup_Job_Executor::is_active(Job::Action_Options const*) {
    if (src_->instance_.empty())
        return false;
    instance_ = src_->instance_;
    cluster_ = find_cluster(instance_);
    return !cluster_.null() && cluster_->is_first_device();
}

bool GaussDB_Backup_Job_Executor::execute_i(Job::Action_Options const*) {
    Run_Hold const instance(job_, {Run_Hold::instance(src_->id())});
    if (!instance)
        return false;
    ACE_Guard<ACE_Thread_Mutex> const lock(Job_Mutex::get(src_->id()));
    if (!lock.locked() || cluster_.null() || QMRT_IS_NULL_AT(LM_ERROR, opts_))
        return false;
    job_.phase("checking the cluster");
    if (!is_cluster_on_record(job_, instance_, true) || !is_cluster_healthy())
        return false;
    reset_activity(act_);
    job_instance_uuid_ = uuid_binary_to_string(act_.id);

    GaussDB_Backup_Set bset;
    init_catalog(bset);
    if (!get_seq(bset.seq))
        return false;
    choose_base(bset);

    Hosts hosts;
    if (!get_hosts_of_cluster(job_, *cluster_, instance_, hosts))
        return false;
    Run_Hold const tool(job_, roach_resources(hosts, tgt_.id()));
    if (!tool)
        return false;
    Roach_Source roach_source = make_roach_source();
    // after a failure, too: the policy's key is void then
    Scoped_Deleter policy([&] { roach_source.drop_policy(); });
    Cancelled_Run_Cleanup cleanup(act_, roach_source, hosts, "");
    if (!notify(roach_source, hosts))
        return false;
    Roach_Meta_Parser parser(roach_source.meta_path(), cluster_->get_gaussdb_version().model_,
                             roach_source.user_id());
    drop_lost_base(bset, parser);
    bset.meta_destination = roach_source.meta_path();

    if (!open_set(bset) || !run_roach(roach_source, bset, parser) || !complete_set(bset, parser))
        return false;
    policy.release();
    cleanup.dismiss();
    (void)roach_source.remove(hosts, nullptr, ""); // what stays behind has been logged
    return true;
}

/** A cluster whose state cannot be asked is taken for healthy. */
bool GaussDB_Backup_Job_Executor::is_cluster_healthy() {
    std::string status;
    bool balanced = true;
    if (!cluster_->get_status(status, balanced))
        return true;
    if (status != "Normal" && status != "Degraded") {
        raise_alert(job_, 7, 3);
        QMRT_LOG(LM_WARNING, "GaussDB cluster state is abnormal, stop backup\n");
        return false;
    }
    if (!balanced) {
        raise_alert(job_, 7, 4);
        QMRT_LOG(LM_WARNING, "GaussDB cluster is unbalanced, stop backup\n");
        return false;
    }
    return true;
}

// what the catalog is told

void GaussDB_Backup_Job_Executor::init_catalog(GaussDB_Backup_Set& bset) {
    bset.uuid = job_instance_uuid_;
    bset.name = def_.name();
    bset.definition_uuid = def_.id();
    bset.job_act_id = evt_handler_.job_act_id();
    bset.uid = def_.uid();
    bset.host_uuid = def_.host_id();
    bset.resource_uuid = src_->id();
    bset.resource_label = RESOURCE_LABEL;
    if (!compute_minor_resource_id(src_->id(), bset.resource_label, bset.minor_resource_id))
        QMRT_LOG(LM_ERROR, "Failed to compute minor resource id for resource %s\n",
                 src_->id().c_str());
    bset.agent = def_.agent();
    bset.type = job_def_subtype_to_string(def_.subtype(), nullptr);
    bset.backup_start_time = act_.start_time;
    bset.backup_end_time = 0;
    bset.instance = instance_;
    bset.database_version = cluster_->get_database_version();
    char const* const compression = compression_value_to_name(opts_->compression_);
    bset.compression = compression ? compression : "";
    bset.nodes = static_cast<int>(cluster_->nodes());
    bset.series = cluster_->get_gaussdb_version().model_;
    bset.add_storage({tgt_.id()});
}

void GaussDB_Backup_Job_Executor::make_full(GaussDB_Backup_Set& bset) const {
    bset.incarnation = job_instance_uuid_;
    bset.prior_backup_key.clear();
}

void GaussDB_Backup_Job_Executor::choose_base(GaussDB_Backup_Set& bset) {
    if (def_.subtype() == JOB_DEFINITION_SUBTYPE_FULL) {
        make_full(bset);
    } else if (!get_prior_backup(bset.incarnation, bset.prior_backup_key)) {
        raise_alert(job_, 5, 5);
        QMRT_LOG(LM_INFO, "Do full backup because prior backup not found\n");
        make_full(bset);
    }
}

/** The backup tool can build only on what its own metadata knows. */
void GaussDB_Backup_Job_Executor::drop_lost_base(GaussDB_Backup_Set& bset,
                                                 Roach_Meta_Parser& parser) {
    if (cluster_->get_gaussdb_version().model_ != GAUSSDB_200 ||
        def_.subtype() != JOB_DEFINITION_SUBTYPE_INCREMENTAL ||
        parser.has_backup_key(bset.prior_backup_key))
        return;
    QMRT_LOG(LM_INFO, "Do full backup because prior backup key not found\n");
    make_full(bset);
}

bool GaussDB_Backup_Job_Executor::open_set(GaussDB_Backup_Set& bset) {
    if (!Catalog_Operator(-1, -1).initialize(bset)) {
        raise_alert(job_, 7, 8);
        QMRT_LOG(LM_ERROR, "Failed to initialize gaussdb catalog\n");
        return false;
    }
    abort_catalog_ = true;
    return true;
}

bool GaussDB_Backup_Job_Executor::complete_set(GaussDB_Backup_Set& bset,
                                               Roach_Meta_Parser& parser) {
    job_.phase("saving metadata");
    ACE_INT64 size = 0;
    ACE_INT64 storage_size = 0;
    // sizes that are not known are no reason to throw a backup away
    (void)parser.parse(bset.backup_key, size);
    (void)get_storage_size(storage_size);
    bset.source_size = static_cast<uint64_t>(std::max<ACE_INT64>(size, 0));
    bset.backup_set_size = bset.source_size;
    bset.storages.front().size = static_cast<uint64_t>(std::max<ACE_INT64>(storage_size, 0));
    bset.backup_end_time = time(nullptr);
    if (!Catalog_Operator(-1, -1).complete(bset)) {
        raise_alert(job_, 7, 2);
        QMRT_LOG(LM_ERROR, "Failed to commit gaussdb catalog\n");
        return false;
    }
    abort_catalog_ = false;
    act_.size = bset.source_size;
    act_.set_size = bset.backup_set_size;
    act_.set_storage_size = bset.storages.front().size;
    return true;
}

bool GaussDB_Backup_Job_Executor::get_prior_backup(std::string& incarnation,
                                                   std::string& backup_key) const {
    return GaussDB_Catalog(def_.max_seconds_retry())
        .get_prior_backup(src_->id(), tgt_.id(), incarnation, backup_key);
}

bool GaussDB_Backup_Job_Executor::get_seq(ACE_INT64& seq) const {
    return GaussDB_Catalog(def_.max_seconds_retry()).get_seq(src_->id(), seq);
}

bool GaussDB_Backup_Job_Executor::get_storage_size(ACE_INT64& size) const {
    return GaussDB_Catalog(def_.max_seconds_retry()).get_storage_size(job_instance_uuid_, size);
}

// what the backup tool is told, and its run

Roach_Source GaussDB_Backup_Job_Executor::make_roach_source() const {
    Client_IO_Base::Options opts;
    set_options_by_job_def(opts, def_, static_cast<unsigned long>(std::max(opts_->channels_, 0)));
    return {src_->id(),
            tgt_.device_id(),
            tgt_.id(),
            job_instance_uuid_,
            opts_->compression_,
            opts_->compression_level_,
            cluster_->user(),
            def_.max_seconds_retry(),
            def_.resumption_buffer_size(),
            opts.rate_limits,
            cluster_->get_gaussdb_version(),
            def_.subtype() == JOB_DEFINITION_SUBTYPE_FULL,
            tgt_.id()};
}

bool GaussDB_Backup_Job_Executor::notify(Roach_Source& roach_source, Hosts const& hosts) {
    job_.phase("preparing the hosts");
    // an incremental backup needs the metadata of those before it
    bool const delete_meta = def_.subtype() == JOB_DEFINITION_SUBTYPE_FULL;
    if (roach_source.notify(hosts, nullptr, "", nullptr, delete_meta))
        return true;
    raise_alert(job_, 7, 7);
    QMRT_LOG(LM_ERROR, "Failed to notify cluster nodes\n");
    return false;
}

bool GaussDB_Backup_Job_Executor::run_roach(Roach_Source& roach_source, GaussDB_Backup_Set& bset,
                                            Roach_Meta_Parser& parser) {
    job_.phase("the backup tool sends the data");
    GaussDB_Version const& version = cluster_->get_gaussdb_version();
    Roach_Executor roach_executor(cluster_->user().c_str(), cluster_->env(), uses_python3(version),
                                  job_.log_msg_callback());
    switch (version.model_) {
    case GAUSSDB_200:
        return backup_200(roach_executor, roach_source, bset);
    case GAUSSDB_100:
        return backup_100(roach_executor, roach_source, bset, parser);
    default:
        return true;
    }
}

bool GaussDB_Backup_Job_Executor::backup_200(Roach_Executor& roach_executor,
                                             Roach_Source& roach_source, GaussDB_Backup_Set& bset) {
    Roach_Progress_Handler progress(static_cast<int>(cluster_->nodes()), &evt_handler_, 1);
    if (!roach_executor.backup_200(tgt_.id().c_str(), roach_source.meta_path().c_str(),
                                   bset.prior_backup_key, bset.backup_key, &progress,
                                   opts_->channels_, opts_->max_memory_usage_, opts_->buffer_size_,
                                   opts_->buffer_block_size_)) {
        QMRT_LOG(LM_ERROR, "Failed to backup gaussdb data\n");
        return false;
    }
    if (!has_backup_key(bset))
        return false;
    if (!roach_source.backup_meta(bset.backup_key.c_str())) {
        raise_alert(job_, 7, 9);
        QMRT_LOG(LM_ERROR, "Failed to backup gaussdb metadata\n");
        return false;
    }
    return backup_roach_metadata(roach_source, bset);
}

bool GaussDB_Backup_Job_Executor::backup_100(Roach_Executor& roach_executor,
                                             Roach_Source const& roach_source,
                                             GaussDB_Backup_Set& bset, Roach_Meta_Parser& parser) {
    std::string meta_path = roach_source.meta_path();
    Job_Thread_Helper progress(&job_, THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED,
                               ACE_DEFAULT_THREAD_PRIORITY);
    if (progress.spawn(&GaussDB_Backup_Job_Executor::report_progress, this) == -1)
        QMRT_LOG(LM_WARNING, "Failed to start a thread, no progress is reported\n");
    bool const done = [&] {
        Scoped_Deleter const stop_progress([&] {
            stop_progress_event_.signal();
            progress.join();
        });
        return roach_executor.backup_100(tgt_.id().c_str(), roach_source.media_path().c_str(),
                                         meta_path, bset.prior_backup_key, bset.backup_key,
                                         cluster_->type() == GaussDB_Cluster_Handler::TYPE_SINGLE,
                                         opts_->channels_);
    }();
    if (!done) {
        QMRT_LOG(LM_ERROR, "Failed to backup gaussdb 100 data\n");
        return false;
    }
    parser.set(meta_path);
    return has_backup_key(bset);
}

/**
 * A set without the key could never be restored: it is none. The key becomes a name in paths, and
 * what a tool prints is that of the database's user.
 */
bool GaussDB_Backup_Job_Executor::has_backup_key(GaussDB_Backup_Set const& bset) {
    if (bset.backup_key.empty())
        QMRT_LOG(LM_ERROR, "Failed to backup gaussdb data, the backup tool gave no backup key\n");
    else if (!Roach_Source::is_single_name(bset.backup_key))
        QMRT_LOG(LM_ERROR,
                 "Failed to backup gaussdb data, the backup tool gave the invalid backup "
                 "key '%s'\n",
                 names::shown(bset.backup_key).c_str());
    return Roach_Source::is_single_name(bset.backup_key);
}

/** Without the tool's metadata of a backup, another cluster could not restore it. */
bool GaussDB_Backup_Job_Executor::backup_roach_metadata(Roach_Source const& roach_source,
                                                        GaussDB_Backup_Set& bset) {
    std::shared_ptr<MTF::Event_Handler> const handler(new (std::nothrow) GaussDB_Event_Handler);
    if (!handler) {
        errno = ENOMEM;
        return false;
    }
    MTF_Backup backup(handler, describe(bset, def_.target().id()), job_.log_msg_callback());
    backup.pool_uuid(tgt_.id());
    backup.device_uuid(tgt_.device_id());
    backup.host_uuid(bset.host_uuid);
    backup.minor_resource_id(bset.minor_resource_id);
    backup.uuid(bset.uuid);
    backup.incremental(false);
    backup.compression(compression_to_mtf(opts_->compression_));
    backup.compression_level(opts_->compression_level_);
    backup.seq(bset.seq - 1);
    set_options_by_job_def(backup.extra_client_io_opts(), def_, 1);
    set_options_by_host(backup.extra_client_io_opts());
    // the tool's directory: its user may have put a link or another's file into it
    backup.source_owner(roach_source.user_id().value_or(geteuid()));
    backup.add_source(Roach_Source::metadata_directory(bset.meta_destination, bset.backup_key));

    std::string const uri = MTF::default_uri(bset.host_uuid, bset.minor_resource_id);
    if (!backup.backup(uri)) {
        QMRT_LOG(LM_ERROR, "Failed to backup roach metadata, backup key %s\n",
                 bset.backup_key.c_str());
        return false;
    }
    bset.add_piece(MTF::mtf_path(uri, bset.minor_resource_id, bset.seq, 0), 0);
    bset.add_piece(MTF::cat_path(uri, bset.minor_resource_id, bset.seq, 0), 0);
    return true;
}

// the progress of the 100 series, whose tool prints none: beside the tool, on a thread of its own

void GaussDB_Backup_Job_Executor::report_progress() {
    try {
        follow_progress();
    } catch (std::exception const& error) {
        // it would take the whole agent down
        QMRT_LOG(LM_ERROR, "Failed to report progress, %s\n", error.what());
    }
}

void GaussDB_Backup_Job_Executor::follow_progress() {
    std::string username;
    secure_string password;
    if (Instance_Manager::instance()->get_account("gaussdb", def_.uid().c_str(), instance_.c_str(),
                                                  username, password) != 0) {
        QMRT_LOG(LM_ERROR, "Failed to get instance account.\n");
        return;
    }
    GaussDB_Client_ptr const client =
        cluster_->create_client(username.c_str(), password.c_str(), nullptr);
    if (!client) {
        QMRT_LOG(LM_ERROR, "Failed to get SQL client.\n");
        return;
    }
    while (stop_progress_event_.wait(&sleep_interval_, 0) == -1 && errno == ETIME)
        if (!report_progress_once(*client))
            return;
}

/** False when it is of no use to ask again. */
bool GaussDB_Backup_Job_Executor::report_progress_once(GaussDB_Client const& client) {
    std::vector<std::string> rows;
    if (!client.query(PROGRESS_QUERY, rows, false)) {
        QMRT_LOG(LM_ERROR, "Failed to query progress from DV_BACKUP_PROCESSES\n");
        return false;
    }
    qmrt::svmatch groups;
    if (rows.empty() || !qmrt::regex_match(rows.front(), groups, RE_PROGRESS))
        return true;
    int const count = natoi<int>(groups[1].str());
    int const sum = natoi<int>(groups[2].str());
    if (count == INT_MAX || sum == INT_MAX) {
        QMRT_LOG(LM_ERROR, "Failed to parse progress info %s.\n", rows.front().c_str());
        return false;
    }
    // the end is told by the run itself
    if (count != 0)
        evt_handler_.handle_progress(std::min(99, sum / count), 0, 0, 0);
    return true;
}
