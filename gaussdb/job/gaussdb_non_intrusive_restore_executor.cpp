#include "gaussdb/job/gaussdb_non_intrusive_restore_executor.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/job/client_io_options.h"
#include "gaussdb/job/cluster_job.h"
#include "gaussdb/job/gaussdb_catalog.h"
#include "gaussdb/job/gaussdb_non_intrusive_node.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/roach_executor.h"
#include "gaussdb/job/roach_progress_handler.h"
#include "gaussdb/job/roach_source.h"
#include "host/catalog/backup_set.h"
#include "host/job/job_mutex.h"
#include "host/job/run_hold.h"
#include "json_spirit/access.h"
#include "qmrt/format.h"

#include <ace/Guard_T.h>

#include <algorithm>
#include <ctime>
#include <exception>

using json_spirit::extract_or_throw;

using Restore = GaussDB_Non_Intrusive_Restore_Job_Executor;

Restore::GaussDB_Non_Intrusive_Restore_Job_Executor(Job& job)
    : Job_Executor_T(job), GaussDB_Non_Intrusive_Run(job) {}

Restore::~GaussDB_Non_Intrusive_Restore_Job_Executor() = default;

bool Restore::is_active(Job::Action_Options const*) {
    return parse_instance_entry(src_->restore_as_, instance_) && find_instance();
}

bool Restore::execute_i(Job::Action_Options const*) {
    Run_Hold const instance(job_, {Run_Hold::instance(tgt_.id())});
    if (!instance)
        return false;
    ACE_Guard<ACE_Thread_Mutex> const lock(Job_Mutex::get(tgt_.id()));
    if (!lock.locked())
        return false;
    if (cluster_.null()) {
        QMRT_LOG(LM_EMERGENCY, "Unexpected error in %N:%l, cluster_ is NULL:\n%?\n");
        return false;
    }
    if (QMRT_IS_NULL_AT(LM_ERROR, opts_))
        return false;
    reset_activity(act_);
    act_.size = 0;
    act_.set_size = 0;
    act_.set_storage_size = 0;
    job_.phase("checking the cluster");
    std::string user;
    std::string node_name;
    Chain chain;
    if (is_opengauss() && is_table_restore()) {
        // its tool knows no tables: it would replace the whole cluster
        QMRT_LOG(LM_ERROR, "Tables of openGauss cannot be restored one by one; restore the whole "
                           "cluster, for example as a new one\n");
        return false;
    }
    if (!check_names() || !read_instance("Failed to get DWS instance info.") ||
        !find_service(user) || !load_chain(chain) || !check_new_cluster() ||
        !get_roach_host_name(node_name))
        return false;
    Run_Hold const node(job_, resources(tgt_.id(), node_name));
    if (!node)
        return false;
    Roach_Source roach_source = make_roach_source(chain, user);
    if (!notify(roach_source))
        return false;
    std::string cmd;
    Scoped_Deleter const lists([&] { remove_lists(); });
    if (make_command(cmd) && run_tool(cmd, roach_source, chain)) {
        act_.size = chain.original_size;
        act_.set_size = chain.original_size;
        return true;
    }
    (void)roach_source.remove(host_uuids_, nullptr, ""); // a no-op if it was removed before
    return false;
}

bool Restore::is_table_restore() const {
    return def_.subtype() == JOB_DEFINITION_SUBTYPE_TABLE;
}

bool Restore::new_cluster() const {
    return src_->id() != tgt_.id();
}

// what is to be restored

/** Before anything is asked: these become words of a remote command line, or lines of a list. */
bool Restore::check_names() const {
    std::vector<Bare_Name> bare{{"id of the resource", src_->id(), names::fault_of_policy},
                                {"id of the target", tgt_.id(), names::fault_of_policy},
                                {"backup key", src_->backup_key_, names::fault_of_id}};
    if (!opts_->logging_level_.empty())
        bare.push_back({"logging level", opts_->logging_level_, names::fault_of_id});
    if (!opts_->xml_config_path_.empty())
        bare.push_back({"configuration file", opts_->xml_config_path_, names::fault_of_bare_path});
    for (auto const& [database, tables] : src_->tables_) {
        bare.push_back({"database", database, names::fault_of_database});
        for (Table_Mapping const& table : tables)
            for (std::string const* name : {&table.source_schema, &table.source_table,
                                            &table.target_schema, &table.target_table})
                bare.push_back({"schema or table", *name, names::fault_of_listed_name});
    }
    return check_bare_names(bare);
}

