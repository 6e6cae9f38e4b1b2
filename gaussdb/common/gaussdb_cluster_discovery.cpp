// The half of the cluster manager that finds out what runs on this host.
#include "gaussdb/common/gaussdb_100_cluster_handler.h"
#include "gaussdb/common/gaussdb_200_cluster_handler.h"
#include "gaussdb/common/gaussdb_cluster_claims.h"
#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/gaussdb_cluster_name.h"
#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_ownership.h"
#include "gaussdb/common/gaussdb_t_single_handler.h"
#include "gaussdb/common/zengine_config.h"
#include "host/process/password_file_entry.h"
#include "host/process/service_lister.h"
#include "qmrt/check.h"
#include "qmrt/environment.h"
#include "qmrt/file.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"
#include "qmrt/path.h"
#include "qmrt/regex.h"

#include <algorithm>
#include <cerrno>

namespace {

// "gaussdb:" begins the title of a session's process, "./secbox" is a helper of the installation
constexpr char SERVICE_PATTERN[] = "(?!gaussdb:|\\./secbox).*\\bgaussdb\\b.*";
constexpr char GAUSSDB_T_PROGRAM[] = "/bin/zengine";

boost::regex const RE_CLUSTER_NAME("export\\s+GS_CLUSTER_NAME=(.*)$");
boost::regex const RE_GAUSSDB_T_PATH("\\s*(\\S*)/bin/zengine.*\\s*\\-D\\s*(\\S*)\\s*.*");

// what the kernel lets a program start with, with room to spare
constexpr size_t MAX_ENVIRONMENT = 64 * 1024 * 1024;

// a profile, or an instance's settings; anybody may have named or made it
constexpr uint64_t MAX_NAMED_FILE = 1024 * 1024;

/** What stands behind @a key when @a entry begins with it. */
void take_variable(std::string_view entry, std::string_view key, std::string& value) {
    if (entry.starts_with(key))
        value = entry.substr(key.size());
}

/** The first line of a file that fits, its group 1; false when there is none. errno is kept. */
bool find_in_file(char const* path, boost::regex const& pattern, std::string& text,
                  bool& readable) {
    bool found = false;
    int const result =
        read_guarded_lines(path, {.max_size = MAX_NAMED_FILE}, [&](std::string_view line) {
            qmrt::svmatch groups;
            found = qmrt::regex_match(line, groups, pattern);
            if (found)
                text = groups[1];
            return !found;
        });
    readable = result == 0;
    return found;
}

void read_cluster_variables(std::string_view variables, std::string& profile, std::string& name,
                            std::string& gphome) {
    while (!variables.empty()) {
        std::string_view const entry = variables.substr(0, variables.find('\0'));
        take_variable(entry, "MPPDB_ENV_SEPARATE_PATH=", profile);
        take_variable(entry, "GS_CLUSTER_NAME=", name);
        take_variable(entry, "GPHOME=", gphome);
        variables.remove_prefix(std::min(entry.size() + 1, variables.size()));
    }
}

/** Reads a profile with its user's rights on files: the user names it. */
bool read_profile(GaussDB_Env& env, std::string const& profile, uid_t user, bool is_first) {
    As_File_User const as_user(user);
    if (!as_user) {
        QMRT_LOG(LM_ERROR, "Failed to read %s as uid %u, errno=%d, %m\n", profile.c_str(),
                 static_cast<unsigned>(user), errno);
        return false;
    }
    return is_first ? env.init(profile.c_str()) : env.read(profile.c_str());
}

/** Fills in the environment that the tools of a claim's cluster run in. */
bool read_environment(Cluster_Claim& claim, std::string& reason) {
    uid_t const uid = claim.process.uid;
    std::string const home = "/home/" + claim.user;
    std::string const profile = claim.profile.empty() ? home + "/.bashrc" : claim.profile;
    if (!owns_profile(profile, uid, reason) ||
        (claim.profile.empty() && !claim.env.init("/etc/profile")) ||
        !read_profile(claim.env, profile, uid, !claim.profile.empty()))
        return false;
    claim.env.set_env("GPHOME", claim.gphome);
    claim.env.set_env("HOME", home);
    return true;
}

bool verify_cluster(Cluster_Claim& claim, std::string& reason) {
    return owns_process(claim.process, reason) && read_environment(claim, reason) &&
           owns_tools(claim.env, claim.process.uid, reason);
}

bool verify_gaussdb_t(Cluster_Claim& claim, std::string& reason) {
    return owns_process(claim.process, reason) && owns_tools(claim.env, claim.process.uid, reason);
}

/** Looks at a listed process; false when it has gone, or its id is another's by now. */
bool view_service(Service_Info const& service, Cluster_Claim& claim) {
    if (view_process(service.pid, claim.process) == -1) {
        if (errno != ENOENT && errno != ESRCH)
            QMRT_LOG(LM_ERROR, "Failed to get environment variables of pid %d, errno=%d, %m\n",
                     service.pid, errno);
        return false;
    }
    Password_File_Entry entry;
    claim.user =
        entry.get_by_uid(claim.process.uid) == 0 ? entry.name() : std::to_string(claim.process.uid);
    return claim.user == service.user || !claim.process.fault.empty();
}

void log_detected(std::string const& name, GaussDB_Version const& version) {
    QMRT_LOG(LM_DEBUG, "Detected instance %s, version %d, edition %d.%d.%d\n", name.c_str(),
             version.model_, version.major_, version.minor_, version.patch_);
}

/** A handler's init() for a caller that goes on with other clusters, whatever this one's fault. */
bool init_handler(std::string const& name, GaussDB_Cluster_Handler_var const& handler) {
    bool is_ready = false;
    try {
        is_ready = !handler.null() && handler->init(name.c_str());
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "The record of instance %s is of no use, %s\n", name.c_str(),
                 error.what());
    }
    if (!is_ready)
        QMRT_LOG(LM_ERROR, "Failed to init instance %s\n", name.c_str());
    return is_ready;
}

} // namespace

