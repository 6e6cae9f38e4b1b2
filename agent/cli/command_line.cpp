#include "agent/cli/command_line.h"

#include "agent/cli/guide.h"
#include "agent/cli/name_check.h"
#include "agent/cli/suggestion.h"
#include "agent/cli/terminal.h"
#include "agent/cli/unix_connection.h"
#include "json_spirit/text.h"
#include "qmrt/posix_time.h"

#include <algorithm>
#include <iostream>
#include <sstream>

namespace {

constexpr char COMMON[] = "Common options";
constexpr char LIST[] = "List options";
constexpr char POOL_URL[] = "Where the data is kept: /DIRECTORY or file:///DIRECTORY";
constexpr char FOOTER[] =
    "Examples:\n"
    "  zenbrak3 instances --refresh\n"
    "  zenbrak3 pool create main /var/backups/gaussdb --compression zstd:3\n"
    "  zenbrak3 backup prod --pool main\n"
    "  zenbrak3 backups prod\n"
    "  zenbrak3 restore 6f9619ff\n\n"
    "`zenbrak3 COMMAND --help` says more about each. Exit status: 0 done, 1 it failed, 2 wrong\n"
    "usage, 3 no agent, 4 not found, 5 refused, 6 the job was canceled, 130 interrupted.";

std::vector<std::string> const LEVELS{"full", "incremental", "cumulative", "log"};

/** All states that a run can have. */
std::vector<std::string> state_names() {
    std::vector<std::string> names;
    for (int state = JOB_STATE_NONE + 1; state <= JOB_STATE_OPENING; ++state)
        names.emplace_back(job_state_to_string(static_cast<Job_State>(state)));
    return names;
}

std::string examples_text(char const* examples) {
    return *examples ? std::string("Examples:\n") + examples : std::string();
}

bool is_said(int argc, char const* const* argv, std::string_view word) {
    return std::find(argv, argv + argc, word) != argv + argc;
}

} // namespace

Command_Line::Command_Line()
    : app_("Protects GaussDB databases: asks the agent of this host.", "zenbrak3") {
    app_.require_subcommand(1);
    app_.set_version_flag("--version", "zenbrak3 " ZENBRAK3_VERSION);
    app_.footer(FOOTER);
    app_.failure_message(CLI::FailureMessage::simple);
    add_common_options(app_);
    add_agent_commands();
    add_audit_command();
    add_instance_commands();
    add_platform_commands();
    add_pool_commands();
    add_member_commands();
    add_backup_command();
    add_restore_command();
    add_schedule_commands();
    add_job_commands();
    add_definition_commands();
}

CLI::App* Command_Line::command(CLI::App& parent, char const* name, char const* what,
                                char const* examples, Action const& action) {
    CLI::App* const added = parent.add_subcommand(name, what);
    added->footer(examples_text(examples));
    add_common_options(*added);
    actions_[added] = action;
    return added;
}

CLI::App* Command_Line::group(char const* name, char const* what) {
    CLI::App* const added = app_.add_subcommand(name, what);
    added->require_subcommand(1);
    return added;
}

void Command_Line::add_common_options(CLI::App& command) {
    command
        .add_option("--socket", socket_,
                    "Where the agent listens, in place of ZENBRAK3_SOCKET and of " +
                        std::string(DEFAULT_AGENT_SOCKET))
        ->type_name("PATH")
        ->group(COMMON);
    command.add_flag("--json", json_, "Print the agent's answer as JSON")->group(COMMON);
}

void Command_Line::add_watch(CLI::App& command) {
    command.add_option("--watch", watch_, "Show it again every so many seconds, 2 if not said")
        ->type_name("SECONDS")
        ->expected(0, 1)
        ->default_str("2")
        ->check(seconds_check("0.1"));
}

