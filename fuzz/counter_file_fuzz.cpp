#include "fuzz/scratch_directory.h"
#include "xbsa/xbsa_mem_map_handle.h"

/** A counter file of any length and content is mapped whole, and can be counted in. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static Scratch_Directory const directory;
    std::string const path = directory.write("p_act", {reinterpret_cast<char const*>(data), size});
    Xbsa_Mem_Map_Handle file;
    if (file.open(path.c_str(), "") == -1)
        std::abort();
    uint64_t const before = file->current_size;
    __atomic_fetch_add(&file->current_size, 1, __ATOMIC_RELAXED);
    if (file->current_size != before + 1)
        std::abort();
    return 0;
}
