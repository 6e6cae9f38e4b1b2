#include "agent/service/readiness_check.h"

#include "agent/service/instance_flavour.h"
#include "host/agent/instance_manager.h"
#include "host/process/password_file_entry.h"
#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "host/storage/xbsa_folder.h"
#include "host/storage/xbsa_layout.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"

#include <algorithm>
#include <filesystem>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** The tools that a flavour's jobs run, on this host; closed by a null. */
struct Tools_Row {
    int version;
    char const* tools[6];
};

constexpr Tools_Row TOOLS[] = {
    {FLAVOUR_100, {"GaussRoach.py", "gs_om", "zsql", "gs_check", nullptr}},
    {FLAVOUR_200, {"GaussRoach.py", "gs_om", "gs_guc", "gsql", "gs_check", nullptr}},
    {FLAVOUR_T, {"zengine", "zsql", "zctl.py", nullptr}},
};

constexpr char const* SSH_TOOLS[] = {"ssh", "scp", nullptr};
constexpr char const* NO_TOOLS[] = {nullptr};
/** Where the module keeps the environment under which a cluster's tools run, by its name. */
constexpr char ENVIRONMENTS[] = "/var/cache/quilmot/zenbrak3/gaussdb/";
constexpr char SYSTEM_LINK[] = "/usr/openv/lib/libxbsa64.so";
constexpr char LIBRARIES[] = "/usr/openv/lib/";
constexpr char OWN_LIBRARIES[] = "/opt/quilmot/zenbrak3/lib/";

/** Whether the flavour is reached by ssh only, so that its tools are on another machine. */
bool is_remote(int version) {
    return version == FLAVOUR_DWS || version == FLAVOUR_OPENGAUSS;
}

char const* const* tools_of(int version) {
    for (Tools_Row const& row : TOOLS)
        if (row.version == version)
            return row.tools;
    return is_remote(version) ? SSH_TOOLS : NO_TOOLS;
}

/** States in which a backup begins, as the tools name them. */
bool allows_backup(std::string const& state) {
    return state == "Normal" || state == "Degraded" || state == "running";
}

bool is_file(std::string const& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/** The PATH that the user has after a login; "" when there is no way to know. */
std::string login_path(std::string const& user) {
    ACE_Process_Options options(true, 1024, 16384, 512, 128);
    std::string output;
    if (!set_process_user(options, user.c_str()) ||
        !set_command_line(options, "%s", "sh -lc 'printf \"%s\" \"$PATH\"'"))
        return "";
    options.handle_inheritance(0);
    return subprocess::spawn_output(options, output, false) == 0 ? output : "";
}

/** Where the module will find a cluster's tools, as it has noted; "" when it has not. */
std::string noted_path(std::string const& instance) {
    json_spirit::Value noted;
    std::string const file = ENVIRONMENTS + instance + "_env";
    if (!is_file(file) || !load_json(file.c_str(), noted, 0) ||
        noted.type() != json_spirit::obj_type)
        return "";
    std::string path = json_spirit::object_get_str(noted.get_obj(), "PATH");
    for (auto const& [variable, folder] :
         {std::pair{"GPHOME", "/script"}, std::pair{"GAUSSHOME", "/bin"}})
        if (std::string const home = json_spirit::object_get_str(noted.get_obj(), variable);
            !home.empty())
            path += ":" + home + folder;
    return path;
}

/** Where a program is by a PATH; "" when it is nowhere. */
std::string find_on(std::string const& path, std::string const& program) {
    for (size_t begin = 0; begin <= path.size();) {
        size_t const end = std::min(path.find(':', begin), path.size());
        std::string const file = path.substr(begin, end - begin) + "/" + program;
        if (end > begin && is_file(file))
            return file;
        begin = end + 1;
    }
    return "";
}

std::string size_text(uint64_t bytes) {
    char const* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(units); ++unit)
        value /= 1024;
    return string_sprintf(unit ? "%.1f %s" : "%.0f %s", value, units[unit]);
}

} // namespace

bool Readiness_Check::ok() const {
    return std::all_of(lines_.begin(), lines_.end(), [](Line const& line) { return line.ok; });
}

