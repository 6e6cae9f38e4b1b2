#include "gaussdb/job/gaussdb_tpops_backup_executor.h"

#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_catalog.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_source.h"
#include "host/agent/host_manager.h"
#include "host/catalog/catalog_operator.h"
#include "host/job/job_mutex.h"
#include "host/job/minor_resource_id.h"
#include "host/job/run_hold.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/pool_info.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/key2_value.h"
#include "qmrt/names.h"
#include "qmrt/natoi.h"
#include "qmrt/parse_size.h"
#include "qmrt/posix_time.h"
#include "qmrt/regex.h"
#include "qmrt/scoped_deleter.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <ctime>
#include <exception>

using json_spirit::extract_or_throw;
using json_spirit::Object;
using json_spirit::Value;

using TPOPS_Backup = GaussDB_TPOPS_Backup_Executor;

namespace {

constexpr char TPOPS_RESOURCE_LABEL[] = "tpops physical backup";
constexpr char TPOPS_TIME_FORMAT[] = "%Y-%m-%dT%H:%M:%S%z";
/** The limit for a recovery-time file, which has a few lines and comes from the database's user. */
constexpr uint64_t MAX_RECOVERY_TIME_SIZE = 1024 * 1024;

boost::regex const RE_TIMEZONE("([+-]\\d{4})");
boost::regex const RE_TIMESTAMP("\\b(\\d+),(\\d+)\\b");

/** What the platform calls each kind of backup. */
constexpr Key2_Value_T<Job_Definition_Subtype> backup_type_table[] = {
    {"completed", 9, JOB_DEFINITION_SUBTYPE_FULL},
    {"differential", 12, JOB_DEFINITION_SUBTYPE_INCREMENTAL},
    {"log", 3, JOB_DEFINITION_SUBTYPE_LOG},
    {"", 0, JOB_DEFINITION_SUBTYPE_NONE},
};

char const* backup_type_to_name(Job_Definition_Subtype type) {
    for (auto const& row : backup_type_table)
        if (row.value == type)
            return row.key;
    return "";
}

/** The array of backups in an answer of the platform; null if it has none. */
json_spirit::Array const* backups_of(Object const& answer) {
    json_spirit::Array const* backups = nullptr;
    if (!json_spirit::object_get(answer, "backups", backups))
        json_spirit::object_get(answer, "differential_backups", backups);
    return backups;
}

} // namespace

TPOPS_Backup::GaussDB_TPOPS_Backup_Executor(Job& job)
    : Job_Executor_T(job), GaussDB_TPOPS_Run(job) {}

TPOPS_Backup::~GaussDB_TPOPS_Backup_Executor() {
    if (!abort_catalog_ || backup_uuid_.empty())
        return;
    json_spirit::Array pieces;
    if (!Catalog_Operator(-1, -1).abort(backup_uuid_, pieces))
        QMRT_LOG(LM_ERROR, "Failed to abort GaussDB catalog of '%s'\n", backup_uuid_.c_str());
}

bool TPOPS_Backup::execute_i(Job::Action_Options const*) {
    Run_Hold const instance(job_, {Run_Hold::instance(src_->id())});
    if (!instance)
        return false;
    ACE_Guard<ACE_Thread_Mutex> const lock(Job_Mutex::get(src_->id()));
    if (!lock.locked() || QMRT_IS_NULL_AT(LM_ERROR, opts_))
        return false;
    job_.phase("asking the platform");
    if (!init()) {
        QMRT_LOG(LM_ERROR, "Failed to initialize backup info for GaussDB instance '%s'\n",
                 src_->instance_.c_str());
        return false;
    }
    QMRT_LOG(LM_DEBUG, "%s backup of GaussDB instance '%s' is running...\n",
             backup_type_to_name(backup_type_), src_->instance_.c_str());
    // ids of other instances can lead to the same name
    Run_Hold const policy_hold(job_,
                               {Run_Hold::policy(Host_Manager::instance()->uuid(), policy_name_)});
    if (!policy_hold || (is_full() && (!set_backup_info() || !change_backup_media())))
        return false;
    GaussDB_Backup_Set cat;
    init_catalog(cat);
    Roach_Source policy = make_roach_source();
    if (!write_policy(policy, policy_name_)) {
        QMRT_LOG(LM_ERROR, "Failed to dump policy file for GaussDB instance '%s'\n",
                 src_->instance_.c_str());
        return false;
    }
    if (!open_counter(os_user_))
        QMRT_LOG(LM_ERROR, "Failed to create xbsa info handle for GaussDB instance, errno=%d, %m\n",
                 errno);
    Scoped_Deleter const clean_up([&] {
        counter_.remove();
        (void)policy.remove_policy(); // what stays behind is replaced by the next run
        abort_catalog_ = false;
    });
    return run_backup(policy, cat) && complete_set(cat);
}

