#ifndef GAUSSDB_COMMON_GAUSSDB_CLIENT_H
#define GAUSSDB_COMMON_GAUSSDB_CLIENT_H

#include <memory>
#include <string>
#include <vector>

class GaussDB_Env;

/**
 * Puts SQL to a database through the database's own client program, a child for each statement. A
 * call blocks until the program ends, without a time limit. A client is used by one thread at a
 * time. Failures are logged here or by the process layer.
 */
class GaussDB_Client {
public:
    /**
     * A null text counts as "".
     * @param env       the environment of children; kept by reference, so it has to outlive this
     * @param password  "" when none is to be given; goes to the program's stdin and nowhere else
     * @param db        the database for gsql, the data directory for zsql
     * @param os_user   the operating-system user the program runs as; "" keeps the agent's
     * @param host      the server's host; "" for a local connection
     */
    GaussDB_Client(GaussDB_Env const& env, char const* username, char const* password,
                   char const* db, unsigned short port, char const* os_user, char const* host);
    virtual ~GaussDB_Client() = default;
    GaussDB_Client(GaussDB_Client const&) = delete;
    GaussDB_Client& operator=(GaussDB_Client const&) = delete;

    /** Appends the names of all databases; false when they could not be asked for. */
    [[nodiscard]] virtual bool list_database(std::vector<std::string>& databases) const = 0;
    /** The server's version as the flavour writes it; "" for every failure. */
    virtual std::string get_version() const = 0;
    /** True when a log-on with this client's account succeeds. */
    [[nodiscard]] virtual bool test_logon() const = 0;
    /**
     * Runs one statement and appends its rows to @a result, which is never cleared: rows that came
     * before a failure stay.
     * @param cmd  the statement. It stands between double quotes on a command line and nothing in
     *             it is escaped: a text constant is written '"'...'"', which comes out right in a
     *             local call and in a remote shell.
     * @param log  whether the command line goes to the log, where the client has the choice
     * @return true when the program ended with 0
     */
    [[nodiscard]] virtual bool query(char const* cmd, std::vector<std::string>& result,
                                     bool log) const = 0;

    /** Whether statements are the work of a job, which may take hours: no Tool_Limits then. */
    void unlimited(bool value) { is_unlimited_ = value; }

protected:
    GaussDB_Env const& env_;
    std::string username_;
    std::string password_;
    std::string db_;
    unsigned short port_;
    std::string os_user_;
    std::string host_;
    bool is_unlimited_ = false; ///< heeded by zsql's client, which runs such statements
};

using GaussDB_Client_ptr = std::unique_ptr<GaussDB_Client>;

#endif
