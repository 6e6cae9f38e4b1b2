#include "host/mtf/source_walker.h"

#include "host/mtf/archive_path.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace MTF {

namespace {

/** A directory on the way down. */
struct Frame {
    File_Descriptor fd;
    std::string name;
    std::string path;
    std::vector<std::string> children; ///< in descending order: the next is at the end
};

/** The names in a directory. @return false, with errno set, when they cannot be read. */
bool read_names(File_Descriptor const& directory, std::vector<std::string>& names) {
    // the copy shares its place with the original, which is not read otherwise
    int const copy = fcntl(directory.get(), F_DUPFD_CLOEXEC, 0);
    if (copy == -1)
        return false;
    std::unique_ptr<DIR, int (*)(DIR*)> const reader(fdopendir(copy), closedir);
    if (!reader) {
        close(copy);
        return false;
    }
    for (;;) {
        errno = 0;
        dirent const* const entry = readdir(reader.get());
        if (!entry)
            break;
        std::string name = entry->d_name;
        if (name != "." && name != "..")
            names.push_back(std::move(name));
    }
    int const error = errno;
    auto const by_bytes = [](std::string const& left, std::string const& right) {
        return compare_entry_names(left, right) > 0;
    };
    std::sort(names.begin(), names.end(), by_bytes);
    errno = error;
    return error == 0;
}

class Walk {
public:
    Walk(Source_Visitor& visitor, std::optional<uid_t> owner) : visitor_(visitor), owner_(owner) {}

    bool run(std::string const& source) {
        Source_Item item{entry_name(source), source, {}, AT_FDCWD, source, !owner_, owner_};
        if (!look(item, owner_ ? AT_SYMLINK_NOFOLLOW : 0))
            return true;
        if (!show(item))
            return false;
        while (!frames_.empty()) {
            Frame& frame = frames_.back();
            if (frame.children.empty()) {
                frames_.pop_back();
                continue;
            }
            std::string const base = std::move(frame.children.back());
            frame.children.pop_back();
            if (!show_child(frame, base))
                return false;
        }
        return true;
    }

private:
    bool look(Source_Item& item, int flags) {
        if (fstatat(item.parent, item.base.c_str(), &item.status, flags) == -1)
            visitor_.unreadable(item.path, errno);
        else if (item.may_be_read(item.status))
            return true;
        else
            visitor_.unreadable(item.path, EPERM);
        return false;
    }

    bool show_child(Frame const& frame, std::string const& base) {
        Source_Item item{frame.name + "/" + base,
                         frame.path + "/" + base,
                         {},
                         frame.fd.get(),
                         base,
                         false,
                         owner_};
        // no path that long could be given to a system call when it is restored
        if (item.path.size() >= PATH_MAX) {
            visitor_.unreadable(item.path, ENAMETOOLONG);
            return true;
        }
        return !look(item, AT_SYMLINK_NOFOLLOW) || show(item);
    }

    bool show(Source_Item const& item) {
        Source_Visitor::Next const next = visitor_.visit(item);
        if (next != Source_Visitor::GO_ON || !S_ISDIR(item.status.st_mode))
            return next != Source_Visitor::STOP;
        Frame frame{item.open(), item.name, item.path, {}};
        struct stat opened;
        if (frame.fd && (fstat(frame.fd.get(), &opened) == -1 || !item.may_be_read(opened))) {
            frame.fd.reset();
            errno = EPERM;
        }
        if (!frame.fd || !read_names(frame.fd, frame.children))
            visitor_.unreadable(item.path, errno);
        if (frame.fd)
            frames_.push_back(std::move(frame));
        return true;
    }

    Source_Visitor& visitor_;
    std::optional<uid_t> const owner_;
    std::vector<Frame> frames_;
};

} // namespace

File_Descriptor Source_Item::open() const {
    int const flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (is_source ? 0 : O_NOFOLLOW) |
                      (S_ISDIR(status.st_mode) ? O_DIRECTORY : 0);
    return File_Descriptor(openat(parent, base.c_str(), flags));
}

bool Source_Item::read_link(std::string& text) const {
    char buffer[PATH_MAX + 1];
    ssize_t const size = readlinkat(parent, base.c_str(), buffer, sizeof(buffer));
    if (size == -1)
        return false;
    text.assign(buffer, static_cast<size_t>(size));
    return true;
}

bool normalize_sources(std::vector<std::string>& sources, std::string& bad) {
    std::vector<std::string> names;
    for (std::string const& source : sources) {
        names.push_back(entry_name(source));
        if (names.back().empty()) {
            bad = source;
            return false;
        }
    }
    std::sort(names.begin(), names.end(), [](std::string const& left, std::string const& right) {
        return compare_entry_names(left, right) < 0;
    });
    std::vector<std::string> result;
    std::string covering;
    for (std::string const& name : names)
        if (covering.empty() || !is_at_or_below(name, covering)) {
            covering = name;
            result.push_back("/" + name);
        }
    sources = std::move(result);
    return true;
}

bool walk_source(std::string const& source, Source_Visitor& visitor, std::optional<uid_t> owner) {
    return Walk(visitor, owner).run(source);
}

} // namespace MTF
