#ifndef AGENT_CLI_COMMAND_LINE_H
#define AGENT_CLI_COMMAND_LINE_H

#include "agent/cli/check_command.h"
#include "agent/cli/commands.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <map>
#include <string>
#include <vector>

/**
 * The command line: which commands there are, what each takes, and its help. Parsing it asks the
 * agent nothing.
 */
class Command_Line {
public:
    Command_Line();
    Command_Line(Command_Line const&) = delete;
    Command_Line& operator=(Command_Line const&) = delete;

    /**
     * Parses the arguments.
     * @param status  when false, what to exit with: help has been printed, or what is wrong
     * @return true when there is a command to run
     */
    [[nodiscard]] bool parse(int argc, char const* const* argv, int& status);

    /** Runs the command that was parsed. @return what to exit with */
    int run(Command_Context& context) const { return action_(context); }

    std::string const& socket() const { return socket_; }
    [[nodiscard]] bool json() const { return json_; }
    List_Wishes const& list() const { return list_; }

    /** All commands, "pool create" for one of a group, in the order of the help. */
    std::vector<std::string> commands() const;

private:
    using Action = std::function<int(Command_Context&)>;

    CLI::App* command(CLI::App& parent, char const* name, char const* what, char const* examples,
                      Action const& action);
    CLI::App* group(char const* name, char const* what);
    void add_common_options(CLI::App& command);
    void add_watch(CLI::App& command);
    /** --columns, --sort, --filter and --limit; text_of_list() obeys them. */
    void add_list_options(CLI::App& command);
    void add_wait(CLI::App& command);
    void add_progress(CLI::App& command);
    void add_uid(CLI::App& command);
    void add_option_values(CLI::App& command);
    void add_scripts(CLI::App& command);
    void add_consent(CLI::App& command);

    void add_agent_commands();
    void add_audit_command();
    void add_check_command();
    void add_instance_commands();
    void add_declared_instances(CLI::App& instances);
    void add_platform_login(CLI::App& command);
    void add_platform_commands();
    void add_pool_commands();
    void add_pool_wishes(CLI::App& pool);
    void add_member_commands();
    void add_backup_command();
    void add_restore_command();
    void add_job_commands();
    void add_definition_commands();
    void add_schedule_commands();
    void add_schedule_changes(CLI::App& schedules);
    void add_schedule_wishes(CLI::App& command);
    void check_backup() const;

    CLI::App app_;
    std::map<CLI::App const*, Action> actions_;
    Action action_;

    std::string socket_;
    bool json_ = false;
    double watch_ = 0;
    List_Wishes list_;
    bool refresh_ = false;
    bool follow_ = false;
    bool now_ = false;
    bool no_wait_ = false;
    Wait wait_;
    Consent consent_;
    std::string level_ = "full";
    std::string instance_;
    Declared_Instance declared_;
    Platform_Login platform_;
    Platform_Addition addition_;
    Platform_Change platform_change_;
    std::string database_;
    std::string username_;
    std::string uid_;
    std::string pool_;
    Check_Wishes check_;
    std::string job_;
    std::string backup_;
    bool dependents_ = false;
    std::string definition_;
    std::string file_;
    std::string what_;
    Job_Wishes wishes_;
    std::string schedule_;
    std::string schedule_level_;
    Schedule_Wishes schedule_wishes_;
    Pool_Wishes pool_wishes_;
    std::string member_;
    Member_Wishes member_wishes_;
    Backup_Filter backup_filter_;
    Job_Filter job_filter_;
    Audit_Filter audit_filter_;
    CLI::App* backup_command_ = nullptr;
};

#endif