bool get_cluster_environ_var(int pid, std::string& profile, std::string& name,
                             std::string& gphome) {
    profile.clear();
    name.clear();
    std::string variables;
    if (read_file(snprintf_t<64>("/proc/%d/environ", pid), variables, MAX_ENVIRONMENT) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to get environment variables of pid %d, errno=%d, %m\n", pid,
                 errno);
        return false;
    }
    read_cluster_variables(variables, profile, name, gphome);
    return !name.empty() && (!profile.empty() || !gphome.empty());
}

bool GaussDB_Cluster_Manager::list_cluster() {
    std::lock_guard const guard(discovery_mutex_);
    return list_cluster_i();
}

bool GaussDB_Cluster_Manager::list_cluster_i() {
    std::vector<Service_Info> services;
    if (Service_Lister::list_service(SERVICE_PATTERN, services, true, "C") != 0)
        return false;
    pending_alerts_.clear();
    drop_overruled();
    Cluster_Claims claims(
        [this](std::string const& name) { return owner_of(name); }, verify_cluster,
        [this](std::string const& name, std::string const& text) { raise_alert(name, text); });
    gather_claims(services, claims);
    map_type found;
    for (std::string const& name : claims.names())
        if (!detect_cluster(name, claims.believed(name, cluster_exists(name.c_str())), found))
            return false;
    bool const has_any = !found.empty() || !snapshot().empty() || detect_config_cluster(found);
    check_records();
    publish_alerts(false);
    if (has_any)
        init_clusters(found);
    return has_any;
}

/** Collects what the processes say of themselves. */
void GaussDB_Cluster_Manager::gather_claims(std::vector<Service_Info> const& services,
                                            Cluster_Claims& claims) {
    // a process that does not say has its predecessor's, but never another user's
    std::map<uid_t, std::string> gphomes;
    for (Service_Info const& service : services) {
        Cluster_Claim claim;
        std::string name;
        if (!view_service(service, claim))
            continue;
        std::string& gphome = gphomes[claim.process.uid];
        read_cluster_variables(claim.process.environment, claim.profile, name, gphome);
        claim.gphome = gphome;
        if (!name.empty() && (!claim.profile.empty() || !gphome.empty()) &&
            is_cluster_file_name(name))
            claims.add(name, std::move(claim));
    }
}

