#include "agent/service/agent_service.h"

#include "agent/catalog/catalog_tables.h"
#include "agent/catalog/remote_catalog.h"
#include "agent/jobs/job_tables.h"
#include "agent/jobs/member_reader.h"
#include "agent/rpc/tls.h"
#include "agent/service/access_key_file.h"
#include "agent/service/agent_methods.h"
#include "agent/service/audit_log.h"
#include "agent/service/rpc_route.h"
#include "agent/service/stop_watchdog.h"
#include "agent/storage/pool_path.h"
#include "agent/storage/pool_sweep.h"
#include "agent/storage/remote_pools.h"
#include "host/agent/host_manager.h"
#include "host/agent/host_services.h"
#include "host/agent/instance_manager.h"
#include "host/http/platform_settings.h"
#include "host/process/child_registry.h"
#include "host/process/tool_limits.h"
#include "host/storage/file_storage_backend.h"
#include "host/storage/pool_mounts.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"
#include "qmrt/path.h"
#include "qmrt/utf8.h"

#include <ace/Thread_Manager.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <limits>

namespace {

constexpr char AGENT[] = "gaussdb";

std::vector<std::string> migrations() {
    return {std::string(IDENTITY_TABLES) + CATALOG_TABLES + INSTANCE_TABLES + POOL_TABLES +
                JOB_TABLES + GROUP_TABLES,
            MEMBER_TABLES, AUDIT_TABLES};
}

/** The module that was installed with this program. */
std::string installed_module() {
    char program[PATH_MAX];
    ssize_t const size = readlink("/proc/self/exe", program, sizeof program);
    if (size <= 0)
        return ZENBRAK3_MODULE_PATH;
    return dirname_string(std::string(program, static_cast<size_t>(size))) + "/" +
           ZENBRAK3_MODULE_PATH;
}

std::string or_else(std::string const& text, std::string const& fallback) {
    return text.empty() ? fallback : text;
}

/** Makes the directory that a socket is to be in; one that is there stays as it is. */
bool make_parent(std::string const& path, std::string& error) {
    std::string const directory = dirname_string(path);
    if (mkdir_p(directory.c_str(), 0755) == 0 || errno == EEXIST)
        return true;
    error = "Cannot make the directory " + directory + ": " + strerror(errno);
    return false;
}

void set_tool_limits(Agent_Config const& config) {
    Tool_Limits limits;
    limits.seconds = config.tool_timeout;
    limits.output_bytes = static_cast<uint64_t>(config.tool_output);
    Tool_Limits::set(limits);
}

void set_platform_settings(Agent_Config const& config) {
    Platform_Settings settings;
    settings.verify = config.platform_verify;
    settings.ca_file = config.platform_ca_file;
    settings.timeout = std::chrono::seconds(config.platform_timeout);
    Platform_Settings::set(settings);
}

/** Of the time to stop: for what is left to do behind the end of the jobs. */
int64_t time_behind_jobs(int64_t stop_timeout) {
    return std::min<int64_t>(stop_timeout / 4, 5);
}

/** Ends the process although its threads hang, and leaves no child. */
void end_at_once() {
    QMRT_LOG(LM_ERROR, "The agent has not ended in time (agent.stop_timeout); what is still on is "
                       "given up\n");
    Child_Registry::instance().end_all();
    _exit(0);
}

bool is_there(std::string const& path) {
    return access(path.c_str(), F_OK) == 0;
}

} // namespace

Agent_Service::Agent_Service(Agent_Config const& config) : config_(config) {
    set_tool_limits(config);
    set_platform_settings(config);
}

Agent_Service::~Agent_Service() {
    (void)stop();
}

int Agent_Service::database_version() {
    return static_cast<int>(migrations().size());
}

std::unique_ptr<Agent_Service> Agent_Service::start(Agent_Config const& config,
                                                    std::string& error) {
    std::unique_ptr<Agent_Service> service(new Agent_Service(config));
    if (service->open_data(error) && service->load_keys(error) &&
        service->install_back_ends(error) && service->load_module(error) &&
        service->recover(error) && service->serve(error))
        return service;
    return nullptr;
}

