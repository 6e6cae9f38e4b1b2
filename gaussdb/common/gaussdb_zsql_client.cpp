#include "gaussdb/common/gaussdb_zsql_client.h"

#include "gaussdb/common/gaussdb_process_options.h"
#include "host/process/process_options.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/regex.h"

namespace {

boost::regex const RE_BAR("^[-\\s]+$");
boost::regex const RE_END("^\\d+\\srows\\sfetched.$");

} // namespace

Zsql_Query_Line_Handler::Zsql_Query_Line_Handler(std::vector<std::string>& rows,
                                                 char const* password, std::string* error,
                                                 unsigned int flags)
    : Gsql_Query_Line_Handler(rows, password, flags), error_(error) {}

int Zsql_Query_Line_Handler::handle_stdout_line(char const* line, size_t length) {
    std::string_view const text = line ? std::string_view(line, length) : std::string_view();
    if (error_ && (text.starts_with("GS-") || text.starts_with("GAUSS-")))
        error_->append(text);
    // the rule itself is no row
    if (sql_bar_ && !text.empty() && !qmrt::regex_match(text, RE_END))
        add_row(line, length);
    if (!sql_bar_)
        sql_bar_ = qmrt::regex_match(text, RE_BAR);
    return 0;
}

GaussDB_Zsql_Client::GaussDB_Zsql_Client(GaussDB_Env const& env, char const* username,
                                         char const* password, char const* db, unsigned short port,
                                         bool is_single, char const* os_user)
    : GaussDB_Client(env, username, password, db, port, os_user, ""), is_single_(is_single) {}

bool GaussDB_Zsql_Client::list_database(std::vector<std::string>& databases) const {
    char const statement[] = "select name from dv_database";
    if (query(statement, databases, true) && !databases.empty())
        return true;
    return query_without_password(statement, databases);
}

std::string GaussDB_Zsql_Client::get_version() const {
    std::vector<std::string> rows;
    if (!query_without_password("select version", rows) || rows.empty())
        return "";
    return rows.front();
}

bool GaussDB_Zsql_Client::test_logon() const {
    std::vector<std::string> ignored;
    return query("select instance_name from dv_instance", ignored, true);
}

bool GaussDB_Zsql_Client::query(char const* cmd, std::vector<std::string>& result, bool log) const {
    if (QMRT_IS_NULL_OR_EMPTY(cmd))
        return false;
    std::string const line = string_sprintf("zsql %s@127.0.0.1:%d -q -D %s -c \"%s\"",
                                            username_.c_str(), port_, db_.c_str(), cmd);
    return query_i(line.c_str(), result, password_.c_str(), log);
}

bool GaussDB_Zsql_Client::query_without_password(char const* cmd,
                                                 std::vector<std::string>& result) const {
    if (QMRT_IS_NULL_OR_EMPTY(cmd))
        return false;
    std::string const line = string_sprintf("zsql / as %s -D %s -q -c \"%s\"",
                                            is_single_ ? "sysdba" : "clsmgr", db_.c_str(), cmd);
    return query_i(line.c_str(), result, "", true);
}

bool GaussDB_Zsql_Client::query_i(char const* cmd, std::vector<std::string>& result,
                                  char const* password, bool log) const {
    if (QMRT_IS_NULL_OR_EMPTY(cmd))
        return false;
    GaussDB_Process_Options opts;
    if (!set_local_options(opts, env_) || !set_command_line(opts, "%s", cmd) ||
        (!os_user_.empty() && !set_process_user(opts, os_user_.c_str())))
        return false;
    std::string error;
    Zsql_Query_Line_Handler handler(result, password, &error,
                                    log ? Text_Process_Handler::TPHF_LOG_CMD
                                        : Text_Process_Handler::TPHF_LOG_NONE);
    if (is_unlimited_)
        handler.unlimited();
    if (handler.execute(ACE_Process_Ex::REDIRECT_ALL, opts) == 0)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to run cmd '%s', %s\n", cmd, error.c_str());
    return false;
}
