#include "host/mtf/archive_writer.h"

#include "tests/support/log_capture.h"
#include "tests/support/memory_archive_store.h"
#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdio.h>

using namespace MTF;

namespace {

class Archive_Writer_Test : public testing::Test {
protected:
    Source_Item item(std::string const& path) const {
        Source_Item result{path.substr(1), path, {}, AT_FDCWD, path, false};
        EXPECT_EQ(0, lstat(path.c_str(), &result.status)) << path;
        return result;
    }
    std::string output_of(std::string const& command) const {
        std::string text;
        FILE* const pipe = popen(command.c_str(), "r");
        for (int c; (c = fgetc(pipe)) != EOF;)
            text += static_cast<char>(c);
        EXPECT_EQ(0, pclose(pipe)) << command;
        return text;
    }

    Temporary_Directory tree_;
    Memory_Archive_Store store_;
    Work_Report report_{nullptr};
    Archive_Writer writer_{store_, report_};
    Catalogue_Entry entry_;
};

TEST_F(Archive_Writer_Test, TarAndTheCompressorsReadWhatIsWritten) {
    std::string const path = tree_.write("dir/f\xc3\xbc.txt", "content");
    for (auto const& [compression, program] :
         {std::pair(COMPRESSION_NONE, "cat"), std::pair(COMPRESSION_ZSTD, "zstd -dc"),
          std::pair(COMPRESSION_LZOP, "lzop -dc")}) {
        Archive_Writer writer(store_, report_);
        ASSERT_TRUE(writer.open("a", compression, 3));
        ASSERT_EQ(Archive_Writer::SAVED, writer.save(item(path), "", entry_));
        ASSERT_TRUE(writer.close() && writer.commit());
        std::string const file = tree_.write("archive", store_.objects["a"]);
        std::string const read = std::string(program) + " <" + file + " | tar xO 2>/dev/null";
        EXPECT_EQ("content", output_of(read)) << program;
    }
}

TEST_F(Archive_Writer_Test, TellsTheEntryToTheCatalogue) {
    std::string const path = tree_.write("file", "abc");
    chmod(path.c_str(), 0604);
    ASSERT_TRUE(writer_.open("a", COMPRESSION_NONE, 0));
    ASSERT_EQ(Archive_Writer::SAVED, writer_.save(item(tree_.path()), "", entry_));
    EXPECT_EQ(ENTRY_DIRECTORY, entry_.type);
    EXPECT_EQ(0u, entry_.offset);
    EXPECT_EQ(0u, entry_.size);
    ASSERT_EQ(Archive_Writer::SAVED, writer_.save(item(path), "", entry_));
    EXPECT_EQ(path.substr(1), entry_.name);
    EXPECT_EQ(ENTRY_FILE, entry_.type);
    EXPECT_EQ(3u, entry_.size);
    EXPECT_EQ(0604u, entry_.mode);
    EXPECT_EQ(to_ns(item(path).status.st_mtim), entry_.mtime_ns);
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad", entry_.sha256);
    uint64_t const offset = entry_.offset;
    EXPECT_GT(offset, 0u);
    ASSERT_TRUE(writer_.close() && writer_.commit());
    // from its offset on, the archive is a tar file that begins with the entry
    tree_.write("rest", store_.objects["a"].substr(offset));
    EXPECT_EQ("abc", output_of("tar xOf " + tree_.path("rest") + " 2>/dev/null"));
}

TEST_F(Archive_Writer_Test, TellsSizeAndDigestOfWhatIsStored) {
    ASSERT_TRUE(writer_.open("a", COMPRESSION_ZSTD, 0));
    ASSERT_EQ(Archive_Writer::SAVED, writer_.save(item(tree_.write("f", "x")), "", entry_));
    ASSERT_TRUE(writer_.close());
    EXPECT_TRUE(store_.objects.empty()) << "not to be seen before commit()";
    ASSERT_TRUE(writer_.commit());
    std::string const& stored = store_.objects["a"];
    Sha256 sha256;
    sha256.update(stored.data(), stored.size());
    EXPECT_EQ(stored.size(), writer_.written().size);
    EXPECT_EQ(sha256.finish(), writer_.written().sha256);
}

TEST_F(Archive_Writer_Test, AFifoThatTookAFilesPlaceIsLeftOutAtOnce) {
    std::string const path = tree_.write("file", "x");
    Source_Item const before = item(path);
    unlink(path.c_str());
    ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
    ASSERT_TRUE(writer_.open("a", COMPRESSION_NONE, 0));
    EXPECT_EQ(Archive_Writer::LEFT_OUT, writer_.save(before, "", entry_));
    EXPECT_LOGGED(LM_WARNING, "it became something else meanwhile");
}

TEST_F(Archive_Writer_Test, ALinkThatTookAFilesPlaceIsNotFollowed) {
    std::string const path = tree_.write("file", "x");
    Source_Item const before = item(path);
    unlink(path.c_str());
    ASSERT_EQ(0, symlink("/etc/passwd", path.c_str()));
    ASSERT_TRUE(writer_.open("a", COMPRESSION_NONE, 0));
    EXPECT_EQ(Archive_Writer::LEFT_OUT, writer_.save(before, "", entry_));
    EXPECT_LOGGED(LM_WARNING, "Left out " + path);
}

TEST_F(Archive_Writer_Test, DroppedUnfinishedItLeavesNothing) {
    {
        Archive_Writer writer(store_, report_);
        ASSERT_TRUE(writer.open("a", COMPRESSION_ZSTD, 0));
        EXPECT_EQ(Archive_Writer::SAVED, writer.save(item(tree_.write("f", "x")), "", entry_));
    }
    EXPECT_TRUE(store_.objects.empty());
}

TEST_F(Archive_Writer_Test, KindsOfFiles) {
    EXPECT_EQ(ENTRY_FILE, entry_type_of(S_IFREG | 0644));
    EXPECT_EQ(ENTRY_DIRECTORY, entry_type_of(S_IFDIR));
    EXPECT_EQ(ENTRY_SYMBOLIC_LINK, entry_type_of(S_IFLNK));
    EXPECT_EQ(ENTRY_FIFO, entry_type_of(S_IFIFO));
    for (mode_t const none : {S_IFSOCK, S_IFCHR, S_IFBLK})
        EXPECT_FALSE(entry_type_of(none));
    EXPECT_EQ(-999999999, to_ns({-1, 1}));
}

} // namespace
