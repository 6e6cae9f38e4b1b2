#ifndef AGENT_SERVICE_AGENT_IDENTITY_H
#define AGENT_SERVICE_AGENT_IDENTITY_H

#include <string>

class Agent_Database;

/** The table behind Agent_Identity. */
extern char const IDENTITY_TABLES[];

/** What an agent is known by as long as its database lives; made at its first start. */
struct Agent_Identity {
    std::string host_uuid;
    std::string uid; ///< of the administrator who works at this host's own socket

    /** @return false after an error line */
    [[nodiscard]] bool load(Agent_Database& database);
};

#endif
