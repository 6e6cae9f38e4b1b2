#include "gaussdb/common/gaussdb_ownership.h"

#include "gaussdb/common/gaussdb_env.h"
#include "host/process/process_view.h"
#include "qmrt/path_trust.h"

#include <algorithm>
#include <functional>
#include <string_view>

namespace {

constexpr char const* INSTALLATION[] = {"GAUSSHOME", "GPHOME", "ROACH_HOME", "GSDB_HOME",
                                        "GSDB_DATA"};
/** Below a directory of the installation; "" is the directory itself. */
constexpr char const* INSTALLATION_PARTS[] = {"", "/bin", "/lib", "/lib/libsimsearch", "/script"};
constexpr char const* TOOLS[] = {"gs_check", "gs_om",   "gs_guc",       "gsql",
                                 "zsql",     "zctl.py", "python",       "python3",
                                 "cm_ctl",   "zengine", "GaussRoach.py"};
/** What the tools and the interpreter load code from. */
constexpr char const* LIBRARY_LISTS[] = {"LD_LIBRARY_PATH", "PYTHONPATH"};

/** Calls @a visitor with the parts of "a:b:c" until it returns false. */
bool each_part(std::string_view list, std::function<bool(std::string const&)> const& visitor) {
    for (size_t begin = 0; begin <= list.size();) {
        size_t const end = std::min(list.find(':', begin), list.size());
        if (!visitor(std::string(list.substr(begin, end - begin))))
            return false;
        begin = end + 1;
    }
    return true;
}

/** The value of a variable in a process's environment; "" without it. */
std::string variable_of(Process_View const& process, std::string_view name) {
    std::string_view rest(process.environment);
    while (!rest.empty()) {
        std::string_view const entry = rest.substr(0, rest.find('\0'));
        if (entry.size() > name.size() && entry.starts_with(name) && entry[name.size()] == '=')
            return std::string(entry.substr(name.size() + 1));
        rest.remove_prefix(std::min(entry.size() + 1, rest.size()));
    }
    return "";
}

std::string data_directory(Process_View const& process) {
    std::string directory;
    for (size_t index = 1; index < process.arguments.size() && directory.empty(); ++index) {
        std::string const& argument = process.arguments[index];
        if (argument == "-D" && index + 1 < process.arguments.size())
            directory = process.arguments[index + 1];
        else if (argument.starts_with("-D"))
            directory = argument.substr(2);
    }
    for (char const* name : {"PGDATA", "GAUSSDATA"})
        if (directory.empty())
            directory = variable_of(process, name);
    if (directory.empty() || directory.front() == '/')
        return directory;
    return process.directory + "/" + directory;
}

bool owns_program(Process_View const& process, std::string& reason) {
    struct stat found;
    if (!is_trusted_path(process.program, process.uid, PATH_MUST_EXIST, reason, &found))
        return false;
    // by its path: the process may see other files there, or have been started from a removed one
    if (found.st_dev == process.program_status.st_dev &&
        found.st_ino == process.program_status.st_ino)
        return true;
    reason = "\"" + process.program + "\" is not the file that the process runs";
    return false;
}

/**
 * A directory that a tool is looked for in. A relative one is looked up from the directory that the
 * tool is started in: "/", or one of the installation.
 */
bool owns_list_part(GaussDB_Env const& env, uid_t user, std::string const& part,
                    std::string const& file, std::string& reason) {
    std::string const path = file.empty() ? part : part + "/" + file;
    if (part.starts_with('/'))
        return is_trusted_path(path, user, PATH_MAY_BE_MISSING, reason);
    if (path.find("..") != std::string::npos) {
        reason = "\"" + part + "\" leads out of the directory that a tool is started in";
        return false;
    }
    for (std::string const& start :
         {std::string(), std::string(env.gp_home()) + "/script", std::string(env.roach_home())})
        if (!is_trusted_path(start + "/" + path, user, PATH_MAY_BE_MISSING, reason))
            return false;
    return true;
}

bool owns_lists(GaussDB_Env const& env, uid_t user, std::string& reason) {
    for (char const* name : LIBRARY_LISTS)
        if (!each_part(env.get_value(name), [&](std::string const& part) {
                return owns_list_part(env, user, part, "", reason);
            })) {
            reason = std::string(name) + " of its profile: " + reason;
            return false;
        }
    if (each_part(env.get_value("PATH"), [&](std::string const& part) {
            return std::all_of(std::begin(TOOLS), std::end(TOOLS), [&](char const* tool) {
                return owns_list_part(env, user, part, tool, reason);
            });
        }))
        return true;
    reason = "PATH of its profile: " + reason;
    return false;
}

bool owns_installation(GaussDB_Env const& env, uid_t user, char const* name, std::string& reason) {
    std::string const directory = env.get_value(name);
    if (directory.empty())
        return true;
    if (directory.front() != '/' || directory.find_first_of("\"'`$\\") != std::string::npos) {
        reason = std::string(name) + " is not an absolute path without quotes: " + directory;
        return false;
    }
    for (char const* part : INSTALLATION_PARTS)
        if (!is_trusted_path(directory + part, user, PATH_MAY_BE_MISSING, reason)) {
            reason = std::string(name) + ": " + reason;
            return false;
        }
    return true;
}

} // namespace

bool owns_process(Process_View const& process, std::string& reason) {
    if (!process.fault.empty()) {
        reason = process.fault;
        return false;
    }
    if (process.uid == 0) {
        reason = "it runs as root, and the tools of a database are not run as root";
        return false;
    }
    if (!owns_program(process, reason)) {
        reason = "its program: " + reason;
        return false;
    }
    std::string const data = data_directory(process);
    if (data.empty() || is_trusted_path(data, process.uid, PATH_MUST_EXIST, reason))
        return true;
    reason = "its data directory: " + reason;
    return false;
}

bool owns_profile(std::string const& profile, uid_t user, std::string& reason) {
    if (is_trusted_path(profile, user, PATH_MAY_BE_MISSING, reason))
        return true;
    reason = "its profile: " + reason;
    return false;
}

bool owns_tools(GaussDB_Env const& env, uid_t user, std::string& reason) {
    return std::all_of(
               std::begin(INSTALLATION), std::end(INSTALLATION),
               [&](char const* name) { return owns_installation(env, user, name, reason); }) &&
           owns_lists(env, user, reason);
}
