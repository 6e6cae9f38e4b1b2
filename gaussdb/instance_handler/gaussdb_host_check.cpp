#include "gaussdb/instance_handler/gaussdb_host_check.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_process_options.h"
#include "gaussdb/common/user_rights.h"
#include "gaussdb/instance_handler/clock_check.h"
#include "gaussdb/instance_handler/gaussdb_instance_handler.h"
#include "gaussdb/job/gaussdb_utils.h"
#include "gaussdb/job/job_definition_rules.h"
#include "host/agent/host_manager.h"
#include "host/process/password_file_entry.h"
#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"
#include "qmrt/names.h"
#include "qmrt/path.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {

/** The tools that a flavour's jobs run, on this host; closed by a null. */
struct Tools_Row {
    int flavour;
    char const* tools[6];
};
constexpr char ROACH_SCRIPT[] = "GaussRoach.py";
constexpr Tools_Row TOOLS[] = {
    {GAUSSDB_100, {ROACH_SCRIPT, "gs_om", "zsql", "gs_check", nullptr}},
    {GAUSSDB_200, {ROACH_SCRIPT, "gs_om", "gs_guc", "gsql", "gs_check", nullptr}},
    {GAUSSDB_T, {"zengine", "zsql", "zctl.py", nullptr}},
    {GAUSSDB_DWS, {"ssh", "scp", nullptr}},
    {GAUSSDB_FOR_OPENGAUSS, {"ssh", "scp", nullptr}},
};
constexpr char const* NO_TOOLS[] = {nullptr};

/** The releases that the module was tried with, by the first number; see docs/operations.md. */
struct Known_Row {
    int flavour;
    unsigned first;
    unsigned last;
};
constexpr Known_Row KNOWN[] = {
    {GAUSSDB_100, 1, 1},
    {GAUSSDB_200, 6, 8},
    {GAUSSDB_DWS, 8, 8},
    {GAUSSDB_FOR_OPENGAUSS, 503, 505},
};
/** What zengine of a known release says. */
constexpr char KNOWN_T[] = "GaussDB_T_1.";

/** Where policies, the tool's metadata and the clusters' environments are. */
constexpr char CACHE[] = "/var/cache/quilmot/zenbrak3/gaussdb";
constexpr char SYSTEM_LINK[] = "/usr/openv/lib/libxbsa64.so";
constexpr char OWN_LIBRARIES[] = "/opt/quilmot/zenbrak3/lib";
/** The tool's metadata of a backup takes much less than its data. */
constexpr uint64_t LEAST_POLICY_ROOM = uint64_t(64) << 20;
constexpr uint64_t LEAST_FILES = 1000;

bool is_over_ssh(int flavour) {
    return flavour == GAUSSDB_DWS || flavour == GAUSSDB_FOR_OPENGAUSS;
}

bool is_cluster_here(int flavour) {
    return flavour == GAUSSDB_100 || flavour == GAUSSDB_200;
}

char const* const* tools_of(int flavour) {
    for (Tools_Row const& row : TOOLS)
        if (row.flavour == flavour)
            return row.tools;
    return NO_TOOLS;
}

/** States in which a backup begins, as the tools name them. */
bool allows_backup(std::string const& state) {
    return state == "Normal" || state == "Degraded" || state == "running";
}