void Command_Line::add_list_options(CLI::App& command) {
    command
        .add_option("--columns", list_.columns,
                    "Show these columns: their titles with commas, in any case, '-' for a blank")
        ->type_name("COLUMN,...")
        ->group(LIST)
        ->delimiter(',')
        ->expected(1)
        ->take_all();
    command
        .add_option("--sort", list_.sort,
                    "Sort by these columns; COLUMN:desc has the greatest first")
        ->type_name("COLUMN[:desc],...")
        ->group(LIST)
        ->delimiter(',')
        ->expected(1)
        ->take_all();
    command
        .add_option("--filter", list_.filters,
                    "List the rows that match: COLUMN=TEXT, or with != ~ < <= > >=, where ~ is "
                    "\"contains\"; may be repeated, all must match")
        ->type_name("CONDITION")
        ->group(LIST)
        ->expected(1)
        ->take_all();
    command
        .add_option_function<int64_t>(
            "--limit", [this](int64_t limit) { list_.limit = limit; },
            "List at most so many rows, of those that match and as they are sorted; 0 for all")
        ->type_name("N")
        ->group(LIST)
        ->check(whole_number_check(0, INT32_MAX));
}

void Command_Line::add_wait(CLI::App& command) {
    command.add_flag("--no-wait", no_wait_, "Start the job and do not wait for its end");
    add_progress(command);
}

void Command_Line::add_progress(CLI::App& command) {
    command
        .add_option("--interval", wait_.interval,
                    "Seconds between two updates of the job's progress; a change of its state is "
                    "shown at once")
        ->type_name("SECONDS")
        ->check(seconds_check("0.01"));
    static std::map<std::string, Progress_Form> const forms{{"auto", Progress_Form::AUTO},
                                                            {"bar", Progress_Form::BAR},
                                                            {"lines", Progress_Form::LINES},
                                                            {"json", Progress_Form::JSON},
                                                            {"none", Progress_Form::NONE}};
    std::vector<std::string> names;
    for (auto const& form : forms)
        names.push_back(form.first);
    command
        .add_option_function<std::string>(
            "--progress", [this](std::string const& form) { wait_.progress = forms.at(form); },
            "Show the progress as auto (a bar on a terminal, elsewhere lines), bar, "
            "lines, json (one line of JSON for each change, the last one for the end), none")
        ->type_name("FORM")
        ->check(one_of("a form of progress", names));
}

void Command_Line::add_uid(CLI::App& command) {
    command.add_option("--uid", uid_, "Act as this user in place of the agent's default")
        ->check(name_check(names::fault_of_id))
        ->type_name("UUID");
}

void Command_Line::add_consent(CLI::App& command) {
    CLI::Option* const yes =
        command.add_flag("-y,--yes", consent_.yes, "Do it without asking, as scripts need it");
    command.add_flag("--dry-run", consent_.dry_run, "Show what it would do, and do nothing")
        ->excludes(yes);
}

void Command_Line::add_agent_commands() {
    command(app_, "info", "Show what the agent is", "  zenbrak3 info\n", show_info);
    CLI::App* const flavours =
        command(app_, "flavours", "List the kinds of databases, and what can be done with each",
                "  zenbrak3 flavours\n", list_flavours);
    add_list_options(*flavours);
    add_check_command();
    CLI::App* const names = command(app_, "complete", "", "", [this](Command_Context& context) {
        if (what_ != "commands")
            return print_names(context, what_);
        for (std::string const& name : commands())
            context.print(name + "\n");
        return int{EXIT_OK};
    });
    names->group(""); // for the shell's completion, not for people
    names->add_option("WHAT", what_)->required();
}

void Command_Line::add_audit_command() {
    CLI::App* const audit =
        command(app_, "audit", "List the changes that administrators have made, the newest first",
                "  zenbrak3 audit\n  zenbrak3 audit --user anna --days 7\n"
                "  zenbrak3 audit --subject prod\n",
                [this](Command_Context& context) { return list_audit(context, audit_filter_); });
    audit
        ->add_option("--user", audit_filter_.user,
                     "Only those of this user, by name or uid, before or after sudo")
        ->type_name("USER");
    audit
        ->add_option("--subject", audit_filter_.subject,
                     "Only those of this instance, pool, job, backup, definition or member, by the "
                     "name or id that was given")
        ->type_name("NAME");
    audit->add_option("--days", audit_filter_.days, "Only those of the last so many days")
        ->type_name("DAYS")
        ->check(whole_number_check(1, 36500));
    add_list_options(*audit);
}