/** Adds a new cluster to @a found by the first claim that fits. False only without memory. */
bool GaussDB_Cluster_Manager::detect_cluster(std::string const& name,
                                             std::vector<Cluster_Claim> const& claims,
                                             map_type& found) {
    for (Cluster_Claim const& claim : claims) {
        GaussDB_Version version(GAUSSDB_UNKNOWN, 0, 0, 0);
        if (!get_cluster_version(claim.user.c_str(), claim.env, version))
            continue;
        log_detected(name, version);
        GaussDB_Cluster_Handler* handler = nullptr;
        if (version.model_ == GAUSSDB_200)
            handler =
                new (std::nothrow) GaussDB_200_Cluster_Handler(claim.env, claim.user, version);
        else if (version.model_ == GAUSSDB_100)
            handler =
                new (std::nothrow) GaussDB_100_Cluster_Handler(claim.env, claim.user, version);
        else // served only where no agent runs on its machines
            continue;
        if (handler == nullptr) {
            errno = ENOMEM;
            return false;
        }
        found.emplace(name, GaussDB_Cluster_Handler_var(handler));
        (void)dump_env(name, claim.env); // logs its own failure; the cluster is of use without
        return true;
    }
    return true;
}

/** Has every known and every new cluster's handler initialised, by name. */
void GaussDB_Cluster_Manager::init_clusters(map_type const& found) {
    map_type all = snapshot();
    all.insert(found.begin(), found.end());
    for (auto const& [name, handler] : all) {
        std::string fault;
        if (!init_handler(name, handler))
            take_out(name, handler);
        else if (found.count(name) && enter(name, handler))
            (void)is_same_cluster(name.c_str(), false,
                                  fault); // recorded, or told with the next search
    }
}

bool GaussDB_Cluster_Manager::load_config_cluster() {
    std::lock_guard const guard(discovery_mutex_);
    map_type found;
    pending_alerts_.clear();
    bool const is_found = detect_config_cluster(found);
    publish_alerts(true);
    for (auto const& [name, handler] : found)
        enter(name, handler);
    return is_found;
}

bool GaussDB_Cluster_Manager::detect_config_cluster(map_type& found) {
    std::string profile;
    std::string name;
    bool readable = true;
    if (!get_env_r("GAUSSDB_MPPDBGS_PROFILE", profile) || profile.empty())
        return false;
    bool const has_name = find_in_file(profile.c_str(), RE_CLUSTER_NAME, name, readable);
    if (!readable)
        QMRT_LOG(LM_ERROR, "Failed to open %s, errno=%d, %m\n", profile.c_str(), errno);
    // a shell takes blanks at the end of the line, and the break of another system, for no part of
    // it
    name.erase(name.find_last_not_of(" \t\r") + 1);
    if (!has_name || !is_cluster_file_name(name))
        return false;
    Password_File_Entry owner;
    if (owner.get_by_path(profile.c_str()) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to get %s owner, errno=%d, %m.\n", profile.c_str(), errno);
        return false;
    }
    GaussDB_Env env;
    std::string reason;
    if (!is_owner_of(name, owner.uid(), reason) || !owns_profile(profile, owner.uid(), reason) ||
        !read_profile(env, profile, owner.uid(), true) || !owns_tools(env, owner.uid(), reason)) {
        if (!reason.empty())
            raise_alert(name, "the configured profile \"" + profile + "\" is not used: " + reason);
        return false;
    }
    // no tool can be asked: the cluster may be down
    GaussDB_Version const version(GAUSSDB_200, 6, 0, 0);
    QMRT_LOG(LM_DEBUG, "Detected instance %s, version %d, edition %d.%d.%d from %s\n", name.c_str(),
             version.model_, version.major_, version.minor_, version.patch_, profile.c_str());
    auto* const handler =
        new (std::nothrow) GaussDB_200_Cluster_Handler(env, owner.name(), version);
    if (handler == nullptr) {
        errno = ENOMEM;
        return false;
    }
    found.emplace(name, GaussDB_Cluster_Handler_var(handler));
    return true;
}

