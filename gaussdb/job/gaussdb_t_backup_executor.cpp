#include "gaussdb/job/gaussdb_t_backup_executor.h"

#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/set_directory.h"
#include "gaussdb/job/set_history.h"
#include "gaussdb/job/set_notes.h"
#include "host/catalog/catalog_operator.h"
#include "host/job/job_mutex.h"
#include "host/job/minor_resource_id.h"
#include "host/job/run_hold.h"
#include "json_spirit/access.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/natoi.h"
#include "qmrt/path.h"
#include "qmrt/scoped_deleter.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <exception>
#include <sys/stat.h>

namespace {

constexpr char T_RESOURCE_LABEL[] = "gaussdb T physical backup";
// as put_file() takes them: only O_CLOEXEC, and blocks of 8 KiB at least
constexpr int PUT_FLAGS = 0x80000;
constexpr size_t PUT_BLOCK = 0x2000;

/** A kind of backup in names, and in the statement. */
struct Backup_Type {
    Job_Definition_Subtype subtype;
    char const* word;
    char const* text;
};

constexpr Backup_Type BACKUP_TYPES[] = {
    {JOB_DEFINITION_SUBTYPE_FULL, "FULL", "incremental level 0"},
    {JOB_DEFINITION_SUBTYPE_INCREMENTAL, "DIFF", "incremental level 1"},
    {JOB_DEFINITION_SUBTYPE_CUMULATIVE, "CUMUL", "incremental level 1 cumulative"},
};

Backup_Type backup_type(Job_Definition_Subtype subtype) {
    for (Backup_Type const& type : BACKUP_TYPES)
        if (type.subtype == subtype)
            return type;
    QMRT_LOG(LM_ERROR, "Invalid backup type %d\n", subtype);
    return {subtype, "", ""};
}

/** The first row of a query; "" when it fails or has none. */
std::string first_row(GaussDB_Client const& client, char const* query) {
    std::vector<std::string> rows;
    return client.query(query, rows, true) && !rows.empty() ? rows.front() : "";
}

} // namespace

GaussDB_T_Backup_Executor::GaussDB_T_Backup_Executor(Job& job)
    : Job_Executor_T(job), GaussDB_T_Run(job) {}

GaussDB_T_Backup_Executor::~GaussDB_T_Backup_Executor() = default;

bool GaussDB_T_Backup_Executor::is_active(Job::Action_Options const*) {
    instance_ = src_->name().empty() ? src_->instance_ : src_->name();
    return find_instance();
}

bool GaussDB_T_Backup_Executor::execute_i(Job::Action_Options const*) {
    Run_Hold const instance(job_, {Run_Hold::instance(src_->id())});
    if (!instance)
        return false;
    ACE_Guard<ACE_Thread_Mutex> const lock(Job_Mutex::get(src_->id()));
    if (!lock.locked() || QMRT_IS_NULL_AT(LM_ERROR, opts_))
        return false;
    if (!check_path("option cache_dir", opts_->cache_dir_) ||
        !is_cluster_on_record(job_, instance_, true))
        return false;
    job_.phase("checking the database");
    timestamp_ = time_stamp(Job_Mutex::get_timestamp());
    std::string status;
    if (!get_database_status(status)) {
        QMRT_LOG(LM_ERROR, "Database is not open:%s\n", status.c_str());
        return false;
    }
    if (!get_pool_info(tgt_.id(), tgt_.device_id().c_str(), info_, false, 0))
        return false;
    if (!setup_client_io_opts()) {
        QMRT_LOG(LM_ERROR, "Failed to setup io options for GaussDB T\n");
        return false;
    }
    if (!is_base_kept(Set_History(src_->id())))
        return false;
    act_.size = datafile_size();
    generate_backup_cmd();
    if (opts_->mount_ ? backup_to_mount() : backup_by_directory())
        return true;
    if (noted_)
        QMRT_LOG(
            LM_ERROR,
            "The backup set %s is lost, but the database has noted it and may build on it: make "
            "a full backup next\n",
            backup_dir_.c_str());
    return false;
}

bool GaussDB_T_Backup_Executor::is_base_kept(Set_History const& history) const {
    std::string const base = history.base_of(def_.subtype());
    if (base.empty())
        return true;
    json_spirit::Value row;
    bool const known =
        Catalog_Operator(-1, def_.max_seconds_retry())
            .get_first_view("gaussdb", "catalogs",
                            {{"uuid", base}, {"pool_uuid", tgt_.id()}, {"limit", 1}}, row);
    if (!known || !row.is_null())
        return true;
    QMRT_LOG(LM_ERROR,
             "The database builds this backup on the set %s, which is not in the catalog of the "
             "pool, and a restore would fail: make a full backup%s\n",
             base.c_str(),
             def_.subtype() == JOB_DEFINITION_SUBTYPE_INCREMENTAL ? ", or a cumulative one" : "");
    return false;
}

