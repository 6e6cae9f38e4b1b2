#ifndef QMRT_PATH_H
#define QMRT_PATH_H

#include <dirent.h>
#include <string>
#include <sys/types.h>

namespace qmrt {

/** A path that grows by whole names: exactly one "/" stands between what is joined. */
template <typename Char>
class Path_T {
public:
    using string_type = std::basic_string<Char>;

    Path_T() = default;
    Path_T(string_type path) : path_(std::move(path)) {}
    Path_T(Char const* path) : path_(path ? path : string_type()) {}

    /** Appends @a name behind a "/". An empty name changes nothing. */
    Path_T& operator/=(string_type const& name) {
        size_t const begin = name.find_first_not_of(Char('/'));
        if (begin == string_type::npos)
            return *this;
        if (path_.empty())
            path_ = name;
        else {
            if (path_.back() != Char('/'))
                path_ += Char('/');
            path_.append(name, begin, string_type::npos);
        }
        return *this;
    }
    friend Path_T operator/(Path_T left, string_type const& right) {
        left /= right;
        return left;
    }

    string_type const& str() const { return path_; }
    Char const* c_str() const { return path_.c_str(); }
    [[nodiscard]] bool empty() const { return path_.empty(); }

private:
    string_type path_;
};

using Path = Path_T<char>;

/** What stands behind the last "/": "b" of "/a/b", "" of "/a/". */
std::string basename(std::string const& path);

} // namespace qmrt

/** What stands before the last "/": "/a" of "/a/b", "/" of "/a", "." when there is no "/". */
std::string dirname_string(std::string const& path);

[[nodiscard]] bool is_symbolic_link(char const* path);
/** True for a regular file, links not followed. */
[[nodiscard]] bool is_regular_file(char const* path);
/** True for a directory, links not followed. */
[[nodiscard]] bool is_directory(char const* path);

/**
 * The path of a file in a directory of the product's own, such as
 * Path_Conf("/var/opt/quilmot/zenbrak3/$COMPONENT/gaussdb", true, "cluster.xml", 0755).
 *
 * "$COMPONENT" in the directory becomes the name set by component(). The leaf is often a name that
 * a user gave, so it may not lead out of the directory: what names::fault_of_relative_path() finds
 * fault with is refused with an error line.
 * c_str() is then "", which no file operation takes.
 */
class Path_Conf {
public:
    /**
     * @param directory         where the file lives
     * @param create_directory  make the directory, with its parents; existing ones stay as they are
     * @param leaf              the file's name, or a relative path below the directory
     * @param mode              of the directories that are made
     * A directory that cannot be made is an error line, and leaves the path "" as well.
     */
    Path_Conf(std::string const& directory, bool create_directory, std::string const& leaf,
              mode_t mode);
    /** The same without making anything. */
    Path_Conf(std::string const& directory, std::string const& leaf);

    char const* c_str() const { return path_.c_str(); }
    std::string const& str() const { return path_; }
    operator bool() const { return !path_.empty(); }

    /** What "$COMPONENT" stands for in this process; "agent" unless set. Set it before threads. */
    static void component(std::string const& name);
    static std::string const& component();

private:
    std::string path_;
};

/**
 * The entries of one directory, without "." and "..". For one thread.
 *
 *     Directory_Reader reader("/etc");
 *     while (char const* name = reader.next()) ...
 */
class Directory_Reader {
public:
    explicit Directory_Reader(char const* path);
    ~Directory_Reader();
    Directory_Reader(Directory_Reader const&) = delete;
    Directory_Reader& operator=(Directory_Reader const&) = delete;

    /** False when the directory could not be opened; errno tells why right after construction. */
    operator bool() const { return directory_ != nullptr; }
    /** The next name, valid until the next call; null at the end or on a failure. */
    char const* next();

private:
    DIR* directory_;
};

#endif