bool is_program(std::string const& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/** The PATH that the user has after a login; "" if it cannot be found out. */
std::string login_path(std::string const& user) {
    ACE_Process_Options options(true, 1024, 16384, 512, 128);
    std::string output;
    if (!set_process_user(options, user.c_str()) ||
        !set_command_line(options, "%s", "sh -lc 'printf \"%s\" \"$PATH\"'"))
        return "";
    options.handle_inheritance(0);
    return subprocess::spawn_output(options, output, false) == 0 ? output : "";
}

/** Where the cluster's tools were, as was noted; "" if nothing was. */
std::string noted_path(std::string const& instance) {
    json_spirit::Value noted;
    std::string const file = std::string(CACHE) + "/" + instance + "_env";
    if (!names::fault_of_file(instance).empty() || !is_program(file) ||
        !load_json(file.c_str(), noted, 0) || noted.type() != json_spirit::obj_type)
        return "";
    std::string path = json_spirit::object_get_str(noted.get_obj(), "PATH");
    for (auto const& [variable, folder] :
         {std::pair{"GPHOME", "/script"}, std::pair{"GAUSSHOME", "/bin"}})
        if (std::string const home = json_spirit::object_get_str(noted.get_obj(), variable);
            !home.empty())
            path += ":" + home + folder;
    return path;
}

/** Where a program is by a PATH; "" if it is nowhere. */
std::string find_on(std::string const& path, std::string const& program) {
    for (size_t begin = 0; begin <= path.size();) {
        size_t const end = std::min(path.find(':', begin), path.size());
        std::string const file = path.substr(begin, end - begin) + "/" + program;
        if (end > begin && is_program(file))
            return file;
        begin = end + 1;
    }
    return "";
}

std::string last_line_of(std::string const& output) {
    std::istringstream stream(output);
    std::string last;
    for (std::string line; std::getline(stream, line);)
        if (!line.empty())
            last = line;
    return last;
}

std::string mib_text(uint64_t bytes) {
    constexpr unsigned MIB_SHIFT = 20;
    return std::to_string(bytes >> MIB_SHIFT) + " MiB";
}

/** The directory, or the nearest one above it that exists. */
std::string existing_above(std::string path) {
    while (path.size() > 1 && access(path.c_str(), F_OK) != 0)
        path = dirname_string(path);
    return path;
}

/** The first number of "8.1.1"; 0 for another text. */
unsigned first_number(std::string const& version) {
    unsigned number = 0;
    for (char const c : version) {
        if (c < '0' || c > '9' || number > 100000)
            break;
        number = number * 10 + static_cast<unsigned>(c - '0');
    }
    return number;
}

} // namespace

Instance_Check clock_line(std::string const& host, std::string const& printed, double before,
                          double after) {
    constexpr double WORTH_A_WARNING = 5;
    constexpr double TOO_MUCH = 60;
    Instance_Check line{"clock of " + names::shown(host), true, "", ""};
    std::optional<double> const difference = clock_difference(printed, before, after);
    if (!difference) {
        line.text = "it does not tell the time: " + names::shown(printed);
        line.advice = "see there what date +%s prints";
        line.ok = false;
        line.doubtful = true;
        return line;
    }
    line.measure = "clock_" + names::shown(host);
    line.value = *difference;
    line.unit = "s";
    double const size = std::abs(*difference);
    if (size <= WORTH_A_WARNING) {
        line.text = "agrees with this host's";
        return line;
    }
    line.text = string_sprintf("%.0f seconds %s this host's", size,
                               *difference > 0 ? "ahead of" : "behind");
    line.advice = "let all hosts of the cluster take their time from one server (chronyd)";
    line.ok = size <= TOO_MUCH;
    line.doubtful = line.ok;
    return line;
}

GaussDB_Host_Check::GaussDB_Host_Check(Instance const& instance, int flavour)
    : instance_(instance), flavour_(flavour) {
    instance.get_option("user", user_);
    if (GaussDB_Cluster_Manager const* const manager = GaussDB_Cluster_Manager::instance())
        cluster_ = manager->get_cluster(instance.name.c_str());
}

std::vector<Instance_Check> GaussDB_Host_Check::instance() {
    if (flavour_ != GAUSSDB_TPOPS) // whose platform is asked instead
        state();
    user_and_tools();
    if (may_act_)
        version();
    account();
    if (may_act_ && is_cluster_here(flavour_))
        hosts();
    return lines_;
}

std::vector<Instance_Check> GaussDB_Host_Check::places(std::string const& writer) {
    lines_.clear();
    if (flavour_ != GAUSSDB_UNKNOWN) {
        library_link();
        policies();
    }
    passages(writer);
    return lines_;
}

