#ifndef AGENT_CLI_DEFINITION_H
#define AGENT_CLI_DEFINITION_H

#include "json_spirit/value.h"

#include <ctime>
#include <string>
#include <vector>

/**
 * Job definitions as the agent takes them, from what was said on the command line. Sources and
 * options are those of docs/job-definitions.md.
 */

/** What every job may be told. Empty or 0: nothing is said. */
struct Job_Wishes {
    std::string name; ///< the definition's; "" for a name by what it does
    std::string uid;
    std::string compression; ///< "zstd", or with its level "zstd:3"; backups only
    int channels = 0;
    /** Bytes per second, "200M" or "08:00-18:00=50M"; the first that applies counts. */
    std::vector<std::string> rates;
    /** Shell commands that root runs: before the job counts as begun, before it, behind it. */
    std::string precondition, pre_action, post_action;
    bool ignore_pre_action_failure = false;
    bool ignore_post_action_failure = false;
    bool run_post_action_always = false;
    std::vector<std::string> options; ///< "key=value", in the order in which they count
    std::vector<std::string> schemas; ///< "DATABASE.SCHEMA"; backups only
    /** "[DATABASE.]SCHEMA.TABLE", with "=SCHEMA.TABLE" for another target; restores only. */
    std::vector<std::string> tables;
    std::string config;      ///< the new cluster's, on its node; restores only
    time_t restore_time = 0; ///< to which an instance is restored; restores only
};

/** A table, schema or database that a set holds, by its path: "sales.public.orders". */
std::vector<std::string> held_names(json_spirit::Object const& backup);

/**
 * Adds "key=value" to the options. A value that is a JSON number or boolean is added as such; any
 * other value is added as text, and so is a value in double quotes.
 * @param error  set if false is returned
 * @return false if the key is missing
 */
[[nodiscard]] bool read_option(std::string const& text, json_spirit::Object& options,
                               std::string& error);

/**
 * Adds method and level of "zstd:3" to the options.
 * @param error  set if false is returned
 * @return false for an unknown method or an invalid level
 */
[[nodiscard]] bool read_compression(std::string const& text, json_spirit::Object& options,
                                    std::string& error);

/** The entry that stands for a whole instance. */
std::string instance_entry(std::string const& instance);

/**
 * A backup.
 * @param instance  as instance.show has it: "name", "uuid", and the flavour's "usual_options"
 * @param pool      its name or uuid
 * @param level     "full", "incremental"...
 * @param error     on failure, what is wrong
 */
[[nodiscard]] bool make_backup_definition(json_spirit::Object const& instance,
                                          std::string const& pool, std::string const& level,
                                          Job_Wishes const& wishes, json_spirit::Object& definition,
                                          std::string& error);

/**
 * Changes of a backup's definition: what is wished for, and nothing else.
 * @param error  set if false is returned
 */
[[nodiscard]] bool make_backup_changes(Job_Wishes const& wishes, json_spirit::Object& changes,
                                       std::string& error);

/**
 * A restore of a whole backup, or of the tables that are wished for.
 * @param backup      as backup.show has it, and besides the "usual_options" of its flavour
 * @param restore_as  the instance that it goes to, as the agent has it; null for the one that it
 *                    came from
 */
[[nodiscard]] bool make_restore_definition(json_spirit::Object const& backup,
                                           json_spirit::Object const* restore_as,
                                           Job_Wishes const& wishes,
                                           json_spirit::Object& definition, std::string& error);

#endif
