#include "host/process/service_lister.h"

#include "host/process/password_file_entry.h"
#include "qmrt/check.h"
#include "qmrt/file.h"
#include "qmrt/log.h"
#include "qmrt/path.h"
#include "qmrt/regex.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <locale>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** The test that a command line has to pass. */
class Command_Pattern {
public:
    /** False, with a line in the log, for a regular expression that is none. */
    bool set(char const* name, bool is_regex) {
        text_ = name;
        if (!is_regex)
            return true;
        try {
            regex_ = std::make_unique<boost::regex>();
            regex_->imbue(std::locale::classic());
            regex_->assign(text_);
            return true;
        } catch (std::exception const& error) {
            QMRT_LOG(LM_ERROR, "Failed to list services, bad regular expression %s: %s\n", name,
                     error.what());
            return false;
        }
    }

    bool fits(std::string const& command) const {
        return regex_ ? qmrt::regex_match(command, *regex_)
                      : command.find(text_) != std::string::npos;
    }

private:
    std::string text_;
    std::unique_ptr<boost::regex> regex_;
};

class User_Names {
public:
    std::string const& name_of(uid_t uid) {
        auto const [found, is_new] = names_.emplace(uid, std::string());
        if (is_new) {
            Password_File_Entry entry;
            found->second = entry.get_by_uid(uid) == 0 ? entry.name() : std::to_string(uid);
        }
        return found->second;
    }

private:
    std::map<uid_t, std::string> names_;
};

/** The process ids of /proc, ascending; false with errno when it cannot be read. */
bool read_pids(std::vector<pid_t>& pids) {
    Directory_Reader reader("/proc");
    if (!reader)
        return false;
    while (char const* const name = reader.next()) {
        char const* const end = name + std::strlen(name);
        pid_t pid = 0;
        auto const read = std::from_chars(name, end, pid);
        if (read.ec == std::errc() && read.ptr == end && pid > 0)
            pids.push_back(pid);
    }
    std::sort(pids.begin(), pids.end());
    return true;
}

/** The arguments in @a text, each with a NUL behind it, as one line. */
void make_line(std::string& text) {
    // a process that writes a title over its arguments fills the rest with NULs
    size_t const last = text.find_last_not_of('\0');
    text.resize(last == std::string::npos ? 0 : last + 1);
    std::replace(text.begin(), text.end(), '\0', ' ');
}

/** Reads a cmdline file of /proc; false when the process has gone. */
bool read_command(int directory, char const* path, std::string& command) {
    File_Descriptor const file(openat(directory, path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return false;
    command.clear();
    char buffer[4096];
    ssize_t count;
    do {
        count = read(file.get(), buffer, sizeof buffer);
        if (count == -1)
            return false;
        command.append(buffer, static_cast<size_t>(count));
        // this file is read short at its end only
    } while (count == sizeof buffer);
    make_line(command);
    return true;
}

/** Fills @a service when the process is there and fits. */
bool read_service(int proc, pid_t pid, Command_Pattern const& pattern, User_Names& names,
                  Service_Info& service) {
    std::string const name = std::to_string(pid);
    if (!read_command(proc, (name + "/cmdline").c_str(), service.cmd) || service.cmd.empty() ||
        !pattern.fits(service.cmd))
        return false;
    // the id may be another's by now: what the open directory tells is all of one process
    File_Descriptor const directory(openat(proc, name.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    struct stat status;
    if (!directory || !read_command(directory.get(), "cmdline", service.cmd) ||
        service.cmd.empty() || !pattern.fits(service.cmd) || fstat(directory.get(), &status) == -1)
        return false;
    service.pid = pid;
    service.user = names.name_of(status.st_uid);
    return true;
}

} // namespace

int Service_Lister::list_service(char const* name, std::vector<Service_Info>& services,
                                 bool is_regex, char const* locale) {
    if (QMRT_IS_NULL_OR_EMPTY(name))
        return -1;
    if (locale && std::strcmp(locale, "C") != 0) {
        QMRT_LOG(LM_ERROR, "Failed to list services, there is no locale %s for it\n", locale);
        return -1;
    }
    Command_Pattern pattern;
    if (!pattern.set(name, is_regex))
        return -1;
    std::vector<pid_t> pids;
    File_Descriptor const proc(open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!proc || !read_pids(pids)) {
        QMRT_LOG(LM_ERROR, "Failed to list services, cannot read /proc, errno=%d, %m\n", errno);
        return -1;
    }
    std::vector<Service_Info> found;
    User_Names names;
    Service_Info service;
    for (pid_t const pid : pids)
        if (pid != getpid() && read_service(proc.get(), pid, pattern, names, service))
            found.push_back(service);
    services.swap(found);
    return 0;
}
