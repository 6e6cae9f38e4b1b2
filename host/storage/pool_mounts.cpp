#include "host/storage/pool_mounts.h"

#include "qmrt/file.h"
#include "qmrt/log.h"
#include "qmrt/names.h"

#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

struct Pool_Mount {
    std::string id;     ///< the kernel's, as in fdinfo
    std::string device; ///< MAJOR:MINOR
    std::string point;  ///< the path
};

/** A path of mountinfo: blanks, tabs, newlines and backslashes are "\" and three octal digits. */
std::string unescaped(std::string const& text) {
    constexpr size_t DIGITS = 3;
    std::string result;
    for (size_t at = 0; at < text.size(); ++at) {
        if (text[at] != '\\' || at + DIGITS >= text.size()) {
            result += text[at];
            continue;
        }
        result += static_cast<char>(std::stoi(text.substr(at + 1, DIGITS), nullptr, 8));
        at += DIGITS;
    }
    return result;
}

/**
 * Lists the mounts that root has made. Any user can mount under these names by fusermount3, and a
 * user's server can leave a request without an answer. See proc_pid_mountinfo(5): optional fields
 * end with "-".
 */
std::vector<Pool_Mount> list_pool_mounts() {
    std::vector<Pool_Mount> mounts;
    std::string const wanted_type = std::string("fuse.") + POOL_MOUNT_SUBTYPE;
    std::ifstream list("/proc/thread-self/mountinfo");
    for (std::string line; std::getline(list, line);) {
        std::istringstream words(line);
        std::string id, parent, device, root, point, word, type, source, options;
        words >> id >> parent >> device >> root >> point;
        while (words >> word && word != "-")
            ;
        if (words >> type >> source >> options && type == wanted_type &&
            source == POOL_MOUNT_SOURCE &&
            ("," + options + ",").find(",user_id=0,") != std::string::npos)
            mounts.push_back({id, device, unescaped(point)});
    }
    return mounts;
}

/** Whether what is open is that mount: the path may lead elsewhere by now. */
bool is_mount(File_Descriptor const& file, std::string const& id) {
    std::ifstream about("/proc/thread-self/fdinfo/" + std::to_string(file.get()));
    for (std::string key, value; about >> key >> value;)
        if (key == "mnt_id:")
            return value == id;
    return false;
}

bool is_dead(File_Descriptor const& file) {
    struct statx status;
    // what the kernel has cached of a mount is valid for a while after its agent has ended
    return statx(file.get(), "", AT_EMPTY_PATH | AT_STATX_FORCE_SYNC, STATX_BASIC_STATS, &status) ==
               -1 &&
           (errno == ENOTCONN || errno == ECONNABORTED);
}

} // namespace

size_t unmount_dead_pools() {
    size_t count = 0;
    if (geteuid() != 0)
        return count;
    for (Pool_Mount const& mount : list_pool_mounts()) {
        File_Descriptor const root(open(mount.point.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        if (!root || !is_mount(root, mount.id) || !is_dead(root))
            continue;
        std::string const place = "/proc/self/fd/" + std::to_string(root.get());
        bool const done = umount2(place.c_str(), MNT_DETACH) == 0;
        count += done ? 1 : 0;
        if (done)
            QMRT_LOG(LM_INFO, "Unmounted %s, whose agent has ended\n",
                     names::shown(mount.point).c_str());
        else
            QMRT_LOG(LM_WARNING, "Failed to unmount %s, whose agent has ended, errno=%d, %m\n",
                     names::shown(mount.point).c_str(), errno);
    }
    return count;
}

void widen_read_ahead() {
    constexpr char KIB[] = "4096";
    if (geteuid() != 0)
        return;
    for (Pool_Mount const& mount : list_pool_mounts())
        std::ofstream("/sys/class/bdi/" + mount.device + "/read_ahead_kb") << KIB;
}
