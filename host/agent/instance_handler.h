#ifndef HOST_AGENT_INSTANCE_HANDLER_H
#define HOST_AGENT_INSTANCE_HANDLER_H

#include "host/agent/instance.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

/** Something about an instance that an administrator has to look at. */
struct Instance_Alert {
    std::string instance; ///< its name
    std::string text;     ///< what is wrong and what to do, one sentence
};

/**
 * What a module knows of the instances of one type. The agent calls it on any thread. Without an
 * override there are no instances, every state is "error", and logons are refused.
 */
class Instance_Handler {
public:
    /** From an instance's name to the instance. */
    using instances_type = std::map<std::string, std::shared_ptr<Instance>>;
    using options_type = Instance::options_type;
    /** From an instance's name to its state in words. */
    using states_type = std::map<std::string, std::string>;

    explicit Instance_Handler(char const* type) : type_(type) {}
    virtual ~Instance_Handler() = default;

    virtual int init(int argc, char** argv);
    virtual int fini();
    /**
     * @param instances  comes with what is on record and gets what was found besides
     * @return 0 or -1
     */
    virtual int probe_instances(instances_type& instances);
    /** @return @a state, which gets the state in words */
    virtual std::string& get_state(char const* name, std::string& state);
    /** Fills in the state of each name that @a states has, here by get_state(). 0 or -1. */
    virtual int get_states(states_type& states);
    /**
     * Checks an account.
     * @param extra  more about the logon; may be null
     * @return 0 when the instance takes it, or -1
     */
    virtual int logon(char const* name, char const* username, char const* password,
                      json_spirit::Object const* extra);
    /** 0 or -1. */
    virtual int logoff(char const* name);
    /** Completes an instance's options once its account is known. 0, or -1 to keep them. */
    virtual int update_options(char const* name, char const* username, char const* password,
                               options_type& options);

    /** What was found wrong when instances were last looked for. */
    virtual std::vector<Instance_Alert> alerts();
    /** The instance is not on record any more: what is still known of it is dropped. */
    virtual void forget(char const* name);

    std::string const& type() const { return type_; }

private:
    std::string const type_;
};

#endif