void Command_Line::add_check_command() {
    CLI::App* const checked =
        command(app_, "check", "Check that an instance can be protected, and say what is missing",
                "  zenbrak3 check\n  zenbrak3 check prod --pool main\n"
                "  zenbrak3 check t1 --cache-dir /var/backups/t1\n"
                "  zenbrak3 check prod --nagios    one line and its exit status, for monitoring\n",
                [this](Command_Context& context) {
                    check_.uid = uid_;
                    return check(context, check_);
                });
    checked->add_option("INSTANCE", check_.instance, "An instance; without one the agent alone")
        ->check(name_check(names::fault_of_label));
    checked->add_option("--pool", check_.pool, "Also the way to this pool")
        ->check(name_check(names::fault_of_label))
        ->type_name("POOL");
    checked
        ->add_option("--cache-dir", check_.cache_dir,
                     "Also the directory that the database writes its backups to, where it does; "
                     "as last time if it is not given")
        ->check(name_check(names::fault_of_absolute_path))
        ->type_name("DIRECTORY");
    checked
        ->add_option("--timeout", check_.timeout,
                     "Seconds for the whole check; what hangs is ended and reported")
        ->type_name("SECONDS")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
    checked->add_flag("--nagios", check_.nagios,
                      "Print one line, and exit with 0 to 3 (OK, WARNING, CRITICAL, UNKNOWN)");
    add_uid(*checked);
}

void Command_Line::add_pool_wishes(CLI::App& pool) {
    pool.add_option("--compression", pool_wishes_.compression,
                    "none, zstd, lzop or auto, with a level behind a colon")
        ->type_name("METHOD[:LEVEL]");
    pool.add_option("--limit", pool_wishes_.limit, "How much it may hold: 500GiB, 2T; 0: no limit")
        ->type_name("SIZE");
    pool.add_flag("--read-only", pool_wishes_.read_only, "Nothing new is written to it");
}

void Command_Line::add_pool_commands() {
    CLI::App* const list =
        command(app_, "pools", "List the storage pools", "  zenbrak3 pools\n",
                [this](Command_Context& context) { return list_pools(context, watch_); });
    add_watch(*list);
    add_list_options(*list);
    CLI::App* const pools = group("pool", "Create, change or remove a storage pool");
    CLI::App* const create =
        command(*pools, "create", "Create a storage pool",
                "  zenbrak3 pool create main /var/backups/gaussdb\n"
                "  zenbrak3 pool create main /backups --compression zstd:3 --limit 2TiB\n",
                [this](Command_Context& context) { return create_pool(context, pool_wishes_); });
    create->add_option("NAME", pool_wishes_.name, "What it is called")
        ->check(name_check(names::fault_of_title))
        ->required();
    create->add_option("URL", pool_wishes_.url, POOL_URL)->required();
    add_pool_wishes(*create);
    CLI::App* const update = command(
        *pools, "update", "Change what is said of a pool",
        "  zenbrak3 pool update main --limit 4TiB\n"
        "  zenbrak3 pool update main --limit 0 --compression zstd    no limit; the usual level\n"
        "  zenbrak3 pool update main --read-only\n",
        [this](Command_Context& context) { return update_pool(context, pool_, pool_wishes_); });
    update->add_option("POOL", pool_, "Its name or uuid")
        ->check(name_check(names::fault_of_label))
        ->required();
    update->add_option("--name", pool_wishes_.name, "What it is to be called")
        ->check(name_check(names::fault_of_title))
        ->type_name("NAME");
    update
        ->add_option("--url", pool_wishes_.url, std::string(POOL_URL) + ". You move what is in it")
        ->type_name("URL");
    add_pool_wishes(*update);
    update->add_flag("--separate", pool_wishes_.separate,
                     "Close its folders to all but root and each cluster's own user");
    update->add_flag("--writable", pool_wishes_.writable, "It is written to again")
        ->excludes("--read-only");
    CLI::App* const remove = command(
        *pools, "remove", "Remove a pool that holds no backups", "  zenbrak3 pool remove main\n",
        [this](Command_Context& context) { return remove_pool(context, pool_, consent_); });
    add_consent(*remove);
    remove->add_option("POOL", pool_, "Its name or uuid")
        ->check(name_check(names::fault_of_label))
        ->required();
}

