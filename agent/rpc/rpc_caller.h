#ifndef AGENT_RPC_RPC_CALLER_H
#define AGENT_RPC_RPC_CALLER_H

#include "json_spirit/value.h"

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>

/** What one run of a job is about: the limits of its key. */
struct Run_Scope {
    std::string run_id;     ///< of a backup also the uuid of its set
    bool backup = false;    ///< false: a restore
    std::string host_uuid;  ///< of the agent that runs it
    std::string instance;   ///< name of the instance that it works on
    std::string cluster_id; ///< of the resource whose sets it writes or reads
    std::string pool_uuid;  ///< that a backup writes to; "" for a restore

    json_spirit::Object dump() const;
    /** @return false for an object that dump() did not make */
    [[nodiscard]] bool read(json_spirit::Object const& object);
};

/** Who calls a method, as the connection has proven it. */
struct Rpc_Caller {
    enum Kind : unsigned {
        NOBODY = 0,
        LOCAL = 1,      ///< the agent's own socket, or this process
        ADMIN = 2,      ///< the network, with the administrator's key
        MEMBER = 4,     ///< the network, with the key of a member of the group
        RUN = 8,        ///< the network, with the key of a run
        BACKUPD = 16,   ///< the backup server, down the connection that a member made
        FORWARDED = 32, ///< a run on another host, by way of the backup server
        READER = 64     ///< the agent's own socket, as a user who may look only
    };

    Kind kind = NOBODY;
    std::string member;                   ///< of a MEMBER: its name
    std::string host_uuid;                ///< of a MEMBER: its host, "" before it has joined
    std::shared_ptr<Run_Scope const> run; ///< of RUN and FORWARDED; never null there
    /** The user of a LOCAL or READER that came over the socket; none for this process itself. */
    std::optional<uid_t> uid = {};
    /** The user who logged in, by the kernel's record (loginuid); none if it has no record. */
    std::optional<uid_t> login = {};
    std::string address = {}; ///< of a caller on the network

    static Rpc_Caller local() { return {LOCAL, {}, {}, nullptr}; }
    static Rpc_Caller admin() { return {ADMIN, {}, {}, nullptr}; }
    static Rpc_Caller backupd() { return {BACKUPD, {}, {}, nullptr}; }

    [[nodiscard]] bool is(unsigned kinds) const { return (kind & kinds) != 0; }
    /** For log lines: "member 'db2' (host ...)". */
    std::string text() const;
};

#endif
