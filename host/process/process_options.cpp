#include "host/process/process_options.h"

#include "host/process/password_file_entry.h"
#include "qmrt/check.h"
#include "qmrt/format.h"
#include "qmrt/log.h"

#include <cstdarg>
#include <cstring>
#include <unistd.h>

namespace {

/**
 * The marks stand in the creation flags: of all settings they alone are touched by no other setter
 * and are of no use on this system. ACE's own flags are in the lowest bits.
 */
constexpr u_long REFUSE_USER = 0x80000000ul;
constexpr u_long REFUSE_ENVIRONMENT = 0x40000000ul;
constexpr u_long FOREIGN_ENVIRONMENT = 0x20000000ul;

bool refuse(ACE_Process_Options& options, u_long mark) {
    options.creation_flags(options.creation_flags() | mark);
    return false;
}

/** As an array of entries: ACE's forms with a format lose the last byte of an entry of 1024. */
bool set_entry(ACE_Process_Options& options, std::string const& name, char const* value) {
    std::string entry = name + "=" + value;
    char* entries[] = {entry.data(), nullptr};
    if (options.setenv(entries) != -1)
        return true;
    QMRT_LOG(
        LM_ERROR,
        "Failed to set the environment variable %.200s, there is no room left for its %Q bytes\n",
        name.c_str(), static_cast<uint64_t>(entry.size()));
    return refuse(options, REFUSE_ENVIRONMENT);
}

uid_t user_of_child(ACE_Process_Options const& options) {
    uid_t const uid = options.geteuid();
    return uid == static_cast<uid_t>(-1) ? geteuid() : uid;
}

} // namespace

bool set_command_line(ACE_Process_Options& options, char const* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    std::string const line = string_vsprintf(format, arguments);
    va_end(arguments);

    size_t capacity = 0;
    options.command_line_buf(&capacity);
    if (line.size() + 1 < capacity)
        return options.command_line("%s", line.c_str()) == 0;
    if (capacity > 0)
        options.command_line("%s", "");
    QMRT_LOG(LM_ERROR,
             "Failed to set a command line of %Q bytes, the buffer is for %Q: \"%.200s...\"\n",
             static_cast<uint64_t>(line.size()),
             static_cast<uint64_t>(capacity < 2 ? 0 : capacity - 2), line.c_str());
    errno = E2BIG;
    return false;
}

bool set_process_user(ACE_Process_Options& options, char const* user) {
    if (QMRT_IS_NULL_OR_EMPTY(user))
        return refuse(options, REFUSE_USER);
    Password_File_Entry entry;
    if (entry.get(user) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to look up the user %s, errno=%d, %m\n", user, errno);
        return refuse(options, REFUSE_USER);
    }
    options.setruid(entry.uid());
    options.seteuid(entry.uid());
    options.setrgid(entry.gid());
    options.setegid(entry.gid());
    options.creation_flags(options.creation_flags() & ~REFUSE_USER);
    return true;
}

bool set_process_env(ACE_Process_Options& options, char const* name, char const* value) {
    if (QMRT_IS_NULL_OR_EMPTY(name) || QMRT_IS_NULL(value))
        return refuse(options, REFUSE_ENVIRONMENT);
    if (std::strchr(name, '=')) {
        QMRT_LOG(LM_ERROR, "Failed to set the environment variable %s, its name has a \"=\"\n",
                 name);
        return refuse(options, REFUSE_ENVIRONMENT);
    }
    return set_entry(options, name, value);
}

bool set_foreign_env(ACE_Process_Options& options, std::string const& name, char const* value) {
    options.creation_flags(options.creation_flags() | FOREIGN_ENVIRONMENT);
    if (QMRT_IS_EMPTY(name) || QMRT_IS_NULL(value))
        return refuse(options, REFUSE_ENVIRONMENT);
    return set_entry(options, name, value);
}

char const* refusal_of(ACE_Process_Options const& options) {
    if (options.creation_flags() & REFUSE_USER)
        return "its user is not known";
    if (options.creation_flags() & REFUSE_ENVIRONMENT)
        return "its environment is not complete";
    if (options.creation_flags() & FOREIGN_ENVIRONMENT && user_of_child(options) == 0)
        return "it would run as root in an environment that another user decides";
    return nullptr;
}