void Command_Line::add_member_commands() {
    CLI::App* const list =
        command(app_, "members", "List the members of the group", "  zenbrak3 members\n",
                [this](Command_Context& context) { return list_members(context, watch_); });
    add_watch(*list);
    add_list_options(*list);
    CLI::App* const members = group("member", "Add or remove a member of the group");
    CLI::App* const add =
        command(*members, "add", "Add a member and print its key, once",
                "  zenbrak3 member add db2 --all-pools > db2.key\n"
                "  zenbrak3 member add db3 --pool main --host 4a7b6c1e-...    for that host only\n",
                [this](Command_Context& context) { return add_member(context, member_wishes_); });
    add->add_option("NAME", member_wishes_.name, "What it is called")->required();
    add->add_option("--host", member_wishes_.host,
                    "The only host that may use the key, by its uuid (zenbrak3 info there); the "
                    "first that joins with it when it is not given")
        ->type_name("UUID");
    CLI::Option* const all = add->add_flag("--all-pools", member_wishes_.all_pools,
                                           "It may use every pool, also those made later");
    add->add_option("--pool", member_wishes_.pools, "It may use this pool; may be repeated")
        ->type_name("POOL")
        ->allow_extra_args(false)
        ->excludes(all);
    CLI::App* const remove =
        command(*members, "remove", "Remove a member; its key opens nothing any more",
                "  zenbrak3 member remove db2\n", [this](Command_Context& context) {
                    return remove_member(context, member_, consent_);
                });
    add_consent(*remove);
    remove->add_option("MEMBER", member_, "Its name")->required();
}

void Command_Line::add_backup_command() {
    CLI::App* const backup =
        command(app_, "backup", "Back up an instance, or show or remove a backup",
                "  zenbrak3 backup prod --pool main\n"
                "  zenbrak3 backup prod --pool main --incremental --channels 4 --no-wait\n"
                "  zenbrak3 backup prod --pool main --compression zstd:3 -o logging_level=INFO\n"
                "  zenbrak3 backup dws1 --pool main --schema sales.public --schema sales.archive\n"
                "  zenbrak3 backup prod --pool main --rate 08:00-18:00=50M --rate 200M\n"
                "  zenbrak3 backup prod --pool main --precondition 'test ! -e /run/no-backup'\n"
                "  zenbrak3 backup show 6f9619ff\n"
                "  zenbrak3 backup --pool main -- show    an instance that is called \"show\"\n",
                [this](Command_Context& context) {
                    return back_up(context, instance_, pool_, level_, wishes_, wait_);
                });
    backup_command_ = backup;
    backup->require_subcommand(0, 1);
    backup->add_option("INSTANCE", instance_, "The instance to back up")
        ->check(name_check(names::fault_of_label));
    backup->add_option("--pool", pool_, "Where the backup goes: a pool's name or uuid")
        ->check(name_check(names::fault_of_label))
        ->type_name("POOL");
    auto* const level =
        backup->add_option("--level", level_, "How much is backed up, full if not said")
            ->check(one_of("a backup level", LEVELS));
    for (char const* name : {"incremental", "cumulative"})
        backup
            ->add_flag_callback(
                std::string("--") + name, [this, name] { level_ = name; },
                std::string("The same as --level ") + name)
            ->excludes(level);
    backup->get_option("--incremental")->excludes(backup->get_option("--cumulative"));
    backup
        ->add_option("--compression", wishes_.compression,
                     "none, zstd, lzop or auto, with a level behind a colon; "
                     "the pool's when it is not given")
        ->type_name("METHOD[:LEVEL]");
    backup->add_option("--channels", wishes_.channels, "Parallel streams")
        ->type_name("N")
        ->check(whole_number_check(1, 10000));
    backup->add_option("--name", wishes_.name, "Keep the job's definition under this name")
        ->check(name_check(names::fault_of_title));
    backup
        ->add_option("--schema", wishes_.schemas,
                     "Only this schema, of a flavour that has parts (zenbrak3 flavours); may be "
                     "repeated, for schemas of one database")
        ->type_name("DATABASE.SCHEMA")
        ->expected(1)
        ->take_all();
    add_option_values(*backup);
    add_uid(*backup);
    add_wait(*backup);

    CLI::App* const show =
        command(*backup, "show", "Show a backup and what it consists of",
                "  zenbrak3 backup show 6f9619ff\n",
                [this](Command_Context& context) { return show_backup(context, backup_); });
    show->add_option("BACKUP", backup_, "Its uuid, or a beginning that no other has")
        ->check(name_check(names::fault_of_id))
        ->required();

    CLI::App* const remove = command(
        *backup, "remove", "Remove a backup and its data, for ever",
        "  zenbrak3 backup remove 6f9619ff --yes\n"
        "  zenbrak3 backup remove 6f9619ff --with-dependents    and those that build on it\n",
        [this](Command_Context& context) {
            return remove_backup(context, backup_, dependents_, consent_);
        });
    add_consent(*remove);
    remove->add_option("BACKUP", backup_, "Its uuid, or a beginning that no other has")
        ->check(name_check(names::fault_of_id))
        ->required();
    remove->add_flag("--with-dependents", dependents_,
                     "Also the backups that build on it, which are of no use without it");

    CLI::App* const list = command(
        app_, "backups", "List the backups",
        "  zenbrak3 backups\n  zenbrak3 backups prod --type full --limit 10\n"
        "  zenbrak3 backups dws1 --table public.orders\n",
        [this](Command_Context& context) { return list_backups(context, backup_filter_, watch_); });
    list->add_option("INSTANCE", backup_filter_.instance, "Those of this instance")
        ->check(name_check(names::fault_of_label));
    list->add_option("--pool", backup_filter_.pool, "Those in this pool")
        ->check(name_check(names::fault_of_label))
        ->type_name("POOL");
    list->add_option("--type", backup_filter_.type, "Those of this level")
        ->check(one_of("a backup level", LEVELS))
        ->type_name("LEVEL");
    list->add_option("--table", backup_filter_.table, "Those that hold this table")
        ->check(name_check(names::fault_of_line))
        ->type_name("[[DATABASE.]SCHEMA.]TABLE");
    add_watch(*list);
    add_list_options(*list);
}

