#ifndef GAUSSDB_COMMON_GAUSSDB_NON_INTRUSIVE_CLIENT_H
#define GAUSSDB_COMMON_GAUSSDB_NON_INTRUSIVE_CLIENT_H

#include "gaussdb/common/gaussdb_client.h"
#include "host/process/text_process_handler.h"

#include <cstdint>

/**
 * Collects the rows of a gsql behind ssh: lines trimmed of blanks, without the empty ones and
 * without the login banner "Authorized users only". A row that is a beginning of that phrase, such
 * as "A", goes with it; a banner that says more does not.
 */
class Non_Intrusive_Query_Line_Handler : public Text_Process_Handler {
public:
    explicit Non_Intrusive_Query_Line_Handler(std::vector<std::string>& outputs);
    int handle_stdout_line(char const* line, size_t length) override;

private:
    std::vector<std::string>& outputs_;
};

/** SQL through a gsql on a node of the cluster, reached by ssh; who logs on is the node's matter.
 */
class GaussDB_Non_Intrusive_Client : public GaussDB_Client {
public:
    /**
     * @param cn_port  the coordinator's port
     * @param cn_host  the node for ssh
     * @param db       "" or null for "postgres"
     */
    GaussDB_Non_Intrusive_Client(uint16_t cn_port, char const* cn_host, char const* db);

    /** What brings the remote shell into the database's environment, as SOURCE_ALL_PROFILES, which
     * it is from the start; null counts as "". */
    void source_cmd(char const* source_cmd) { source_cmd_ = source_cmd ? source_cmd : ""; }
    /** Options for ssh; DEFAULT_SSH_OPTS from the start; null counts as "". */
    void ssh_opts(char const* ssh_opts) { ssh_opts_ = ssh_opts ? ssh_opts : ""; }

    [[nodiscard]] bool list_database(std::vector<std::string>& databases) const override;
    /** The server's whole version line. */
    std::string get_version() const override;
    /** True without asking: there is no account to try. */
    [[nodiscard]] bool test_logon() const override;
    /** The command line is logged always, whatever @a log. */
    [[nodiscard]] bool query(char const* cmd, std::vector<std::string>& result,
                             bool log) const override;

private:
    std::string source_cmd_;
    std::string ssh_opts_;
};

#endif
