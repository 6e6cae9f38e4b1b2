#include "gaussdb/common/gaussdb_non_intrusive_client.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_env.h"
#include "host/process/process_options.h"
#include "qmrt/check.h"

#include <boost/algorithm/string/trim.hpp>
#include <locale>

namespace {

constexpr std::string_view LOGIN_BANNER = "Authorized users only";

/** For the base, which wants one; nothing here runs in it. */
GaussDB_Env const& no_env() {
    static GaussDB_Env const env;
    return env;
}

} // namespace

Non_Intrusive_Query_Line_Handler::Non_Intrusive_Query_Line_Handler(
    std::vector<std::string>& outputs)
    : Text_Process_Handler(TPHF_LOG_CMD), outputs_(outputs) {}

int Non_Intrusive_Query_Line_Handler::handle_stdout_line(char const* line, size_t length) {
    if (!line)
        return 0;
    // not by a pattern such as "^\s*(.*?)\s*$": its cost on a long line of blanks is quadratic
    std::string row = boost::trim_copy(std::string(line, length), std::locale::classic());
    // takes the empty row too
    if (!LOGIN_BANNER.starts_with(row))
        outputs_.push_back(std::move(row));
    return 0;
}

GaussDB_Non_Intrusive_Client::GaussDB_Non_Intrusive_Client(uint16_t cn_port, char const* cn_host,
                                                           char const* db)
    : GaussDB_Client(no_env(), "", "", db, cn_port, "", cn_host),
      source_cmd_(SOURCE_ALL_PROFILES),
      ssh_opts_(DEFAULT_SSH_OPTS) {}

bool GaussDB_Non_Intrusive_Client::list_database(std::vector<std::string>& databases) const {
    return query("select datname from pg_database", databases, true);
}

std::string GaussDB_Non_Intrusive_Client::get_version() const {
    std::vector<std::string> rows;
    if (!query("select version()", rows, true) || rows.empty())
        return "";
    return rows.front();
}

bool GaussDB_Non_Intrusive_Client::test_logon() const {
    return true;
}

bool GaussDB_Non_Intrusive_Client::query(char const* cmd, std::vector<std::string>& result,
                                         bool) const {
    if (QMRT_IS_NULL_OR_EMPTY(cmd) || QMRT_IS_EMPTY(host_) || !check_address(host_))
        return false;
    GaussDB_Process_Options opts;
    set_process_options(opts);
    if (!set_command_line(opts, "ssh %s %s '%sgsql -d %s -p %d -t -c \"%s\"'", ssh_opts_.c_str(),
                          host_.c_str(), source_cmd_.c_str(),
                          db_.empty() ? "postgres" : db_.c_str(), port_, cmd))
        return false;
    Non_Intrusive_Query_Line_Handler handler(result);
    return handler.call(ACE_Process_Ex::REDIRECT_STDOUT | ACE_Process_Ex::REDIRECT_STDERR, opts) ==
           0;
}
