#ifndef AGENT_JOBS_DEFINITION_JSON_H
#define AGENT_JOBS_DEFINITION_JSON_H

#include "agent/jobs/definition_schedule.h"
#include "agent/jobs/job_modules.h"
#include "host/job/job_definition.h"
#include "host/storage/pool_info.h"
#include "json_spirit/value.h"

#include <functional>
#include <string>

/**
 * Job definitions as JSON:
 *
 *     {"id"?, "name", "type": "backup"|"restore", "subtype": "full"|"incremental"|...,
 *      "agent"?, "uid"?, "host_id"?, "target": {"id"|"pool", "device_id"?}, "source": {..},
 *      "options"?: {..}, "schedule"?: {..}, "enabled"?: true,
 *      "max_seconds_retry"?, "resumption_buffer_size"?,
 *      "rate_limits"?: {"dest_rate_limits"?, "src_rate_limits"?},
 *      "precondition"?, "pre_action"?, "post_action"?, "ignore_pre_action_failure"?,
 *      "ignore_post_action_failure"?, "run_post_action_always"?}
 *
 * Source and options are the module's own matter and go through its parsers. Rate limits are texts
 * of entries with ";" between them (host/storage/rate_limits.h). Any other member is refused, and
 * so is one of a wrong kind; a message names the member. Nothing here logs: a definition's scripts
 * may have a password in them.
 */

/** What the agent gives a definition that does not say it. */
struct Definition_Defaults {
    std::string agent;
    std::string uid;     ///< of the owner
    std::string host_id; ///< of this host
    /**
     * Finds a storage pool by its uuid or name.
     * @return false, with the reason in @a error
     */
    std::function<bool(std::string const& pool, Pool_Info& info, std::string& error)> find_pool;
    /**
     * Finds the uuid of an instance by its name; "" if it is not known yet whether the instance
     * exists. Without this function instances are not checked.
     * @return false, with the reason in @a error
     */
    std::function<bool(std::string const& instance, std::string& uuid, std::string& error)>
        find_instance = {};
};

/**
 * Completes what somebody wrote: an id when it has none, the owner, the host, the pool's uuid in
 * place of its name, and in a backup's options the pool's compression when they name none. A
 * restore without a target goes to the resource that its source names, a backup's source gets the
 * uuid of its instance, and a backup without a level the first one of its schedule. Members that
 * are null are left out. Only what it touches is checked here.
 * @return false, with the fault in @a error, and @a result unchanged
 */
[[nodiscard]] bool normalise_definition(json_spirit::Object const& given,
                                        Definition_Defaults const& defaults,
                                        json_spirit::Object& result, std::string& error);

/**
 * Parses a whole definition. Its schedule is a Job_Schedule_Text: the first of its
 * Definition_Schedule, of TYPE_NONE when it has none.
 * @return false, with the fault in @a error, and @a result unchanged
 */
[[nodiscard]] bool definition_from_json(Job_Module const& module, json_spirit::Object const& object,
                                        Job_Definition_var& result, std::string& error);

/** The schedule alone; empty, with the fault in @a error, when it cannot be read. */
Definition_Schedule schedule_from_json(json_spirit::Object const& definition, std::string& error);

/**
 * The database instance that a definition is about: the second name of the entry "restore_as" of
 * its source or, for a backup, of the first of its "entries". "" when there is none.
 */
std::string instance_of_definition(json_spirit::Object const& definition);

/** "backup" and so on; "" for none. */
char const* job_definition_type_name(Job_Definition_Type type);

#endif
