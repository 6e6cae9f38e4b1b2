#include "gaussdb/instance_handler/gaussdb_node_check.h"

#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_non_intrusive_client.h"
#include "gaussdb/common/gaussdb_non_intrusive_handler.h"
#include "gaussdb/common/gaussdb_non_intrusive_record.h"
#include "gaussdb/common/gaussdb_process_options.h"
#include "gaussdb/instance_handler/clock_check.h"
#include "gaussdb/instance_handler/gaussdb_host_check.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "json_spirit/access.h"
#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/natoi.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace {

constexpr char MARK[] = "zenbrak3_way_in";
/** The tool's metadata of a backup takes much less than its data. */
constexpr uint64_t LEAST_ROOM = uint64_t(64) << 20;
constexpr char BACKUP_TOOL[] = "GaussRoach.py";
constexpr char const* DWS_TOOLS[] = {BACKUP_TOOL, "gs_check", "gs_om", "gs_guc", "gsql"};
constexpr char const* OPENGAUSS_TOOLS[] = {BACKUP_TOOL, "gs_check", "gs_om", "gs_guc", "cm_ctl"};

/** What ssh says of a way in that is closed, what that means, and what to do. */
struct Way_In_Fault {
    char const* said;
    char const* text;
    char const* advice;
};
constexpr Way_In_Fault WAY_IN_FAULTS[] = {
    {"REMOTE HOST IDENTIFICATION HAS CHANGED", "its host key is not the one in known_hosts",
     "find out why it has changed. If the host was installed anew, remove the old key with "
     "ssh-keygen -R and accept the new one"},
    {"Host key verification failed", "its host key is unknown",
     "compare and accept it: zenbrak3 instance add or instance change asks for it and takes "
     "--host-key"},
    {"Permission denied", "it does not accept a key of this host's root",
     "add root's public key to the account's ~/.ssh/authorized_keys: ssh-copy-id ADDRESS"},
    {"Could not resolve hostname", "its name cannot be resolved",
     "correct the address, or enter the name into the DNS or /etc/hosts"},
    {"Connection refused", "no sshd answers there",
     "start sshd there, or correct address and port (-o Port=N in the ssh options)"},
    {"timed out", "it does not answer",
     "correct the address, or let the network pass ssh to it; ConnectTimeout in the ssh options "
     "lengthens the wait"},
    {"No route to host", "no network leads to it", "correct the address or the network's routes"},
};

std::vector<std::string> lines_of(std::string const& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        if (!line.empty())
            lines.push_back(line);
    return lines;
}

/** The last line that is not empty, for people. */
std::string last_line(std::string const& text) {
    std::vector<std::string> const lines = lines_of(text);
    return lines.empty() ? "nothing was printed" : names::shown(lines.back());
}

std::vector<std::string> words_of(std::string const& line) {
    std::istringstream stream(line);
    return {std::istream_iterator<std::string>(stream), {}};
}

/** Of a line such as "gs_om (GaussDB 8.2.1 build 39c1) compiled at ...", what is in the brackets.
 */
std::string version_in(std::string const& output) {
    for (std::string const& line : lines_of(output)) {
        size_t const open = line.find('(');
        size_t const close = line.find(')', open);
        if (open != std::string::npos && close != std::string::npos)
            return names::shown(line.substr(open + 1, close - open - 1));
    }
    return "which does not tell its version";
}

char const* flavour_name(GAUSSDB_VERSION model) {
    return model == GAUSSDB_DWS ? "DWS" : "openGauss";
}

/** Whether a socket of this host listens at a port, by one of the kernel's two lists. */
bool listens_by(char const* list, uint16_t port) {
    constexpr char LISTENS[] = "0A";
    std::string const wanted = string_sprintf(":%04X", port);
    std::ifstream file(list);
    for (std::string line; std::getline(file, line);) {
        std::vector<std::string> const words = words_of(line);
        if (words.size() > 3 && words[1].ends_with(wanted) && words[3] == LISTENS)
            return true;
    }
    return false;
}

bool listens(uint16_t port) {
    return listens_by("/proc/net/tcp", port) || listens_by("/proc/net/tcp6", port);
}

} // namespace

GaussDB_Node_Check::GaussDB_Node_Check(json_spirit::Object const& record) : record_(record) {}

std::vector<Instance_Check> GaussDB_Node_Check::run(Database_Guide::Check_Scope scope) {
    if (!read_record() || !way_in())
        return lines_;
    bool const has_version = version();
    tools();
    if (!has_version)
        return lines_;
    nodes();
    if (scope == Database_Guide::TO_BACK_UP) {
        clock();
        data_service();
        if (version_.model_ == GAUSSDB_DWS)
            media_list();
        metadata_path();
    }
    return lines_;
}

bool GaussDB_Node_Check::read_record() {
    std::string fault = fault_of_non_intrusive_record(record_);
    json_spirit::object_get(record_, "source_commands", access_.source_commands);
    json_spirit::object_get(record_, "ssh_options", access_.ssh_opts);
    json_spirit::object_get(record_, "address", access_.address);
    json_spirit::object_get(record_, "meta_path", access_.meta_path);
    if (fault.empty() && access_.address.empty())
        fault = "it has no address";
    if (access_.ssh_opts.empty())
        access_.ssh_opts = DEFAULT_SSH_OPTS;
    if (fault.empty())
        return true;
    bad("record", fault, "correct it: zenbrak3 instance change");
    return false;
}

