#include "gaussdb/job/gaussdb_non_intrusive_backup_executor.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_catalog.h"
#include "gaussdb/job/gaussdb_non_intrusive_node.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_executor.h"
#include "gaussdb/job/roach_progress_handler.h"
#include "gaussdb/job/roach_source.h"
#include "host/catalog/catalog_operator.h"
#include "host/job/job_mutex.h"
#include "host/job/minor_resource_id.h"
#include "json_spirit/access.h"
#include "qmrt/format.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <climits>
#include <ctime>

using Executor = GaussDB_Non_Intrusive_Backup_Job_Executor;

namespace {

constexpr uint64_t GIB = uint64_t(1) << 30;

/** Enters a database, a schema or a table. @return its uuid */
std::string add_record(json_spirit::Array& tables, std::string const& parent, char const* type,
                       std::string const& name) {
    std::string uuid = uuid_string();
    tables.emplace_back(json_spirit::Object{
        {"uuid", uuid}, {"parent_uuid", parent}, {"type", type}, {"name", name}});
    return uuid;
}

/** The text as it stands between double quotes, for a shell or for the splitting of a line here. */
std::string double_quoted(std::string const& text) {
    std::string quoted;
    for (char const c : text) {
        if (c == '"' || c == '\\' || c == '$' || c == '`')
            quoted += '\\';
        quoted += c;
    }
    return quoted;
}

/**
 * A schema's name for get_tables(): as an SQL literal, which stands between double quotes on the
 * node's command line, and those between double quotes on this host's.
 */
std::string statement_text(std::string const& name) {
    std::string literal;
    for (char const c : name)
        literal += c == '\'' ? std::string("''") : std::string(1, c);
    return double_quoted(double_quoted(literal));
}

} // namespace

Executor::GaussDB_Non_Intrusive_Backup_Job_Executor(Job& job)
    : Job_Executor_T(job), GaussDB_Non_Intrusive_Run(job) {}

Executor::~GaussDB_Non_Intrusive_Backup_Job_Executor() {
    if (!abort_catalog_)
        return;
    json_spirit::Array pieces;
    if (!Catalog_Operator(-1, -1).abort(job_instance_uuid_, pieces))
        QMRT_LOG(LM_ERROR, "Failed to abort gaussdb catalog\n");
}

bool Executor::is_active(Job::Action_Options const*) {
    if (src_->instance_.empty())
        return false;
    // before the mutex: a restore has that to its end, and a wait for it could not be canceled
    instance_hold_.emplace(job_, std::set{Run_Hold::instance(src_->id())});
    if (!*instance_hold_)
        return true; // for execute_i() to end the run
    ACE_Guard<ACE_Thread_Mutex> const lock(Job_Mutex::get(src_->id()));
    if (!lock.locked())
        return false;
    instance_ = src_->instance_;
    return find_instance();
}

bool Executor::execute_i(Job::Action_Options const*) {
    if (!instance_hold_ || !*instance_hold_)
        return false;
    if (cluster_.null()) {
        QMRT_LOG(LM_EMERGENCY, "Unexpected error in %N:%l, cluster_ is NULL:\n%?\n");
        return false;
    }
    if (QMRT_IS_NULL_AT(LM_ERROR, opts_))
        return false;
    reset_activity(act_);
    job_.phase("checking the cluster");
    job_instance_uuid_ = uuid_binary_to_string(act_.id);
    backup_type_ = def_.subtype();
    std::string user;
    if (!choose_type() || !check_names() ||
        !read_instance("Failed to get gaussdb instance info.") || !find_service(user))
        return false;

    GaussDB_Backup_Set bset;
    init_catalog(bset);
    if (!get_roach_host_name(bset.host) || !get_seq(bset.seq))
        return false;
    choose_base(bset);

    Run_Hold const node(job_, resources(src_->id(), bset.host));
    if (!node)
        return false;
    Roach_Source roach_source = make_roach_source(user);
    if (!roach_source.notify(host_uuids_, nullptr, "", nullptr, false)) {
        QMRT_LOG(LM_ERROR, "Failed to dump policy file.\n");
        return false;
    }
    bset.meta_destination = roach_source.meta_path();
    count_nodes();
    std::string cmd;
    Scoped_Deleter const remove_schema_list([&] { remove_lists(); });
    if (!make_command(cmd, bset.prior_backup_key))
        return false;
    if (!save_tables_info(bset.tables)) {
        QMRT_LOG(LM_ERROR, "Failed to get tables from GaussDB.\n");
        return false;
    }
    if (!open_set(bset) || !run_tool(cmd, bset) || !complete_set(bset))
        return false;
    (void)roach_source.remove(host_uuids_, nullptr, ""); // what stays behind has been logged
    return true;
}

// what is to be saved

