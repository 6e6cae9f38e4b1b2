#include "fuzz/scratch_directory.h"
#include "host/mtf/archive_extractor.h"
#include "tests/support/memory_archive_store.h"

#include <sys/stat.h>

using namespace MTF;

namespace {

constexpr char CONTENT[] = "content";

Catalogue_Entry entry_of(std::string const& name, Entry_Type type, std::string const& link = {}) {
    Catalogue_Entry entry;
    entry.name = name;
    entry.type = type;
    entry.link = link;
    entry.mode = 0755;
    entry.seq = 1;
    if (type == ENTRY_FILE) {
        Sha256 sha256;
        sha256.update(CONTENT, sizeof CONTENT - 1);
        entry.size = sizeof CONTENT - 1;
        entry.sha256 = sha256.finish();
    }
    return entry;
}

/** A catalogue that vouches for whatever is in the archive. */
bool make_catalogue(std::string const& archive, Memory_Archive_Store& store) {
    Catalogue_Writer writer;
    Sha256 sha256;
    sha256.update(archive.data(), archive.size());
    bool done = writer.begin(1, {});
    for (Catalogue_Entry const& entry :
         {entry_of("a", ENTRY_FILE), entry_of("d", ENTRY_DIRECTORY), entry_of("d/f", ENTRY_FILE),
          entry_of("h", ENTRY_HARD_LINK, "a"), entry_of("l", ENTRY_SYMBOLIC_LINK, "../outside"),
          entry_of("p", ENTRY_FIFO)})
        done = done && writer.add(entry);
    done = done && writer.finish({{1, {archive.size(), sha256.finish()}}});
    auto const output = store.create("cat");
    return done && writer.copy_to(*output) && output->commit();
}

} // namespace

/** Any archive beside a sound catalogue: nothing is made or changed beside the target folder. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static Scratch_Directory const directory;
    std::string const inside = directory.path("inside");
    std::filesystem::create_directory(inside);
    std::string const outside = directory.write("outside", "untouched");

    std::string const archive(reinterpret_cast<char const*>(data), size);
    Memory_Archive_Store store;
    store.objects["archive"] = archive;
    Catalogue_Reader catalogue;
    std::string error;
    auto presence = Archive_Store::UNKNOWN;
    if (!make_catalogue(archive, store) ||
        catalogue.fetch(*store.open("cat", presence), error) != Catalogue_Reader::OK)
        std::abort();
    Work_Report report(nullptr);
    {
        Archive_Extractor extractor(inside, store, report);
        if (!extractor.open())
            std::abort();
        auto const input = store.open("archive", presence);
        extractor.extract(*input, catalogue, 1, "");
        (void)extractor.close();
    }
    struct stat status;
    if (stat(outside.c_str(), &status) != 0 || status.st_size != 9 || status.st_nlink != 1 ||
        std::distance(std::filesystem::directory_iterator(directory.path()), {}) != 2)
        std::abort();
    std::filesystem::remove_all(inside);
    return 0;
}
