#ifndef AGENT_CLI_CONSEQUENCES_H
#define AGENT_CLI_CONSEQUENCES_H

#include "agent/cli/consent.h"

/**
 * What commands destroy, put together from the agent's answers. What the agent does not tell is
 * shown as unknown: only the command itself needs an answer.
 */

/**
 * Of a restore.
 * @param set     the backup, as backup.show has it
 * @param target  name of the instance that it is restored to
 * @param tables  as Job_Wishes has them; empty for the whole backup
 */
Consequences restore_consequences(Command_Context& context, json_spirit::Object const& set,
                                  std::string const& target,
                                  std::vector<std::string> const& tables);

/** Of a restore to a time. @param point  the answer of backup.point, which has a backup */
Consequences restore_to_time_consequences(Command_Context& context,
                                          json_spirit::Object const& point,
                                          std::string const& target);

/** Of the removal of a backup. @param dependents  those that build on it go, too */
Consequences backup_consequences(Command_Context& context, json_spirit::Object const& set,
                                 bool dependents);

/** Of the removal of a pool, an instance or a member, by its name. */
Consequences pool_consequences(Command_Context& context, std::string const& pool);
Consequences instance_consequences(Command_Context& context, std::string const& instance);
Consequences member_consequences(Command_Context& context, std::string const& member);

#endif
