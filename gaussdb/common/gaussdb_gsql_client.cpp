#include "gaussdb/common/gaussdb_gsql_client.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_process_options.h"
#include "host/process/process_options.h"
#include "qmrt/check.h"
#include "qmrt/regex.h"

#include <boost/algorithm/string/trim.hpp>
#include <climits>
#include <cstring>
#include <locale>

namespace {

boost::regex const
    RE_RELEASE("PostgreSQL\\s+(\\d+\\.\\d+\\.\\d+)\\s+\\(GaussDB\\s+Kernel\\s+(V\\d+R\\d+C\\d+)");

} // namespace

Gsql_Query_Line_Handler::Gsql_Query_Line_Handler(std::vector<std::string>& rows,
                                                 char const* password, unsigned int flags)
    : Text_Process_Handler(flags), rows_(rows), password_(password) {}

int Gsql_Query_Line_Handler::execute(unsigned int flags, ACE_Process_Options& opts) {
    ACE_Process_Ex process(flags, nullptr);
    if (spawn(&process, opts) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to spawn gsql process\n");
        return -1;
    }
    if (!write_password()) {
        int const error = errno;
        // a pipe would have taken a short one from a program that ends a moment later, without
        // reading it: how it ends is not to depend on that
        if (error == EPIPE && std::strlen(password_) < PIPE_BUF && wait() == 0)
            return 0;
        errno = error;
        QMRT_LOG(LM_ERROR, "Failed to write password to gsql, errno=%d, %m\n", errno);
        // what the program says about it goes to the log meanwhile
        terminate(ACE_Time_Value(DTOR_TERM_TIMEOUT));
        return -1;
    }
    return wait();
}

bool Gsql_Query_Line_Handler::write_password() {
    if (!password_ || !*password_)
        return true;
    size_t const length = std::strlen(password_);
    char line_break = '\n';
    iovec const texts[] = {{const_cast<char*>(password_), length}, {&line_break, 1}};
    return write_stdin(texts, 2) == static_cast<ssize_t>(length + 1);
}

int Gsql_Query_Line_Handler::handle_stdout_line(char const* line, size_t length) {
    if (line && length > 0)
        add_row(line, length);
    return 0;
}

void Gsql_Query_Line_Handler::add_row(char const* line, size_t length) {
    rows_.push_back(boost::trim_copy(std::string(line, length), std::locale::classic()));
}

bool GaussDB_Gsql_Client::list_database(std::vector<std::string>& databases) const {
    return query("select datname from pg_database", databases, true);
}

std::string GaussDB_Gsql_Client::get_version() const {
    std::vector<std::string> rows;
    qmrt::svmatch groups;
    if (!query("select version()", rows, true) || rows.empty() ||
        !qmrt::regex_search(rows.front(), groups, RE_RELEASE))
        return "";
    return groups[2];
}

bool GaussDB_Gsql_Client::test_logon() const {
    std::vector<std::string> ignored;
    return query("\\q", ignored, true);
}

bool GaussDB_Gsql_Client::query(char const* cmd, std::vector<std::string>& result, bool) const {
    if (QMRT_IS_NULL_OR_EMPTY(cmd) || (!host_.empty() && !check_address(host_)))
        return false;
    GaussDB_Process_Options opts;
    if (!set_local_options(opts, env_) ||
        !set_process_env(opts, "PGPORT", std::to_string(port_).c_str()) ||
        !set_process_env(opts, "PGDATABASE", db_.empty() ? "postgres" : db_.c_str()) ||
        (!username_.empty() && !set_process_env(opts, "PGUSER", username_.c_str())) ||
        (!os_user_.empty() && !set_process_user(opts, os_user_.c_str())))
        return false;
    if (host_.empty() ? !set_command_line(opts, "gsql -t -c \"%s\"", cmd)
                      : !set_command_line(opts, "gsql -h \"%s\" -t -c \"%s\"", host_.c_str(), cmd))
        return false;
    Gsql_Query_Line_Handler handler(result, password_.c_str(), Text_Process_Handler::TPHF_LOG_CMD);
    return handler.execute(ACE_Process_Ex::REDIRECT_ALL, opts) == 0;
}
