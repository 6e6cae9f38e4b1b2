#include "qmrt/file.h"

#include "qmrt/path.h"
#include "qmrt/scoped_deleter.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <memory>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t MAX_LINE = 16 * 1024 * 1024;

int fail(int error) {
    errno = error;
    return -1;
}

struct Directory_Closer {
    void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, Directory_Closer>;

/** Opens a directory to walk it; a link at the name is not followed. */
Directory open_directory(int parent, char const* name) {
    File_Descriptor fd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!fd)
        return nullptr;
    Directory directory(fdopendir(fd.get()));
    if (directory)
        fd.release();
    return directory;
}

bool is_dot(char const* name) {
    return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

/** The next entry; null at the end (errno 0) or on a failure (errno set). */
dirent* next_entry(DIR* directory) {
    dirent* entry;
    do {
        errno = 0;
        entry = readdir(directory);
    } while (entry && is_dot(entry->d_name));
    return entry;
}

/**
 * Empties a tree without recursion beyond MAX_DEPTH: what lies deeper is moved up to the top, under
 * a name of its own, and is emptied from there. So neither the stack nor the number of descriptors
 * grows with the depth of the tree.
 */
class Tree_Remover {
public:
    explicit Tree_Remover(DIR* top) : top_(dirfd(top)) { close_to_others(top); }

    int empty(DIR* directory, int depth) {
        // removing while reading may skip entries, so read again until a pass finds nothing
        for (bool found = true; found;) {
            found = false;
            rewinddir(directory);
            while (dirent const* entry = next_entry(directory)) {
                found = true;
                if (remove(directory, entry->d_name, depth) == -1)
                    return -1;
            }
            if (errno)
                return -1;
        }
        return 0;
    }

private:
    static constexpr int MAX_DEPTH = 32;

    /** Otherwise its owner could fill it as fast as it is emptied, for ever. */
    static void close_to_others(DIR* directory) {
        struct stat status;
        if (geteuid() == 0 && fstat(dirfd(directory), &status) == 0 && status.st_uid != 0 &&
            fchown(dirfd(directory), 0, 0) == 0)
            fchmod(dirfd(directory), S_IRWXU);
    }

    int remove(DIR* parent, char const* name, int depth) {
        if (unlinkat(dirfd(parent), name, 0) == 0 || errno == ENOENT)
            return 0;
        if (errno != EISDIR && errno != EPERM)
            return -1;
        if (depth == MAX_DEPTH)
            return move_up(parent, name);
        Directory const directory = open_directory(dirfd(parent), name);
        if (!directory)
            return -1;
        close_to_others(directory.get());
        if (empty(directory.get(), depth + 1) == -1)
            return -1;
        return unlinkat(dirfd(parent), name, AT_REMOVEDIR);
    }

    int move_up(DIR* parent, char const* name) {
        for (;;) {
            std::string const target = ".removed." + std::to_string(++moved_);
            if (renameat(dirfd(parent), name, top_, target.c_str()) == 0)
                return 0;
            if (errno != EEXIST && errno != ENOTEMPTY && errno != ENOTDIR)
                return -1;
        }
    }

    int top_;
    unsigned long moved_ = 0;
};

/** Changes the owner of all below @a directory; false with errno on the first failure. */
bool chown_below(DIR* directory, uid_t uid, gid_t gid) {
    while (dirent const* entry = next_entry(directory)) {
        if (fchownat(dirfd(directory), entry->d_name, uid, gid, AT_SYMLINK_NOFOLLOW) == -1)
            return false;
        Directory const inner = open_directory(dirfd(directory), entry->d_name);
        if (!inner && errno != ENOTDIR && errno != ELOOP)
            return false;
        if (inner && !chown_below(inner.get(), uid, gid))
            return false;
    }
    return errno == 0;
}

/** Looks up a user's ids; -1 with errno when the user is unknown. */
int find_user(char const* name, uid_t& uid, gid_t& gid) {
    std::vector<char> buffer(16384);
    passwd entry;
    passwd* found = nullptr;
    int const error = getpwnam_r(name, &entry, buffer.data(), buffer.size(), &found);
    if (!found)
        return fail(error ? error : ENOENT);
    uid = entry.pw_uid;
    gid = entry.pw_gid;
    return 0;
}

int find_group(char const* name, gid_t& gid) {
    std::vector<char> buffer(65536);
    group entry;
    group* found = nullptr;
    int const error = getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found);
    if (!found)
        return fail(error ? error : ENOENT);
    gid = entry.gr_gid;
    return 0;
}