int GaussDB_Node_Check::ask(std::string const& command, std::string& output) const {
    GaussDB_Process_Options opts;
    set_process_options(opts);
    // nobody could answer a question
    if (!set_command_line(opts, "ssh -o BatchMode=yes -o UpdateHostKeys=no %s %s '%s'",
                          access_.ssh_opts.c_str(), access_.address.c_str(), command.c_str()))
        return -1;
    return subprocess::spawn_output(opts, output, true);
}

bool GaussDB_Node_Check::way_in() {
    std::string output;
    std::string const subject = "ssh " + access_.address;
    (void)ask(string_sprintf("echo %s $(whoami) $(hostname)", MARK), output);
    for (std::string const& line : lines_of(output)) {
        std::vector<std::string> const words = words_of(line);
        if (words.size() != 3 || words[0] != MARK || !names::fault_of_id(words[1]).empty() ||
            !names::fault_of_host(words[2]).empty())
            continue;
        user_ = words[1];
        good(subject, "logged in as " + user_ + " on " + words[2]);
        return true;
    }
    auto const* const fault = std::ranges::find_if(WAY_IN_FAULTS, [&](Way_In_Fault const& row) {
        return output.find(row.said) != std::string::npos;
    });
    if (fault == std::end(WAY_IN_FAULTS))
        bad(subject, "the login failed: " + last_line(output),
            "log in by hand, as root of this host: ssh " + access_.ssh_opts + " " +
                access_.address);
    else
        bad(subject, fault->text, fault->advice);
    return false;
}

/** The shell text before each command, the flavour's own if the record has none. */
std::string GaussDB_Node_Check::prefix() const {
    std::string const& commands = access_.source_commands;
    size_t const last = commands.find_last_not_of(' ');
    if (last != std::string::npos)
        return commands.substr(0, last + 1) + (commands[last] == ';' ? " " : "; ");
    switch (version_.model_) {
    case GAUSSDB_DWS:
        return SOURCE_DWS_PROFILE;
    case GAUSSDB_FOR_OPENGAUSS:
        return SOURCE_GAUSS_ENV_FILE;
    default:
        return SOURCE_ALL_PROFILES;
    }
}

/** What the prefix prints by itself, if that is a complaint. */
std::string GaussDB_Node_Check::prefix_fault() const {
    std::string output;
    int const status = ask(prefix() + "true", output);
    for (std::string const& line : lines_of(output))
        for (char const* complaint : {"No such file", "not found", "ermission denied", "rror"})
            if (line.find(complaint) != std::string::npos)
                return names::shown(line);
    return status == 0 ? "" : "it ends with status " + std::to_string(status);
}

bool GaussDB_Node_Check::version() {
    if (!non_intrusive_get_cluster_version(access_.address.c_str(), version_, prefix().c_str(),
                                           access_.ssh_opts.c_str())) {
        std::string const fault = prefix_fault();
        bad("database", "gs_check -V does not tell its version",
            fault.empty()
                ? "set the source commands to what brings the login into the database's "
                  "environment, such as: source /home/omm/gauss_env_file;"
                : "correct the source commands \"" + names::shown(prefix()) + "\": " + fault);
        return false;
    }
    std::string const found = version_.dump();
    if (!settle_non_intrusive_flavour(version_)) {
        version_.model_ = GAUSSDB_UNKNOWN;
        bad("database", "version " + found + " of this series cannot be protected over ssh",
            "install the agent on the cluster's hosts instead");
        return false;
    }
    int recorded = 0;
    std::string const text = std::string(flavour_name(version_.model_)) + " " + found;
    if (json_spirit::object_get(record_, "version", recorded) && recorded != version_.model_) {
        bad("database", text + ", and on record it is of another flavour",
            "correct the address, or remove the instance and add it again");
        return false;
    }
    good("database", text);
    return true;
}

void GaussDB_Node_Check::tools() {
    auto const& wanted = version_.model_ == GAUSSDB_FOR_OPENGAUSS ? OPENGAUSS_TOOLS : DWS_TOOLS;
    std::string command = prefix() + "for tool in";
    for (char const* tool : wanted)
        command += std::string(" ") + tool;
    std::string output;
    (void)ask(command + "; do command -v $tool; done", output);
    std::vector<std::string> const found = lines_of(output);
    for (char const* tool : wanted) {
        auto const path = std::ranges::find_if(found, [&](std::string const& line) {
            return line.starts_with('/') && line.ends_with(std::string("/") + tool);
        });
        if (path != found.end() && tool == std::string_view(BACKUP_TOOL))
            backup_tool(names::shown(*path));
        else if (path != found.end())
            good(std::string("tool ") + tool, names::shown(*path));
        else
            bad(std::string("tool ") + tool, "not found on the PATH of " + user_ + " there",
                "put its directory on the PATH by the source commands, now \"" +
                    names::shown(prefix()) + "\"");
    }
}