void GaussDB_Host_Check::state() {
    std::string found = "error";
    (void)GaussDB_Instance_Handler().get_state(instance_.name.c_str(), found);
    if (allows_backup(found))
        return good("state", found);
    bad("state", found.empty() ? "it could not be found out" : names::shown(found),
        found == "error" ? "look for the reason in the agent's log"
                         : "bring the database to the state Normal: gs_om -t status --detail");
}

// the user and the tools

void GaussDB_Host_Check::user_and_tools() {
    if (is_over_ssh(flavour_)) // ssh runs as the agent
        return tools("");
    if (*tools_of(flavour_) == nullptr)
        return;
    if (user_.empty())
        return bad("user", "the record does not name the database's user",
                   "start the database and run: zenbrak3 instances --refresh");
    std::string const subject = "user " + names::shown(user_);
    if (!getpwnam(user_.c_str()))
        return bad(subject, "this host has no such user",
                   "make the user that the database ran as, or correct the instance");
    if (geteuid() != 0) {
        bad(subject, "the agent may not act as another user", "run the agent as root");
    } else {
        good(subject, "the agent may act as this user");
        may_act_ = !cluster_.null() && cluster_->user() == user_;
    }
    if (flavour_ != GAUSSDB_T) // the files of T reach the pool through the agent alone
        lines_.back().user = user_;
    tools(user_);
}

/** Looks for the tools; @a user runs them, "" for the agent. */
void GaussDB_Host_Check::tools(std::string const& user) {
    std::string app_path;
    instance_.get_option("app_path", app_path);
    char const* const own_path = getenv("PATH");
    std::string path =
        user.empty() || geteuid() != 0 ? (own_path ? own_path : "") : login_path(user);
    if (std::string const noted = noted_path(instance_.name); !noted.empty())
        path += ":" + noted;
    if (!app_path.empty())
        path += ":" + app_path + "/bin:" + app_path + "/script";
    for (char const* const* tool = tools_of(flavour_); *tool; ++tool) {
        std::string const file = find_on(path, *tool);
        std::string const subject = std::string("tool ") + *tool;
        if (!file.empty())
            good(subject, names::shown(file));
        else
            bad(subject, "not found on the path " + names::shown(path),
                user.empty() ? "install it, or put it on the agent's PATH"
                             : "put its directory on the PATH in the profile of " + user);
    }
}

int GaussDB_Host_Check::ask(char const* command, std::string& output) const {
    GaussDB_Process_Options options;
    if (!set_local_options(options, cluster_->env(), user_.c_str()) ||
        !set_command_line(options, "%s", command))
        return -1;
    return subprocess::spawn_output(options, output, true);
}

// versions

void GaussDB_Host_Check::version() {
    if (flavour_ == GAUSSDB_T) {
        std::string found;
        if (is_gaussdb_t(user_.c_str(), cluster_->env(), &found))
            return known_version(found);
        return bad("version", "zengine -v does not tell it",
                   "run it as " + user_ + " until it works");
    }
    if (!is_cluster_here(flavour_))
        return;
    GaussDB_Version found(GAUSSDB_UNKNOWN, 0, 0, 0);
    if (!get_cluster_version(user_.c_str(), cluster_->env(), found))
        bad("version", "gs_check -V does not tell it", "run it as " + user_ + " until it works");
    else
        known_version(found.dump());
    backup_tool();
}

/** @param found  "8.1.1", or the words of zengine */
void GaussDB_Host_Check::known_version(std::string const& found) {
    bool const is_known = flavour_ == GAUSSDB_T
                              ? found.starts_with(KNOWN_T)
                              : std::ranges::any_of(KNOWN, [&](Known_Row const& row) {
                                    return row.flavour == flavour_ &&
                                           first_number(found) >= row.first &&
                                           first_number(found) <= row.last;
                                });
    std::string const text = names::shown(found);
    if (is_known)
        return good("version", text + ", known to work");
    warn("version", text + ", not tried with this module",
         "try a backup and a restore to another cluster first; docs/operations.md has the known "
         "versions");
}