json_spirit::Object Readiness_Check::dump() const {
    json_spirit::Array lines;
    for (Line const& line : lines_)
        lines.emplace_back(json_spirit::Object{{"subject", line.subject},
                                               {"ok", line.ok},
                                               {"text", line.text},
                                               {"advice", line.advice}});
    return {{"ok", ok()}, {"lines", std::move(lines)}};
}

void Readiness_Check::module(std::string const& path, std::vector<std::string> const& pairs) {
    if (std::find(pairs.begin(), pairs.end(), "GaussDB_Job_Creator") != pairs.end())
        return good("module", path);
    bad("module", path + " makes no jobs", "install the module that belongs to this agent");
}

void Readiness_Check::database(std::vector<std::string> const& complaints) {
    if (complaints.empty())
        return good("agent's database", "no damage found");
    bad("agent's database", complaints.front(),
        "stop the agent and bring the file back from a copy; keep the damaged one");
}

void Readiness_Check::instance(std::string const& name, std::string const& uid,
                               std::string const& cache_dir) {
    std::shared_ptr<Instance> const found =
        Instance_Manager::instance()->find("gaussdb", name.c_str());
    if (!found) {
        alerts(name);
        return bad("instance " + name, "it is not known here",
                   "start the database and run: zenbrak3 instances --refresh");
    }
    int const version = flavour_of(*found);
    std::string const edition = edition_of(*found);
    found->get_option("user", user_);
    resource_ = found->uuid;
    good("instance " + name, "on record, version " + (edition.empty() ? "not known" : edition));
    alerts(name);
    if (!is_on_platform(*found)) // machines() asks the platform
        state(name);
    user_and_tools(*found, version);
    if (!cache_dir.empty())
        found->options["cache_dir"] = cache_dir;
    machines(*found, Instance_Handler::TO_BACK_UP);
    account(name, uid, version);
    if (version == FLAVOUR_100 || version == FLAVOUR_200 || version == FLAVOUR_TPOPS)
        xbsa_link();
    if (version == FLAVOUR_T)
        user_.clear(); // its files reach the pool through the agent alone
    passages();
}

void Readiness_Check::machines(Instance const& instance, Instance_Handler::Check_Scope scope) {
    auto const handler = Instance_Manager::instance()->get_handler("gaussdb");
    if (!handler)
        return;
    for (Line const& line : handler->check(instance, scope)) {
        lines_.push_back(line);
        if (!line.user.empty())
            user_ = line.user;
    }
}

void Readiness_Check::alerts(std::string const& name) {
    auto const handler = Instance_Manager::instance()->get_handler("gaussdb");
    if (!handler)
        return;
    for (Instance_Alert const& alert : handler->alerts())
        if (alert.instance == name)
            bad("alert", alert.text, "when it is put right, run: zenbrak3 instances --refresh");
}

void Readiness_Check::state(std::string const& name) {
    auto const handler = Instance_Manager::instance()->get_handler("gaussdb");
    std::string found = "error";
    if (handler)
        handler->get_state(name.c_str(), found);
    if (allows_backup(found))
        return good("state", found);
    bad("state", found.empty() ? "it could not be found out" : found,
        found == "error" ? "look for the reason in the agent's log"
                         : "bring the database to the state Normal: gs_om -t status --detail");
}

void Readiness_Check::user_and_tools(Instance const& instance, int version) {
    std::string user, app_path;
    instance.get_option("user", user);
    instance.get_option("app_path", app_path);
    if (is_remote(version)) // ssh runs as the agent
        return tools(tools_of(version), instance.name, "", app_path);
    if (*tools_of(version) == nullptr)
        return;
    if (user.empty())
        return bad("user", "the record does not name the database's user",
                   "start the database and run: zenbrak3 instances --refresh");
    if (!getpwnam(user.c_str()))
        return bad("user " + user, "this host has no such user",
                   "make the user that the database ran as, or correct the instance");
    if (geteuid() != 0)
        bad("user " + user, "the agent may not act as another user", "run the agent as root");
    else
        good("user " + user, "the agent may act as this user");
    tools(tools_of(version), instance.name, user, app_path);
}

