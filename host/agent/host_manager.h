#ifndef HOST_AGENT_HOST_MANAGER_H
#define HOST_AGENT_HOST_MANAGER_H

#include "json_spirit/secure_string.h"

#include <mutex>
#include <string>

/**
 * Who this host is. The agent sets it at its start, from its configuration; any thread may read
 * and write. Only access_key() belongs to a thread.
 */
class Host_Manager {
public:
    /** The program that this process is. */
    enum Component {
        CPN_UNKNOWN,
        CPN_AGENT,
        CPN_BACKUPD,
        CPN_CONTROLLER,
        CPN_STORAGED,
        CPN_LICENSED
    };

    static Host_Manager* instance();

    /** The host's uuid; "" until it was set. */
    std::string uuid() const;
    void uuid(std::string value);
    /** The host's name: its node name (uname -n) unless another was set. */
    std::string name() const;
    void name(std::string value);
    /**
     * The key of the run that the calling thread works for; "" on a thread that works for none. It
     * opens what the data path of that run needs, until the run ends, so it may be written where
     * the database's user reads it.
     */
    secure_string access_key() const;
    /**
     * Makes the calling thread work for the run of that key; "" for none. Other threads keep
     * theirs, and a new thread has none.
     */
    void access_key(secure_string value);
    /** The key that is used instead when on_backupd(); "" unless one was set. */
    secure_string node_access_key() const;
    void node_access_key(secure_string value);
    /** CPN_AGENT unless another was set. */
    Component component() const;
    void component(Component value);
    /** True when this process is the backup server itself. */
    [[nodiscard]] bool on_backupd() const { return component() == CPN_BACKUPD; }

private:
    Host_Manager();

    mutable std::mutex mutex_;
    std::string uuid_;
    std::string name_;
    secure_string node_access_key_;
    Component component_ = CPN_AGENT;
};

#endif
