#ifndef GAUSSDB_COMMON_GAUSSDB_ZSQL_CLIENT_H
#define GAUSSDB_COMMON_GAUSSDB_ZSQL_CLIENT_H

#include "gaussdb/common/gaussdb_gsql_client.h"

/**
 * Collects the rows of zsql: the lines, trimmed, between the rule of dashes below the column heads
 * and the closing "N rows fetched.". An error line behind the rule is a row, too.
 */
class Zsql_Query_Line_Handler : public Gsql_Query_Line_Handler {
public:
    /** @param error  gets the lines that begin with "GS-" or "GAUSS-", appended; null for none */
    Zsql_Query_Line_Handler(std::vector<std::string>& rows, char const* password,
                            std::string* error, unsigned int flags);

    int handle_stdout_line(char const* line, size_t length) override;

private:
    bool sql_bar_ = false; ///< the rule has come
    std::string* error_;
};

/** SQL through a local zsql: the 100 series and GaussDB T. */
class GaussDB_Zsql_Client : public GaussDB_Client {
public:
    /**
     * @param db         the server's data directory
     * @param is_single  a lone instance, whose administrator is "sysdba"; a cluster's is "clsmgr"
     */
    GaussDB_Zsql_Client(GaussDB_Env const& env, char const* username, char const* password,
                        char const* db, unsigned short port, bool is_single, char const* os_user);

    /**
     * By the account; when that fails or gives no row, without a password. Rows of a failed first
     * try stay.
     */
    [[nodiscard]] bool list_database(std::vector<std::string>& databases) const override;
    std::string get_version() const override;
    [[nodiscard]] bool test_logon() const override;
    [[nodiscard]] bool query(char const* cmd, std::vector<std::string>& result,
                             bool log) const override;

    /** Runs a statement as the administrator whom the server knows by @a os_user. */
    [[nodiscard]] bool query_without_password(char const* cmd,
                                              std::vector<std::string>& result) const;
    /**
     * Runs a whole command line of zsql.
     * @return false, after "Failed to run cmd '%s', %s\n" with the server's error lines at
     * LM_ERROR, when it does not end with 0
     */
    [[nodiscard]] bool query_i(char const* cmd, std::vector<std::string>& result,
                               char const* password, bool log) const;

private:
    bool is_single_;
};

#endif