bool Restore::check_new_cluster() const {
    if (!new_cluster())
        return true;
    if (host_name_.empty()) {
        QMRT_LOG(LM_ERROR, "Failed to restore data to new cluster, missing host name of the old "
                           "cluster.\n");
        return false;
    }
    if (opts_->xml_config_path_.empty()) {
        QMRT_LOG(LM_ERROR, "Failed to restore data to new cluster, missing xml config file of the "
                           "new cluster.\n");
        return false;
    }
    return true;
}

// the catalog

bool Restore::load_chain(Chain& chain) {
    if (get_catalog(src_->backup_key_, cluster_->get_gaussdb_version().model_, chain.pool_uuid,
                    chain.compression, chain.original_size, chain.catalogs))
        return true;
    raise_alert(job_, 7, 1);
    QMRT_LOG(LM_ERROR, "Failed to get gaussdb catalog, backup key %s\n", src_->backup_key_.c_str());
    return false;
}

/**
 * Follows the sets from the one that is asked for to the full one that they build on.
 * @param pool_uuid, compression  of the set that is asked for
 * @param original_size  grows by the bytes of each set
 * @param catalogs       gets all rows, newest first, also of sets that are not on the way
 */
bool Restore::get_catalog(std::string const& backup_key, GAUSSDB_VERSION const& version,
                          std::string& pool_uuid, std::string& compression,
                          ACE_UINT64& original_size, json_spirit::Array& catalogs) {
    if (!GaussDB_Catalog(def_.max_seconds_retry()).get_chain(src_->id(), backup_key, catalogs))
        return false;
    try {
        Chain chain;
        std::string key = backup_key;
        for (json_spirit::Object const& row : json_spirit::objects_of(catalogs))
            if (!read_row(row, backup_key, version, key, chain))
                return false;
        pool_uuid = chain.pool_uuid;
        compression = chain.compression;
        original_size += chain.original_size;
        if (key.empty())
            return true;
        QMRT_LOG(LM_ERROR, "Failed to get base gaussdb backup set\n");
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to get gaussdb catalog, %s\n", error.what());
    }
    return false;
}

/**
 * Reads one row; throws for one that is not as it should be.
 * @param key  of the next set on the way; replaced when the row is that set
 */
bool Restore::read_row(json_spirit::Object const& row, std::string const& backup_key,
                       GAUSSDB_VERSION version, std::string& key, Chain& chain) {
    std::string row_key, prior_key, granularity, database;
    uint64_t size = 0;
    json_spirit::Array const* storages = nullptr;
    extract_or_throw(row)("backup_key", row_key, true)("prior_backup_key", prior_key, true)(
        "backup_set_size", size, true)("nodes_count", nodes_count_, true)(
        "storages", storages, true)("granularity", granularity, true)("database", database, true);
    if (!find_schema_set(granularity, database))
        return false;
    if (row_key != key)
        return true;
    if (host_name_.empty())
        host_name_ = json_spirit::object_get_str(row, "host");
    chain.original_size += size;
    if (row_key == backup_key) {
        chain.pool_uuid =
            Backup_Set_Storage_Selector(*storages, Backup_Set_Storage_Selector::M_SOURCE)
                .pool_uuid();
        extract_or_throw(row)("compression", chain.compression, true);
    }
    int series = 0;
    extract_or_throw(row)("series", series, true);
    if (series != version) {
        QMRT_LOG(LM_ERROR, "Failed to restore, gaussdb version mismatch.\n");
        return false;
    }
    key = prior_key;
    return true;
}

/** A schema backup cannot bring back a whole cluster: the run becomes the rebuild of its database.
 */
bool Restore::find_schema_set(std::string const& granularity, std::string const& database) {
    if (is_table_restore() || disaster_recovery_ || granularity != "schema")
        return true;
    disaster_recovery_ = true;
    QMRT_LOG(LM_INFO, "Performing disaster recovery from schema backup set ...\n");
    if (database.empty()) {
        QMRT_LOG(LM_ERROR, "Failed to get database name from schema backup set.\n");
        return false;
    }
    schema_database_ = database;
    return true;
}