bool Executor::choose_type() {
    GaussDB_Version const& version = cluster_->get_gaussdb_version();
    if (version.model_ != GAUSSDB_DWS || !is_schema_backup())
        return true;
    if (src_->schemas_.size() > 1) {
        QMRT_LOG(LM_ERROR, "Cannot backup multiple databases' schemas simultaneously.\n");
        return false;
    }
    if (backup_type_ != JOB_DEFINITION_SUBTYPE_FULL && version < GAUSSDB_DWS_821) {
        QMRT_LOG(LM_WARNING, "GaussDB schema backup does not support incremental backup, changing "
                             "to full backup.\n");
        backup_type_ = JOB_DEFINITION_SUBTYPE_FULL;
    }
    return true;
}

/** Before anything is asked: these become words of a remote command line, or lines of a list. */
bool Executor::check_names() const {
    std::vector<Bare_Name> bare{{"id of the resource", src_->id(), names::fault_of_policy}};
    if (!opts_->logging_level_.empty())
        bare.push_back({"logging level", opts_->logging_level_, names::fault_of_id});
    for (auto const& [database, schemas] : src_->schemas_) {
        bare.push_back({"database", database, names::fault_of_database});
        for (std::string const& schema : schemas)
            bare.push_back({"schema", schema, names::fault_of_listed_name});
    }
    return check_bare_names(bare);
}

// the node

void Executor::count_nodes() {
    if (is_opengauss()) {
        (void)non_intrusive_get_node_count(address_.c_str(), nodes_count_, source_commands_.c_str(),
                                           ssh_opts_.c_str());
    } else {
        if (GaussDB_Client_ptr const client = cluster_->create_client(nullptr, nullptr, nullptr))
            nodes_count_ = static_cast<int>(
                std::min(get_database_nodes_number(client.get()), unsigned(INT_MAX)));
        if (backup_type_ == JOB_DEFINITION_SUBTYPE_FULL)
            clean_dws_metadata();
    }
    QMRT_LOG(LM_DEBUG, "Detected %d cluster nodes.\n", nodes_count_);
}

void Executor::clean_dws_metadata() const {
    if (opts_->clean_meta_ && !meta_path_.empty())
        remove_from_nodes(meta_path_ + "/roach", ssh_opts_ + " ");
}

bool Executor::dump_schema_list(std::vector<std::string> const& schemas, std::string const& path) {
    return !QMRT_IS_EMPTY(path) && !QMRT_IS_EMPTY(schemas) &&
           send_list(schemas, path, evt_handler_.job_act_id());
}

// the catalog

void Executor::init_catalog(GaussDB_Backup_Set& bset) const {
    bset.uuid = job_instance_uuid_;
    bset.name = def_.name();
    bset.definition_uuid = def_.id();
    bset.job_act_id = evt_handler_.job_act_id();
    bset.uid = def_.uid();
    bset.host_uuid = def_.host_id();
    bset.resource_uuid = src_->id();
    bset.agent = def_.agent();
    bset.type = job_def_subtype_to_string(backup_type_, nullptr);
    bset.backup_start_time = act_.start_time;
    bset.backup_end_time = 0;
    if (is_schema_backup()) {
        bset.granularity = "schema";
        bset.database = src_->schemas_.begin()->first;
    }
    bset.resource_label =
        is_opengauss() ? "gaussdb for opengauss physical backup" : "gaussdb DWS physical backup";
    if (!compute_minor_resource_id(src_->id(), bset.resource_label, bset.minor_resource_id))
        QMRT_LOG(LM_ERROR, "Failed to compute minor resource id for resource %s",
                 src_->id().c_str());
    bset.series = cluster_->get_gaussdb_version().model_;
    bset.database_version = cluster_->get_database_version();
    bset.instance = instance_;
    char const* const compression = compression_value_to_name(opts_->compression_);
    bset.compression = compression ? compression : "";
    bset.add_storage({tgt_.id()});
}

void Executor::choose_base(GaussDB_Backup_Set& bset) const {
    if (backup_type_ != JOB_DEFINITION_SUBTYPE_FULL &&
        get_prior_backup(bset.incarnation, bset.prior_backup_key,
                         backup_type_ == JOB_DEFINITION_SUBTYPE_CUMULATIVE, is_schema_backup()))
        return;
    if (backup_type_ != JOB_DEFINITION_SUBTYPE_FULL)
        QMRT_LOG(LM_WARNING, "Do full backup because prior backup not found.\n");
    bset.incarnation = job_instance_uuid_;
    bset.prior_backup_key.clear();
}

bool Executor::get_prior_backup(std::string& incarnation, std::string& backup_key, bool full,
                                bool schema_only) const {
    json_spirit::Object more;
    if (full)
        more["type"] = "full";
    if (schema_only)
        more["granularity"] = "schema";
    else
        more["exclude_schema"] = true;
    return GaussDB_Catalog(def_.max_seconds_retry())
        .get_prior_backup(src_->id(), tgt_.id(), more, incarnation, backup_key);
}

