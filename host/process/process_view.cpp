#include "host/process/process_view.h"

#include "qmrt/format.h"
#include "qmrt/guarded_file.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace {

// what the kernel lets a program start with, with room to spare
constexpr uint64_t MAX_PROC_FILE = 64 * 1024 * 1024;

using User_Ids = std::array<unsigned, 4>; ///< real, effective, saved, of the file system

int read_proc_file(int process, char const* name, std::string& content) {
    File_Descriptor const file(openat(process, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    return file ? read_all(file.get(), content, MAX_PROC_FILE) : -1;
}

int read_user_ids(int process, User_Ids& ids) {
    std::string status;
    if (read_proc_file(process, "status", status) == -1)
        return -1;
    // the process's name, which it chooses, stands before this line with its line breaks escaped
    size_t const at = status.find("\nUid:");
    if (at == std::string::npos || sscanf(status.c_str() + at, "\nUid: %u %u %u %u", &ids[0],
                                          &ids[1], &ids[2], &ids[3]) != 4) {
        errno = EPROTO;
        return -1;
    }
    return 0;
}

int read_proc_link(int process, char const* name, std::string& target) {
    char text[PATH_MAX];
    ssize_t const size = readlinkat(process, name, text, sizeof text);
    if (size == -1)
        return -1;
    target.assign(text, static_cast<size_t>(size));
    return 0;
}

void split_arguments(std::string_view text, std::vector<std::string>& arguments) {
    arguments.clear();
    while (!text.empty()) {
        arguments.emplace_back(text.substr(0, text.find('\0')));
        text.remove_prefix(std::min(arguments.back().size() + 1, text.size()));
    }
}

/** Reads all but the user. @param environment_owner  gets the owner of that file of /proc */
int read_contents(int process, Process_View& view, uid_t& environment_owner) {
    std::string command;
    struct stat status;
    if (read_proc_file(process, "environ", view.environment) == -1 ||
        fstatat(process, "environ", &status, AT_SYMLINK_NOFOLLOW) == -1 ||
        read_proc_file(process, "cmdline", command) == -1 ||
        read_proc_link(process, "exe", view.program) == -1 ||
        fstatat(process, "exe", &view.program_status, 0) == -1 ||
        read_proc_link(process, "cwd", view.directory) == -1)
        return -1;
    environment_owner = status.st_uid;
    split_arguments(command, view.arguments);
    return 0;
}

bool is_one_user(User_Ids const& ids) {
    return ids[1] == ids[0] && ids[2] == ids[0] && ids[3] == ids[0];
}

} // namespace

int view_process(pid_t pid, Process_View& view) {
    // all that is opened below it is of this process: the id may be another's later
    File_Descriptor const process(
        open(snprintf_t<64>("/proc/%d", pid), O_PATH | O_DIRECTORY | O_CLOEXEC));
    Process_View found;
    found.pid = pid;
    User_Ids before;
    User_Ids after;
    uid_t environment_owner;
    struct stat status;
    if (!process || read_user_ids(process.get(), before) == -1 ||
        read_contents(process.get(), found, environment_owner) == -1 ||
        read_user_ids(process.get(), after) == -1 || fstat(process.get(), &status) == -1)
        return -1;
    found.uid = after[0];
    if (before != after || status.st_uid != after[1])
        found.fault = "it is changing its user";
    else if (!is_one_user(after))
        found.fault = string_sprintf("it was started by uid %u with the rights of uid %u", after[0],
                                     after[1]);
    else if (environment_owner != found.uid)
        // the kernel gives this file to root while the process may hold secrets from its user
        found.fault = "it was started with the rights of its file's owner, or hides its memory";
    view = std::move(found);
    return 0;
}