// what the hosts are told

Roach_Source Restore::make_roach_source(Chain const& chain, std::string const& user) const {
    Client_IO_Base::Options opts;
    set_options_by_job_def(opts, def_, static_cast<unsigned long>(std::max(opts_->channels_, 0)));
    return {src_->id(),
            "",
            chain.pool_uuid,
            uuid_binary_to_string(act_.id),
            compression_name_to_value(chain.compression.c_str(), -1),
            1,
            user,
            def_.max_seconds_retry(),
            def_.resumption_buffer_size(),
            opts.rate_limits,
            cluster_->get_gaussdb_version(),
            true,
            tgt_.id()};
}

bool Restore::notify(Roach_Source& roach_source) {
    if (roach_source.notify(host_uuids_, src_->backup_key_.c_str(), def_.id(), nullptr, false))
        return true;
    raise_alert(job_, 7, 7);
    QMRT_LOG(LM_ERROR, "Failed to notify cluster nodes\n");
    return false;
}

// the tool

bool Restore::make_command(std::string& cmd) {
    bool const made =
        is_opengauss() ? generate_for_opengauss_restore_cmd(cmd) : generate_dws_restore_cmd(cmd);
    return made && generate_common_restore_cmd(cmd);
}

bool Restore::generate_dws_restore_cmd(std::string& cmd) {
    std::string user;
    if (!find_tool_user(address_, ssh_opts_, user)) {
        QMRT_LOG(LM_ERROR, "Failed to get database roach agent user.\n");
        return false;
    }
    bool const is_table = is_table_restore();
    bool const is_rebuild = !is_table && disaster_recovery_;
    bool const is_new = !is_table && !disaster_recovery_ && new_cluster();
    if (is_table && !send_table_lists(user))
        return false;
    if ((is_rebuild || is_new) &&
        !check_bare_names({{"host name of the old cluster", host_name_, names::fault_of_host}}))
        return false;
    if (is_rebuild && !check_bare_names({{"database", schema_database_, names::fault_of_database}}))
        return false;
    restore_meta_path_ = string_sprintf("/home/%s/zenbrak3_meta_%s", user.c_str(),
                                        time_stamp(time(nullptr)).c_str());

    Remote_Command line(cmd);
    line.add("GaussRoach.py")
        .add(" -t restore")
        .add(" --backup-key ", src_->backup_key_)
        .add(" --master-port ", backup_port_)
        .add(" --media-type NBU")
        .add(" --media-destination ", tgt_.id())
        .add(" --metadata-destination ", restore_meta_path_)
        .add(" --parallel-process ", opts_->channels_)
        .add(" --nbu-on-remote")
        .add(" --nbu-media-list /home/", user + "/media.txt")
        .add(" --client-port ", client_port_)
        .add_if(!disaster_recovery_, " --clean");
    if (is_table)
        line.add(" --physical-fine-grained")
            .add(" --dbname ", src_->tables_.begin()->first)
            .add(" --table-list ", table_lists_.front())
            .add(" --restore-target-list ", table_lists_.back());
    line.add_if(is_rebuild || is_new, " --old-cluster-hostname ", host_name_)
        .add_if(is_new, " --restore-new-cluster --restore-configs")
        .add_if(is_rebuild, " --restore-new-cluster --fine-rebuild")
        .add_if(is_rebuild, " --physical-fine-grained")
        .add_if(is_rebuild, " --dbname ", schema_database_)
        .add_if(opts_->master_timeout_ != 0, " --master-timeout ", opts_->master_timeout_)
        .add_if(!opts_->logging_level_.empty(), " --logging-level ", opts_->logging_level_);
    return true;
}

bool Restore::generate_for_opengauss_restore_cmd(std::string& cmd) const {
    Remote_Command(cmd)
        .add("GaussRoach.py")
        .add(" -t restore --clean")
        .add(" --backup-key ", src_->backup_key_)
        .add(" --master-port ", backup_port_)
        .add(" --media-type REMOTE")
        .add(" --media-destination ", src_->id())
        .add(" --metadata-destination ", meta_path_)
        .add(" --parallel-process ", opts_->channels_)
        .add(" --remote-ip ", remote_ip_)
        .add(" --remote-port ", client_port_)
        .add(" --remote-config \"", tgt_.id() + "\"")
        .add_if(new_cluster(), " --restore-new-cluster --restore-configs");
    return true;
}