bool Executor::get_seq(ACE_INT64& seq) const {
    return GaussDB_Catalog(def_.max_seconds_retry()).get_seq(src_->id(), seq);
}

bool Executor::get_size(ACE_INT64& storage_size, ACE_INT64& set_size) const {
    return GaussDB_Catalog(def_.max_seconds_retry())
        .get_sizes(job_instance_uuid_, storage_size, set_size);
}

bool Executor::open_set(GaussDB_Backup_Set& bset) {
    if (!Catalog_Operator(-1, -1).initialize(bset)) {
        raise_alert(job_, 7, 8);
        QMRT_LOG(LM_ERROR, "Failed to initialize gaussdb catalog\n");
        return false;
    }
    abort_catalog_ = true;
    return true;
}

bool Executor::complete_set(GaussDB_Backup_Set& bset) {
    job_.phase("saving the catalog");
    ACE_INT64 storage_size = 0;
    ACE_INT64 set_size = 0;
    (void)get_size(storage_size,
                   set_size); // an unknown size does not fail the backup
    if (!bset.storages.empty())
        bset.storages.front().size = static_cast<uint64_t>(std::max<ACE_INT64>(storage_size, 0));
    bset.source_size = static_cast<uint64_t>(std::max<ACE_INT64>(set_size, 0));
    bset.backup_set_size = bset.source_size;
    bset.backup_end_time = time(nullptr);
    bset.nodes = nodes_count_;
    if (!Catalog_Operator(-1, -1).complete(bset)) {
        QMRT_LOG(LM_ERROR, "Failed to commit gaussdb catalog\n");
        return false;
    }
    abort_catalog_ = false;
    act_.size = bset.source_size;
    act_.set_size = bset.backup_set_size;
    act_.set_storage_size = bset.storages.front().size;
    return true;
}

/** Lists what a DWS set holds, by which a table is found again. */
bool Executor::save_tables_info(json_spirit::Array& tables) const {
    if (cluster_->get_gaussdb_version().model_ != GAUSSDB_DWS)
        return true;
    std::vector<std::string> databases;
    if (is_schema_backup()) {
        databases.push_back(src_->schemas_.begin()->first);
    } else if (!cluster_->list_database("", "", databases)) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB databases.\n");
        return false;
    }
    return std::ranges::all_of(databases, [&](std::string const& database) {
        return database == "template0" || database == "template1" || save_schemas(database, tables);
    });
}

bool Executor::save_schemas(std::string const& database, json_spirit::Array& tables) const {
    std::string const uuid = add_record(tables, "", "database", database);
    if (std::string const fault = names::fault_of_database(database); !fault.empty()) {
        // a database's owner chooses its name: it is saved all the same
        QMRT_LOG(LM_WARNING, "Schemas of database '%s' are not listed in the set, its name %s\n",
                 names::shown(database).c_str(), fault.c_str());
        return true;
    }
    GaussDB_Client_ptr const client = cluster_->create_client("", "", database.c_str());
    if (!client) {
        QMRT_LOG(LM_ERROR, "Failed to create GaussDB client, database: %s.\n", database.c_str());
        return false;
    }
    std::vector<std::string> schemas;
    if (is_schema_backup()) {
        schemas = src_->schemas_.begin()->second;
    } else if (!get_schemas(client.get(), true, cluster_->get_gaussdb_version(), schemas)) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB schemas, database: %s.\n", database.c_str());
        return false;
    }
    return std::ranges::all_of(schemas, [&](std::string const& schema) {
        return save_tables(*client, database, schema, uuid, tables);
    });
}

bool Executor::save_tables(GaussDB_Client& client, std::string const& database,
                           std::string const& schema, std::string const& parent,
                           json_spirit::Array& tables) const {
    std::string const uuid = add_record(tables, parent, "schema", schema);
    std::vector<std::string> found;
    if (!get_tables(&client, statement_text(schema), found)) {
        QMRT_LOG(LM_ERROR, "Failed to get GaussDB tables, schema: %s, database: %s\n",
                 names::shown(schema).c_str(), database.c_str());
        return false;
    }
    for (std::string const& table : found)
        add_record(tables, uuid, "table", table);
    return true;
}

// the tool

Roach_Source Executor::make_roach_source(std::string const& user) const {
    Client_IO_Base::Options opts;
    set_options_by_job_def(opts, def_, static_cast<unsigned long>(std::max(opts_->channels_, 0)));
    return {src_->id(),
            tgt_.device_id(),
            tgt_.id(),
            job_instance_uuid_,
            opts_->compression_,
            opts_->compression_level_,
            user,
            def_.max_seconds_retry(),
            def_.resumption_buffer_size(),
            opts.rate_limits,
            cluster_->get_gaussdb_version(),
            backup_type_ == JOB_DEFINITION_SUBTYPE_FULL,
            src_->id()};
}

