#include "gaussdb/common/xbsa_link.h"

#include "qmrt/file.h"
#include "qmrt/log.h"
#include "qmrt/path.h"

#include <cerrno>
#include <unistd.h>

namespace {

constexpr char LIBRARY_DIRECTORY[] = "/opt/quilmot/zenbrak3/lib";
constexpr char SYSTEM_LINK[] = "/usr/openv/lib/libxbsa64.so";

} // namespace

bool place_xbsa_link(char const* library, char const* link) {
    if (is_symbolic_link(link))
        return true;
    std::string const target = (qmrt::Path(LIBRARY_DIRECTORY) / library).str();
    if (symlink(target.c_str(), link) == 0)
        return true;
    int const error = errno;
    // another thread or agent may have been quicker
    if (error == EEXIST && is_symbolic_link(link))
        return true;
    errno = error;
    QMRT_LOG(LM_ERROR, "Failed to link %s to %s, errno=%d, %m\n", target.c_str(), link, errno);
    return false;
}

bool place_system_xbsa_link(char const* library) {
    std::string const directory = dirname_string(SYSTEM_LINK);
    if (mkdir_p(directory.c_str(), 0755) == -1 && errno != EEXIST) {
        QMRT_LOG(LM_ERROR, "Failed to mkdir %s, errno=%d, %m\n", directory.c_str(), errno);
        return false;
    }
    return place_xbsa_link(library, SYSTEM_LINK);
}