int sync_directory_of(char const* path) {
    File_Descriptor const directory(
        open(dirname_string(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return directory ? fsync(directory.get()) : -1;
}

/** Fills a temporary file beside @a path by @a fill and renames it over @a path. */
template <typename Fill>
int replace_file(char const* path, mode_t mode, File_Owner const* owner, Fill fill) {
    std::string temporary = std::string(path) + ".XXXXXX";
    // mkostemp makes it 0600: readable by nobody else until owner and mode are right
    File_Descriptor file(mkostemp(temporary.data(), O_CLOEXEC));
    if (!file)
        return -1;
    Scoped_Deleter cleanup([&] {
        int const error = errno;
        unlink(temporary.c_str());
        errno = error;
    });
    if (owner && fchown(file.get(), owner->uid, owner->gid) == -1)
        return -1;
    if (fchmod(file.get(), mode) == -1 || fill(file.get()) == -1 || fsync(file.get()) == -1)
        return -1;
    if (rename(temporary.c_str(), path) == -1)
        return -1;
    cleanup.release();
    return sync_directory_of(path);
}

int copy_content(int from, int to) {
    std::vector<char> buffer(256 * 1024);
    for (;;) {
        ssize_t const count = read(from, buffer.data(), buffer.size());
        if (count == 0)
            return 0;
        if (count == -1 && errno != EINTR)
            return -1;
        if (count > 0 && write_all(to, buffer.data(), static_cast<size_t>(count)) == -1)
            return -1;
    }
}

} // namespace

void File_Descriptor::reset(int fd) {
    int const error = errno;
    if (fd_ != -1)
        close(fd_);
    errno = error;
    fd_ = fd;
}

/** Sets what the umask has taken from a directory that was just made. */
static int set_mode(char const* path, mode_t mode) {
    File_Descriptor const directory(open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat status;
    if (!directory || fstat(directory.get(), &status) == -1)
        return -1;
    return (status.st_mode & 0777) == mode ? 0 : fchmod(directory.get(), mode);
}

int mkdir_p(char const* path, mode_t mode) {
    std::string const whole = path;
    if (whole.empty())
        return fail(ENOENT);
    for (size_t end = 0; end < whole.size();) {
        end = std::min(whole.find('/', end + 1), whole.size());
        std::string const prefix = whole.substr(0, end);
        if (mkdir(prefix.c_str(), mode) == 0) {
            if (set_mode(prefix.c_str(), mode) == -1)
                return -1;
            continue;
        }
        struct stat status;
        int const error = errno;
        if (stat(prefix.c_str(), &status) == -1)
            return fail(error);
        if (!S_ISDIR(status.st_mode))
            return fail(end < whole.size() ? ENOTDIR : EEXIST);
    }
    return 0;
}

int rm_rf(char const* path) {
    std::string whole = path ? path : "";
    while (whole.size() > 1 && whole.back() == '/')
        whole.pop_back();
    std::string const name = qmrt::basename(whole);
    if (name.empty() || is_dot(name.c_str()))
        return fail(EINVAL);
    if (unlink(whole.c_str()) == 0 || errno == ENOENT || errno == ENOTDIR)
        return 0;
    if (errno != EISDIR && errno != EPERM)
        return -1;
    Directory const top = open_directory(AT_FDCWD, whole.c_str());
    if (!top)
        return -1;
    if (Tree_Remover(top.get()).empty(top.get(), 0) == -1)
        return -1;
    return rmdir(whole.c_str());
}

int chown_r(char const* path, char const* user, char const* group, bool follow_links) {
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    if (user && *user && find_user(user, uid, gid) == -1)
        return -1;
    if (group && *group && find_group(group, gid) == -1)
        return -1;
    if ((follow_links ? chown : lchown)(path, uid, gid) == -1)
        return -1;
    Directory top;
    if (follow_links)
        top.reset(opendir(path));
    else
        top = open_directory(AT_FDCWD, path);
    if (!top)
        return errno == ENOTDIR || errno == ELOOP ? 0 : -1;
    return chown_below(top.get(), uid, gid) ? 0 : -1;
}

int write_all(int fd, void const* data, size_t size) {
    char const* next = static_cast<char const*>(data);
    while (size > 0) {
        ssize_t const count = write(fd, next, size);
        if (count == -1 && errno != EINTR)
            return -1;
        if (count > 0) {
            next += count;
            size -= static_cast<size_t>(count);
        }
    }
    return 0;
}

int copy_file(char const* source, char const* target, mode_t mode) {
    File_Descriptor const from(open(source, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!from || fstat(from.get(), &status) == -1)
        return -1;
    if (!S_ISREG(status.st_mode))
        return fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    return replace_file(target, mode, nullptr,
                        [&](int to) { return copy_content(from.get(), to); });
}

int write_file_atomically(char const* path, std::string_view content, mode_t mode,
                          File_Owner const* owner) {
    return replace_file(path, mode, owner,
                        [&](int to) { return write_all(to, content.data(), content.size()); });
}

int read_file(char const* path, std::string& content, size_t max_size) {
    content.clear();
    // non-blocking, so that a FIFO without a writer is refused and not waited for
    File_Descriptor const file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!file || fstat(file.get(), &status) == -1)
        return -1;
    if (!S_ISREG(status.st_mode))
        return fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    char buffer[65536];
    for (;;) {
        ssize_t const count = read(file.get(), buffer, sizeof buffer);
        if (count == 0)
            return 0;
        if (count == -1 && errno != EINTR) {
            content.clear();
            return -1;
        }
        if (count > 0)
            content.append(buffer, static_cast<size_t>(count));
        if (content.size() > max_size) {
            content.clear();
            return fail(EFBIG);
        }
    }
}

int read_each_line(char const* path, std::function<bool(std::string_view line)> const& visitor) {
    File_Descriptor const file(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status;
    if (!file || fstat(file.get(), &status) == -1)
        return -1;
    if (!S_ISREG(status.st_mode)) // a device may never end
        return fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL);
    std::string pending;
    char buffer[65536];
    for (;;) {
        ssize_t const count = read(file.get(), buffer, sizeof buffer);
        if (count == -1 && errno == EINTR)
            continue;
        if (count == -1)
            return -1;
        if (count == 0)
            break;
        std::string_view rest(buffer, static_cast<size_t>(count));
        for (size_t end; (end = rest.find('\n')) != std::string_view::npos;) {
            std::string_view line = rest.substr(0, end);
            if (!pending.empty()) {
                pending += line;
                line = pending;
            }
            if (!visitor(line))
                return 0;
            pending.clear();
            rest.remove_prefix(end + 1);
        }
        pending += rest;
        if (pending.size() > MAX_LINE)
            return fail(EFBIG);
    }
    if (!pending.empty())
        visitor(pending);
    return 0;
}

bool read_line(std::string const& path, std::string& text, bool trim) {
    bool found = false;
    std::string line;
    // the closing line break cannot be told from its lack here, so trimming only takes the "\r"
    if (read_each_line(path.c_str(), [&](std::string_view first) {
            found = true;
            line = first;
            return false;
        }) == -1)
        return false;
    if (!found)
        return false;
    if (!trim)
        line += '\n';
    else if (!line.empty() && line.back() == '\r')
        line.pop_back();
    text = std::move(line);
    return true;
}