bool Agent_Service::open_data(std::string& error) {
    directory_ = Data_Directory::take(config_.data_dir, error);
    if (!directory_)
        return false;
    database_ = Agent_Database::open(directory_->file("agent.db"), migrations(), error);
    if (!database_)
        return false;
    if (!identity_.load(*database_)) {
        error = "The agent's database " + database_->path() + " cannot be written";
        return false;
    }
    Host_Manager* const host = Host_Manager::instance();
    host->uuid(identity_.host_uuid);
    if (!config_.name.empty())
        host->name(config_.name);
    host->component(config_.role == "backupd" ? Host_Manager::CPN_BACKUPD
                                              : Host_Manager::CPN_AGENT);
    return true;
}

bool Agent_Service::load_keys(std::string& error) {
    if (!load_access_key(or_else(config_.access_key_file, directory_->file("access.key")),
                         config_.access_key_file.empty(), access_key_, error))
        return false;
    if (is_member() && !load_access_key(config_.backupd_key_file, false, upstream_key_, error))
        return false;
    if (!config_.remote || !config_.certificate.empty())
        return true;
    std::string const folder = directory_->file("tls");
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        error = "Cannot make " + folder + ": " + strerror(errno);
        return false;
    }
    config_.certificate = folder + "/agent.crt";
    config_.private_key = folder + "/agent.key";
    return (is_there(config_.certificate) && is_there(config_.private_key)) ||
           make_self_signed(config_.certificate, config_.private_key,
                            Host_Manager::instance()->name(), error);
}

bool Agent_Service::install_back_ends(std::string& error) {
    std::optional<Account_Key> key = Account_Key::load(directory_->file("account.key"), error);
    if (!key)
        return false;
    journal_ = Write_Journal::open(directory_->file("pool_writes.journal"), error);
    if (!journal_)
        return false;
    catalog_ = std::make_shared<SQLite_Catalog>(*database_);
    instances_ = std::make_shared<SQLite_Instances>(*database_, std::move(*key), is_member());
    pools_ = std::make_shared<SQLite_Pools>(
        *database_, [this](std::string const& pool, std::vector<Resource_Usage>& usage) {
            return catalog_->pool_usage(pool, usage);
        });
    storage_ =
        std::make_shared<Agent_Storage_Backend>(std::make_shared<File_Storage_Backend>(), *pools_,
                                                *journal_, ask_catalog(*pools_, *catalog_));
    set_files_ = std::make_unique<Set_Files>(*pools_, *catalog_, *journal_, *storage_);
    pool_status_ = std::make_unique<Pool_Status>(*storage_, *catalog_);
    group_instances_ = std::make_unique<Group_Instances>(*database_, identity_);
    members_ = std::make_unique<Group_Members>(*database_);
    if (!members_->load()) {
        error = "The members of the group cannot be read; the log says why";
        return false;
    }
    access_ =
        std::make_unique<Method_Access>(*catalog_, *members_, *group_instances_, keys_, holds_);
    std::set<std::string> hosts;
    for (Member_Record const& member : members_->list())
        if (!member.host_uuid.empty())
            hosts.insert(member.host_uuid);
    holds_.await(std::move(hosts));
    run_access_ = std::make_unique<Run_Access>(keys_, holds_, identity_.host_uuid, is_member());
    catalog_->on_abort([this](Dropped_Set const& set) { remove_files(set); });
    Host_Services& services = Host_Services::instance();
    services.instances(instances_);
    services.storage("file", storage_);
    if (is_member()) {
        services.catalog(std::make_shared<Remote_Catalog>());
        services.pools(std::make_shared<Remote_Pools>());
    } else {
        services.catalog(catalog_);
        services.pools(pools_);
    }
    return true;
}

bool Agent_Service::load_module(std::string& error) {
    module_ = Agent_Module::load(or_else(config_.module, installed_module()), error);
    if (!module_)
        return false;
    if (module_->instance_handler())
        Instance_Manager::instance()->add_handler(module_->instance_handler());
    probe_ = std::make_unique<Instance_Probe>(module_->instance_handler());
    make_jobs();
    return true;
}

