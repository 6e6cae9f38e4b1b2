#include "fuzz/scratch_directory.h"
#include "gaussdb/job/roach_meta_parser.h"

/** The backup tool's metadata file, which the database's user can write, with any content. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static Scratch_Directory const directory;
    directory.write("backups.ini", {reinterpret_cast<char const*>(data), size});
    Roach_Meta_Parser parser(directory.path(), GAUSSDB_200);
    ACE_INT64 bytes = -1;
    for (char const* key : {"20201216_105317", "1_1", ""}) {
        bool const found = parser.has_backup_key(key);
        if (found && parser.parse(key, bytes) && bytes < 0)
            std::abort();
    }
    return 0;
}
