#include "gaussdb/common/gaussdb_env.h"

#include <ace/Process.h>

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace {

void require(bool holds) {
    if (!holds)
        std::abort();
}

/** A file of this process's own in memory. */
std::string scratch_file(int& file) {
    std::string path = "/dev/shm/profile-fuzz-" + std::to_string(getpid());
    file = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    require(file != -1);
    std::atexit([] { unlink(("/dev/shm/profile-fuzz-" + std::to_string(getpid())).c_str()); });
    return path;
}

} // namespace

/**
 * A shell profile of any content is read to its end, every value stays within its bound, and a
 * child's options take each entry as it stands or not at all.
 */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static int file = -1;
    static std::string const path = scratch_file(file);
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));

    GaussDB_Env env;
    env.set_env("A", "/a");
    env.set_env("B", "$A");
    require(env.read(path.c_str()));
    size_t total = 0;
    for (auto const& [key, value] : env.get_env()) {
        require(!key.empty() && value.size() <= 128 * 1024);
        require((key + value).find('\0') == std::string::npos);
        total += key.size() + value.size();
    }
    require(total <= 1024 * 1024);

    ACE_Process_Options options(true, 1024, 16384, 512, 128);
    if (!env.set_opts(options))
        return 0;
    char* const* handed = options.env_argv();
    for (auto const& [key, value] : env.get_env())
        require(*handed && key + "=" + value == *handed++);
    require(!*handed);
    return 0;
}