void Agent_Service::make_jobs() {
    Job_Module module{AGENT,
                      module_->job_creator(),
                      module_->backup_options(),
                      module_->restore_options(),
                      module_->backup_source(),
                      module_->restore_source()};
    Definition_Defaults defaults{
        AGENT, identity_.uid, identity_.host_uuid,
        [this](std::string const& pool, Pool_Info& info, std::string& error) {
            Storage_Result const found = find_pool(pool, info);
            error = found.text();
            return static_cast<bool>(found);
        },
        [this](std::string const& name, std::string& uuid, std::string& error) {
            return instance_condition_->find(name, uuid, error);
        }};
    definitions_ = std::make_unique<Definition_Store>(*database_);
    runs_ = std::make_shared<Agent_Jobs>(
        *database_, Agent_Jobs::Settings{.log_directory = directory_->file("logs"),
                                         .keep_runs = static_cast<size_t>(config_.kept_runs)});
    runs_->on_failed([this](std::string const& run_id) { drop_set_of(run_id); });
    runs_->on_finished([this] { clear_up(); });
    // a set's uuid is its run's id
    catalog_->on_pieces(
        [runs = runs_](std::string const& uuid, uint64_t size) { runs->stored(uuid, size); });
    runs_->keys({[this](Job const& job, std::string const& instance) {
                     return run_access_->begin(job, instance);
                 },
                 [this](std::string const& run_id) { run_access_->end(run_id); }});
    instance_condition_ = std::make_unique<Instance_Condition>(*probe_, identity_.host_uuid);
    runs_->judge_skips([this](std::string const& instance) {
        return instance_condition_->fault_of_skip(instance);
    });
    runs_->holds({[this](Job const& job, std::set<std::string> const& resources) {
                      return run_access_->hold(job, resources);
                  },
                  [this](Job const& job, std::set<std::string> const& resources) {
                      run_access_->release(job, resources);
                  }});
    Host_Services::instance().jobs(runs_);
    jobs_ = std::make_unique<Job_Manager>(
        *definitions_, *runs_,
        Job_Manager::Settings{
            {module},
            std::move(defaults),
            directory_->file("activity"),
            {[this](Stored_Definition const& definition) {
                 return instance_condition_->may_start(definition);
             },
             [this](Stored_Definition const& definition) { return pool_condition(definition); }}});
    scheduler_ = std::make_unique<Scheduler>(*jobs_, *definitions_, *runs_);
    watch_ = std::make_shared<Job_Watch>(*runs_);
    probe_->on_searched([this] { scheduler_->wake(); });
}

bool Agent_Service::recover(std::string& error) {
    if (!runs_->recover()) {
        error = "The runs of the agent that died cannot be put in order; the log says why";
        return false;
    }
    if (!drop_open_sets(identity_.host_uuid, std::numeric_limits<time_t>::max())) {
        error = "The backup sets of the agent that died cannot be put in order; the log says why";
        return false;
    }
    unmount_dead_pools(); // they cover the databases' cache directories
    Sweep_Result const swept = sweep_pool_writes(*journal_, ask_catalog(*pools_, *catalog_));
    if (swept.removed + swept.unfinished > 0)
        QMRT_LOG(LM_INFO, "Removed %Q objects and %Q unfinished files that no backup set has\n",
                 static_cast<ACE_UINT64>(swept.removed), static_cast<ACE_UINT64>(swept.unfinished));
    return true;
}

Storage_Result Agent_Service::find_pool(std::string const& pool, Pool_Info& info) const {
    if (is_member())
        return Remote_Pools().find(pool, info);
    Pool_Record record;
    Storage_Result const found = pools_->find_record(pool, record);
    info = record.info();
    return found;
}

