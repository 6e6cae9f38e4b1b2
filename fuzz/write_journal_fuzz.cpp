#include "agent/storage/write_journal.h"
#include "fuzz/scratch_directory.h"

/** A journal of any content is opened; what is left in it leads nowhere else, and is kept. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static Scratch_Directory const directory;
    std::string const path =
        directory.write("journal", {reinterpret_cast<char const*>(data), size});
    std::string error;
    std::vector<Pool_Object> left;
    {
        auto const journal = Write_Journal::open(path, error);
        if (!journal)
            std::abort();
        left = journal->left();
    }
    for (Pool_Object const& object : left)
        if (object.name.empty() || object.name.front() == '/' || object.pool_path.front() != '/' ||
            ("/" + object.name + "/").find("/../") != std::string::npos ||
            (object.pool_path + "/").find("/../") != std::string::npos)
            std::abort();
    auto const again = Write_Journal::open(path, error);
    if (!again || again->left() != left)
        std::abort();
    return 0;
}
