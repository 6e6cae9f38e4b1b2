#include "host/process/child_setup.h"

#include "host/process/command_line.h"
#include "host/process/password_file_entry.h"
#include "host/process/process_options.h"
#include "qmrt/format.h"

#include <ace/Handle_Set.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string_view>
#include <unistd.h>
#include <unordered_map>

namespace {

/** A log line holds 4 KiB; a reason must leave room for what stands around it. */
constexpr size_t MAX_SHOWN = 1024;

std::string shown(std::string const& text) {
    return text.size() <= MAX_SHOWN ? text : text.substr(0, MAX_SHOWN) + "...";
}

std::string error_text(int error) {
    return string_sprintf("errno=%d, %s", error, strerrordesc_np(error));
}

/** Joins the parent's environment with the child's own; of a name that stands twice the last. */
class Environment_Joiner {
public:
    void add(char* entry) {
        char const* const equals = std::strchr(entry, '=');
        if (!equals) {
            entries_.push_back(entry);
            return;
        }
        std::string_view const name(entry, static_cast<size_t>(equals - entry));
        auto const [found, is_new] = index_.emplace(name, entries_.size());
        if (is_new)
            entries_.push_back(entry);
        else
            entries_[found->second] = entry;
    }

    std::vector<char*> take() {
        entries_.push_back(nullptr);
        return std::move(entries_);
    }

private:
    std::vector<char*> entries_;
    std::unordered_map<std::string_view, size_t> index_;
};

/** The groups of this thread, in which the effective one need not be listed. */
std::set<gid_t> current_groups() {
    int const count = getgroups(0, nullptr);
    std::vector<gid_t> groups(count > 0 ? static_cast<size_t>(count) : 0);
    if (!groups.empty() && getgroups(count, groups.data()) == -1)
        groups.clear();
    std::set<gid_t> result(groups.begin(), groups.end());
    result.insert(getegid());
    return result;
}

bool is_current_user(uid_t uid, gid_t gid) {
    uid_t uids[3];
    gid_t gids[3];
    if (getresuid(&uids[0], &uids[1], &uids[2]) == -1 ||
        getresgid(&gids[0], &gids[1], &gids[2]) == -1)
        return false;
    for (int i = 0; i < 3; ++i)
        if (uids[i] != uid || gids[i] != gid)
            return false;
    return true;
}

std::string default_path() {
    std::string path(confstr(_CS_PATH, nullptr, 0), '\0');
    confstr(_CS_PATH, path.data(), path.size());
    if (!path.empty())
        path.pop_back(); // its NUL
    return path;
}

} // namespace

bool Child_Setup::fail(std::string reason, int error) {
    reason_ = std::move(reason);
    errno = error;
    return false;
}

bool Child_Setup::prepare(ACE_Process_Options& options) {
    if (char const* const refusal = refusal_of(options))
        return fail(refusal, EINVAL);
    ACE_Handle_Set handles;
    if (options.passed_handles(handles) != 0 || options.dup_handles(handles) != 0)
        return fail("handing on descriptors by pass_handle is not supported", ENOTSUP);
    if (options.creation_flags() & ACE_Process_Options::NO_EXEC)
        return fail("a child without a program is not supported", ENOTSUP);
    if (!prepare_command(options) || !prepare_environment(options) || !prepare_user(options))
        return false;
    prepare_candidates();
    plan.directory = options.working_directory();
    plan.close_others = !options.handle_inheritance();
    plan.process_group = options.getgroup();
    plan.streams[0] =
        options.get_stdin() == ACE_INVALID_HANDLE ? Child_Plan::DEVNULL : options.get_stdin();
    plan.streams[1] = options.get_stdout() == ACE_INVALID_HANDLE ? 1 : options.get_stdout();
    plan.streams[2] = options.get_stderr() == ACE_INVALID_HANDLE ? 2 : options.get_stderr();
    return true;
}

bool Child_Setup::prepare_command(ACE_Process_Options& options) {
    size_t capacity = 0;
    char const* const line = options.command_line_buf(&capacity);
    size_t const length = line && capacity > 0 ? strnlen(line, capacity) : 0;
    if (length == 0)
        return fail("the command line is empty", EINVAL);
    if (length + 1 >= capacity)
        return fail(string_sprintf("the command line fills its buffer of %zu bytes, so its end may "
                                   "be lost: \"%.200s...\"",
                                   capacity, line),
                    E2BIG);
    std::string error;
    if (!split_command_line(std::string_view(line, length), words_, error))
        return fail("the command line cannot be split, " + error + ": " + shown(line), EINVAL);
    if (words_.empty() || words_.front().empty())
        return fail(std::string("the command line names no program: ") + shown(line), EINVAL);
    program_ = words_.front();
    for (std::string& word : words_)
        argv_.push_back(word.data());
    argv_.push_back(nullptr);
    plan.argv = argv_.data();
    return true;
}

