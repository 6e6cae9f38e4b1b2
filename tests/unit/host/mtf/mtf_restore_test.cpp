#include "tests/unit/host/mtf/mtf_fixture.h"

using namespace MTF;

namespace {

class MTF_Restore_Test : public MTF_Fixture {
protected:
    void SetUp() override {
        tree_.write("a.txt", "first");
        tree_.write("dir/b.txt", std::string(300000, 'b'));
        tree_.write("dir/deep/c.txt", "third");
        tree_.write("dirt", "not in dir");
        auto const backup = make_backup(1);
        backup->compression(COMPRESSION_NONE);
        ASSERT_TRUE(backup->backup(""));
        handler_->events.clear();
    }
    /** The restore fails with a code, and leaves no file whose content is not the original's. */
    void expect_failure(Error_Code code, std::string const& line) {
        auto const restore = make_restore(1);
        EXPECT_FALSE(restore->restore(""));
        EXPECT_EQ(code, restore->error_code());
        EXPECT_LOGGED(LM_ERROR, line);
        for (char const* const name : {"a.txt", "dir/b.txt", "dir/deep/c.txt", "dirt"})
            if (std::filesystem::exists(restored(name))) {
                EXPECT_EQ(tree_.read(name), read_restored(name)) << name;
            }
    }
};

TEST_F(MTF_Restore_Test, ATargetThatIsNotThereIsMade) {
    auto const restore = make_restore(1);
    restore->target_location(target_.path("new/target"));
    EXPECT_TRUE(restore->restore(""));
    EXPECT_EQ("first", target_.read("new/target" + source("a.txt")));
    EXPECT_EQ(7u, restore->restored_entries());
    EXPECT_EQ(300000u + 5 + 5 + 10, restore->restored_bytes());
}

TEST_F(MTF_Restore_Test, ATargetBehindALinkIsTaken) {
    mkdir(target_.path("real").c_str(), 0755);
    ASSERT_EQ(0, symlink("real", target_.path("link").c_str()));
    auto const restore = make_restore(1);
    restore->target_location(target_.path("link"));
    EXPECT_TRUE(restore->restore(""));
    EXPECT_EQ("first", target_.read("real" + source("a.txt")));
}

TEST_F(MTF_Restore_Test, ATargetThatCannotBeMadeIsAnError) {
    auto const restore = make_restore(1);
    restore->target_location(target_.write("file", "x") + "/below");
    EXPECT_FALSE(restore->restore(""));
    EXPECT_EQ(E_MKDIR, restore->error_code());
    EXPECT_LOGGED(LM_ERROR, "Failed to mkdir " + target_.path("file/below"));
}

TEST_F(MTF_Restore_Test, ARelativeTargetIsRefused) {
    auto const restore = make_restore(1);
    restore->target_location("relative");
    EXPECT_FALSE(restore->restore(""));
    EXPECT_EQ(E_MKDIR, restore->error_code());
    EXPECT_LOGGED(LM_ERROR, "Cannot restore to relative, it is not absolute");
}

TEST_F(MTF_Restore_Test, OnlyAFolderMayBeRestored) {
    auto const restore = make_restore(1);
    EXPECT_TRUE(restore->restore(source("dir")));
    EXPECT_EQ(4u, restore->restored_entries());
    EXPECT_EQ("third", read_restored("dir/deep/c.txt"));
    EXPECT_FALSE(std::filesystem::exists(restored("dirt")));
    EXPECT_FALSE(std::filesystem::exists(restored("a.txt")));
}

TEST_F(MTF_Restore_Test, OnlyAFileMayBeRestored) {
    auto const restore = make_restore(1);
    EXPECT_TRUE(restore->restore(source("dir/deep/c.txt")));
    EXPECT_EQ(1u, restore->restored_entries());
    EXPECT_EQ("third", read_restored("dir/deep/c.txt"));
}

TEST_F(MTF_Restore_Test, WhatTheBackupDoesNotHoldIsNotRestored) {
    auto const restore = make_restore(1);
    EXPECT_FALSE(restore->restore(source("dir/none")));
    EXPECT_EQ(E_NO_FILES_RESTORED, restore->error_code());
    EXPECT_LOGGED(LM_ERROR, "The backup holds nothing of \"" + source("dir/none") + "\"");
    EXPECT_FALSE(restore->restore("relative"));
    EXPECT_EQ(E_NOT_FOUND, restore->error_code());
    EXPECT_LOGGED(LM_ERROR, "it is no absolute path");
    EXPECT_TRUE(std::filesystem::is_empty(target_.path()));
}

TEST_F(MTF_Restore_Test, FilesThatAreThereAreReplaced) {
    std::string const there = restored("a.txt");
    target_.write(there.substr(target_.path().size() + 1), "something else that is longer");
    EXPECT_TRUE(restore());
    EXPECT_EQ("first", read_restored("a.txt"));
}

TEST_F(MTF_Restore_Test, ALinkThatIsThereIsReplacedAndNotFollowed) {
    Temporary_Directory outside;
    outside.write("victim", "untouched");
    std::filesystem::create_directories(target_.path() + tree_.path());
    ASSERT_EQ(0, symlink(outside.path("victim").c_str(), restored("a.txt").c_str()));
    EXPECT_TRUE(restore());
    EXPECT_EQ("untouched", outside.read("victim"));
    EXPECT_TRUE(S_ISREG(stat_of(restored("a.txt")).st_mode));
}

TEST_F(MTF_Restore_Test, AFolderThatIsALinkThereIsNotEntered) {
    Temporary_Directory outside;
    std::filesystem::create_directories(target_.path() + tree_.path());
    ASSERT_EQ(0, symlink(outside.path().c_str(), restored("dir").c_str()));
    restore();
    Log_Capture::instance().claim_all(LM_WARNING, "");
    EXPECT_TRUE(std::filesystem::is_empty(outside.path()));
    EXPECT_EQ("first", read_restored("a.txt"));
}

TEST_F(MTF_Restore_Test, ABackupThatIsNotThereIsToldByItsCatalogue) {
    store_->objects.clear();
    expect_failure(E_NOT_FOUND, "Failed to open catalogue " + catalogue(1));
    EXPECT_TRUE(std::filesystem::is_empty(target_.path()));
}

TEST_F(MTF_Restore_Test, ACatalogueThatCannotBeFetchedIsAnError) {
    store_->fail_open = ".cat";
    expect_failure(E_DOWNLOAD_CAT_ERROR, "Failed to open catalogue " + catalogue(1) + ", injected");
    store_->fail_open.clear();
    store_->readable = 100;
    expect_failure(E_DOWNLOAD_CAT_ERROR, "Failed to fetch catalogue " + catalogue(1) +
                                             ", its data cannot be read, connection lost");
}

TEST_F(MTF_Restore_Test, AnArchiveThatIsNotThereIsAnError) {
    store_->objects.erase(archive(1));
    expect_failure(E_NOT_FOUND, "Failed to open archive " + archive(1));
}

TEST_F(MTF_Restore_Test, AnArchiveThatCannotBeReadIsNotCalledCorrupt) {
    store_->fail_open = ".mtf";
    expect_failure(E_OPEN_MEDIA, "Failed to open archive " + archive(1) + ", injected");
    store_->fail_open.clear();
    store_->readable = store_->objects[catalogue(1)].size() + 262144;
    expect_failure(E_OPEN_MEDIA, "Failed to read archive 1 at byte 262144, connection lost");
}

TEST_F(MTF_Restore_Test, TheCatalogueOfAnotherBackupIsRefused) {
    store_->objects[catalogue(2)] = store_->objects[catalogue(1)];
    auto const restore = make_restore(2);
    EXPECT_FALSE(restore->restore(""));
    EXPECT_EQ(E_CORRUPT, restore->error_code());
    EXPECT_LOGGED(LM_ERROR, "is that of another backup");
}

TEST_F(MTF_Restore_Test, EveryCutOfAnArchiveIsNoticed) {
    std::string const whole = store_->objects[archive(1)];
    for (size_t size = 0; size < whole.size(); size += 1 + whole.size() / 97) {
        store_->objects[archive(1)] = whole.substr(0, size);
        expect_failure(E_CORRUPT, "Archive 1 is corrupt near byte ");
    }
    store_->objects[archive(1)] = whole.substr(0, whole.size() - 1);
    expect_failure(E_CORRUPT, "Archive 1 is corrupt near byte ");
}

TEST_F(MTF_Restore_Test, EveryFlippedBitOfAnArchiveIsNoticed) {
    std::string const whole = store_->objects[archive(1)];
    for (size_t at = 0; at < whole.size(); at += 1 + whole.size() / 211) {
        store_->objects[archive(1)] = whole;
        store_->objects[archive(1)][at] ^= 1 << (at % 8);
        auto const restore = make_restore(1);
        EXPECT_FALSE(restore->restore("")) << at;
        EXPECT_EQ(E_CORRUPT, restore->error_code()) << at;
        EXPECT_LOGGED(LM_ERROR, "Archive 1 is corrupt near byte ");
        Log_Capture::instance().claim_all(LM_WARNING, "");
    }
}

TEST_F(MTF_Restore_Test, EveryFlippedBitOfACompressedArchiveIsNoticed) {
    for (auto const method : {COMPRESSION_LZOP, COMPRESSION_ZSTD}) {
        auto const backup = make_backup(1);
        backup->compression(method);
        ASSERT_TRUE(backup->backup(""));
        std::string const whole = store_->objects[archive(1)];
        for (size_t at = 0; at < whole.size(); at += 1 + whole.size() / 41) {
            store_->objects[archive(1)] = whole;
            store_->objects[archive(1)][at] ^= 1 << (at % 8);
            expect_failure(E_CORRUPT, "Archive 1 is corrupt near byte ");
            Log_Capture::instance().claim_all(LM_WARNING, "");
        }
        store_->objects[archive(1)] = whole + "more";
        expect_failure(E_CORRUPT, "Archive 1 is corrupt near byte ");
    }
}

TEST_F(MTF_Restore_Test, EveryFlippedBitOfACatalogueIsNoticed) {
    std::string const whole = store_->objects[catalogue(1)];
    for (size_t at = 0; at < whole.size(); at += 7) {
        store_->objects[catalogue(1)] = whole;
        store_->objects[catalogue(1)][at] ^= 1 << (at % 8);
        expect_failure(E_CORRUPT, "Catalogue " + catalogue(1) + " is corrupt, ");
    }
    EXPECT_TRUE(std::filesystem::is_empty(target_.path()));
}

TEST_F(MTF_Restore_Test, EveryCutOfACatalogueIsNoticed) {
    std::string const whole = store_->objects[catalogue(1)];
    for (size_t size = 0; size < whole.size(); size += 11) {
        store_->objects[catalogue(1)] = whole.substr(0, size);
        expect_failure(E_CORRUPT, "Catalogue " + catalogue(1) + " is corrupt, ");
    }
    store_->objects[catalogue(1)] = whole + "{}\n";
    expect_failure(E_CORRUPT, "is corrupt, its checksum or its counts");
}

TEST_F(MTF_Restore_Test, TheArchiveOfAnotherBackupIsNoticed) {
    tree_.write("a.txt", "other");
    ASSERT_TRUE(back_up(2));
    store_->objects[archive(1)] = store_->objects[archive(2)];
    auto const restore = make_restore(1);
    EXPECT_FALSE(restore->restore(""));
    EXPECT_EQ(E_CORRUPT, restore->error_code());
    EXPECT_LOGGED(LM_ERROR, source("a.txt").substr(1) + ": its content has another checksum");
    EXPECT_FALSE(std::filesystem::exists(restored("a.txt")));
}

TEST_F(MTF_Restore_Test, CancelStopsAndLeavesNoHalfFile) {
    for (int const question : {1, 2, 3, 4, 5, 6}) {
        handler_->asked = 0;
        handler_->cancel_at = question;
        auto const restore = make_restore(1);
        EXPECT_FALSE(restore->restore(""));
        EXPECT_TRUE(restore->canceled());
        EXPECT_EQ(question, handler_->asked);
        if (std::filesystem::exists(restored("dir/b.txt"))) {
            EXPECT_EQ(300000u, read_restored("dir/b.txt").size());
        }
    }
}

TEST_F(MTF_Restore_Test, EventsTellTheWholeStory) {
    ASSERT_TRUE(restore());
    EXPECT_EQ(Event::BEGIN, handler_->events.front().type);
    EXPECT_EQ(Event::END, handler_->events.back().type);
    EXPECT_EQ(E_OK, handler_->events.back().code);
    EXPECT_EQ(7u, handler_->events.back().entries);
    EXPECT_EQ(7u, handler_->count(Event::PROGRESS));
}

TEST_F(MTF_Restore_Test, BrokenPreconditionsAreRefused) {
    MTF_Restore restore(handler_, nullptr);
    restore.store(store_);
    EXPECT_FALSE(restore.restore(""));
    EXPECT_CHECK_LOGGED("backup_minor_resource_id_ is empty");
    restore.backup_minor_resource_id(MINOR);
    EXPECT_FALSE(restore.restore(""));
    EXPECT_CHECK_LOGGED("target_location_ is empty");
    restore.target_location(target_.path());
    EXPECT_FALSE(restore.restore(""));
    EXPECT_CHECK_LOGGED("seq_(0) < 1");
    restore.seq(1);
    EXPECT_FALSE(restore.restore(""));
    EXPECT_CHECK_LOGGED("backup_host_uuid_ is empty");
    EXPECT_TRUE(handler_->events.empty());
}

TEST_F(MTF_Restore_Test, AnIncrementalBackupNeedsEveryArchiveItBuildsUpon) {
    tree_.write("new", "x");
    ASSERT_TRUE(back_up(2, true));
    store_->objects.erase(archive(1));
    auto const restore = make_restore(2);
    EXPECT_FALSE(restore->restore(""));
    EXPECT_EQ(E_NOT_FOUND, restore->error_code());
    EXPECT_LOGGED(LM_ERROR, "Failed to open archive " + archive(1));
    EXPECT_TRUE(restore->restore(source("new"))) << "that one lies in archive 2 alone";
}

} // namespace
