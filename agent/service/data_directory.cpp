#include "agent/service/data_directory.h"

#include "qmrt/format.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** Makes it with its parents; those that are there stay as they are. */
bool make_directories(std::string const& path) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1))
        if (mkdir(path.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST)
            return false;
    return mkdir(path.c_str(), 0700) == 0 || errno == EEXIST;
}

/** The process that holds the lock, as it has written into it; "" when it has not. */
std::string holder_of(int lock) {
    char text[32] = "";
    ssize_t const size = pread(lock, text, sizeof text - 1, 0);
    return size > 0 ? string_sprintf(" (process %ld)", strtol(text, nullptr, 10)) : "";
}

} // namespace

std::unique_ptr<Data_Directory> Data_Directory::take(std::string const& path, std::string& error) {
    if (!make_directories(path)) {
        error = "Cannot make the data directory " + path + ": " + strerror(errno);
        return nullptr;
    }
    std::string const name = path + "/agent.lock";
    int const lock = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock < 0) {
        error = "Cannot use the data directory " + path + ": " + name + ": " + strerror(errno);
        return nullptr;
    }
    std::unique_ptr<Data_Directory> directory(new Data_Directory(path, lock));
    if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
        error = "The data directory " + path + " is in use by another agent" + holder_of(lock) +
                "; end that one first, or give this one a directory of its own";
        return nullptr;
    }
    // for people only: the lock is what counts
    std::string const id = std::to_string(getpid()) + "\n";
    if (ftruncate(lock, 0) != 0 || pwrite(lock, id.data(), id.size(), 0) < 0) {
        error = "Cannot write to the data directory " + path + ": " + strerror(errno);
        return nullptr;
    }
    return directory;
}

Data_Directory::~Data_Directory() {
    close(lock_);
}
