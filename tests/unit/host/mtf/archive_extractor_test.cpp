#include "host/mtf/archive_extractor.h"

#include "tests/support/log_capture.h"
#include "tests/support/memory_archive_store.h"
#include "tests/support/temporary_directory.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace MTF;

namespace {

struct Hostile_Entry {
    Catalogue_Entry told;     ///< by the catalogue
    std::string name = {};    ///< in the archive; "" for the same
    std::string content = {}; ///< of a file
    mode_t other_type = 0;    ///< in the archive, when it differs
};

Catalogue_Entry entry(std::string const& name, Entry_Type type, std::string const& link = {}) {
    Catalogue_Entry result;
    result.name = name;
    result.type = type;
    result.link = link;
    result.mode = 0755;
    result.seq = 1;
    return result;
}

/** Archives as a villain would make them, each with a catalogue that vouches for it. */
class Archive_Extractor_Test : public testing::Test {
protected:
    void add(Entry_Type type, std::string const& name, std::string const& text = {}) {
        Hostile_Entry hostile{entry(name, type, type == ENTRY_FILE ? "" : text)};
        if (type == ENTRY_FILE)
            hostile.content = text;
        entries_.push_back(hostile);
    }

    static mode_t type_of(Hostile_Entry const& hostile) {
        if (hostile.other_type != 0)
            return hostile.other_type;
        switch (hostile.told.type) {
        case ENTRY_DIRECTORY:
            return AE_IFDIR;
        case ENTRY_SYMBOLIC_LINK:
            return AE_IFLNK;
        case ENTRY_FIFO:
            return AE_IFIFO;
        default:
            return AE_IFREG;
        }
    }

    std::string make_archive() const {
        std::string bytes(16 * 1024 * 1024, '\0');
        size_t used = 0;
        archive* const writer = archive_write_new();
        archive_write_set_format_pax(writer);
        archive_write_set_format_option(writer, "pax", "hdrcharset", "BINARY");
        EXPECT_EQ(ARCHIVE_OK, archive_write_open_memory(writer, bytes.data(), bytes.size(), &used));
        for (Hostile_Entry const& hostile : entries_) {
            archive_entry* const header = archive_entry_new();
            std::string const name = hostile.name.empty() ? hostile.told.name : hostile.name;
            archive_entry_set_pathname(header, name.c_str());
            archive_entry_set_filetype(header, type_of(hostile));
            archive_entry_set_perm(header, hostile.told.mode);
            archive_entry_set_size(header, static_cast<la_int64_t>(hostile.content.size()));
            if (hostile.told.type == ENTRY_SYMBOLIC_LINK)
                archive_entry_set_symlink(header, hostile.told.link.c_str());
            if (hostile.told.type == ENTRY_HARD_LINK)
                archive_entry_set_hardlink(header, hostile.told.link.c_str());
            EXPECT_EQ(ARCHIVE_OK, archive_write_header(writer, header));
            archive_write_data(writer, hostile.content.data(), hostile.content.size());
            archive_entry_free(header);
        }
        archive_write_close(writer);
        archive_free(writer);
        return bytes.substr(0, used);
    }

    /** The catalogue as the archive has it, unless its reader refuses it. */
    bool fetch(std::string const& bytes, Catalogue_Reader& reader, std::string& error) {
        Sha256 sha256;
        Catalogue_Writer writer;
        EXPECT_TRUE(writer.begin(1, {}));
        for (Hostile_Entry const& hostile : entries_) {
            Catalogue_Entry told = hostile.told;
            if (told.type == ENTRY_FILE) {
                told.size = told.size == 0 ? hostile.content.size() : told.size;
                sha256.update(hostile.content.data(), hostile.content.size());
                told.sha256 = sha256.finish();
            }
            EXPECT_TRUE(writer.add(told));
        }
        sha256.update(bytes.data(), bytes.size());
        EXPECT_TRUE(writer.finish({{1, {bytes.size(), sha256.finish()}}}));
        auto const output = store_.create("cat");
        EXPECT_TRUE(writer.copy_to(*output) && output->commit());
        auto presence = Archive_Store::UNKNOWN;
        return reader.fetch(*store_.open("cat", presence), error) == Catalogue_Reader::OK;
    }