/** Runs it. A release that knows no --version says so in its own words, and runs all the same. */
void GaussDB_Host_Check::backup_tool() {
    constexpr char WRONG_PARAMETER[] = "[GAUSS-500";
    std::string output;
    int const status = ask("GaussRoach.py --version", output);
    std::string const subject = std::string(ROACH_SCRIPT) + " --version";
    if (status == 0)
        return good(subject, names::shown(last_line_of(output)));
    if (output.find(WRONG_PARAMETER) != std::string::npos)
        return good(subject, "it runs, and does not tell its version");
    std::string const last = last_line_of(output);
    bad(subject, "it does not run: " + (last.empty() ? "nothing was printed" : names::shown(last)),
        "run it as " + user_ + " until it works; it needs its Python and the profile of " + user_);
}

// the account

void GaussDB_Host_Check::account() {
    if (is_over_ssh(flavour_))
        return good("account", "none is needed; ssh logs in by a key");
    for (auto const& [uid, account] : instance_.logon_options)
        return good("account",
                    account.type() == json_spirit::obj_type
                        ? names::shown(json_spirit::object_get_str(account.get_obj(), "username"))
                        : uid);
    // these tools log on as the user of the operating system
    if (is_cluster_here(flavour_))
        return good("account", "none on record; the database's user is trusted locally");
    bad("account", "there is none on record",
        "save one: zenbrak3 account " + instance_.name + " USER");
}

// the other hosts of a cluster

void GaussDB_Host_Check::hosts() {
    GaussDB_Cluster_Info const info = cluster_->info();
    if (info.devices.size() < 2)
        return;
    std::vector<std::string> uuids;
    std::string const count = std::to_string(info.devices.size());
    (void)get_cluster_host_uuids(instance_.name.c_str(), uuids);
    std::string listed;
    for (GaussDB_Device_Info const& device : info.devices)
        listed += (listed.empty() ? "" : ", ") + names::shown(device.name);
    if (uuids.size() >= info.devices.size())
        good("agents", "on all " + count + " hosts: " + listed);
    else
        bad("agents",
            std::to_string(uuids.size()) + " of the " + count + " hosts have one that knows this " +
                "instance: " + listed,
            "install the agent on each host as a member of the group, and run zenbrak3 instances "
            "--refresh there");
    for (GaussDB_Device_Info const& device : info.devices)
        if (device.name != Host_Manager::instance()->name())
            other_host(device);
}

/** The backup tool starts its agents by ssh, as the cluster's user. */
void GaussDB_Host_Check::other_host(GaussDB_Device_Info const& device) {
    std::string const address = !device.ssh_ips.empty()    ? device.ssh_ips.front()
                                : !device.back_ips.empty() ? device.back_ips.front()
                                                           : device.name;
    std::string const subject = "ssh " + names::shown(address);
    if (std::string const fault = names::fault_of_host(address); !fault.empty())
        return bad(subject, "the address " + fault, "correct the cluster's configuration");
    GaussDB_Process_Options options;
    set_process_options(options);
    std::string output;
    double const before = clock_now();
    // nobody could answer a question, and known_hosts stays as it is
    if (!set_process_user(options, user_.c_str()) ||
        !set_command_line(options,
                          "ssh -o BatchMode=yes -o StrictHostKeyChecking=yes -o UpdateHostKeys=no "
                          "-o ConnectTimeout=5 -o ServerAliveInterval=5 -o ServerAliveCountMax=2 "
                          "%s '%s'",
                          address.c_str(), ASK_CLOCK))
        return;
    int const status = subprocess::spawn_output(options, output, true);
    double const after = clock_now();
    std::string const last = last_line_of(output);
    if (status != 0)
        return bad(subject,
                   user_ + " cannot log in: " +
                       (last.empty() ? "nothing was printed" : names::shown(last)),
                   "as " + user_ + ", make this work without a password: ssh " + address);
    good(subject, user_ + " can log in");
    lines_.push_back(clock_line(device.name, last, before, after));
}

// the link to the XBSA library

void GaussDB_Host_Check::library_link() {
    if (flavour_ == GAUSSDB_200)
        return link_of_cluster();
    if (flavour_ == GAUSSDB_100 || flavour_ == GAUSSDB_DWS)
        return link_found(SYSTEM_LINK);
    // of the others, the media service that runs on this host has its own way
}