/** A backup to a pool that does not exist any more fails at once. */
Start_Answer Agent_Service::pool_condition(Stored_Definition const& definition) const {
    json_spirit::Object const* target = nullptr;
    if (json_spirit::object_get_str(definition.body, "type") != "backup" ||
        !json_spirit::object_get(definition.body, "target", target))
        return {};
    Pool_Info info;
    std::string const uuid = json_spirit::object_get_str(*target, "id");
    // a backup server that cannot be reached now is the job's matter
    if (find_pool(uuid, info).code() != Storage_Result::NOT_FOUND)
        return {};
    return Start_Answer::fail("its pool " + uuid +
                              " does not exist any more; `zenbrak3 schedule update` gives a "
                              "schedule another one");
}

bool Agent_Service::drop_open_sets(std::string const& host_uuid, time_t before,
                                   std::string const& uuid) {
    std::vector<Dropped_Set> dropped;
    if (!catalog_->abort_open_sets(host_uuid, before, dropped, uuid))
        return false;
    for (Dropped_Set const& set : dropped) {
        if (uuid.empty())
            QMRT_LOG(LM_WARNING, "Dropped the backup set %s, whose run did not end\n",
                     set.uuid.c_str());
        else
            QMRT_LOG(LM_INFO, "Dropped the backup set %s, whose run did not succeed\n",
                     set.uuid.c_str());
        remove_files(set);
    }
    return true;
}

/** Drops the set with the run's id: not every job drops its set when it fails. */
void Agent_Service::drop_set_of(std::string const& run_id) {
    if (is_member())
        group_->drop_set_of(run_id);
    else
        (void)drop_open_sets(identity_.host_uuid, std::numeric_limits<time_t>::max(),
                             run_id); // if this fails, the next start drops it
}

void Agent_Service::remove_files(Dropped_Set const& set) {
    std::vector<Pool_Object> noted;
    (void)set_files_->note(set, noted);
    set_files_->remove(noted);
}

void Agent_Service::clear_up() {
    Set_Question const in_catalog = ask_catalog(*pools_, *catalog_);
    journal_->settle(in_catalog);
    // what a run that is on has written belongs to a set that is not complete yet
    auto const unless_on = [&](Pool_Object const& object, bool& named) {
        return !runs_->is_any_on() && in_catalog(object, named);
    };
    sweep_pool_writes(*journal_, unless_on, storage_.get());
}

bool Agent_Service::serve(std::string& error) {
    group_ = std::make_unique<Agent_Group>(config_, identity_, methods_, routes_, *instances_,
                                           *access_, *run_access_);
    if (!group_->prepare(upstream_key_, error))
        return false;
    add_methods();
    Rpc_Server_Options options;
    options.socket_path = config_.socket;
    options.readers = config_.readers;
    options.network = config_.remote;
    options.address = config_.address;
    options.port = static_cast<unsigned short>(config_.port);
    options.certificate = config_.certificate;
    options.private_key = config_.private_key;
    options.access_key = access_key_;
    options.known_keys = [this](Key_Digest const& key) { return access_->caller(key); };
    options.limits.message_bytes = static_cast<size_t>(config_.message_size);
    options.limits.connections = static_cast<size_t>(config_.connections);
    options.limits.message = std::chrono::seconds(config_.message_timeout);
    options.limits.unfinished_bytes = static_cast<size_t>(config_.unfinished_size);
    server_ = std::make_unique<Rpc_Server>(methods_, routes_, options);
    if (!make_parent(config_.socket, error) || !server_->start(error))
        return false;
    if (!group_->join(server_->port(), error))
        return false;
    probe_->start(config_.probe_interval);
    scheduler_->start();
    return watch_->start() == 0;
}