bool Child_Setup::prepare_environment(ACE_Process_Options& options) {
    Environment_Joiner joiner;
    if (options.inherit_environment())
        for (char** entry = environ; entry && *entry; ++entry)
            joiner.add(*entry);
    for (ACE_TCHAR* const* entry = options.env_argv(); entry && *entry; ++entry) {
        if (**entry == '=' || !std::strchr(*entry, '='))
            return fail(string_sprintf("\"%s\" is no setting of an environment variable",
                                       shown(*entry).c_str()),
                        EINVAL);
        joiner.add(*entry);
    }
    envp_ = joiner.take();
    plan.envp = envp_.data();
    return true;
}

void Child_Setup::prepare_candidates() {
    if (program_.find('/') != std::string::npos)
        candidates_.push_back(program_);
    else {
        path_ = default_path();
        for (char const* entry : envp_)
            if (entry && std::strncmp(entry, "PATH=", 5) == 0)
                path_ = entry + 5;
        // an empty part of PATH is the current directory
        for (size_t begin = 0; begin <= path_.size();) {
            size_t const end = std::min(path_.find(':', begin), path_.size());
            std::string const directory = path_.substr(begin, end - begin);
            candidates_.push_back(directory.empty() ? program_ : directory + "/" + program_);
            begin = end + 1;
        }
        has_path_ = true;
    }
    for (std::string const& candidate : candidates_)
        candidate_texts_.push_back(candidate.c_str());
    candidate_texts_.push_back(nullptr);
    plan.candidates = candidate_texts_.data();
}

bool Child_Setup::prepare_user(ACE_Process_Options const& options) {
    uid_t const uid = options.geteuid();
    gid_t const gid = options.getegid();
    constexpr uid_t UNSET = static_cast<uid_t>(-1);
    if (uid == UNSET && gid == UNSET && options.getruid() == UNSET && options.getrgid() == UNSET)
        return true;
    // a child that is the user by half could take back what it was to give up
    if (uid == UNSET || gid == UNSET || options.getruid() != uid || options.getrgid() != gid)
        return fail("its real and effective user and group are not set alike", EINVAL);
    return prepare_groups(uid, gid);
}

bool Child_Setup::prepare_groups(uid_t uid, gid_t gid) {
    plan.uid = uid;
    plan.gid = gid;
    Password_File_Entry entry;
    if (entry.get_by_uid(uid) == 0) {
        user_name_ = entry.name();
        groups_ = entry.groups(gid);
    } else if (errno == ENOENT)
        groups_ = {gid}; // an id that was given as a number and that nobody has
    else {
        int const error = errno;
        return fail("the groups of " + describe_user() + " cannot be looked up, " +
                        error_text(error),
                    error);
    }
    bool const is_current = is_current_user(uid, gid);
    plan.change_ids = !is_current;
    plan.change_groups =
        !is_current || std::set<gid_t>(groups_.begin(), groups_.end()) != current_groups();
    // without the right to set groups this process is that user with the groups it was given
    plan.groups_may_be_refused = is_current;
    plan.groups = groups_.data();
    plan.group_count = groups_.size();
    return true;
}

std::string Child_Setup::describe_user() const {
    return string_sprintf("user %s (uid %u, gid %u)",
                          user_name_.empty() ? "without a name" : user_name_.c_str(),
                          static_cast<unsigned>(plan.uid), static_cast<unsigned>(plan.gid));
}

std::string Child_Setup::describe_failed_exec() const {
    std::string const error = error_text(plan.error);
    if (plan.failed_path)
        return "cannot run " + shown(plan.failed_path) + ", " + error;
    for (std::string const& candidate : candidates_)
        if (candidate.front() == '/' && access(candidate.c_str(), F_OK) == 0)
            return "cannot run " + shown(candidate) + ", what it needs to be run is missing, " +
                   error;
    if (has_path_)
        return "program " + shown(program_) + " is not found on the PATH \"" + shown(path_) +
               "\", " + error;
    return "program " + shown(program_) + " is not found, " + error;
}

void Child_Setup::explain_failed_start() {
    switch (plan.failed_step) {
    case CHILD_STARTED:
        return;
    case CHILD_MAKE:
        reason_ = "no process can be made";
        break;
    case CHILD_STREAMS:
        reason_ = "cannot set up its standard streams";
        break;
    case CHILD_DESCRIPTORS:
        reason_ = "cannot close the descriptors that it is not to see";
        break;
    case CHILD_GROUP:
        reason_ = string_sprintf("cannot go into the process group %d", plan.process_group);
        break;
    case CHILD_USER:
        reason_ = "cannot change to " + describe_user();
        break;
    case CHILD_DIRECTORY:
        reason_ = "cannot change to the directory " + shown(plan.directory);
        break;
    case CHILD_EXEC:
        reason_ = describe_failed_exec();
        return;
    }
    reason_ += ", " + error_text(plan.error);
}