bool Restore::generate_common_restore_cmd(std::string& cmd) const {
    add_buffers(cmd, *opts_);
    return true;
}

bool Restore::send_table_lists(std::string const& user) {
    if (src_->tables_.empty()) {
        QMRT_LOG(LM_ERROR, "Failed to retrieve the table for recovery.\n");
        return false;
    }
    if (src_->tables_.size() > 1) {
        QMRT_LOG(LM_ERROR, "Failed to recover tables from multiple databases simultaneously.\n");
        return false;
    }
    Table_Mapping_List const& tables = src_->tables_.begin()->second;
    for (bool const is_source : {true, false}) {
        table_lists_.push_back(
            is_source ? string_sprintf("/home/%s/zenbrak3_source_table.txt", user.c_str())
                      : string_sprintf("/home/%s/zenbrak3_target_table.txt", user.c_str()));
        if (!dump_table_list(tables, table_lists_.back(), is_source)) {
            QMRT_LOG(LM_ERROR, "Failed to generate table file %s in database node.\n",
                     table_lists_.back().c_str());
            return false;
        }
    }
    return true;
}

bool Restore::dump_table_list(Table_Mapping_List const& tables, std::string const& path,
                              bool source_table) {
    if (QMRT_IS_EMPTY(path) || QMRT_IS_EMPTY(tables))
        return false;
    std::vector<std::string> lines;
    for (Table_Mapping const& table : tables)
        lines.push_back(string_sprintf(
            "%s.%s", (source_table ? table.source_schema : table.target_schema).c_str(),
            (source_table ? table.source_table : table.target_table).c_str()));
    return send_list(lines, path, evt_handler_.job_act_id());
}

bool Restore::run_tool(std::string& cmd, Roach_Source& roach_source, Chain const& chain) {
    job_.phase("the backup tool fetches the data");
    // a step for each set, and one for the end
    Roach_Progress_Handler progress(std::max(nodes_count_, 1), &evt_handler_,
                                    static_cast<int>(chain.catalogs.size() + 1));
    auto const work = [&](Roach_Executor& tool) {
        if (tool.execute_non_intrusive_cmd(address_.c_str(), cmd.c_str(), &progress, nullptr))
            return finish(tool, roach_source);
        QMRT_LOG(LM_ERROR, "Failed to execute roach restore.\n");
        return false;
    };
    return run_with_stop_thread(work, [&] { (void)clean_meta(); });
}

/** The data is back. */
bool Restore::finish(Roach_Executor& tool, Roach_Source& roach_source) {
    if (is_table_restore()) {
        QMRT_LOG(LM_DEBUG, "Successfully restored database tables.\n");
        return true;
    }
    if (disaster_recovery_) {
        QMRT_LOG(LM_INFO, "Successfully performed schema backup set disaster recovery.\n");
        return true;
    }
    QMRT_LOG(LM_DEBUG, "Successfully restored database, starting it ...\n");
    (void)roach_source.remove(host_uuids_, nullptr, ""); // what stays behind has been logged
    return start(tool);
}

bool Restore::start(Roach_Executor& roach_executor) {
    std::string cmd;
    Remote_Command(cmd)
        .add("GaussRoach.py -t start")
        .add_if(new_cluster(), " --restore-new-cluster")
        .add_if(new_cluster(), " -X ", opts_->xml_config_path_);
    if (roach_executor.execute_non_intrusive_cmd(address_.c_str(), cmd.c_str(), nullptr, nullptr))
        return true;
    raise_alert(job_, 7, 0xb);
    QMRT_LOG(LM_ERROR, "Failed to start GaussDB, please start manually.\n");
    return false;
}

bool Restore::clean_meta() const {
    if (cluster_->get_gaussdb_version().model_ == GAUSSDB_DWS && !restore_meta_path_.empty())
        remove_from_nodes(restore_meta_path_, "");
    return true;
}