Roach_Source TPOPS_Backup::make_roach_source() const {
    Client_IO_Base::Options opts;
    set_options_by_job_def(opts, def_, static_cast<unsigned long>(std::max(opts_->channels_, 0)));
    return {src_->id(),
            tgt_.device_id(),
            tgt_.id(),
            backup_uuid_,
            opts_->compression_,
            opts_->compression_level_,
            os_user_,
            def_.max_seconds_retry(),
            def_.resumption_buffer_size(),
            opts.rate_limits,
            cluster_->get_gaussdb_version(),
            is_full(),
            policy_name_};
}

/** Opens the set and waits for the end of the platform's job. */
bool TPOPS_Backup::run_backup(Roach_Source& policy, GaussDB_Backup_Set& cat) {
    cat.meta_destination = policy.meta_path();
    if (!Catalog_Operator(-1, -1).initialize(cat)) {
        raise_alert(job_, 7, 8);
        QMRT_LOG(LM_ERROR, "Failed to initialize GaussDB catalog for '%s'\n",
                 src_->instance_.c_str());
        return false;
    }
    if (!start_backup())
        return false;
    init_query_info();
    job_.phase("the platform takes the backup");
    TPOPS_Job_State state = TPOPS_JOB_STATE_NONE;
    auto const ask = [this](TPOPS_Job_State& now) {
        return is_log() ? get_log_job_state(backup_info_query_, now)
                        : get_job_state(job_id_.c_str(), now);
    };
    if (!wait_for_job(evt_handler_, ask, true, state)) {
        tell_of_running(string_sprintf("backup '%s', %s '%s'", job_name_.c_str(),
                                       is_log() ? "id" : "job", names::shown(job_id_).c_str()));
        return false;
    }
    if (state != TPOPS_JOB_STATE_ERROR)
        return true;
    QMRT_LOG(LM_ERROR, "%s backup for GaussDB instance '%s' failed\n",
             backup_type_to_name(backup_type_), src_->instance_.c_str());
    return false;
}

bool TPOPS_Backup::complete_set(GaussDB_Backup_Set& cat) {
    job_.phase("completing the backup set");
    ACE_INT64 storage_size = 0;
    ACE_INT64 set_size = 0;
    (void)get_size(storage_size, set_size); // an unknown size does not fail the backup
    if (!cat.storages.empty())
        cat.storages.front().size = static_cast<uint64_t>(std::max<ACE_INT64>(storage_size, 0));
    cat.source_size = static_cast<uint64_t>(std::max<ACE_INT64>(set_size, 0));
    cat.backup_set_size = cat.source_size;
    cat.backup_end_time = time(nullptr);
    if (!set_catalog_with_backup_info(cat) || !set_backup_time(cat))
        return false;
    if (!Catalog_Operator(-1, -1).complete(cat)) {
        QMRT_LOG(LM_ERROR, "Failed to commit GaussDB catalog for '%s'\n", src_->instance_.c_str());
        return false;
    }
    act_.set_size = cat.backup_set_size;
    act_.size = cat.source_size;
    act_.set_storage_size = cat.storages.front().size;
    return true;
}

