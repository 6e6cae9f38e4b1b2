#include "agent/cli/command_line.h"

#include "agent/cli/name_check.h"

void Command_Line::add_option_values(CLI::App& command) {
    command
        .add_option("--rate", wishes_.rates,
                    "Limit the bytes per second to or from the pool: 200M, or 08:00-18:00=50M for "
                    "some hours of each day; may be repeated, the first that applies counts")
        ->type_name("[HH:MM-HH:MM=]SIZE")
        ->expected(1)
        ->take_all();
    command
        .add_option("-o,--option", wishes_.options,
                    "One of the job's options, as the manual of job definitions has them; may be "
                    "repeated")
        ->type_name("KEY=VALUE")
        ->expected(1)
        ->take_all();
    add_scripts(command);
}

void Command_Line::add_scripts(CLI::App& command) {
    char const* const group = "Scripts (shell commands, run as root on this host)";
    auto const script = [&](char const* name, std::string& text, char const* what) {
        return command.add_option(name, text, what)
            ->check(name_check(names::fault_of_text))
            ->type_name("COMMANDS")
            ->group(group);
    };
    script("--precondition", wishes_.precondition,
           "Run these first; if they fail, nothing is done and the run counts as skipped");
    CLI::Option* const before = script("--pre-action", wishes_.pre_action,
                                       "Run these before the job; if they fail, the job fails");
    CLI::Option* const behind =
        script("--post-action", wishes_.post_action,
               "Run these after a job that succeeded; if they fail, the job fails");
    command
        .add_flag("--ignore-pre-action-failure", wishes_.ignore_pre_action_failure,
                  "Go on with the job if the pre-action fails")
        ->needs(before)
        ->group(group);
    command
        .add_flag("--ignore-post-action-failure", wishes_.ignore_post_action_failure,
                  "The job succeeds even if the post-action fails")
        ->needs(behind)
        ->group(group);
    command
        .add_flag("--run-post-action-always", wishes_.run_post_action_always,
                  "Run the post-action also after a job, or a pre-action, that failed")
        ->needs(behind)
        ->group(group);
}