bool GaussDB_Cluster_Manager::list_gaussdb_t() {
    return list_gaussdb_t_single();
}

bool GaussDB_Cluster_Manager::list_gaussdb_t_single() {
    std::lock_guard const guard(discovery_mutex_);
    return list_gaussdb_t_single_i();
}

bool GaussDB_Cluster_Manager::list_gaussdb_t_single_i() {
    std::vector<Service_Info> services;
    if (Service_Lister::list_service(GAUSSDB_T_PROGRAM, services, false, "C") != 0)
        return false;
    pending_alerts_.clear();
    Cluster_Claims claims(
        [this](std::string const& name) { return owner_of(name); }, verify_gaussdb_t,
        [this](std::string const& name, std::string const& text) { raise_alert(name, text); });
    for (Service_Info const& service : services)
        add_gaussdb_t_claim(service, claims);
    bool has_memory = true;
    for (std::string const& name : claims.names())
        has_memory = has_memory &&
                     detect_gaussdb_t(name, claims.believed(name, cluster_exists(name.c_str())));
    publish_alerts(true);
    return has_memory;
}

/** Adds the instance of a process of which the port is known. */
void GaussDB_Cluster_Manager::add_gaussdb_t_claim(Service_Info const& service,
                                                  Cluster_Claims& claims) {
    qmrt::svmatch groups;
    Cluster_Claim claim;
    if (!qmrt::regex_match(service.cmd, groups, RE_GAUSSDB_T_PATH) || !view_service(service, claim))
        return;
    std::string const home = groups[1];
    std::string data = groups[2];
    if (data.ends_with('/'))
        data.pop_back();
    claim.env.set_env("GSDB_HOME", home);
    claim.env.prepend_ld_library_path((home + "/add-ons:" + home).c_str());
    claim.env.prepend_bin_path(home.c_str());
    // with the process's rights on files, since it names the directory
    As_File_User const as_user(claim.process.uid);
    int const port = as_user ? get_lsnr_port(data.c_str()) : 0;
    if (port == 0)
        return;
    claim.env.set_env("GSDB_DATA", data);
    claim.env.set_env("LSNR_PORT", std::to_string(port));
    claims.add(string_sprintf("zengine_%d", port), std::move(claim));
}

/** Enters the instance of the first claim that is one. False only without memory. */
bool GaussDB_Cluster_Manager::detect_gaussdb_t(std::string const& name,
                                               std::vector<Cluster_Claim> const& claims) {
    for (Cluster_Claim const& claim : claims) {
        if (!is_gaussdb_t(claim.user.c_str(), claim.env, nullptr))
            continue;
        QMRT_LOG(LM_DEBUG, "Detected GaussDB T, port:%s, data_dir:%s\n",
                 claim.env.get_value("LSNR_PORT"), claim.env.get_value("GSDB_DATA"));
        GaussDB_Cluster_Handler_var const handler(
            new (std::nothrow) GaussDB_T_Single_Handler(claim.env, claim.user));
        if (handler.null()) {
            errno = ENOMEM;
            return false;
        }
        if (init_handler(name, handler)) {
            enter(name, handler);
            (void)dump_env(name, claim.env); // logs its own failure; the instance is of use without
            return true;
        }
    }
    return true;
}

unsigned short GaussDB_Cluster_Manager::get_lsnr_port(char const* gaussdb_data) {
    if (QMRT_IS_NULL_OR_EMPTY(gaussdb_data))
        return 0;
    return read_lsnr_port((qmrt::Path(gaussdb_data) / "cfg/zengine.ini").c_str());
}