// what is to be backed up

bool TPOPS_Backup::init() {
    if (!connect_to_platform(src_->instance_, tpops_client_) || !read_record())
        return false;
    backup_uuid_ = uuid_binary_to_string(act_.id);
    act_.start_time = time(nullptr);
    policy_name_ = string_sprintf("tpops_%s", src_->id().c_str());
    backup_type_ = def_.subtype();
    get_incarnation();
    get_databases_size();
    return true;
}

/** The instance's id on the platform, and the way to the backup agent. */
bool TPOPS_Backup::read_record() {
    std::string host;
    uint16_t port = 0;
    bool ssl = false;
    try {
        Object const record = cluster_->info().extend_attrs;
        extract_or_throw(record)("id", instance_id_, true)("xbsa_host", host, true)(
            "xbsa_port", port, true)("xbsa_ssl", ssl, true);
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB instance '%s' extend attrs: %s\n",
                 src_->instance_.c_str(), error.what());
        return false;
    }
    if (!find_backup_agent(host, port, ssl, os_user_))
        return false;
    Value const route =
        json_spirit::Object_Maker()("ip", host)("port", static_cast<int>(port))("ssl", ssl);
    xbsa_route_ = JSON_Dump(route, false).str();
    return true;
}

void TPOPS_Backup::get_incarnation() {
    Object query;
    json_spirit::insert(query)("resource_uuid", src_->id())("pool_uuid", tgt_.id())("type", "full")(
        "check_restored", true)("NN_backup_end_time",
                                "")("sort", "backup_end_time")("order", "desc")("limit", 1);
    Value row;
    if (Catalog_Operator(-1, def_.max_seconds_retry())
            .get_first_view("gaussdb", "catalogs", query, row) &&
        row.type() == json_spirit::obj_type)
        json_spirit::extract(row.get_obj())("incarnation", incarnation_)("timeline", timeline_);
    else
        set_backup_media_ = true;
    if (!is_full() && incarnation_.empty()) {
        QMRT_LOG(LM_WARNING, "No full backup of GaussDB instance '%s' found, perform full backup\n",
                 src_->instance_.c_str());
        backup_type_ = JOB_DEFINITION_SUBTYPE_FULL;
    }
    if (!is_full())
        return;
    incarnation_ = backup_uuid_;
    if (timeline_.empty())
        timeline_ = incarnation_;
}

void TPOPS_Backup::get_databases_size() {
    std::vector<TPOPS_Database_Info> databases;
    // needed for the progress only
    (void)ask_platform(
        [&] { return tpops_client_.list_databases(instance_id_.c_str(), databases); });
    for (TPOPS_Database_Info const& database : databases)
        databases_size_ += parse_size<unsigned long>(database.size);
}

// the platform

bool TPOPS_Backup::set_backup_info() {
    auto const put = [this](char const* key, std::string const& value) {
        return ask_platform([&] {
            return tpops_client_.put_extend_info(instance_id_.c_str(), key, value.c_str());
        });
    };
    if (!put("BackupSet", policy_name_)) {
        QMRT_LOG(LM_ERROR, "Failed to set BackupSet info for GaussDB instance '%s'\n",
                 src_->instance_.c_str());
        return false;
    }
    if (!put("XbsaRoute", xbsa_route_)) {
        QMRT_LOG(LM_ERROR, "Failed to set XbsaRoute info for GaussDB instance '%s'\n",
                 src_->instance_.c_str());
        return false;
    }
    return true;
}

