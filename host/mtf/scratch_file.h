#ifndef HOST_MTF_SCRATCH_FILE_H
#define HOST_MTF_SCRATCH_FILE_H

#include <cstdio>
#include <memory>

namespace MTF {

struct Close_File {
    void operator()(FILE* file) const { fclose(file); }
};

/** A temporary file without a name: it goes when it is closed, however its process ends. */
using Scratch_File = std::unique_ptr<FILE, Close_File>;

/**
 * Makes one, to be written and read, in $TMPDIR, or else in /var/tmp: /tmp is often kept in memory.
 * @return null, with errno set, when none can be made
 */
Scratch_File open_scratch_file();

} // namespace MTF

#endif
