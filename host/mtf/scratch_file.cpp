#include "host/mtf/scratch_file.h"

#include "qmrt/file.h"

#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace MTF {

namespace {

File_Descriptor open_unnamed(std::string const& directory) {
    File_Descriptor file(
        open(directory.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file)
        return file;
    // not every file system can do that
    std::string name = directory + "/zenbrak3-XXXXXX";
    file.reset(mkostemp(name.data(), O_CLOEXEC));
    if (file)
        unlink(name.c_str());
    return file;
}

} // namespace

Scratch_File open_scratch_file() {
    char const* const wanted = getenv("TMPDIR");
    File_Descriptor file = open_unnamed(wanted && *wanted == '/' ? wanted : "/var/tmp");
    if (!file)
        return nullptr;
    Scratch_File result(fdopen(file.get(), "w+"));
    if (result)
        file.release();
    return result;
}

} // namespace MTF