bool TPOPS_Backup::change_backup_media() {
    if (!set_backup_media_)
        return true;
    std::string job_id;
    bool const changed = ask_platform(
        [&] { return tpops_client_.change_backup_media(instance_id_.c_str(), "xbsa", job_id); });
    TPOPS_Job_State state = TPOPS_JOB_STATE_NONE;
    if (changed && job_id.empty())
        return true;
    job_.phase("the platform changes the backup media");
    if (changed) {
        do {
            if (canceled()) {
                tell_of_running(string_sprintf("the change of the backup media, job '%s'",
                                               names::shown(job_id).c_str()));
                return false;
            }
            sleep();
            (void)get_job_state(job_id.c_str(), state); // any other state than running ends it
        } while (state == TPOPS_JOB_STATE_RUNNING);
    }
    if (state == TPOPS_JOB_STATE_COMPLETED)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to change backup media to xbsa for GaussDB instance '%s'\n",
             src_->instance_.c_str());
    return false;
}

bool TPOPS_Backup::start_backup() {
    Backup_Args args;
    if (is_log() && !set_depend_backup_ids(args))
        return false;
    job_name_ = string_sprintf("%s_%s", is_log() ? "Log" : "Physical", backup_uuid_.c_str());
    args.instance_id = instance_id_;
    args.name = job_name_;
    args.backup_type = backup_type_to_name(backup_type_);
    bool const created = ask_platform([&] {
        return is_log() ? tpops_client_.create_log_backup(instance_id_.c_str(), args, job_id_)
                        : tpops_client_.create_physical_backup(instance_id_.c_str(), args, job_id_);
    });
    if (created && !job_id_.empty())
        return true;
    QMRT_LOG(LM_ERROR, "Failed to create backup job for GaussDB instance '%s' with '%s'\n",
             src_->instance_.c_str(), JSON_Dump(Value(args.dump()), false).c_str());
    return false;
}

bool TPOPS_Backup::set_depend_backup_ids(Backup_Args& params) const {
    Object query;
    json_spirit::insert(query)("resource_uuid", src_->id())("timeline", timeline_);
    Value result;
    if (!Catalog_Operator(-1, def_.max_seconds_retry())
             .get_view("gaussdb", "depends", query, result) ||
        result.type() != json_spirit::array_type) {
        QMRT_LOG(LM_ERROR, "Failed to get depend backup ids of GaussDB instance '%s': %s\n",
                 src_->instance_.c_str(), JSON_Dump(result, false).c_str());
        return false;
    }
    for (std::string const& id : json_spirit::strings_of(result.get_array()))
        params.depend_backup_ids.push_back(id);
    return !params.depend_backup_ids.empty();
}

void TPOPS_Backup::init_query_info() {
    backup_info_query_.instance_id = instance_id_;
    backup_info_query_.backup_type = is_log() ? "Log_Xbsa" : "Snapshot_Xbsa";
    if (is_log())
        backup_info_query_.backup_id = job_id_;
}

bool TPOPS_Backup::get_job_state(char const* job_id, TPOPS_Job_State& state) {
    if (QMRT_IS_NULL_OR_EMPTY(job_id))
        return false;
    Value result;
    if (read_job_state(tpops_client_, job_id, state, result))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to get GaussDB job '%s' details: %s\n", names::shown(job_id).c_str(),
             tpops_client_.shown(result).c_str());
    return false;
}

bool TPOPS_Backup::get_log_job_state(Backup_Info_Query const& query, TPOPS_Job_State& state) {
    Value result;
    bool const answered =
        ask_platform([&] { return tpops_client_.get_backups_info(query, result); });
    json_spirit::Array const* backups = nullptr;
    std::string status;
    if (answered && result.type() == json_spirit::obj_type &&
        json_spirit::object_get(result.get_obj(), "backups", backups) && !backups->empty() &&
        backups->front().type() == json_spirit::obj_type &&
        json_spirit::object_get(backups->front().get_obj(), "status", status)) {
        state = tpops_state_from_string(status.c_str(), static_cast<int>(status.size()));
        if (state != TPOPS_JOB_STATE_ERROR)
            return true;
    }
    QMRT_LOG(LM_ERROR, "Failed to get GaussDB log job details with %s: %s\n",
             names::shown(query.backup_id).c_str(), tpops_client_.shown(result).c_str());
    return false;
}