bool GaussDB_T_Backup_Executor::get_database_status(std::string& status) const {
    status = first_row(*client_, "select status from dv_database");
    return status == "OPEN";
}

ACE_UINT64 GaussDB_T_Backup_Executor::datafile_size() const {
    return natoi<ACE_UINT64>(first_row(*client_, "select sum(bytes) from dv_data_files"));
}

bool GaussDB_T_Backup_Executor::setup_client_io_opts() {
    if (!set_options_by_pool(io_opts_, info_))
        return false;
    set_options_by_host(io_opts_);
    set_options_by_job_def(io_opts_, def_, 1);
    set_d2t_access_mode(io_opts_);
    io_opts_.compression_method = opts_->compression_;
    io_opts_.compression_level = opts_->compression_level_;
    io_opts_.dedup_chunk_size = 1;
    return true;
}

void GaussDB_T_Backup_Executor::generate_backup_cmd() {
    Backup_Type const type = backup_type(def_.subtype());
    std::string tag = string_sprintf("zenbrak3_%s_%s", type.word, timestamp_.c_str());
    std::ranges::transform(tag, tag.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    backup_dir_ =
        (qmrt::Path(opts_->cache_dir_) / string_sprintf("%s_%s", type.word, timestamp_.c_str()))
            .str();
    int const level = opts_->compression_level_;
    cmd_ << "backup database "
         << string_sprintf("%s format '%s' as%s compressed backupset%s tag '%s'", type.text,
                           backup_dir_.c_str(), opts_->compression_ == COMPR_ZSTD ? " zstd" : "",
                           level == 0 ? "" : string_sprintf(" level %d", level).c_str(),
                           tag.c_str());
    if (def_.subtype() != JOB_DEFINITION_SUBTYPE_LOG)
        cmd_ << " parallelism " << opts_->channels_;
    cmd_ << ";";
}

bool GaussDB_T_Backup_Executor::run_statement() {
    if (!Set_History(src_->id()).add(def_.subtype(), evt_handler_.job_act_id()))
        return false;
    job_.phase("the database writes its backup set");
    std::vector<std::string> rows;
    client_->unlimited(true);
    noted_ = client_->query(cmd_.str().c_str(), rows, true);
    return noted_ && !canceled();
}

// through a local directory

bool GaussDB_T_Backup_Executor::backup_by_directory() {
    Scoped_Deleter not_done([&] { take_back(); });
    if (!run_backup())
        return false;
    not_done.release();
    return true;
}

bool GaussDB_T_Backup_Executor::run_backup() {
    Set_Notes notes(src_->id(), os_user_);
    if (!notes.add(backup_dir_))
        return false;
    Set_Directory const directory(backup_dir_, os_user_);
    Scoped_Deleter const no_local_copy([&] { (void)directory.remove(); }); // logs its failure
    return run_statement() && connect_to_storage() && send_files(directory) && commit_catalog();
}

bool GaussDB_T_Backup_Executor::connect_to_storage() {
    if (!connect_to(
            info_, string_sprintf("%s/%s", src_->id().c_str(), qmrt::basename(backup_dir_).c_str()),
            io_opts_))
        return false;
    ext_ = compression_value_to_suffix(opts_->compression_);
    return true;
}

bool GaussDB_T_Backup_Executor::send_files(Set_Directory const& directory) {
    act_.set_size = 0;
    act_.set_storage_size = 0;
    uint64_t total = 0;
    if (!directory.each_file([&](std::string const&, File_Descriptor const&, uint64_t size) {
            total += size;
            return true;
        }))
        return false;
    return directory.each_file(
        [&](std::string const& name, File_Descriptor const& file, uint64_t size) {
            std::string const remote = name + ext_;
            std::string const local = (qmrt::Path(backup_dir_) / name).str();
            uint64_t const sent = act_.set_size;
            act_.set_size += size;
            job_.phase("sending " + name);
            if (uncompressed_name(remote) != name) {
                QMRT_LOG(LM_ERROR, "Failed to backup %s: its name ends as that of a packed file\n",
                         local.c_str());
                return false;
            }
            // by the descriptor: the database's user may have put another file there by now
            std::string const opened = "/proc/self/fd/" + std::to_string(file.get());
            if (canceled() || !io_.put_file(opened.c_str(), remote.c_str(), true, PUT_FLAGS,
                                            PUT_BLOCK, report_from(sent, total))) {
                QMRT_LOG(LM_ERROR, "Failed to backup %s: %s\n", local.c_str(),
                         canceled() ? "the run was canceled" : io_.error().c_str());
                return false;
            }
            act_.set_storage_size += io_.original_size();
            backup_pieces_.push_back(remote);
            return true;
        });
}

void GaussDB_T_Backup_Executor::take_back() {
    for (std::string const& piece : backup_pieces_)
        if (!io_.remove(piece.c_str()))
            QMRT_LOG(LM_WARNING, "Failed to remove %s of a failed backup: %s\n", piece.c_str(),
                     io_.error().c_str());
}

// straight into the pool

bool GaussDB_T_Backup_Executor::backup_to_mount() {
    Mount_Fuse fuse; // unmounts at the end
    if (!mount_pool(fuse, info_, src_->id(), opts_->cache_dir_, io_opts_))
        return false;
    struct stat mounted {};
    (void)stat(opts_->cache_dir_.c_str(), &mounted); // without it no file is in the pool
    if (!run_statement())
        return false;
    Set_Directory const directory(backup_dir_, os_user_);
    bool is_stored = true;
    act_.set_size = 0;
    if (!directory.each_file(
            [&](std::string const& name, File_Descriptor const& file, uint64_t size) {
                struct stat status {};
                is_stored =
                    is_stored && fstat(file.get(), &status) == 0 && status.st_dev == mounted.st_dev;
                act_.set_size += size;
                backup_pieces_.push_back(name);
                return true;
            }))
        return false;
    if (!is_stored) {
        QMRT_LOG(LM_ERROR,
                 "Failed to backup %s: the pool has been unmounted from %s during the backup\n",
                 backup_dir_.c_str(), opts_->cache_dir_.c_str());
        (void)directory.remove(); // what the mount does not cover; logs its failure
        return false;
    }
    act_.set_storage_size = act_.set_size;
    if (commit_catalog())
        return true;
    (void)directory.remove(); // in the pool; logs its failure
    return false;
}

// the catalog

void GaussDB_T_Backup_Executor::describe(GaussDB_Backup_Set& bset) const {
    bset.uid = def_.uid();
    bset.uuid = evt_handler_.job_act_id();
    bset.name = def_.name();
    bset.job_act_id = uuid_binary_to_string(act_.id);
    bset.definition_uuid = def_.id();
    bset.host_uuid = def_.host_id();
    bset.resource_uuid = src_->id();
    bset.agent = def_.agent();
    bset.type = job_def_subtype_to_string(def_.subtype(), nullptr);
    bset.backup_start_time = act_.start_time;
    bset.backup_end_time = time(nullptr);
    bset.source_size = act_.size;
    bset.backup_set_size = act_.set_size;
    bset.resource_label = T_RESOURCE_LABEL;
    if (!compute_minor_resource_id(src_->id(), bset.resource_label, bset.minor_resource_id))
        QMRT_LOG(LM_ERROR, "Failed to compute minor resource id for resource %s",
                 src_->id().c_str());
    bset.nodes = static_cast<int>(cluster_->nodes());
    bset.series = cluster_->get_gaussdb_version().model_;
    bset.database_version = cluster_->get_database_version();
    bset.instance = instance_;
    if (opts_->compression_ != COMPR_NONE)
        bset.compression = compression_value_to_name(opts_->compression_);
    bset.add_storage({tgt_.id(), act_.set_storage_size});
    bset.uri = src_->id() + "/" + qmrt::basename(backup_dir_);
    bset.meta_destination = backup_dir_;
    for (std::string const& piece : backup_pieces_)
        bset.add_piece(piece, 0);
}

bool GaussDB_T_Backup_Executor::commit_catalog() {
    GaussDB_Backup_Set bset;
    describe(bset);
    // a set whose full backup is unknown is kept: the data is there, and a person may know
    (void)get_incarnation(bset.incarnation);
    bset.backup_key = is_full() ? bset.incarnation : bset.uuid;
    bset.prior_backup_key = is_full() ? "" : bset.incarnation;
    if (Catalog_Operator(-1, def_.max_seconds_retry()).commit(bset, true))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to write catalog to backupd\n");
    return false;
}

bool GaussDB_T_Backup_Executor::get_incarnation(std::string& result) const {
    if (is_full()) {
        result = evt_handler_.job_act_id();
        return true;
    }
    json_spirit::Object query;
    json_spirit::insert(query)("resource_uuid", src_->id())("pool_uuid", tgt_.id())(
        "sort", "backup_end_time")("order", "desc")("limit", 1);
    json_spirit::Value row;
    if (!Catalog_Operator(-1, def_.max_seconds_retry())
             .get_first_view("gaussdb", "catalogs", query, row))
        return false;
    try {
        json_spirit::extract_or_throw(row.get_obj())("incarnation", result, true);
        return true;
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get prior backup: %s\n", error.what());
        return false;
    }
}
