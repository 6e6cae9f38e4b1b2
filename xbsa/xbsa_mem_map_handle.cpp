#include "xbsa/xbsa_mem_map_handle.h"

#include "host/process/password_file_entry.h"

#include <cerrno>
#include <cstddef>
#include <sys/stat.h>
#include <unistd.h>

int Xbsa_Mem_Map_Handle::open(char const* path, char const* owner) {
    if (!path || !*path) {
        QMRT_LOG(LM_ERROR, "Xbsa info path is empty\n");
        return -1;
    }
    if (open_i(path, O_RDWR | O_CREAT | O_CLOEXEC) == -1) {
        int const error = errno;
        map_.close(); // after a failure with a pipe it would count as open
        errno = error;
        return -1;
    }
    Password_File_Entry user;
    // by the descriptor: the name may be another's file by now
    if (owner && *owner && user.get(owner) == 0 &&
        fchown(map_.handle(), user.uid(), user.gid()) == -1)
        QMRT_LOG(LM_DEBUG, "Failed to give %s to %s, errno=%d, %m\n", path, owner, errno);
    return 0;
}

bool Xbsa_Mem_Map_Handle::is_whole() const {
    struct stat status;
    return *this && fstat(map_.handle(), &status) == 0 &&
           status.st_size >= static_cast<off_t>(sizeof(Xbsa_Info));
}

std::optional<uint64_t> Xbsa_Mem_Map_Handle::current_size() const {
    uint64_t size = 0;
    if (!*this || pread(map_.handle(), &size, sizeof size, offsetof(Xbsa_Info, current_size)) !=
                      static_cast<ssize_t>(sizeof size))
        return std::nullopt;
    return size;
}