// the catalog

void TPOPS_Backup::init_catalog(GaussDB_Backup_Set& cat) {
    cat.uuid = backup_uuid_;
    cat.backup_key = backup_uuid_;
    cat.name = def_.name();
    cat.definition_uuid = def_.id();
    cat.job_act_id = evt_handler_.job_act_id();
    cat.uid = def_.uid();
    cat.host_uuid = def_.host_id();
    cat.resource_uuid = src_->id();
    cat.resource_label = TPOPS_RESOURCE_LABEL;
    if (!compute_minor_resource_id(src_->id(), cat.resource_label, cat.minor_resource_id))
        QMRT_LOG(LM_ERROR, "Failed to compute minor resource id for GaussDB resource %s",
                 src_->id().c_str());
    cat.agent = def_.agent();
    cat.type = job_def_subtype_to_string(backup_type_, nullptr);
    cat.backup_start_time = act_.start_time;
    cat.backup_end_time = 0;
    cat.host = Host_Manager::instance()->name();
    cat.seq = 0;
    cat.incarnation = incarnation_;
    cat.timeline = timeline_;
    cat.instance_id = instance_id_;
    cat.nodes = get_node_count();
    cat.series = cluster_->get_gaussdb_version().model_;
    cat.database_version = cluster_->get_database_version();
    cat.instance = src_->instance_;
    char const* const compression = compression_value_to_name(opts_->compression_);
    cat.compression = compression ? compression : "";
    cat.add_storage({tgt_.id()});
}

int TPOPS_Backup::get_node_count() {
    TPOPS_Instance_Info info;
    bool const answered =
        ask_platform([&] { return tpops_client_.get_instance_info(instance_id_.c_str(), info); });
    return answered ? info.node_count : 0;
}

bool TPOPS_Backup::get_size(ACE_INT64& storage_size, ACE_INT64& set_size) {
    return GaussDB_Catalog(def_.max_seconds_retry())
        .get_sizes(
            backup_uuid_, storage_size, set_size,
            [this](Object const& piece) { get_basic_recovery_time_file(piece); },
            string_sprintf("Failed to get backup storage size of GaussDB instance '%s': ",
                           src_->instance_.c_str()));
}

void TPOPS_Backup::get_basic_recovery_time_file(Object const& piece) {
    std::string const path = json_spirit::object_get_str(piece, "path");
    if (is_log() && basic_recovery_time_file_.empty() &&
        path.find("basic_recovery_time") != std::string::npos)
        basic_recovery_time_file_ = path;
}

bool TPOPS_Backup::set_catalog_with_backup_info(GaussDB_Backup_Set& cat) {
    Value result;
    bool const answered = ask_platform([&] {
        return backup_type_ == JOB_DEFINITION_SUBTYPE_INCREMENTAL
                   ? tpops_client_.get_differential_backup_info(instance_id_.c_str(), result,
                                                                nullptr, nullptr)
                   : tpops_client_.get_backups_info(backup_info_query_, result);
    });
    json_spirit::Array const* const backups =
        answered && result.type() == json_spirit::obj_type ? backups_of(result.get_obj()) : nullptr;
    if (!backups) {
        QMRT_LOG(LM_ERROR, "Failed to get backups info of GaussDB instance '%s'\n",
                 src_->instance_.c_str());
        return false;
    }
    try {
        read_backup_info(*backups, cat);
        return true;
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get backup info of GaussDB instance '%s': %s\n",
                 src_->instance_.c_str(), error.what());
        return false;
    }
}