bool Executor::make_command(std::string& cmd, std::string const& prior_backup_key) {
    bool const made =
        is_opengauss() ? generate_for_opengauss_backup_cmd(cmd) : generate_dws_backup_cmd(cmd);
    return made && generate_common_backup_cmd(cmd, prior_backup_key);
}

bool Executor::generate_dws_backup_cmd(std::string& cmd) {
    std::string user;
    if (!find_tool_user(address_, ssh_opts_, user)) {
        QMRT_LOG(LM_ERROR, "Failed to get database roach agent user.\n");
        return false;
    }
    QMRT_LOG(LM_DEBUG, "Detected Roach Agent user: %s\n", user.c_str());
    Remote_Command line(cmd);
    line.add("GaussRoach.py")
        .add(" -t backup ")
        .add(" --master-port ", backup_port_)
        .add(" --filesplit-size ", opts_->filesplit_size_ / GIB)
        .add(" --media-type NBU")
        .add(" --media-destination ", src_->id())
        .add(" --metadata-destination ", meta_path_)
        .add(" --parallel-process ", opts_->channels_)
        .add(" --nbu-on-remote")
        .add(" --nbu-media-list /home/", user + "/media.txt")
        .add(" --client-port ", client_port_)
        .add(" --physical-fine-grained")
        .add(" --compression-type ", opts_->roach_compression_type_)
        .add(" --compression-level ", opts_->roach_compression_level_)
        .add_if(opts_->cpu_cores_ != 0, " --cpu-cores ", opts_->cpu_cores_);
    if (is_schema_backup()) {
        auto const& [database, schemas] = *src_->schemas_.begin();
        std::string const list = string_sprintf("/home/%s/zenbrak3_schema.txt", user.c_str());
        if (!dump_schema_list(schemas, list)) {
            QMRT_LOG(LM_ERROR, "Failed to dump schema file %s to %s.\n", list.c_str(),
                     address_.c_str());
            return false;
        }
        line.add(" --dbname ", database).add(" --schema-list ", list);
    }
    line.add_if(opts_->master_timeout_ != 0, " --master-timeout ", opts_->master_timeout_)
        .add_if(opts_->cbm_recycle_level_ >= 0, " --cbm-recycle-level ", opts_->cbm_recycle_level_)
        .add_if(!opts_->logging_level_.empty(), " --logging-level ", opts_->logging_level_);
    return true;
}

bool Executor::generate_for_opengauss_backup_cmd(std::string& cmd) const {
    Remote_Command(cmd)
        .add("GaussRoach.py")
        .add(" -t backup ")
        .add(" --master-port ", backup_port_)
        .add(" --media-type REMOTE")
        .add(" --media-destination ", src_->id())
        .add(" --metadata-destination ", meta_path_)
        .add(" --remote-ip ", remote_ip_)
        .add(" --remote-port ", client_port_)
        .add(" --parallel-process ", opts_->channels_)
        .add(" --compression-type=0")
        .add(" --compression-level=0")
        .add(" --remote-config \"", src_->id() + "\"")
        .add_if(backup_type_ == JOB_DEFINITION_SUBTYPE_INCREMENTAL, " --cbm-recycle-level=2")
        .add_if(backup_type_ == JOB_DEFINITION_SUBTYPE_CUMULATIVE, " --cbm-recycle-level=1");
    return true;
}

bool Executor::generate_common_backup_cmd(std::string& cmd,
                                          std::string const& prior_backup_key) const {
    if (!prior_backup_key.empty() &&
        !check_bare_names({{"key of the prior backup", prior_backup_key, names::fault_of_id}}))
        return false;
    add_buffers(cmd, *opts_);
    Remote_Command(cmd).add_if(!prior_backup_key.empty(), " --prior-backup-key=", prior_backup_key);
    return true;
}

bool Executor::run_tool(std::string const& cmd, GaussDB_Backup_Set& bset) {
    job_.phase("the backup tool sends the data");
    Roach_Progress_Handler progress(std::max(nodes_count_, 1), &evt_handler_, 1);
    return run_with_stop_thread([&](Roach_Executor& tool) {
        if (!tool.execute_non_intrusive_cmd(address_.c_str(), cmd.c_str(), &progress,
                                            &bset.backup_key)) {
            QMRT_LOG(LM_ERROR, "Failed to execute roach backup.\n");
            return false;
        }
        QMRT_LOG(LM_DEBUG, "Successfully backed up GaussDB, backup key is %s.\n",
                 bset.backup_key.c_str());
        return true;
    });
}
