#ifndef QMRT_MEM_MAP_HANDLE_H
#define QMRT_MEM_MAP_HANDLE_H

#include "qmrt/log.h"

#include <ace/Mem_Map.h>

#include <fcntl.h>
#include <string>
#include <sys/mman.h>

/**
 * A typed view of a small file that several processes map at once.
 *
 * @tparam T          what stands at the beginning of the file; a plain record, at most Size bytes
 * @tparam Path_Conf  has a static text `prefix`, the directory of these files
 * @tparam Size       the length of a file that is created here; it is all zeros then
 *
 * No lock is taken and nothing is reset: an existing file is seen as it stands.
 */
template <typename T, typename Path_Conf, size_t Size>
class Mem_Map_Handle {
    static_assert(sizeof(T) <= Size);

public:
    using open_flags_t = int;

    Mem_Map_Handle() = default;
    ~Mem_Map_Handle() { close(); }
    Mem_Map_Handle(Mem_Map_Handle const&) = delete;
    Mem_Map_Handle& operator=(Mem_Map_Handle const&) = delete;

    /** The path of the file @a name in the directory of these files. */
    static std::string path_of(std::string const& name) {
        return std::string(Path_Conf::prefix) + "/" + name;
    }

    /**
     * Opens and maps the file at @a path; with O_CREAT it is made, with mode 0640 and Size bytes.
     * @return 0, or -1 after an error line.
     */
    int open_i(char const* path, open_flags_t flags) {
        size_t const length = flags & O_CREAT ? Size : static_cast<size_t>(-1);
        int protection = PROT_READ;
        if (flags & O_RDWR)
            protection = PROT_READ | PROT_WRITE;
        else if (flags & O_WRONLY)
            protection = PROT_WRITE;
        if (map_.map(path, length, flags & ~O_CLOEXEC, FILE_MODE, protection, MAP_SHARED) == -1) {
            QMRT_LOG(LM_ERROR, "Failed to memory map %s, errno=%d, %m\n", path, errno);
            return -1;
        }
        if (flags & O_CLOEXEC)
            enable_fd_cloexec(map_.handle());
        return 0;
    }

    int close() { return map_.close(); }
    /** Unmaps the file and deletes it. */
    int remove() { return map_.remove(); }

    /** The record; only while the file is open. */
    T* operator->() const { return static_cast<T*>(map_.addr()); }
    /** True while a file is open. */
    operator bool() const { return map_.addr() != MAP_FAILED; }

private:
    static constexpr mode_t FILE_MODE = 0640;

    static void enable_fd_cloexec(int fd) {
        int const flags = fcntl(fd, F_GETFD);
        if (flags != -1)
            fcntl(fd, F_SETFD, flags | FD_CLOEXEC);
    }

protected:
    ACE_Mem_Map map_;
};

#endif
