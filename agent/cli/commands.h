#ifndef AGENT_CLI_COMMANDS_H
#define AGENT_CLI_COMMANDS_H

#include "agent/cli/command_context.h"
#include "agent/cli/consent.h"
#include "agent/cli/definition.h"
#include "agent/cli/job_progress.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

/**
 * The commands, one function each. All return what the program exits with, and have told the user
 * what went wrong. Lists that change take an interval in seconds, 0 to show them once.
 */

/** The user on whose behalf a command acts: @a wish, else the agent's own default. */
[[nodiscard]] bool find_uid(Command_Context& context, std::string const& wish, std::string& uid);

/** What is said of the agent, its instances and its pools. */
int show_info(Command_Context& context);
/** Which changes to list; "" and 0 for any. */
struct Audit_Filter {
    std::string user;
    std::string subject;
    int64_t days = 0;
};
int list_audit(Command_Context& context, Audit_Filter const& filter);
int list_instances(Command_Context& context, bool refresh, double interval);
int show_instance(Command_Context& context, std::string const& instance);
/** @param options  "key=value" each */
int save_instance(Command_Context& context, std::string const& instance,
                  std::vector<std::string> const& options);
int remove_instance(Command_Context& context, std::string const& instance, Consent const& consent);

/** What is to be said of a cluster that is reached by ssh; nothing of what is empty. */
struct Declared_Instance {
    std::string address; ///< HOST or ACCOUNT@HOST
    std::string meta_path;
    int backup_port = 0;
    std::optional<std::string> source_commands;
    std::optional<std::string> ssh_options;
    std::string host_key; ///< fingerprint of the one to accept
    std::string uid;
};
/** Asks on a terminal for what is missing, tries the way to the cluster, and puts it on record. */
int add_instance(Command_Context& context, std::string const& instance,
                 Declared_Instance const& wishes);
/** Tries the cluster with the changes before they are recorded. */
int change_instance(Command_Context& context, std::string const& instance,
                    Declared_Instance const& wishes);
int list_databases(Command_Context& context, std::string const& instance, std::string const& uid);
int list_schemas(Command_Context& context, std::string const& instance, std::string const& database,
                 std::string const& uid);
/** Asks for the password, or reads it from stdin. */
int save_account(Command_Context& context, std::string const& instance, std::string const& username,
                 std::string const& uid);

/** Port of a platform's REST interface, unless said otherwise. */
constexpr int DEFAULT_PLATFORM_PORT = 8002;

/** Address and user of a platform; the password is asked for, or read from stdin. */
struct Platform_Login {
    std::string endpoint; ///< HOST[:PORT]
    std::string username;
    bool no_tls = false;
};
int list_platform(Command_Context& context, Platform_Login const& wishes);
/** The instances of a platform to add, and their route to the XBSA service. */
struct Platform_Addition {
    std::vector<std::string> names;
    bool all = false; ///< all instances that are not on record
    std::string xbsa_host;
    int xbsa_port = 0;
    bool no_xbsa_tls = false;
    std::string uid;
};
/** Adds all named instances, or none. */
int add_from_platform(Command_Context& context, Platform_Login const& wishes,
                      Platform_Addition const& addition);
/** What to change of an instance of a platform; empty members change nothing. */
struct Platform_Change {
    std::string endpoint; ///< HOST[:PORT]
    bool tls = false;
    bool no_tls = false;
    std::string xbsa_host;
    int xbsa_port = 0;
    bool xbsa_tls = false;
    bool no_xbsa_tls = false;
};
int change_platform(Command_Context& context, std::string const& instance,
                    Platform_Change const& wishes);

/** What is to be said of a pool; nothing of what is empty. */
struct Pool_Wishes {
    std::string name;
    std::string url;         ///< or a directory
    std::string compression; ///< "zstd:3"
    std::string limit;       ///< "100 GiB"; "0" for none
    bool read_only = false;
    bool writable = false; ///< no longer read-only
    bool separate = false; ///< its directory is closed to others
};
int list_pools(Command_Context& context, double interval);
int create_pool(Command_Context& context, Pool_Wishes const& wishes);
int update_pool(Command_Context& context, std::string const& pool, Pool_Wishes const& wishes);
int remove_pool(Command_Context& context, std::string const& pool, Consent const& consent);

