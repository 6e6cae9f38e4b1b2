#include "gaussdb/common/gaussdb_env.h"

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

/** A shell profile of any content is read to its end, and every value stays within its bound. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static int const file = memfd_create("profile", 0);
    static std::string const path = "/proc/self/fd/" + std::to_string(file);
    if (ftruncate(file, 0) == -1 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size))
        std::abort();

    GaussDB_Env env;
    env.set_env("A", "/a");
    env.set_env("B", "$A");
    if (!env.read(path.c_str()))
        std::abort();
    for (auto const& [key, value] : env.get_env())
        if (value.size() > 128 * 1024)
            std::abort();
    return 0;
}
