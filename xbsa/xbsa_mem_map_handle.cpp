#include "xbsa/xbsa_mem_map_handle.h"

#include "host/process/password_file_entry.h"

#include <unistd.h>

int Xbsa_Mem_Map_Handle::open(char const* path, char const* owner) {
    if (!path || !*path) {
        QMRT_LOG(LM_ERROR, "Xbsa info path is empty\n");
        return -1;
    }
    if (open_i(path, O_RDWR | O_CREAT | O_CLOEXEC) == -1)
        return -1;
    Password_File_Entry user;
    // by the descriptor: the name may be another's file by now
    if (owner && *owner && user.get(owner) == 0 &&
        fchown(map_.handle(), user.uid(), user.gid()) == -1)
        QMRT_LOG(LM_DEBUG, "Failed to give %s to %s, errno=%d, %m\n", path, owner, errno);
    return 0;
}