/** What CLI11 cannot say: the command is its own and a group at once. */
void Command_Line::check_backup() const {
    if (!backup_command_->parsed())
        return;
    if (!backup_command_->get_subcommands().empty()) {
        if (!instance_.empty())
            throw CLI::ExtrasError({instance_});
        return;
    }
    if (instance_.empty())
        throw CLI::RequiredError("INSTANCE");
    if (pool_.empty())
        throw CLI::RequiredError("--pool");
}

void Command_Line::add_restore_command() {
    CLI::App* const added =
        command(app_, "restore", "Restore a backup, or an instance to a time",
                "  zenbrak3 restore 6f9619ff --dry-run    what it would overwrite\n"
                "  zenbrak3 restore 6f9619ff\n"
                "  zenbrak3 restore prod --to '2026-11-22 10:15:00'\n"
                "  zenbrak3 restore 6f9619ff --instance rehearsal --yes\n"
                "  zenbrak3 restore 6f9619ff --as dws2 --config /home/omm/dws2.xml\n"
                "  zenbrak3 restore 6f9619ff --table public.orders=public.orders_before\n",
                [this](Command_Context& context) {
                    return restore(context, backup_, instance_, wishes_, wait_, consent_);
                });
    add_consent(*added);
    added
        ->add_option_function<std::string>(
            "--to",
            [this](std::string const& text) {
                if (!iso8601_to_posix_time(text, wishes_.restore_time) || wishes_.restore_time <= 0)
                    throw CLI::ValidationError("--to", "'" + names::shown(text) +
                                                           "' is not a time (expected one such as "
                                                           "'2026-11-22 10:15:00', with a zone "
                                                           "such as Z or +08:00 unless it is local "
                                                           "time)");
            },
            "Restore the instance named as BACKUP to this time, of a flavour that can")
        ->type_name("TIME");
    added
        ->add_option("BACKUP", backup_,
                     "Its uuid, or a beginning that no other has; with --to an instance")
        ->check(CLI::Validator(
            [this](std::string const& name) {
                return name_check(wishes_.restore_time ? names::fault_of_label
                                                       : names::fault_of_id)(name);
            },
            ""))
        ->required();
    added->add_option("--instance,--as", instance_, "Restore to this instance in place of its own")
        ->check(name_check(names::fault_of_label))
        ->type_name("INSTANCE");
    CLI::Option* const config =
        added
            ->add_option("--config", wishes_.config,
                         "The new cluster's XML configuration, on its database node, of a cluster "
                         "that is reached by ssh")
            ->check(name_check(names::fault_of_bare_path))
            ->type_name("FILE");
    added
        ->add_option("--table", wishes_.tables,
                     "Only this table, of a flavour that can (zenbrak3 flavours), under another "
                     "name if one is given; may be repeated, for tables of one database")
        ->type_name("[DATABASE.]SCHEMA.TABLE[=SCHEMA.TABLE]")
        ->expected(1)
        ->take_all()
        ->excludes(config)
        ->excludes(added->get_option("--to"));
    config->excludes(added->get_option("--to"));
    added->add_option("--channels", wishes_.channels, "Parallel streams")
        ->type_name("N")
        ->check(whole_number_check(1, 10000));
    added->add_option("--name", wishes_.name, "Keep the job's definition under this name")
        ->check(name_check(names::fault_of_title));
    add_option_values(*added);
    add_uid(*added);
    add_wait(*added);
}

