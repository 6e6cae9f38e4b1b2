#ifndef HOST_AGENT_INSTANCE_H
#define HOST_AGENT_INSTANCE_H

#include "json_spirit/access.h"

#include <memory>
#include <string>

/** A database instance on the agent's record. A plain value; type and name together name it. */
struct Instance {
    using options_type = json_spirit::Object;
    using logon_type = json_spirit::Object;

    std::string type; ///< which handler's it is: "gaussdb"
    std::string name;
    std::string uuid;
    options_type options; ///< what its handler knows of it
    /**
     * From a user's uuid to the account that the user logs on with: "username", "password",
     * "auth_type". An instance that came from the record has no passwords here:
     * Instance_Manager::get_account() gives one.
     */
    logon_type logon_options;

    /** Reads one option. False leaves @a value alone: it is not there or of another kind. */
    template <typename Out>
    bool get_option(std::string const& option, Out& value) const {
        return json_spirit::object_get(options, option, value);
    }
};

using Instance_var = std::shared_ptr<Instance>;

#endif
