#include "qmrt/path_trust.h"

#include "qmrt/file.h"
#include "qmrt/format.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <linux/magic.h>
#include <string_view>
#include <sys/vfs.h>
#include <unistd.h>
#include <vector>

namespace {

// the kernel's own limit
constexpr int MOST_LINKS = 40;

/** One walk from the root directory to the end of a path. */
class Path_Walk {
public:
    Path_Walk(uid_t user, unsigned flags, std::string& reason)
        : user_(user), flags_(flags), reason_(reason) {}

    bool run(std::string const& path, struct stat& found) {
        if (!path.starts_with('/') || path.find('\0') != std::string::npos)
            return fail("\"" + path + "\" is not an absolute path");
        if (path.size() >= PATH_MAX)
            return fail("a path of " + std::to_string(path.size()) + " bytes is too long");
        push_front(path);
        if (!go_to_root())
            return false;
        while (!names_.empty()) {
            std::string const name = names_.front();
            names_.pop_front();
            if (!step(name))
                return is_missing_;
        }
        found = status_;
        return true;
    }

private:
    /** Goes into one entry of the directory. False at the end of an unfinished walk. */
    bool step(std::string const& name) {
        if (!S_ISDIR(status_.st_mode))
            return fail("\"" + shown() + "\" is not a directory");
        std::vector<std::string> const before = done_;
        if (name != "..")
            done_.push_back(name);
        else if (!done_.empty())
            done_.pop_back();
        File_Descriptor entry(openat(here_.get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!entry)
            return errno == ENOENT ? end_at_missing() : fail_with_errno();
        if (fstat(entry.get(), &status_) == -1)
            return fail_with_errno();
        if (S_ISLNK(status_.st_mode))
            return follow(entry.get(), before);
        here_ = std::move(entry);
        return check();
    }

    bool go_to_root() {
        here_.reset(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
        done_.clear();
        return here_ && fstat(here_.get(), &status_) == 0 ? check() : fail_with_errno();
    }

    /** @param directory  names of the directory that the link lies in */
    bool follow(int link, std::vector<std::string> const& directory) {
        if (!is_own(status_))
            return fail_with_owner();
        if (++links_ > MOST_LINKS)
            return fail("\"" + shown() + "\" leads through too many symbolic links");
        char target[PATH_MAX];
        ssize_t const size = readlinkat(link, "", target, sizeof target);
        if (size == -1)
            return fail_with_errno();
        std::string_view const text(target, static_cast<size_t>(size));
        push_front(text);
        if (text.starts_with('/'))
            return go_to_root();
        done_ = directory;
        return fstat(here_.get(), &status_) == 0 || fail_with_errno();
    }

    void push_front(std::string_view path) {
        std::deque<std::string> names;
        while (!path.empty()) {
            std::string_view const name = path.substr(0, path.find('/'));
            path.remove_prefix(std::min(name.size() + 1, path.size()));
            if (!name.empty() && name != ".")
                names.emplace_back(name);
        }
        names_.insert(names_.begin(), names.begin(), names.end());
    }

    bool check() {
        struct statfs system;
        if (!is_own(status_))
            return fail_with_owner();
        if (status_.st_mode & (S_IWGRP | S_IWOTH))
            return fail(string_sprintf("\"%s\" is writable by its group or by others (mode %04o)",
                                       shown().c_str(), status_.st_mode & 07777u));
        if (fstatfs(here_.get(), &system) == -1)
            return fail_with_errno();
        if (system.f_type == PROC_SUPER_MAGIC)
            return fail("\"" + shown() + "\" is in procfs");
        return true;
    }

    bool is_own(struct stat const& status) const {
        return status.st_uid == 0 || status.st_uid == user_;
    }

    /** What is created there is created by root or the user, unless a ".." leads out again. */
    bool end_at_missing() {
        if (!(flags_ & PATH_MAY_BE_MISSING))
            return fail_with_errno();
        if (std::find(names_.begin(), names_.end(), "..") != names_.end())
            return fail("\"" + shown() + "\" does not exist and the path leaves it by \"..\"");
        is_missing_ = true;
        return false;
    }

    bool fail(std::string reason) {
        reason_ = std::move(reason);
        return false;
    }
    bool fail_with_errno() {
        return fail("\"" + shown() + "\" cannot be looked at: " + strerrordesc_np(errno));
    }
    bool fail_with_owner() {
        return fail(string_sprintf("\"%s\" belongs to uid %u", shown().c_str(),
                                   static_cast<unsigned>(status_.st_uid)));
    }

    std::string shown() const {
        std::string text;
        for (std::string const& name : done_)
            text += "/" + name;
        return text.empty() ? "/" : text;
    }

    uid_t const user_;
    unsigned const flags_;
    std::string& reason_;
    File_Descriptor here_;          ///< the directory, or in the end the file
    struct stat status_ = {};       ///< of here_, or of the link just met
    std::deque<std::string> names_; ///< still to go
    std::vector<std::string> done_; ///< from the root directory to here_, for messages
    int links_ = 0;
    bool is_missing_ = false;
};

} // namespace

bool is_trusted_path(std::string const& path, uid_t user, unsigned flags, std::string& reason,
                     struct stat* found) {
    struct stat status = {};
    bool const trusted = Path_Walk(user, flags, reason).run(path, status);
    if (found)
        *found = status;
    return trusted;
}