/** Throws if this run's backup lacks a key. A missing backup is not an error. */
void TPOPS_Backup::read_backup_info(json_spirit::Array const& backups, GaussDB_Backup_Set& cat) {
    for (Object const& backup : json_spirit::objects_of(backups)) {
        if (json_spirit::object_get_str(backup, "name") != job_name_)
            continue;
        extract_or_throw(backup)("id", cat.backup_id, true)(
            "begin_time", cat.platform_begin_time, true)("end_time", cat.platform_end_time, true);
        // what cannot be read has been logged, and leaves the time unknown
        (void)convert_time_to_timestamp(cat.platform_begin_time.c_str(), cat.begin_time);
        (void)convert_time_to_timestamp(cat.platform_end_time.c_str(), cat.end_time);
        return;
    }
}

bool TPOPS_Backup::convert_time_to_timestamp(char const* time_str, time_t& timestamp) {
    if (QMRT_IS_NULL_OR_EMPTY(time_str))
        return false;
    if (!local_to_posix_time(time_str, timestamp, TPOPS_TIME_FORMAT)) {
        QMRT_LOG(LM_ERROR, "Failed to convert time '%s' to timestamp, errno=%d, %m\n",
                 names::shown(time_str).c_str(), errno);
        return false;
    }
    qmrt::svmatch groups;
    std::string_view const text(time_str);
    if (!qmrt::regex_search(text, groups, RE_TIMEZONE))
        return true;
    std::string const digits(groups[1].first, groups[1].second);
    int const zone = natoi<int>(digits);
    if (errno == ERANGE) {
        QMRT_LOG(LM_ERROR, "Failed to convert string %s to timezone.\n", digits.c_str());
        return false;
    }
    timestamp -= zone * 3600; // all digits count as hours; platform_begin_time has the right time
    return true;
}

bool TPOPS_Backup::set_backup_time(GaussDB_Backup_Set& cat) const {
    std::string const& path = basic_recovery_time_file_;
    if (path.empty())
        return true;
    Client_IO_Ex io;
    if (!connect_to_storage(io))
        return false;
    std::string text;
    if (!io.get_contents(path.c_str(), text, MAX_RECOVERY_TIME_SIZE)) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB contents of basic_recovery_time_file: %s\n",
                 io.error().c_str());
        return false;
    }
    cat.begin_time = 0;
    cat.end_time = 0;
    cat.platform_begin_time.clear();
    cat.platform_end_time.clear();
    qmrt::svmatch groups;
    std::string_view rest(text);
    while (qmrt::regex_search(rest, groups, RE_TIMESTAMP)) {
        int64_t const first = natoi<int64_t>({groups[1].first, groups[1].second});
        int64_t const second = natoi<int64_t>({groups[2].first, groups[2].second});
        if (first > 0 && second > 0) {
            cat.begin_time = cat.begin_time == 0 ? first : std::min(cat.begin_time, first);
            cat.end_time = std::max(cat.end_time, second);
        }
        rest = std::string_view(groups[0].second, rest.end());
    }
    if (cat.begin_time > 0 && cat.end_time > 0)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to get GaussDB basic recovery timestamp from %s, contents is: %s\n",
             names::shown(path).c_str(), names::shown(text).c_str());
    return false;
}

bool TPOPS_Backup::connect_to_storage(Client_IO_Ex& io) const {
    Client_IO_Base::Options options;
    options.compression_method = COMPR_AUTO;
    set_options_by_job_def(options, def_,
                           static_cast<unsigned long>(std::max(opts_->channels_, 0)));
    Pool_Info pool;
    if (!get_pool_info(tgt_.id(), nullptr, pool, false, 0)) {
        QMRT_LOG(LM_ERROR, "Failed to get pool info of '%s'\n", tgt_.id().c_str());
        return false;
    }
    if (!set_options_by_pool(options, pool)) {
        QMRT_LOG(LM_ERROR, "Invalid encryption setting of '%s' for GaussDB\n", tgt_.id().c_str());
        return false;
    }
    set_options_by_host(options);
    if (io.connect(pool.url.c_str(), options))
        return true;
    QMRT_LOG(LM_ERROR, "Failed to connect to storage server: %s\n", io.error().c_str());
    return false;
}
