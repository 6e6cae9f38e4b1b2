#ifndef HOST_JOB_JOB_DEFINITION_H
#define HOST_JOB_JOB_DEFINITION_H

#include "host/job/job_definition_type.h"
#include "json_spirit/secure_string.h"

#include <ace/Refcounted_Auto_Ptr.h>
#include <ace/Thread_Mutex.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

class Rate_Limits;
// as <yajl/yajl_gen.h> has it
struct yajl_gen_t;
typedef struct yajl_gen_t* yajl_gen;

/**
 * A job definition and its parts: what the agent keeps of a job, parsed. All are plain values that
 * are filled before the job is made and not changed afterwards, so any thread may read them; a
 * changed job gets a new definition.
 */

/** What a job works on: base of each database's own sources. */
class Job_Source {
public:
    virtual ~Job_Source() = default;

    /** The resource's uuid. */
    std::string const& id() const { return id_; }
    void id(std::string value) { id_ = std::move(value); }
    std::string const& name() const { return name_; }
    void name(std::string value) { name_ = std::move(value); }

    /** Writes the source as one JSON object to @a generator. 0, or -1 when that fails. */
    virtual int generate(yajl_gen generator) = 0;

protected:
    Job_Source() = default;
    Job_Source(Job_Source const&) = default;
    Job_Source& operator=(Job_Source const&) = default;

private:
    std::string id_;
    std::string name_;
};

/** How a job works: base of each database's own options. */
class Job_Options {
public:
    virtual ~Job_Options() = default;

    /** Writes the options as one JSON object to @a generator. 0, or -1 when that fails. */
    virtual int generate(yajl_gen generator) = 0;

protected:
    Job_Options() = default;
    Job_Options(Job_Options const&) = default;
    Job_Options& operator=(Job_Options const&) = default;
};

/** Where a job writes to: a storage pool for a backup, a resource for a restore. */
class Job_Target {
public:
    std::string const& id() const { return id_; }
    void id(std::string value) { id_ = std::move(value); }
    std::string const& name() const { return name_; }
    void name(std::string value) { name_ = std::move(value); }
    std::string const& location() const { return location_; }
    void location(std::string value) { location_ = std::move(value); }
    std::string const& username() const { return username_; }
    void username(std::string value) { username_ = std::move(value); }
    secure_string const& password() const { return password_; }
    void password(secure_string value) { password_ = std::move(value); }
    /** The uuid of the storage server's device that holds the pool. */
    std::string const& device_id() const { return device_id_; }
    void device_id(std::string value) { device_id_ = std::move(value); }
    /** Names of the initiators to scan before a target on a SAN is used. */
    std::vector<std::string> const& scan_initiators() const { return scan_initiators_; }
    void scan_initiators(std::vector<std::string> value) { scan_initiators_ = std::move(value); }

private:
    std::string id_;
    std::string name_;
    std::string location_;
    std::string username_;
    secure_string password_;
    std::string device_id_;
    std::vector<std::string> scan_initiators_;
};

/** When a job runs. What the times of each type are is the scheduler's. */
class Job_Schedule {
public:
    enum Type : int {
        TYPE_NONE = 0,
        TYPE_ONCE,
        TYPE_HOURLY,
        TYPE_DAILY,
        TYPE_WEEKLY,
        TYPE_MONTHLY,
        TYPE_CONTINUOUS,
        TYPE_ONDEMAND ///< another program's request starts it
    };

    explicit Job_Schedule(Type type = TYPE_NONE) : type_(type) {}
    virtual ~Job_Schedule() = default;

    Type type() const { return type_; }
    void type(Type value) { type_ = value; }

private:
    Type type_;
};

using Job_Source_var = ACE_Refcounted_Auto_Ptr<Job_Source, ACE_Thread_Mutex>;
using Job_Options_var = ACE_Refcounted_Auto_Ptr<Job_Options, ACE_Thread_Mutex>;
using Job_Schedule_var = ACE_Refcounted_Auto_Ptr<Job_Schedule, ACE_Thread_Mutex>;

