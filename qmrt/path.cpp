#include "qmrt/path.h"

#include "qmrt/file.h"
#include "qmrt/log.h"
#include "qmrt/names.h"

#include <cstring>
#include <sys/stat.h>

namespace qmrt {

std::string basename(std::string const& path) {
    return path.substr(path.rfind('/') + 1);
}

} // namespace qmrt

std::string dirname_string(std::string const& path) {
    size_t const slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

namespace {

bool has_type(char const* path, mode_t type) {
    struct stat status;
    return lstat(path, &status) == 0 && (status.st_mode & S_IFMT) == type;
}

std::string& component_name() {
    static std::string name = "agent";
    return name;
}

std::string expand_component(std::string directory) {
    constexpr char const VARIABLE[] = "$COMPONENT";
    for (size_t at = 0; (at = directory.find(VARIABLE, at)) != std::string::npos;) {
        directory.replace(at, sizeof VARIABLE - 1, component_name());
        at += component_name().size();
    }
    return directory;
}

} // namespace

bool is_symbolic_link(char const* path) {
    return has_type(path, S_IFLNK);
}

bool is_regular_file(char const* path) {
    return has_type(path, S_IFREG);
}

bool is_directory(char const* path) {
    return has_type(path, S_IFDIR);
}

Path_Conf::Path_Conf(std::string const& directory, bool create_directory, std::string const& leaf,
                     mode_t mode) {
    std::string const expanded = expand_component(directory);
    if (std::string const fault = names::fault_of_relative_path(leaf); !fault.empty()) {
        QMRT_LOG(LM_ERROR, "'%s' cannot be the name of a file in %s: it %s\n",
                 names::shown(leaf).c_str(), expanded.c_str(), fault.c_str());
        return;
    }
    if (create_directory && mkdir_p(expanded.c_str(), mode) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to mkdir %s, errno=%d, %m\n", expanded.c_str(), errno);
        return;
    }
    path_ = (qmrt::Path(expanded) / leaf).str();
}

Path_Conf::Path_Conf(std::string const& directory, std::string const& leaf)
    : Path_Conf(directory, false, leaf, 0) {}

void Path_Conf::component(std::string const& name) {
    component_name() = name;
}

std::string const& Path_Conf::component() {
    return component_name();
}

Directory_Reader::Directory_Reader(char const* path) : directory_(opendir(path)) {}

Directory_Reader::~Directory_Reader() {
    if (directory_)
        closedir(directory_);
}

char const* Directory_Reader::next() {
    while (directory_) {
        dirent const* const entry = readdir(directory_);
        if (entry == nullptr)
            return nullptr;
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            return entry->d_name;
    }
    return nullptr;
}
