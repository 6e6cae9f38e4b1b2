// The half of the cluster manager that finds out what runs on this host.
#include "gaussdb/common/gaussdb_100_cluster_handler.h"
#include "gaussdb/common/gaussdb_200_cluster_handler.h"
#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/gaussdb_cluster_name.h"
#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_t_single_handler.h"
#include "host/process/password_file_entry.h"
#include "host/process/service_lister.h"
#include "qmrt/check.h"
#include "qmrt/environment.h"
#include "qmrt/file.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"
#include "qmrt/natoi.h"
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
boost::regex const RE_LSNR_PORT("\\s*LSNR_PORT\\s*=\\s*(.*)$", boost::regex::icase);

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

/** The environment that a database process's tools run in. */
bool read_environment(std::string const& profile, std::string const& gphome,
                      std::string const& user, GaussDB_Env& env) {
    std::string const home = "/home/" + user;
    bool const is_read = profile.empty()
                             ? env.init("/etc/profile") && env.read((home + "/.bashrc").c_str())
                             : env.init(profile.c_str());
    if (is_read) {
        env.set_env("GPHOME", gphome);
        env.set_env("HOME", home);
    }
    return is_read;
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
    std::string_view rest(variables);
    while (!rest.empty()) {
        std::string_view const entry = rest.substr(0, rest.find('\0'));
        take_variable(entry, "MPPDB_ENV_SEPARATE_PATH=", profile);
        take_variable(entry, "GS_CLUSTER_NAME=", name);
        take_variable(entry, "GPHOME=", gphome);
        rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
    }
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
    map_type found;
    // one text for all: a process that does not say has its predecessor's
    std::string gphome;
    for (Service_Info const& service : services)
        if (!detect_cluster(service, gphome, found))
            return false;
    if (found.empty() && snapshot().empty() && !detect_config_cluster(found))
        return false;
    init_clusters(found);
    return true;
}

/** Adds a process's cluster to @a found if it is a new one. False only without memory. */
bool GaussDB_Cluster_Manager::detect_cluster(Service_Info const& service, std::string& gphome,
                                             map_type& found) {
    std::string profile;
    std::string name;
    if (!get_cluster_environ_var(service.pid, profile, name, gphome) || found.count(name) ||
        cluster_exists(name.c_str()) || !is_cluster_file_name(name))
        return true;
    GaussDB_Env env;
    GaussDB_Version version(GAUSSDB_UNKNOWN, 0, 0, 0);
    if (!read_environment(profile, gphome, service.user, env) ||
        !get_cluster_version(service.user.c_str(), env, version))
        return true;
    log_detected(name, version);

    GaussDB_Cluster_Handler* handler = nullptr;
    if (version.model_ == GAUSSDB_200)
        handler = new (std::nothrow) GaussDB_200_Cluster_Handler(env, service.user, version);
    else if (version.model_ == GAUSSDB_100)
        handler = new (std::nothrow) GaussDB_100_Cluster_Handler(env, service.user, version);
    else // served only where no agent runs on its machines
        return true;
    if (handler == nullptr) {
        errno = ENOMEM;
        return false;
    }
    found.emplace(name, GaussDB_Cluster_Handler_var(handler));
    dump_env(name, env); // logs its own failure; the cluster is of use without
    return true;
}

/** Has every known and every new cluster's handler initialised, by name. */
void GaussDB_Cluster_Manager::init_clusters(map_type const& found) {
    map_type all = snapshot();
    all.insert(found.begin(), found.end());
    for (auto const& [name, handler] : all) {
        if (!init_handler(name, handler))
            take_out(name, handler);
        else if (found.count(name))
            enter(name, handler);
    }
}

bool GaussDB_Cluster_Manager::load_config_cluster() {
    std::lock_guard const guard(discovery_mutex_);
    map_type found;
    if (!detect_config_cluster(found))
        return false;
    for (auto const& [name, handler] : found)
        enter(name, handler);
    return true;
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
    if (!has_name || !is_cluster_file_name(name))
        return false;
    Password_File_Entry owner;
    if (owner.get_by_path(profile.c_str()) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to get %s owner, errno=%d, %m.\n", profile.c_str(), errno);
        return false;
    }
    GaussDB_Env env;
    if (!env.init(profile.c_str()))
        return false;
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
    for (Service_Info const& service : services)
        if (!detect_gaussdb_t(service))
            return false;
    return true;
}

/** Enters the instance of a process if it is a new one. False only without memory. */
bool GaussDB_Cluster_Manager::detect_gaussdb_t(Service_Info const& service) {
    qmrt::svmatch groups;
    if (!qmrt::regex_match(service.cmd, groups, RE_GAUSSDB_T_PATH))
        return true;
    std::string const home = groups[1];
    std::string data = groups[2];
    if (data.ends_with('/'))
        data.pop_back();

    GaussDB_Env env;
    env.set_env("GSDB_HOME", home);
    env.prepend_ld_library_path((home + "/add-ons:" + home).c_str());
    env.prepend_bin_path(home.c_str());
    if (!is_gaussdb_t(service.user.c_str(), env, nullptr))
        return true;
    int const port = get_lsnr_port(data.c_str());
    std::string const name = string_sprintf("zengine_%d", port);
    if (port == 0 || cluster_exists(name.c_str()))
        return true;
    QMRT_LOG(LM_DEBUG, "Detected GaussDB T, port:%d, data_dir:%s\n", port, data.c_str());
    env.set_env("GSDB_DATA", data);
    env.set_env("LSNR_PORT", std::to_string(port));

    GaussDB_Cluster_Handler_var const handler(new (std::nothrow)
                                                  GaussDB_T_Single_Handler(env, service.user));
    if (handler.null()) {
        errno = ENOMEM;
        return false;
    }
    if (init_handler(name, handler)) {
        enter(name, handler);
        dump_env(name, env); // logs its own failure; the instance is of use without
    }
    return true;
}

unsigned short GaussDB_Cluster_Manager::get_lsnr_port(char const* gaussdb_data) {
    if (QMRT_IS_NULL_OR_EMPTY(gaussdb_data))
        return 0;
    std::string text;
    bool readable;
    find_in_file((qmrt::Path(gaussdb_data) / "cfg/zengine.ini").c_str(), RE_LSNR_PORT, text,
                 readable);
    return natoi<uint16_t>(text);
}