void Readiness_Check::tools(char const* const* names, std::string const& instance,
                            std::string const& user, std::string const& app_path) {
    char const* const own_path = getenv("PATH");
    std::string path =
        user.empty() || geteuid() != 0 ? (own_path ? own_path : "") : login_path(user);
    if (std::string const noted = noted_path(instance); !noted.empty())
        path += ":" + noted;
    if (!app_path.empty())
        path += ":" + app_path + "/bin:" + app_path + "/script";
    for (; *names; ++names) {
        std::string const file = find_on(path, *names);
        if (!file.empty())
            good(std::string("tool ") + *names, file);
        else
            bad(std::string("tool ") + *names, "not found on the path " + path,
                user.empty() ? "install it, or put it on the agent's PATH"
                             : "put its directory on the PATH in the profile of " + user);
    }
}

void Readiness_Check::account(std::string const& name, std::string const& uid, int version) {
    if (is_remote(version))
        return good("account", "none is needed; ssh logs in by a key");
    std::string username;
    secure_string password;
    if (Instance_Manager::instance()->get_account("gaussdb", uid.c_str(), name.c_str(), username,
                                                  password) == 0)
        return good("account", username);
    // these tools log on as the user of the operating system
    if (version == FLAVOUR_100 || version == FLAVOUR_200)
        return good("account", "none on record; the database's user is trusted locally");
    bad("account", "there is none on record", "save one: zenbrak3 account " + name + " USER");
}

void Readiness_Check::xbsa_link() {
    struct stat status;
    std::string const subject = std::string("link ") + SYSTEM_LINK;
    if (lstat(SYSTEM_LINK, &status) != 0)
        return good(subject, "not there; the first backup makes it");
    char* const target = realpath(SYSTEM_LINK, nullptr);
    if (target)
        good(subject, std::string("leads to ") + target);
    else
        bad(subject, "leads to a library that is not there",
            "install the XBSA library, or remove the link so that the next backup makes it anew");
    free(target);
}

void Readiness_Check::pool(Pool const& pool, uint64_t needed) {
    std::string const subject = "pool " + pool.name;
    if (!pool.online)
        return bad(subject, "its directory is not there", "mount it, or correct the pool's URL");
    std::error_code error;
    if (!std::filesystem::is_directory(pool.path, error))
        return bad(subject, "its directory " + pool.path + " is not on this host",
                   "mount it here as well, at the same place as on the backup server");
    if (pool.read_only)
        return bad(subject, "it is read-only", "choose another pool, or make it writable");
    if (std::string const fault = fault_of_separation(pool.path); !fault.empty())
        bad(subject, fault,
            "run: zenbrak3 pool update " + pool.name +
                " --separate. Where that does not help, use a file system with owners");
    user_folder(pool);
    uint64_t left = pool.available;
    if (pool.limit)
        left = std::min(left, pool.limit > pool.used ? pool.limit - pool.used : 0);
    std::string const text =
        size_text(left) + " free" +
        (needed ? ", the last full backup took " + size_text(needed) : std::string());
    if (left == 0 || left < needed)
        return bad(subject, text, "make room in it, raise its limit, or choose another pool");
    good(subject, text);
}

/** Whether the database's user can write where the XBSA library will. */
void Readiness_Check::user_folder(Pool const& pool) {
    if (user_.empty() || resource_.empty() || geteuid() != 0)
        return;
    Storage_Result const result = check_pool_writable(pool.path, resource_, user_);
    if (result)
        return good("pool " + pool.name, user_ + " can write to its own folder");
    bad("pool " + pool.name, result.text(),
        "let others pass through the directories above the pool: chmod o+x DIRECTORY. If the "
        "folder "
        "is another user's, let each cluster have a pool of its own");
}

/** Whether the database's user reaches its policy, its metadata and the XBSA library. */
void Readiness_Check::passages() {
    Password_File_Entry entry;
    if (user_.empty() || geteuid() != 0 || entry.get(user_.c_str()) == -1)
        return;
    for (char const* directory : {ENVIRONMENTS, LIBRARIES, OWN_LIBRARIES})
        if (std::string const closed = closed_directory(directory, entry.uid()); !closed.empty())
            bad("directory " + closed, "the user " + user_ + " cannot pass through it",
                "run: chmod o+x " + closed);
}

void Readiness_Check::pools_unknown(std::string const& why) {
    bad("pool", "the backup server was not asked: " + why,
        "is it up, and is backupd_url right? journalctl -u zenbrak3-agent tells more");
}

void Readiness_Check::no_pool() {
    bad("pool", "there is none", "make one: zenbrak3 pool create NAME /its/directory");
}