/** The link is in the installation: what stands there is looked at with its user's rights. */
void GaussDB_Host_Check::link_of_cluster() {
    if (cluster_.null() || user_.empty() || geteuid() != 0)
        return;
    std::string const home = cluster_->env().gauss_home();
    if (home.empty())
        return bad("library link", "the profile of " + user_ + " does not set GAUSSHOME",
                   "correct the profile and run: zenbrak3 instances --refresh");
    (void)with_rights_of(user_.c_str(), [&](Password_File_Entry const&) {
        link_found(home + "/lib/libsimsearch/libxbsa64.so");
        return true;
    });
}

void GaussDB_Host_Check::link_found(std::string const& link) {
    constexpr char AGAIN[] = "restart the agent, which makes it: systemctl restart zenbrak3-agent";
    std::string const subject = "library link " + names::shown(link);
    struct stat status;
    if (lstat(link.c_str(), &status) != 0) {
        if (errno == ENOENT || errno == ENOTDIR)
            return bad(subject, "it does not exist; the backup tool would find no XBSA library",
                       AGAIN);
        return bad(subject, strerror(errno), "let the user " + user_ + " pass to it");
    }
    if (!S_ISLNK(status.st_mode))
        return bad(subject, "something else than a link is in its place",
                   std::string("move it away, and ") + AGAIN);
    std::unique_ptr<char, void (*)(void*)> const target(realpath(link.c_str(), nullptr), free);
    if (!target)
        return bad(subject, "it leads to a library that does not exist",
                   std::string("install the package again, or remove the link and ") + AGAIN);
    std::string const path = names::shown(target.get());
    std::unique_ptr<char, void (*)(void*)> const own(realpath(OWN_LIBRARIES, nullptr), free);
    if (own && std::string_view(target.get()).starts_with(std::string(own.get()) + "/"))
        return good(subject, "it leads to " + path);
    warn(subject, "it leads to " + path + ", which is not this product's library",
         std::string("leave it if that is meant; else remove it and ") + AGAIN);
}

// directories of this host

/** Policies are written there, and the tool's metadata. */
void GaussDB_Host_Check::policies() {
    std::string const subject = std::string("directory ") + CACHE;
    std::string const there = existing_above(CACHE);
    struct stat status;
    struct statvfs space;
    if (stat(there.c_str(), &status) != 0 || statvfs(there.c_str(), &space) != 0)
        return bad(subject, strerror(errno), "look at its file system");
    if (!S_ISDIR(status.st_mode))
        return bad(subject, there + " is not a directory", "move it away");
    if (status.st_uid != geteuid() || (status.st_mode & (S_IWGRP | S_IWOTH)))
        return bad(subject, "others than root can write to " + there + ", where policies are",
                   "run: chown root " + there + "; chmod go-w " + there);
    if ((space.f_flag & ST_RDONLY) || access(there.c_str(), W_OK) != 0)
        return bad(subject, "policies cannot be written to it", "mount it writable");
    uint64_t const left = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
    std::string const text = mib_text(left) + " free for policies and metadata";
    bool const has_files = space.f_files == 0 || space.f_favail >= LEAST_FILES;
    if (left < LEAST_POLICY_ROOM || !has_files)
        bad(subject, has_files ? text : "its file system has no room for more files",
            "make room there: " + mib_text(LEAST_POLICY_ROOM) + " at least");
    else
        good(subject, text);
    measure("metadata_free", static_cast<double>(left), "B");
}

/** Whether the writer reaches its policy, its metadata and the XBSA library. */
void GaussDB_Host_Check::passages(std::string const& user) {
    Password_File_Entry entry;
    if (user.empty() || geteuid() != 0 || entry.get(user.c_str()) == -1)
        return;
    for (std::string const& directory :
         {std::string(CACHE) + "/", dirname_string(SYSTEM_LINK), std::string(OWN_LIBRARIES)})
        if (std::string const closed = closed_directory(directory, entry.uid()); !closed.empty())
            bad("directory " + closed, "the user " + user + " cannot pass through it",
                "run: chmod o+x " + closed);
}