/** Runs it. A release that knows no --version says so in its own words, and runs all the same. */
void GaussDB_Node_Check::backup_tool(std::string const& path) {
    constexpr char WRONG_PARAMETER[] = "[GAUSS-500";
    std::string const subject = std::string("tool ") + BACKUP_TOOL;
    std::string output;
    int const status = ask(prefix() + BACKUP_TOOL + " --version", output);
    if (status == 0 || output.find(WRONG_PARAMETER) != std::string::npos)
        return good(subject, path + ", " + version_in(status == 0 ? output : ""));
    bad(subject, path + " does not run: " + last_line(output),
        "run it there as " + user_ + " until it works: " + BACKUP_TOOL +
            " --version. It needs its Python and the environment that the source commands bring, "
            "now \"" +
            names::shown(prefix()) + "\"");
}

void GaussDB_Node_Check::nodes() {
    int count = 0;
    if (version_.model_ == GAUSSDB_DWS) {
        uint16_t const port = non_intrusive_get_port(
            string_sprintf("ssh %s %s '%sgs_guc check -Z coordinator -I all -c \"port\"'",
                           access_.ssh_opts.c_str(), access_.address.c_str(), prefix().c_str())
                .c_str());
        GaussDB_Non_Intrusive_Client client(port, access_.address.c_str(), nullptr);
        client.source_cmd(prefix().c_str());
        client.ssh_opts(access_.ssh_opts.c_str());
        if (port != 0)
            count = static_cast<int>(std::min(get_database_nodes_number(&client), 1000000u));
    } else {
        (void)non_intrusive_get_node_count(access_.address.c_str(), count, prefix().c_str(),
                                           access_.ssh_opts.c_str());
    }
    if (count > 0)
        return good("nodes", std::to_string(count));
    bad("nodes", "their number could not be asked",
        version_.model_ == GAUSSDB_DWS
            ? "start the database; as " + user_ +
                  " there, gs_guc check -Z coordinator -I all -c "
                  "port and gsql have to work"
            : "start the cluster; as " + user_ + " there, cm_ctl view -N has to work");
}

void GaussDB_Node_Check::clock() {
    std::string output;
    double const before = clock_now();
    int const status = ask(ASK_CLOCK, output);
    double const after = clock_now();
    std::vector<std::string> const lines = lines_of(output);
    lines_.push_back(clock_line(
        access_.address, status != 0 || lines.empty() ? "nothing" : lines.back(), before, after));
}

/** The counterpart of the tool on this host. */
void GaussDB_Node_Check::data_service() {
    char const* const name = version_.model_ == GAUSSDB_DWS ? "roach_client" : "backUpAgent";
    std::string remote_ip, user;
    if (!find_data_service(version_.model_, remote_ip, user, client_port_))
        return bad(name,
                   "none is running on this host that tells its port, or several users run one",
                   std::string("start the database's ") + name +
                       " on this host as the user who is to own the backups; the agent's log says "
                       "more");
    std::string const text = "of user " + user + ", port " + std::to_string(client_port_);
    if (listens(client_port_))
        return good(name, text);
    bad(name, text + ", at which nothing listens",
        std::string("look at the log of ") + name + ", or start it again");
}

/** Where the tool on the node finds its counterparts. */
void GaussDB_Node_Check::media_list() {
    std::string const path = "/home/" + user_ + "/media.txt";
    std::string output;
    int const status = ask("test -r " + path + " && grep -c . " + path, output);
    std::string const count = last_line(output);
    if (status == 0 && natoi<uint32_t>(count) > 0)
        return good("media list", path + ", " + count + " lines");
    bad("media list", path + " on the node is absent, empty or not readable",
        "write the hosts of the roach clients into it, one a line, this host among them");
}

void GaussDB_Node_Check::metadata_path() {
    constexpr size_t AVAILABLE = 3; // the column of df -P
    std::string const& path = access_.meta_path;
    std::string output;
    (void)ask(string_sprintf("if test ! -d %s; then echo absent; elif test ! -w %s; then echo "
                             "closed; else df -Pk %s; fi",
                             path.c_str(), path.c_str(), path.c_str()),
              output);
    std::string const last = last_line(output);
    if (last == "absent")
        return bad("metadata path", path + " does not exist on the node",
                   "make it there on each node: mkdir -p " + path + "; chown " + user_ + " " +
                       path);
    if (last == "closed")
        return bad("metadata path", user_ + " cannot write to " + path + " on the node",
                   "give it to that user: chown " + user_ + " " + path);
    std::vector<std::string> const row = words_of(last);
    uint64_t const left = row.size() > AVAILABLE ? natoi<uint64_t>(row[AVAILABLE]) << 10 : 0;
    std::string const text = path + ", " + std::to_string(left >> 20) + " MiB free";
    if (left >= LEAST_ROOM)
        return good("metadata path", text);
    bad("metadata path", row.size() > AVAILABLE ? text : path + ": " + last,
        "make room there, or choose another: zenbrak3 instance change --meta-path");
}