    Error_Code extract() {
        std::string const bytes = make_archive();
        store_.objects["archive"] = bytes;
        Catalogue_Reader catalogue;
        std::string error;
        EXPECT_TRUE(fetch(bytes, catalogue, error)) << error;
        Archive_Extractor extractor(inside_.path(), store_, report_);
        EXPECT_TRUE(extractor.open());
        auto presence = Archive_Store::UNKNOWN;
        auto const input = store_.open("archive", presence);
        Error_Code const code = extractor.extract(*input, catalogue, 1, "");
        extractor.close();
        return code;
    }

    /** Nothing has come or gone, and nothing has changed, beside the target. */
    void expect_outside_untouched() {
        EXPECT_EQ("untouched", outside_.read("victim"));
        EXPECT_EQ(1, std::distance(std::filesystem::directory_iterator(outside_.path()), {}));
        struct stat status;
        ASSERT_EQ(0, stat(outside_.path("victim").c_str(), &status));
        EXPECT_EQ(1u, status.st_nlink);
        EXPECT_EQ(0600u, status.st_mode & 07777);
    }

    void SetUp() override {
        outside_.write("victim", "untouched");
        chmod(outside_.path("victim").c_str(), 0600);
    }

    Temporary_Directory inside_;
    Temporary_Directory outside_;
    Memory_Archive_Store store_;
    Work_Report report_{nullptr};
    std::vector<Hostile_Entry> entries_;
};

TEST_F(Archive_Extractor_Test, AFileBehindALinkOfTheArchiveIsLeftOut) {
    add(ENTRY_SYMBOLIC_LINK, "d", outside_.path());
    add(ENTRY_FILE, "d/evil", "evil");
    add(ENTRY_FILE, "d/victim", "evil");
    add(ENTRY_FILE, "good", "good");
    EXPECT_EQ(E_OK, extract());
    EXPECT_LOGGED(LM_WARNING, "Left out " + inside_.path("d/evil"));
    EXPECT_LOGGED(LM_WARNING, "Left out " + inside_.path("d/victim"));
    EXPECT_EQ("good", inside_.read("good"));
    expect_outside_untouched();
}

TEST_F(Archive_Extractor_Test, AFolderBehindALinkOfTheArchiveIsLeftOut) {
    add(ENTRY_SYMBOLIC_LINK, "d", outside_.path());
    add(ENTRY_DIRECTORY, "d/evil");
    EXPECT_EQ(E_OK, extract());
    EXPECT_LOGGED(LM_WARNING, "Left out " + inside_.path("d/evil"));
    expect_outside_untouched();
}

TEST_F(Archive_Extractor_Test, AHardLinkToAFileBehindALinkIsLeftOut) {
    add(ENTRY_SYMBOLIC_LINK, "d", outside_.path());
    add(ENTRY_HARD_LINK, "e", "d/victim");
    EXPECT_EQ(E_OK, extract());
    EXPECT_LOGGED(LM_WARNING, "Left out " + inside_.path("e"));
    expect_outside_untouched();
}

TEST_F(Archive_Extractor_Test, ALinkThatIsReplacedByAFileIsNotFollowed) {
    ASSERT_EQ(0, symlink(outside_.path("victim").c_str(), inside_.path("f").c_str()));
    add(ENTRY_FILE, "f", "new");
    EXPECT_EQ(E_OK, extract());
    EXPECT_EQ("new", inside_.read("f"));
    expect_outside_untouched();
}

TEST_F(Archive_Extractor_Test, AFolderInPlaceOfALinkChangesNothingBehindIt) {
    ASSERT_EQ(0, symlink(outside_.path("victim").c_str(), inside_.path("d").c_str()));
    add(ENTRY_DIRECTORY, "d");
    extract();
    Log_Capture::instance().claim_all(LM_WARNING, "");
    expect_outside_untouched();
}

TEST_F(Archive_Extractor_Test, AnArchiveWithOtherNamesThanItsCatalogueIsCorrupt) {
    for (std::string const& name : {"../" + outside_.path("evil").substr(5), outside_.path("evil"),
                                    std::string("a/../../evil"), std::string("other")}) {
        entries_.clear();
        add(ENTRY_FILE, "f", "evil");
        entries_.back().name = name;
        EXPECT_EQ(E_CORRUPT, extract()) << name;
        EXPECT_LOGGED(LM_ERROR, "is corrupt near byte ");
        EXPECT_TRUE(std::filesystem::is_empty(inside_.path()));
        expect_outside_untouched();
    }
}

TEST_F(Archive_Extractor_Test, ACatalogueWithNamesThatLeadOutIsRefused) {
    for (std::string const& name :
         {std::string("../evil"), std::string("/etc/evil"), std::string("a/../../evil"),
          std::string("a/./b"), std::string("a//b"), std::string("a/"), std::string("")}) {
        entries_.clear();
        add(ENTRY_FILE, name, "evil");
        Catalogue_Reader catalogue;
        std::string error;
        EXPECT_FALSE(fetch("", catalogue, error)) << name;
        EXPECT_EQ("entry 0 is not valid", error);
        entries_.clear();
        add(ENTRY_HARD_LINK, "a", name);
        EXPECT_FALSE(fetch("", catalogue, error)) << name;
    }
}

TEST_F(Archive_Extractor_Test, AnEntryOfAnotherKindThanInTheCatalogueIsCorrupt) {
    for (mode_t const type : {AE_IFLNK, AE_IFDIR, AE_IFIFO, AE_IFCHR, AE_IFBLK}) {
        entries_.clear();
        add(ENTRY_FILE, "f");
        entries_.back().other_type = type;
        EXPECT_EQ(E_CORRUPT, extract()) << type;
        EXPECT_LOGGED(LM_ERROR, "f: it is not what the catalogue says");
        EXPECT_FALSE(inside_.exists("f"));
    }
}

TEST_F(Archive_Extractor_Test, AFileOfAnotherSizeThanInTheCatalogueIsCorrupt) {
    add(ENTRY_FILE, "f", "content");
    entries_.back().told.size = 8;
    EXPECT_EQ(E_CORRUPT, extract());
    EXPECT_LOGGED(LM_ERROR, "f: it is not what the catalogue says");
}

TEST_F(Archive_Extractor_Test, AnEntryThatTheCatalogueDoesNotTellOfIsPassedOver) {
    add(ENTRY_FILE, "a", "a");
    add(ENTRY_FILE, "b", "b");
    std::string const bytes = make_archive();
    entries_.erase(entries_.begin());
    store_.objects["archive"] = bytes;
    Catalogue_Reader catalogue;
    std::string error;
    ASSERT_TRUE(fetch(bytes, catalogue, error)) << error;
    Archive_Extractor extractor(inside_.path(), store_, report_);
    ASSERT_TRUE(extractor.open());
    auto presence = Archive_Store::UNKNOWN;
    EXPECT_EQ(E_OK, extractor.extract(*store_.open("archive", presence), catalogue, 1, ""));
    EXPECT_FALSE(inside_.exists("a"));
    EXPECT_EQ("b", inside_.read("b"));
}

TEST_F(Archive_Extractor_Test, EntriesOutOfOrderAreCorrupt) {
    add(ENTRY_FILE, "a", "a");
    add(ENTRY_FILE, "b", "b");
    entries_[0].name = "b";
    entries_[1].name = "a";
    EXPECT_EQ(E_CORRUPT, extract());
    EXPECT_LOGGED(LM_ERROR, "b: it does not hold a");
}

TEST_F(Archive_Extractor_Test, APathThatIsTooLongIsLeftOut) {
    std::string name = "a";
    while (inside_.path(name).size() < 4100)
        name += "/" + std::string(200, 'n');
    add(ENTRY_FILE, name, "x");
    add(ENTRY_FILE, "b", "b");
    EXPECT_EQ(E_OK, extract());
    EXPECT_LOGGED(LM_WARNING, "Left out " + inside_.path("a/nnn"));
    EXPECT_EQ("b", inside_.read("b"));
}

TEST_F(Archive_Extractor_Test, WhatIsNoArchiveIsCorrupt) {
    for (std::string const& bytes : {std::string("no archive"), std::string(100000, 'x'),
                                     std::string(), std::string("\x28\xb5\x2f\xfd broken", 11)}) {
        entries_.clear();
        add(ENTRY_FILE, "a", "a");
        store_.objects["archive"] = bytes;
        Catalogue_Reader catalogue;
        std::string error;
        ASSERT_TRUE(fetch(bytes, catalogue, error)) << error;
        Archive_Extractor extractor(inside_.path(), store_, report_);
        ASSERT_TRUE(extractor.open());
        auto presence = Archive_Store::UNKNOWN;
        EXPECT_EQ(E_CORRUPT,
                  extractor.extract(*store_.open("archive", presence), catalogue, 1, ""));
        EXPECT_LOGGED(LM_ERROR, "Archive 1 is corrupt near byte");
    }
}

} // namespace
