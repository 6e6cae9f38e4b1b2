#ifndef AGENT_SERVICE_AUDIT_LOG_H
#define AGENT_SERVICE_AUDIT_LOG_H

#include "agent/rpc/method_table.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

class Agent_Database;

/** The tables of who changed what. */
extern char const AUDIT_TABLES[];

/** One change that a person has asked for. */
struct Audit_Entry {
    time_t time = 0;
    std::string user;    ///< name of the user at the socket; "" on the network or without a name
    std::string uid;     ///< of that user; "" on the network
    std::string login;   ///< name or uid of who logged in, as before sudo; "" if unknown
    std::string address; ///< on the network: where the call came from
    std::string method;
    std::string subject; ///< what was to be changed: the name of an instance, a pool, a job
    int code = 0;        ///< 0 for success, else the code of the answer
    std::string message; ///< of the answer

    json_spirit::Object dump() const;
};

/** Which entries to list; "" for any. */
struct Audit_Query {
    std::string user = {}; ///< name or uid, before or after sudo
    std::string subject = {};
    time_t since = 0;
    size_t limit = 100;
    static constexpr size_t MOST = 100'000; ///< so many entries are kept
};

/**
 * The record of changes by administrators, in the agent's database and in its log. What the agent
 * does by itself, by a schedule for one, is in the list of runs. Thread-safe.
 */
class Audit_Log {
public:
    /** @param database  must outlive this object */
    explicit Audit_Log(Agent_Database& database) : database_(database) {}

    /** A Method_Audit: records changes by people and no other calls. Logs a failure to do so. */
    void record(Method_Call const& call, int code, std::string const& message);
    /** Lists entries, the newest first. @return false after an error line */
    [[nodiscard]] bool list(Audit_Query const& query, std::vector<Audit_Entry>& entries);

private:
    [[nodiscard]] bool store(Audit_Entry const& entry);

    Agent_Database& database_;
};

/** Serves audit.list. */
void add_audit_methods(Method_Table& methods, std::shared_ptr<Audit_Log> const& audit);

#endif
