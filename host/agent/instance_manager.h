#ifndef HOST_AGENT_INSTANCE_MANAGER_H
#define HOST_AGENT_INSTANCE_MANAGER_H

#include "host/agent/instance.h"
#include "json_spirit/secure_string.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>

class Instance_Backend;
class Instance_Handler;

/**
 * The agent's instances, as the modules see them: thin over the Instance_Backend of
 * Host_Services. Without one installed every operation fails with an error line. All may be
 * called on any thread.
 */
class Instance_Manager {
public:
    /** What the agent shows of an instance's state. */
    enum State { UNKNOWN = -1, CLOSED, CLOSING, OPENED, OPENING };

    static Instance_Manager* instance();

    /** A copy of the instance on record, without passwords; null when there is none. */
    std::shared_ptr<Instance> find(char const* type, char const* name);

    /** Records an instance, new or in place of the one of its type and name; not its accounts. */
    [[nodiscard]] bool add_instance(std::shared_ptr<Instance> instance);

    /**
     * A user's account of an instance.
     * @param uid      the user's uuid
     * @param account  gets the whole account; may be null
     * @return 0; -1, with nothing changed and nothing logged, when there is no such account, and
     *         after an error line for one without a name or a password.
     */
    int get_account(char const* type, char const* uid, char const* name, std::string& username,
                    secure_string& password, json_spirit::Object* account = nullptr);
    /**
     * Records a user's account of an instance that is on record.
     * @param account  "username" and "password", in plain, are required
     */
    [[nodiscard]] bool save_account(char const* type, char const* name, char const* uid,
                                    json_spirit::Object const& account);

    /**
     * Lets the handler complete the options of an instance on record by one of its accounts, the
     * first that the handler takes, and records them.
     * @return 0 also when there is no account to do it with; -1 when the handler takes none of
     *         them, or when it cannot be recorded.
     */
    int update_instance_options(Instance_var instance, Instance_Handler* handler);

    /** The handler of a type; null when there is none. Lives at least as long as it is held. */
    std::shared_ptr<Instance_Handler> get_handler(std::string const& type);
    /** Makes the handler the one of its type. */
    void add_handler(std::shared_ptr<Instance_Handler> handler);
    void remove_handler(std::string const& type);

    /** What a handler's word for a state means: OPENED for "running" and "Normal", and so on. */
    static State state_from_text(std::string const& text);

private:
    Instance_Manager() = default;

    std::mutex mutex_;
    std::map<std::string, std::shared_ptr<Instance_Handler>> handlers_;
};

/**
 * Records an instance and tells the backup server. When the server cannot be told, the record is
 * again as it was.
 */
[[nodiscard]] bool add_instance(std::shared_ptr<Instance const> instance);
/** Tells the backup server, then forgets the instance and its accounts. */
[[nodiscard]] bool remove_instance(std::shared_ptr<Instance const> instance);
/** Tells the backup server that an instance on record has these options now. */
[[nodiscard]] bool update_instance(std::shared_ptr<Instance const> instance,
                                   Instance::options_type const& options);

#endif