class Job_Definition {
public:
    Job_Definition_Type type() const { return type_; }
    void type(Job_Definition_Type value) { type_ = value; }
    Job_Definition_Subtype subtype() const { return subtype_; }
    void subtype(Job_Definition_Subtype value) { subtype_ = value; }

    /** The definition's uuid. */
    std::string const& id() const { return id_; }
    void id(std::string value) { id_ = std::move(value); }
    /** The uuid of the user who owns it, in whose name accounts are looked up. */
    std::string const& uid() const { return uid_; }
    void uid(std::string value) { uid_ = std::move(value); }
    std::string const& name() const { return name_; }
    void name(std::string value) { name_ = std::move(value); }
    /** The uuid of the host that runs it. */
    std::string const& host_id() const { return host_id_; }
    void host_id(std::string value) { host_id_ = std::move(value); }
    /** The kind of agent that it is for, as the catalog names it. */
    std::string const& agent() const { return agent_; }
    void agent(std::string value) { agent_ = std::move(value); }

    /** Seconds for which a storage or catalog operation is tried again; -1 for their own default.
     */
    int max_seconds_retry() const { return max_seconds_retry_; }
    void max_seconds_retry(int value) { max_seconds_retry_ = value; }
    /** Bytes kept to resume a broken transfer; 0 for none. */
    size_t resumption_buffer_size() const { return resumption_buffer_size_; }
    void resumption_buffer_size(size_t value) { resumption_buffer_size_ = value; }
    /** How fast it may transfer; null for no limit. To change one, copy it. */
    std::shared_ptr<Rate_Limits const> const& rate_limits() const { return rate_limits_; }
    void rate_limits(std::shared_ptr<Rate_Limits const> value) { rate_limits_ = std::move(value); }

    Job_Target& target() { return target_; }
    Job_Target const& target() const { return target_; }
    void target(Job_Target value) { target_ = std::move(value); }
    /** Each may be null. */
    Job_Schedule_var const& schedule() const { return schedule_; }
    void schedule(Job_Schedule_var const& value) { schedule_ = value; }
    Job_Source_var const& source() const { return source_; }
    void source(Job_Source_var const& value) { source_ = value; }
    Job_Options_var const& options() const { return options_; }
    void options(Job_Options_var const& value) { options_ = value; }

    /** Scripts, as execute_script() takes them; "" for none. */
    std::string const& precondition() const { return precondition_; }
    void precondition(std::string value) { precondition_ = std::move(value); }
    std::string const& pre_action() const { return pre_action_; }
    void pre_action(std::string value) { pre_action_ = std::move(value); }
    std::string const& post_action() const { return post_action_; }
    void post_action(std::string value) { post_action_ = std::move(value); }
    [[nodiscard]] bool ignore_pre_action_failure() const { return ignore_pre_action_failure_; }
    void ignore_pre_action_failure(bool value) { ignore_pre_action_failure_ = value; }
    [[nodiscard]] bool ignore_post_action_failure() const { return ignore_post_action_failure_; }
    void ignore_post_action_failure(bool value) { ignore_post_action_failure_ = value; }
    /** The post-action runs also when the work failed. */
    [[nodiscard]] bool run_post_action_always() const { return run_post_action_always_; }
    void run_post_action_always(bool value) { run_post_action_always_ = value; }

private:
    Job_Definition_Type type_ = JOB_DEFINITION_NONE;
    Job_Definition_Subtype subtype_ = JOB_DEFINITION_SUBTYPE_NONE;
    std::string id_;
    std::string uid_;
    std::string name_;
    std::string host_id_;
    std::string agent_;
    int max_seconds_retry_ = -1;
    size_t resumption_buffer_size_ = 0;
    std::shared_ptr<Rate_Limits const> rate_limits_;
    Job_Target target_;
    Job_Schedule_var schedule_;
    Job_Source_var source_;
    Job_Options_var options_;
    std::string precondition_;
    std::string pre_action_;
    std::string post_action_;
    bool ignore_pre_action_failure_ = false;
    bool ignore_post_action_failure_ = false;
    bool run_post_action_always_ = false;
};

/** Shared by the agent, the job and whoever asks for it. */
using Job_Definition_var = ACE_Refcounted_Auto_Ptr<Job_Definition, ACE_Thread_Mutex>;

#endif
