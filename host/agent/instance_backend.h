#ifndef HOST_AGENT_INSTANCE_BACKEND_H
#define HOST_AGENT_INSTANCE_BACKEND_H

#include "host/agent/instance.h"

#include <memory>
#include <string>
#include <vector>

/**
 * Where instances and their accounts are kept: the agent's own implementation. All operations may
 * be called on any thread, each is one step that happens wholly or not at all, and what it has
 * recorded is still there after the process was killed. Texts are compared byte by byte. Those
 * that return bool log their own failures.
 */
class Instance_Backend {
public:
    /** What the backup server is to be told. */
    enum Change { ADDED, UPDATED, REMOVED };

    virtual ~Instance_Backend() = default;

    /**
     * A copy of what is on record, for the caller to keep; null when there is none. logon_options
     * has the accounts of save_account(), by the user's uuid, without their passwords.
     */
    virtual std::shared_ptr<Instance> find(std::string const& type, std::string const& name) = 0;
    /** Copies of all of one type, in ascending order of their names. */
    virtual std::vector<std::shared_ptr<Instance>> list(std::string const& type) = 0;
    /**
     * Records uuid and options of an instance, new or in place of the one of its type and name.
     * Accounts stay as they are, and logon_options is not looked at.
     */
    [[nodiscard]] virtual bool put(Instance const& instance) = 0;
    /** Forgets an instance and its accounts. False when there is none. */
    [[nodiscard]] virtual bool erase(std::string const& type, std::string const& name) = 0;

    /**
     * Records a user's account of an instance, new or in place of the old one.
     * @param account  "username", "password" and whatever else; the password comes in plain and
     *                 must not be readable where it is kept
     * False when there is no such instance.
     */
    [[nodiscard]] virtual bool save_account(std::string const& type, std::string const& name,
                                            std::string const& uid,
                                            json_spirit::Object const& account) = 0;
    /**
     * Gives what save_account() was given, with the password as a secure string.
     * @return false, with nothing logged and @a account unchanged, when there is none.
     */
    [[nodiscard]] virtual bool get_account(std::string const& type, std::string const& name,
                                           std::string const& uid,
                                           json_spirit::Object& account) = 0;

    /** Tells the backup server of a change. True where there is no server to tell. */
    [[nodiscard]] virtual bool tell_server(Change change, Instance const& instance) = 0;
};

#endif
