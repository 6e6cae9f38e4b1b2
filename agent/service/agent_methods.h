#ifndef AGENT_SERVICE_AGENT_METHODS_H
#define AGENT_SERVICE_AGENT_METHODS_H

#include "agent/jobs/job_answer.h"
#include "agent/rpc/method_table.h"
#include "qmrt/names.h"

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>

class Agent_Database;
class Agent_Jobs;
class Agent_Module;
class Database_Guide;
class Group_Members;
class Group_Server;
class Instance_Probe;
class Job_Manager;
class Method_Access;
class Pool_Status;
class Run_Holds;
class Run_Keys;
class SQLite_Catalog;
class SQLite_Pools;
class Scheduler;
class Set_Files;
class Storage_Result;
struct Agent_Config;
struct Agent_Identity;

/**
 * The agent's own methods, which docs/rpc.md describes for those who call them. Each function adds
 * the methods of one group to the table. What they borrow lives longer than the table serves.
 */

/** agent.info, agent.check */
void add_agent_methods(Method_Table& methods, Agent_Config const& config,
                       Agent_Identity const& identity, Agent_Database& database,
                       Agent_Module const& module);
/** Tells the table which of the module's methods and of those here may wait for tools. */
void note_tool_calls(Method_Table& methods, std::vector<std::string> const& module_methods);
/**
 * instance.*, account.save
 * @param guide  the module's; null if it has none
 */
void add_instance_methods(Method_Table& methods, Agent_Identity const& identity,
                          Instance_Probe& probe, std::shared_ptr<Database_Guide> guide);
/** guide.*: what the module says of its databases; the guide may be null */
void add_guide_methods(Method_Table& methods, std::shared_ptr<Database_Guide> guide);
/**
 * Part of the table's gate: false, with the fault, for a call that would remove an instance with a
 * run that is running or waits. True for all other calls.
 */
[[nodiscard]] bool may_remove_instance(Agent_Jobs& runs, Method_Call const& call,
                                       Method_Fault& fault);
/** pool.* */
void add_pool_methods(Method_Table& methods, Pool_Status& status, SQLite_Pools& pools,
                      Method_Access const& access);
/**
 * The answer of job.show for a run.
 * @param beginning  a prefix of its id
 * @return false, with the fault, if the run is unknown
 */
[[nodiscard]] bool describe_run(Agent_Jobs& runs, std::string const& beginning,
                                json_spirit::Object& result, Method_Fault& fault);
/** definition.* and job.*, but for definition.change and job.watch */
void add_job_methods(Method_Table& methods, Job_Manager& manager, Agent_Jobs& runs,
                     Scheduler& scheduler);
/** The name of a pool by its uuid; the uuid if the pool is unknown. */
using Pool_Names = std::function<std::string(std::string const& uuid)>;
/** schedule.*, definition.change */
void add_schedule_methods(Method_Table& methods, Job_Manager& manager, Scheduler& scheduler,
                          Pool_Names pool_names);
/** backup.*, catalog.* */
void add_backup_methods(Method_Table& methods, SQLite_Catalog& catalog, SQLite_Pools& pools,
                        Set_Files& files, Agent_Jobs& runs, Method_Access const& access);
/** member.* */
void add_group_member_methods(Method_Table& methods, Group_Members& members, SQLite_Pools& pools,
                              Group_Server& group);
/** run.*: what a member tells of its runs */
void add_run_methods(Method_Table& methods, Run_Keys& keys, Run_Holds& holds);

/** Lets the backup server answer those methods of a member that are about catalog and pools. */
void forward_catalog_methods(Method_Table& methods);

// how methods are served

/** Serves member functions of one object, which lives as long as the table serves them. */
template <typename Object>
void add_member_methods(
    Method_Table& methods, std::shared_ptr<Object> const& object,
    std::initializer_list<std::pair<
        char const*, bool (Object::*)(Method_Call const&, json_spirit::Value&, Method_Fault&)>>
        members) {
    for (auto const& [name, member] : members)
        methods.add(name,
                    [object, member = member](Method_Call const& call, json_spirit::Value& result,
                                              Method_Fault& fault) {
                        return (*object.*member)(call, result, fault);
                    });
}

/** Reads params of one name, which must be there. @return false, with the fault, for all else */
[[nodiscard]] bool only_name(Method_Call const& call, char const* key, names::Rule rule,
                             std::string& name, Method_Fault& fault);

/** Answers that a parameter is missing, of a wrong kind or not known. @return false */
[[nodiscard]] bool invalid_params(std::string const& why, Method_Fault& fault);
/** Answers that something is not there; the data names it. @return false */
[[nodiscard]] bool not_found(std::string const& what, Method_Fault& fault);
/** Answers that something cannot be now; the message says why and what to do. @return false */
[[nodiscard]] bool refused(std::string const& why, Method_Fault& fault);
/** Answers what became of a request about jobs. @return true for one that was done */
[[nodiscard]] bool answer(Job_Answer const& answer, Method_Fault& fault);
/** The same of one about pools. */
[[nodiscard]] bool answer(Storage_Result const& result, Method_Fault& fault);

#endif