void Agent_Service::add_methods() {
    methods_.gate([this](Method_Call const& call, Method_Fault& fault) {
        return access_->allows(call, fault) && may_remove_instance(*runs_, call, fault);
    });
    auto const audit = std::make_shared<Audit_Log>(*database_);
    methods_.audit([audit](Method_Call const& call, int code, std::string const& message) {
        audit->record(call, code, message);
    });
    add_audit_methods(methods_, audit);
    add_agent_methods(methods_, config_, identity_, *database_, *module_);
    add_instance_methods(methods_, identity_, *probe_, module_->guide());
    add_guide_methods(methods_, module_->guide());
    add_job_methods(methods_, *jobs_, *runs_, *scheduler_);
    add_schedule_methods(methods_, *jobs_, *scheduler_, [this](std::string const& uuid) {
        Pool_Info info;
        return find_pool(uuid, info) ? info.name : uuid;
    });
    methods_.bind("job.watch", watch_);
    if (is_member())
        forward_catalog_methods(methods_);
    else
        add_catalog_methods();
    std::vector<std::string> of_module;
    for (auto const& [name, handler] : module_->methods()) {
        methods_.bind(name, handler);
        of_module.push_back(name);
    }
    note_tool_calls(methods_, of_module);
    for (std::string const& name : methods_.names())
        if (!Method_Access::has_row(name))
            QMRT_LOG(LM_ERROR, "Nobody may call the method '%s': the agent does not know it\n",
                     qmrt::to_one_line(name).c_str());
    add_rpc_route(routes_, methods_);
}

void Agent_Service::add_catalog_methods() {
    add_pool_methods(methods_, *pool_status_, *pools_, *access_);
    add_backup_methods(methods_, *catalog_, *pools_, *set_files_, *runs_, *access_);
    add_group_member_methods(methods_, *members_, *pools_, *group_->server());
    add_run_methods(methods_, keys_, holds_);
    add_group_methods(methods_, *group_instances_, *catalog_, identity_);
    methods_.add("catalog.abort_open",
                 [this](Method_Call const& call, json_spirit::Value& result, Method_Fault& fault) {
                     std::string error, host_uuid, uuid;
                     int64_t before = 0;
                     Member_Reader reader(call.params.get_obj(), "", error);
                     reader.required_text("host_uuid", host_uuid, names::fault_of_id);
                     if (!reader.number("before", 0, INT64_MAX, before))
                         reader.blame("before", "is missing");
                     reader.text("uuid", uuid, names::fault_of_id);
                     if (!reader.finish())
                         return invalid_params(error, fault);
                     result = json_spirit::Object();
                     return drop_open_sets(host_uuid, before, uuid);
                 });
    add_instance_hosts_route(routes_, [this](std::string const& instance_uuid) {
        return group_instances_->hosts_of(instance_uuid);
    });
}

void Agent_Service::reload(Agent_Config const& config) {
    config_.stop_timeout = config.stop_timeout;
    probe_->interval(config.probe_interval);
    set_tool_limits(config);
    set_platform_settings(config);
    scheduler_->wake();
}

/** @return false when a job has not ended, not even without its tools */
bool Agent_Service::end_jobs() {
    int64_t const reserve = time_behind_jobs(config_.stop_timeout);
    if (jobs_->shutdown(config_.stop_timeout - reserve).empty())
        return true;
    Child_Registry::instance().end_all();
    return jobs_->shutdown(reserve / 2).empty();
}

bool Agent_Service::stop() {
    if (stopped_)
        return true;
    stopped_ = true;
    // the longer time is for what the end of all children makes end, too
    Stop_Watchdog const watchdog(
        std::chrono::seconds(config_.stop_timeout) + std::chrono::seconds(1), end_at_once);
    bool all_ended = true;
    // what answers nobody any more ends at once; nobody asks for anything new; then what runs ends;
    // then what it worked with goes
    if (probe_)
        probe_->cancel();
    methods_.cancel();
    if (scheduler_)
        scheduler_->stop();
    if (jobs_)
        all_ended = end_jobs();
    if (probe_)
        probe_->stop();
    if (group_)
        group_->stop();
    if (server_)
        server_->stop();
    methods_.stop();
    if (watch_)
        watch_->stop();
    if (catalog_)
        (void)drop_open_sets(identity_.host_uuid, std::numeric_limits<time_t>::max());
    if (!all_ended)
        return false;
    // the last lines of a job's code are the module's
    ACE_Thread_Manager::instance()->wait();
    if (module_ && module_->instance_handler())
        Instance_Manager::instance()->remove_handler(AGENT);
    Host_Services& services = Host_Services::instance();
    services.upstream(nullptr);
    services.jobs(nullptr);
    services.storage("file", nullptr);
    services.pools(nullptr);
    services.instances(nullptr);
    services.catalog(nullptr);
    return true;
}
