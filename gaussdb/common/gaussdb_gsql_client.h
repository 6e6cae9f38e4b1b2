#ifndef GAUSSDB_COMMON_GAUSSDB_GSQL_CLIENT_H
#define GAUSSDB_COMMON_GAUSSDB_GSQL_CLIENT_H

#include "gaussdb/common/gaussdb_client.h"
#include "host/process/text_process_handler.h"

/**
 * Collects the rows of "gsql -t": every line that is not empty, trimmed of blanks. stderr is logged
 * and is no row.
 */
class Gsql_Query_Line_Handler : public Text_Process_Handler {
public:
    /**
     * @param rows      appended to
     * @param password  for the program's stdin; null or "" gives it nothing. Has to live as long as
     *                  this object.
     * @param flags     TPHF_ flags
     */
    Gsql_Query_Line_Handler(std::vector<std::string>& rows, char const* password,
                            unsigned int flags);

    /**
     * Runs the program of @a opts to its end and gives it the password with a line break.
     * @param flags  ACE_Process_Ex's REDIRECT_ flags
     * @return its exit status; -1 when it was not started, ended by a signal, or did not take the
     *         whole password, which is logged at LM_ERROR. It is ended in the last case.
     */
    int execute(unsigned int flags, ACE_Process_Options& opts);

    int handle_stdout_line(char const* line, size_t length) override;

protected:
    /** Appends a line, trimmed of blanks at both ends. */
    void add_row(char const* line, size_t length);

private:
    [[nodiscard]] bool write_password();

    std::vector<std::string>& rows_;
    char const* password_;
};

/** SQL through a local gsql: the 200 series and its kin. */
class GaussDB_Gsql_Client : public GaussDB_Client {
public:
    using GaussDB_Client::GaussDB_Client;

    [[nodiscard]] bool list_database(std::vector<std::string>& databases) const override;
    /** The kernel's word, such as "V500R002C00". */
    std::string get_version() const override;
    [[nodiscard]] bool test_logon() const override;
    /** The command line is logged always, whatever @a log. "" as the database is "postgres". */
    [[nodiscard]] bool query(char const* cmd, std::vector<std::string>& result,
                             bool log) const override;
};

#endif