void Command_Line::add_job_commands() {
    CLI::App* const list = command(
        app_, "jobs", "List the runs of jobs, the newest first",
        "  zenbrak3 jobs --state running --watch\n  zenbrak3 jobs --instance prod --limit 20\n",
        [this](Command_Context& context) { return list_jobs(context, job_filter_, watch_); });
    list->add_option("--instance", job_filter_.instance, "Those of this instance")
        ->check(name_check(names::fault_of_label));
    list->add_option("--definition", job_filter_.definition, "Those of this definition")
        ->check(name_check(names::fault_of_label));
    list->add_option("--state", job_filter_.state, "Those in this state: running, error...")
        ->check(one_of("a state of a job", state_names()));
    add_watch(*list);
    add_list_options(*list);

    CLI::App* const jobs = group("job", "Look at a job's run, or tell it what to do");
    CLI::App* const show =
        command(*jobs, "show", "Show a run and its alerts", "  zenbrak3 job show 0f3a91c2\n",
                [this](Command_Context& context) { return show_job(context, job_); });
    CLI::App* const log =
        command(*jobs, "log", "Print the log of a run", "  zenbrak3 job log 0f3a91c2 --follow\n",
                [this](Command_Context& context) {
                    return show_job_log(context, job_, follow_, wait_.interval);
                });
    log->add_flag("-f,--follow", follow_, "Go on until the run is over");
    CLI::App* const wait =
        command(*jobs, "wait", "Wait for the end of a run", "  zenbrak3 job wait 0f3a91c2\n",
                [this](Command_Context& context) { return wait_for_job(context, job_, wait_); });
    log->add_option("--interval", wait_.interval, "Seconds between two looks at the log")
        ->type_name("SECONDS")
        ->check(seconds_check("0.01"));
    add_progress(*wait);
    CLI::App* const cancel = command(
        *jobs, "cancel", "Cancel a run; one that waits ends at once",
        "  zenbrak3 job cancel 0f3a91c2\n"
        "  zenbrak3 job cancel 0f3a91c2 --now    do not wait for the database's backup tool\n",
        [this](Command_Context& context) { return cancel_job(context, job_, now_); });
    cancel->add_flag(
        "--now", now_,
        "End the run's programs on all hosts, within 15 seconds; without it a run ends "
        "when its program does");
    std::vector<CLI::App*> all{show, log, wait, cancel};
    struct Change {
        char const* name;
        char const* what;
        char const* examples;
    };
    for (Change const& change :
         {Change{"stop", "End a run at the next good place, where the job can be stopped so",
                 "  zenbrak3 job stop 0f3a91c2\n"},
          Change{"pause", "Let a run wait", "  zenbrak3 job pause 0f3a91c2\n"},
          Change{"resume", "Let a paused run go on", "  zenbrak3 job resume 0f3a91c2\n"}})
        all.push_back(command(*jobs, change.name, change.what, change.examples,
                              [this, action = std::string(change.name)](Command_Context& context) {
                                  return change_job(context, job_, action);
                              }));
    for (CLI::App* const one : all)
        one->add_option("RUN", job_, "Its id, or a beginning that no other has")
            ->check(name_check(names::fault_of_id))
            ->required();
}