/** What is to be said of a new member of the group. */
struct Member_Wishes {
    std::string name;
    std::string host; ///< uuid of its host; "" for the one that it joins as first
    std::vector<std::string> pools;
    bool all_pools = false;
};
int list_members(Command_Context& context, double interval);
/** Prints the new member's key on a line of its own, for a file. */
int add_member(Command_Context& context, Member_Wishes const& wishes);
int remove_member(Command_Context& context, std::string const& member, Consent const& consent);

struct Backup_Filter {
    std::string instance;
    std::string pool;
    std::string type;
    std::string table; ///< "[[DATABASE.]SCHEMA.]TABLE" that it holds
};
int list_backups(Command_Context& context, Backup_Filter const& filter, double interval);
int show_backup(Command_Context& context, std::string const& backup);
int remove_backup(Command_Context& context, std::string const& backup, bool dependents,
                  Consent const& consent);

int list_definitions(Command_Context& context, double interval);
int show_definition(Command_Context& context, std::string const& definition);
/** @param file  of one definition as JSON; "-" for stdin */
int save_definition(Command_Context& context, std::string const& file);
int remove_definition(Command_Context& context, std::string const& definition);

/** How a run that was started, or that is looked at, is waited for. */
struct Wait {
    bool wait = true;
    double interval = 1; ///< seconds between two updates of the progress
    Progress_Form progress = Progress_Form::AUTO;
};
int back_up(Command_Context& context, std::string const& instance, std::string const& pool,
            std::string const& level, Job_Wishes const& wishes, Wait const& wait);
/** @param backup  id of a backup; the name of an instance if @a wishes have a time */
int restore(Command_Context& context, std::string const& backup, std::string const& restore_as,
            Job_Wishes const& wishes, Wait const& wait, Consent const& consent);
/** Saves a definition and starts it. */
int run_definition_file(Command_Context& context, std::string const& file, Wait const& wait);
/** @param level  of the backup; "" for the definition's */
int start_definition(Command_Context& context, std::string const& definition, Wait const& wait,
                     std::string const& level = "");

/** When an instance is backed up by itself; nothing is said by what is empty. */
struct Schedule_Wishes {
    std::string pool;
    std::map<std::string, std::string> times; ///< by the level; "none" ends the level
    std::string time_zone;                    ///< "local" for the host's
    std::optional<bool> catch_up;
};
int add_schedule(Command_Context& context, std::string const& instance,
                 Schedule_Wishes const& wishes, Job_Wishes const& job);
int update_schedule(Command_Context& context, std::string const& schedule,
                    Schedule_Wishes const& wishes, Job_Wishes const& job);
int list_schedules(Command_Context& context, std::string const& instance, double interval);
int show_schedule(Command_Context& context, std::string const& schedule);
/** @param enabled  false pauses the schedule */
int enable_schedule(Command_Context& context, std::string const& schedule, bool enabled);
int remove_schedule(Command_Context& context, std::string const& schedule);
int run_schedule(Command_Context& context, std::string const& schedule, std::string const& level,
                 Wait const& wait);

struct Job_Filter {
    std::string definition;
    std::string instance;
    std::string state;
};
int list_jobs(Command_Context& context, Job_Filter const& filter, double interval);
int show_job(Command_Context& context, std::string const& job);
/** @param follow  goes on until the run is over */
int show_job_log(Command_Context& context, std::string const& job, bool follow, double interval);
/** Asks the agent to cancel a run, and looks for a moment whether it ends. */
int cancel_job(Command_Context& context, std::string const& job, bool now);
/** @param action  "stop", "pause" or "resume" */
int change_job(Command_Context& context, std::string const& job, std::string const& action);
/** Waits for a run that is on already. */
int wait_for_job(Command_Context& context, std::string const& job, Wait const& wait);

/**
 * Prints the names of "instances", "pools", "jobs" and so on, one a line, for the
 * completion of a shell: without a word about failures.
 */
int print_names(Command_Context& context, std::string const& what);

#endif