void Command_Line::add_definition_commands() {
    CLI::App* const list =
        command(app_, "definitions", "List the job definitions", "  zenbrak3 definitions\n",
                [this](Command_Context& context) { return list_definitions(context, watch_); });
    add_watch(*list);
    add_list_options(*list);
    CLI::App* const run = command(
        app_, "run", "Save a definition from a file and start it",
        "  zenbrak3 run nightly.json\n"
        "  generate-definition | zenbrak3 run - --no-wait\n",
        [this](Command_Context& context) { return run_definition_file(context, file_, wait_); });
    add_wait(*run);

    CLI::App* const definitions = group("definition", "Save, start, show or remove a definition");
    CLI::App* const save =
        command(*definitions, "save", "Save a definition from a file",
                "  zenbrak3 definition save nightly.json\n",
                [this](Command_Context& context) { return save_definition(context, file_); });
    CLI::App* const started = command(
        *definitions, "start", "Start a definition now", "  zenbrak3 definition start nightly\n",
        [this](Command_Context& context) { return start_definition(context, definition_, wait_); });
    add_wait(*started);
    CLI::App* const show =
        command(*definitions, "show", "Print a definition, as `definition save` takes it",
                "  zenbrak3 definition show nightly > nightly.json\n",
                [this](Command_Context& context) { return show_definition(context, definition_); });
    CLI::App* const remove =
        command(*definitions, "remove", "Remove a definition; its runs and backups stay",
                "  zenbrak3 definition remove nightly\n", [this](Command_Context& context) {
                    return remove_definition(context, definition_);
                });
    for (CLI::App* const one : {run, save})
        one->add_option("FILE", file_, "A definition as JSON; - for stdin")->required();
    for (CLI::App* const one : {started, show, remove})
        one->add_option("DEFINITION", definition_, "Its name or id")
            ->check(name_check(names::fault_of_label))
            ->required();
}

bool Command_Line::parse(int argc, char const* const* argv, int& status) {
    try {
        app_.parse(argc, argv);
        check_backup();
        if (json_ && check_.nagios)
            throw CLI::ValidationError("--nagios", "cannot be combined with --json");
        if (json_ && watch_ > 0)
            throw CLI::ValidationError("--watch",
                                       "cannot be combined with --json, which prints one document");
        if (json_ && !list_.columns.empty())
            throw CLI::ValidationError("--columns",
                                       "cannot be combined with --json, which has all members");
    } catch (CLI::ParseError const& error) {
        std::ostringstream fault; // has in it what was typed, or pasted from elsewhere
        status = app_.exit(error, std::cout, fault) == 0 ? EXIT_OK : EXIT_USAGE;
        std::string what = error.what();
        if (status != EXIT_OK && argc > 0)
            if (std::string const word =
                    fault_of_words(app_, std::vector<std::string>(argv + 1, argv + argc));
                !word.empty()) {
                what = word;
                fault.str(word + "\nRun with --help for more information.\n");
            }
        if (status != EXIT_OK && is_said(argc, argv, "--nagios")) {
            std::cout << plugin_failure(what);
            status = PLUGIN_UNKNOWN;
            return false;
        }
        std::cerr << printable_lines(fault.str());
        if (status != EXIT_OK && is_said(argc, argv, "--json"))
            std::cout << printable_json(
                json_spirit::to_text(json_error(status, what,
                                                "`zenbrak3 --help` lists the commands, `zenbrak3 "
                                                "COMMAND --help` the options of one."),
                                     true));
        return false;
    }
    CLI::App const* parsed = &app_;
    while (!parsed->get_subcommands().empty())
        parsed = parsed->get_subcommands().front();
    action_ = actions_.at(parsed);
    wait_.wait = !no_wait_;
    return true;
}

std::vector<std::string> Command_Line::commands() const {
    std::vector<std::string> names;
    std::function<void(CLI::App const&, std::string const&)> const walk =
        [&](CLI::App const& parent, std::string const& prefix) {
            for (CLI::App const* const one : parent.get_subcommands(nullptr)) {
                if (actions_.count(one) && !one->get_group().empty())
                    names.push_back(prefix + one->get_name());
                walk(*one, prefix + one->get_name() + " ");
            }
        };
    walk(app_, "");
    return names;
}
