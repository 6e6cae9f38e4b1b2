#include "tests/unit/host/mtf/mtf_fixture.h"

#include "qmrt/scoped_deleter.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/xattr.h>

using namespace MTF;

namespace {

class MTF_Backup_Test : public MTF_Fixture {
protected:
    /** The backup saves @a entries into its own archive. */
    uint64_t saved(int64_t seq, bool incremental) {
        auto const backup = make_backup(seq, incremental);
        EXPECT_TRUE(backup->backup(""));
        return backup->saved_entries();
    }
};

TEST_F(MTF_Backup_Test, WhatWasBackedUpCanBeRestored) {
    tree_.write("a.txt", "first");
    tree_.write("dir/b.bin", std::string(700000, '\0') + "end");
    tree_.write("dir/empty", "");
    ASSERT_TRUE(back_up());
    EXPECT_THAT(store_->objects, testing::UnorderedElementsAre(testing::Key(archive(1)),
                                                               testing::Key(catalogue(1))));
    ASSERT_TRUE(restore());
    EXPECT_EQ("first", read_restored("a.txt"));
    EXPECT_EQ(std::string(700000, '\0') + "end", read_restored("dir/b.bin"));
    EXPECT_TRUE(S_ISREG(stat_of(restored("dir/empty")).st_mode));
}

TEST_F(MTF_Backup_Test, EveryCompressionGivesTheSameFilesBack) {
    tree_.write("a", std::string(300000, 'a'));
    int64_t seq = 0;
    for (auto const method : {COMPRESSION_NONE, COMPRESSION_LZOP, COMPRESSION_ZSTD})
        for (int const level : {-1, 0, 1, 19, 1000}) {
            auto const backup = make_backup(++seq);
            backup->compression(method);
            backup->compression_level(level);
            ASSERT_TRUE(backup->backup("")) << method << " " << level;
            EXPECT_EQ(store_->objects[archive(seq)].size(), backup->archive_size());
            EXPECT_EQ(method == COMPRESSION_NONE, backup->archive_size() > 300000) << method;
            ASSERT_TRUE(restore(seq)) << method << " " << level;
            EXPECT_EQ(std::string(300000, 'a'), read_restored("a"));
        }
}

TEST_F(MTF_Backup_Test, ModesTimesAndLinksComeBack) {
    tree_.write("file", "x");
    chmod(source("file").c_str(), 0640);
    mkdir(source("dir").c_str(), 0700);
    tree_.write("dir/inner", "y");
    ASSERT_EQ(0, symlink("../file", source("dir/link").c_str()));
    ASSERT_EQ(0, symlink("/no/such/file", source("dangling").c_str()));
    timespec const times[] = {{1000, 5}, {1234567890, 123456789}};
    for (char const* const name : {"file", "dir/inner", "dir"})
        ASSERT_EQ(0, utimensat(AT_FDCWD, source(name).c_str(), times, 0));
    ASSERT_TRUE(back_up());
    ASSERT_TRUE(restore());
    EXPECT_EQ(0640u, stat_of(restored("file")).st_mode & 07777);
    EXPECT_EQ(0700u, stat_of(restored("dir")).st_mode & 07777);
    for (char const* const name : {"file", "dir/inner", "dir"}) {
        EXPECT_EQ(1234567890, stat_of(restored(name)).st_mtim.tv_sec) << name;
        EXPECT_EQ(123456789, stat_of(restored(name)).st_mtim.tv_nsec) << name;
    }
    EXPECT_EQ("../file", std::filesystem::read_symlink(restored("dir/link")));
    EXPECT_EQ("/no/such/file", std::filesystem::read_symlink(restored("dangling")));
}

TEST_F(MTF_Backup_Test, NamesOfOneFileAreOneFileAgain) {
    tree_.write("a/first", "content");
    mkdir(source("b").c_str(), 0755);
    ASSERT_EQ(0, link(source("a/first").c_str(), source("b/second").c_str()));
    ASSERT_EQ(0, link(source("a/first").c_str(), source("b/third").c_str()));
    ASSERT_TRUE(back_up());
    ASSERT_TRUE(restore());
    EXPECT_EQ("content", read_restored("b/third"));
    EXPECT_EQ(stat_of(restored("a/first")).st_ino, stat_of(restored("b/second")).st_ino);
    EXPECT_EQ(stat_of(restored("a/first")).st_ino, stat_of(restored("b/third")).st_ino);
}

TEST_F(MTF_Backup_Test, ANameWhoseFileHasAnotherNameOutsideIsAWholeFile) {
    Temporary_Directory outside;
    tree_.write("a", "content");
    ASSERT_EQ(0, link(source("a").c_str(), outside.path("other").c_str()));
    ASSERT_TRUE(back_up());
    ASSERT_TRUE(restore());
    EXPECT_EQ("content", read_restored("a"));
}

TEST_F(MTF_Backup_Test, HolesStayHoles) {
    int const fd = open(source("sparse").c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    ASSERT_EQ(4, pwrite(fd, "head", 4, 0));
    ASSERT_EQ(4, pwrite(fd, "tail", 4, 4 * 1024 * 1024));
    ASSERT_EQ(0, ftruncate(fd, 6 * 1024 * 1024));
    close(fd);
    auto const backup = make_backup(1);
    backup->compression(COMPRESSION_NONE);
    ASSERT_TRUE(backup->backup(""));
    EXPECT_LT(backup->archive_size(), 1024 * 1024u);
    ASSERT_TRUE(restore());
    struct stat const status = stat_of(restored("sparse"));
    EXPECT_EQ(6 * 1024 * 1024, status.st_size);
    EXPECT_LT(status.st_blocks * 512, 1024 * 1024);
    std::string const content = read_restored("sparse");
    EXPECT_EQ("head", content.substr(0, 4));
    EXPECT_EQ("tail", content.substr(4 * 1024 * 1024, 4));
}

TEST_F(MTF_Backup_Test, ExtendedAttributesComeBack) {
    tree_.write("file", "x");
    std::string const value("bin\0ary", 7);
    if (setxattr(source("file").c_str(), "user.origin", value.data(), value.size(), 0) == -1)
        GTEST_SKIP() << "the file system of " << tree_.path() << " holds no attributes";
    ASSERT_TRUE(back_up());
    ASSERT_TRUE(restore());
    char buffer[16];
    ASSERT_EQ(7, getxattr(restored("file").c_str(), "user.origin", buffer, sizeof(buffer)));
    EXPECT_EQ(value, std::string(buffer, 7));
}

TEST_F(MTF_Backup_Test, OwnersComeBackForRoot) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root may give files away";
    tree_.write("file", "x");
    ASSERT_EQ(0, chown(source("file").c_str(), 12345, 23456));
    ASSERT_EQ(0, chmod(source("file").c_str(), 04755));
    ASSERT_TRUE(back_up());
    ASSERT_TRUE(restore());
    EXPECT_EQ(12345u, stat_of(restored("file")).st_uid);
    EXPECT_EQ(23456u, stat_of(restored("file")).st_gid);
    EXPECT_EQ(04755u, stat_of(restored("file")).st_mode & 07777);
}

TEST_F(MTF_Backup_Test, NamesMayHoldAnyBytes) {
    std::vector<std::string> const names = {"b\xff\xfe",          "line\nbreak", " blank ",
                                            "\xe4\xb8\xad",       "back\\slash", "quo\"te",
                                            std::string(255, 'n')};
    for (std::string const& name : names)
        tree_.write(name, "in " + name);
    ASSERT_EQ(0, symlink("to \xff", source("link").c_str()));
    ASSERT_TRUE(back_up());
    ASSERT_TRUE(restore());
    for (std::string const& name : names)
        EXPECT_EQ("in " + name, read_restored(name));
    EXPECT_EQ("to \xff", std::filesystem::read_symlink(restored("link")).string());
}

TEST_F(MTF_Backup_Test, AFifoIsSavedWithoutWaitingForAWriter) {
    ASSERT_EQ(0, mkfifo(source("fifo").c_str(), 0600));
    ASSERT_TRUE(back_up());
    ASSERT_TRUE(restore());
    EXPECT_TRUE(S_ISFIFO(stat_of(restored("fifo")).st_mode));
}

TEST_F(MTF_Backup_Test, ASocketIsPassedOver) {
    tree_.write("file", "x");
    int const fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    ASSERT_LT(source("socket").size(), sizeof(address.sun_path));
    strcpy(address.sun_path, source("socket").c_str());
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    auto const backup = make_backup(1);
    EXPECT_TRUE(backup->backup(""));
    close(fd);
    EXPECT_EQ(E_OK, backup->error_code());
    ASSERT_TRUE(restore());
    EXPECT_FALSE(std::filesystem::exists(restored("socket")));
}

TEST_F(MTF_Backup_Test, ASourceThatIsALinkIsFollowed) {
    tree_.write("real/file", "x");
    ASSERT_EQ(0, symlink("real", source("link").c_str()));
    MTF_Backup backup(handler_, {}, nullptr);
    backup.host_uuid(HOST);
    backup.minor_resource_id(MINOR);
    backup.store(store_);
    backup.add_source(source("link"));
    ASSERT_TRUE(backup.backup(""));
    ASSERT_TRUE(restore());
    EXPECT_TRUE(S_ISDIR(stat_of(restored("link")).st_mode));
    EXPECT_EQ("x", read_restored("link/file"));
}

TEST_F(MTF_Backup_Test, SourcesThatOverlapAreSavedOnce) {
    tree_.write("dir/file", "x");
    auto const backup = make_backup(1);
    backup->add_source(source("dir/file"));
    backup->add_source(source("dir/"));
    backup->add_source(tree_.path() + "/./dir//file");
    ASSERT_TRUE(backup->backup(""));
    EXPECT_EQ(3u, backup->saved_entries()); // the tree, the folder, the file
}

TEST_F(MTF_Backup_Test, ASourceThatIsNotThereIsToldAndTheOthersAreSaved) {
    tree_.write("file", "x");
    auto const backup = make_backup(1);
    backup->add_source("/no/such/source");
    EXPECT_TRUE(backup->backup(""));
    EXPECT_EQ(E_END_WITH_SKIPPED_FILES, backup->error_code());
    EXPECT_LOGGED(LM_WARNING, "Left out /no/such/source, No such file or directory\n");
    ASSERT_EQ(1u, handler_->count(Event::SKIPPED));
    EXPECT_EQ(E_END_WITH_SKIPPED_FILES, handler_->events.back().code);
    ASSERT_TRUE(restore());
    EXPECT_EQ("x", read_restored("file"));
}

TEST_F(MTF_Backup_Test, NothingIsWrittenWhenNoSourceCanBeRead) {
    MTF_Backup backup(handler_, {}, nullptr);
    backup.host_uuid(HOST);
    backup.minor_resource_id(MINOR);
    backup.store(store_);
    backup.add_source("/no/such/source");
    EXPECT_FALSE(backup.backup(""));
    EXPECT_EQ(E_NO_FILES_BACKUPED, backup.error_code());
    EXPECT_LOGGED(LM_WARNING, "Left out /no/such/source");
    EXPECT_LOGGED(LM_ERROR, "No files were backed up");
    EXPECT_TRUE(store_->objects.empty());
}

TEST_F(MTF_Backup_Test, AnUnreadableFileIsLeftOutAndTold) {
    uid_t const user = geteuid();
    Scoped_Deleter const again([user] { EXPECT_EQ(0, seteuid(user)); });
    ASSERT_TRUE(user != 0 || seteuid(65534) == 0);
    Temporary_Directory own; // of the user that the test is now
    own.write("good", "x");
    own.write("secret", "y");
    own.write("locked/inner", "z");
    chmod(own.path("secret").c_str(), 0);
    chmod(own.path("locked").c_str(), 0);
    MTF_Backup backup(handler_, {}, nullptr);
    backup.host_uuid(HOST);
    backup.minor_resource_id(MINOR);
    backup.store(store_);
    backup.add_source(own.path());
    EXPECT_TRUE(backup.backup(""));
    chmod(own.path("locked").c_str(), 0700);
    EXPECT_EQ(E_END_WITH_SKIPPED_FILES, backup.error_code());
    EXPECT_LOGGED(LM_WARNING, "Left out " + own.path("secret") + ", Permission denied");
    EXPECT_LOGGED(LM_WARNING, "Left out " + own.path("locked") + ", Permission denied");
    EXPECT_EQ(2u, backup.saved_entries());
}

TEST_F(MTF_Backup_Test, AFileThatGrowsOrShrinksMeanwhileDoesNotBreakTheArchive) {
    std::string const size(9 * 1024 * 1024, 's');
    tree_.write("a-shrinks", size);
    tree_.write("b-grows", size);
    tree_.write("c-last", "still whole");
    int truncated = -1;
    handler_->on_event = [&](Event const& event) {
        if (event.path == source("a-shrinks"))
            truncated = truncate(event.path.c_str(), 1000);
        if (event.path == source("b-grows"))
            std::ofstream(event.path, std::ios::app) << "more";
    };
    auto const backup = make_backup(1);
    EXPECT_TRUE(backup->backup(""));
    handler_->on_event = nullptr;
    EXPECT_EQ(0, truncated);
    EXPECT_EQ(E_END_WITH_SKIPPED_FILES, backup->error_code());
    EXPECT_LOGGED(LM_WARNING, source("a-shrinks") + ": it changed while it was read");
    EXPECT_LOGGED(LM_WARNING, source("b-grows") + ": it changed while it was read");
    ASSERT_TRUE(restore());
    EXPECT_EQ(size.size(), static_cast<size_t>(stat_of(restored("a-shrinks")).st_size));
    EXPECT_EQ(size, read_restored("b-grows"));
    EXPECT_EQ("still whole", read_restored("c-last"));
    // what was torn is saved again, though its time may be the same
    auto const next = make_backup(2, true);
    EXPECT_TRUE(next->backup(""));
    ASSERT_TRUE(restore(2));
    EXPECT_EQ(size + "more", read_restored("b-grows").substr(0, size.size() + 4));
    EXPECT_EQ(1000, stat_of(restored("a-shrinks")).st_size);
}

TEST_F(MTF_Backup_Test, AFileThatVanishesMeanwhileIsLeftOut) {
    tree_.write("a", "x");
    tree_.write("b", "y");
    handler_->on_event = [&](Event const& event) {
        if (event.path == source("a"))
            unlink(source("b").c_str());
    };
    auto const backup = make_backup(1);
    EXPECT_TRUE(backup->backup(""));
    EXPECT_EQ(E_END_WITH_SKIPPED_FILES, backup->error_code());
    EXPECT_LOGGED(LM_WARNING, "Left out " + source("b"));
    ASSERT_EQ(1u, handler_->count(Event::SKIPPED));
}

TEST_F(MTF_Backup_Test, CancelLeavesNothingInTheStore) {
    tree_.write("a", std::string(8 * 1024 * 1024, 'a'));
    for (int const question : {1, 2, 3, 10, 30}) {
        handler_->asked = 0;
        handler_->cancel_at = question;
        auto const backup = make_backup(1);
        EXPECT_FALSE(backup->backup("")) << question;
        EXPECT_TRUE(backup->canceled());
        EXPECT_EQ(E_FAILED, backup->error_code());
        EXPECT_EQ(question, handler_->asked) << "asked on after the answer was yes";
        EXPECT_TRUE(store_->objects.empty());
    }
}

TEST_F(MTF_Backup_Test, AFullPoolIsAnErrorAndLeavesNothing) {
    std::string noise;
    for (int at = 0; at < 2000000; ++at)
        noise += static_cast<char>(rand());
    tree_.write("a", noise);
    for (uint64_t const room : {0u, 100u, 600000u}) {
        store_->room = room;
        auto const backup = make_backup(1);
        EXPECT_FALSE(backup->backup(""));
        EXPECT_EQ(E_WRITE_TO_STORAGE, backup->error_code());
        EXPECT_LOGGED(LM_ERROR, "no room");
        EXPECT_TRUE(store_->objects.empty());
    }
}

TEST_F(MTF_Backup_Test, AnArchiveThatCannotBeCreatedIsAnError) {
    tree_.write("a", "x");
    store_->fail_create = ".mtf";
    auto const backup = make_backup(1);
    EXPECT_FALSE(backup->backup(""));
    EXPECT_EQ(E_WRITE_TO_STORAGE, backup->error_code());
    EXPECT_LOGGED(LM_ERROR, "Failed to create archive " + archive(1) + ", injected");
}

TEST_F(MTF_Backup_Test, AnArchiveThatCannotBeCommittedIsAnError) {
    tree_.write("a", "x");
    store_->fail_commit = ".mtf";
    auto const backup = make_backup(1);
    EXPECT_FALSE(backup->backup(""));
    EXPECT_EQ(E_UPLOAD_MTF_FILE_ERROR, backup->error_code());
    EXPECT_LOGGED(LM_ERROR, "Failed to commit archive " + archive(1) + ", injected");
    EXPECT_TRUE(store_->objects.empty());
}

TEST_F(MTF_Backup_Test, WithoutItsCatalogueTheArchiveGoes) {
    tree_.write("a", "x");
    store_->fail_commit = ".cat";
    auto const backup = make_backup(1);
    EXPECT_FALSE(backup->backup(""));
    EXPECT_EQ(E_ADD_TO_CATALOG, backup->error_code());
    EXPECT_LOGGED(LM_ERROR, "Failed to write catalogue " + catalogue(1) + ", injected");
    EXPECT_TRUE(store_->objects.empty());
}

TEST_F(MTF_Backup_Test, ACatalogueOfAGivenUpBackupNeverStandsBesideANewArchive) {
    tree_.write("a", "x");
    ASSERT_TRUE(back_up(1));
    tree_.write("a", "other");
    store_->fail_remove = ".cat";
    EXPECT_FALSE(back_up(1));
    EXPECT_LOGGED(LM_ERROR, "Failed to remove an old catalogue");
    store_->fail_remove.clear();
    ASSERT_TRUE(restore(1));
    EXPECT_EQ("x", read_restored("a"));
    store_->fail_commit = ".cat";
    EXPECT_FALSE(back_up(1));
    EXPECT_LOGGED(LM_ERROR, "Failed to write catalogue");
    EXPECT_TRUE(store_->objects.empty());
}

TEST_F(MTF_Backup_Test, TheFolderMayBeNamed) {
    tree_.write("a", "x");
    ASSERT_TRUE(make_backup(1)->backup("/some/folder/"));
    EXPECT_EQ(1u, store_->objects.count(mtf_path("some/folder", MINOR, 1, 0)));
    auto const restore = make_restore(1);
    restore->uri("some/folder");
    EXPECT_TRUE(restore->restore(""));
}

TEST_F(MTF_Backup_Test, EventsTellTheWholeStory) {
    tree_.write("a", std::string(20 * 1024 * 1024, 'a'));
    ASSERT_TRUE(back_up());
    ASSERT_FALSE(handler_->events.empty());
    EXPECT_EQ(Event::BEGIN, handler_->events.front().type);
    EXPECT_EQ(Event::END, handler_->events.back().type);
    EXPECT_EQ(E_OK, handler_->events.back().code);
    EXPECT_EQ(2u, handler_->events.back().entries);
    EXPECT_EQ(20u * 1024 * 1024, handler_->events.back().bytes);
    EXPECT_EQ(4u, handler_->count(Event::PROGRESS)); // two entries, and two times 8 MiB
}

TEST_F(MTF_Backup_Test, FewerEventsComeWhenFewerAreWanted) {
    tree_.write("a", std::string(20 * 1024 * 1024, 'a'));
    handler_ = std::make_shared<Recording_Handler>(PROGRESS_REPORT_ENTRIES);
    ASSERT_TRUE(back_up());
    EXPECT_EQ(2u, handler_->count(Event::PROGRESS));
    handler_ = std::make_shared<Recording_Handler>(PROGRESS_REPORT_NONE);
    ASSERT_TRUE(back_up());
    EXPECT_EQ(2u, handler_->events.size());
}

TEST_F(MTF_Backup_Test, WorksWithoutAHandler) {
    tree_.write("a", "x");
    handler_ = nullptr;
    EXPECT_TRUE(back_up());
    EXPECT_TRUE(restore());
}

TEST_F(MTF_Backup_Test, BrokenPreconditionsAreRefused) {
    MTF_Backup backup(handler_, {}, nullptr);
    backup.store(store_);
    EXPECT_FALSE(backup.backup(""));
    EXPECT_CHECK_LOGGED("minor_resource_id_ is empty");
    backup.minor_resource_id(MINOR);
    EXPECT_FALSE(backup.backup(""));
    EXPECT_CHECK_LOGGED("sources_ is empty");
    backup.add_source(tree_.path());
    EXPECT_FALSE(backup.backup(""));
    EXPECT_CHECK_LOGGED("host_uuid_ is empty");
    backup.host_uuid(HOST);
    backup.seq(-1);
    EXPECT_FALSE(backup.backup(""));
    EXPECT_CHECK_LOGGED("seq_(-1) < 0");
    EXPECT_TRUE(store_->objects.empty());
    EXPECT_TRUE(handler_->events.empty());
}

TEST_F(MTF_Backup_Test, OnlyAbsolutePathsAreSources) {
    for (std::string const& bad : {std::string("relative"), std::string("/a/../b"),
                                   std::string("/"), std::string(""), std::string("/a\0b", 4)}) {
        auto const backup = make_backup(1);
        backup->add_source(bad);
        EXPECT_FALSE(backup->backup("")) << bad;
        EXPECT_EQ(E_GET_SOURCE_DATA, backup->error_code());
        EXPECT_LOGGED(LM_ERROR, "it is no absolute path of a file or folder");
    }
}

TEST_F(MTF_Backup_Test, AnIncrementalBackupSavesOnlyWhatIsNew) {
    tree_.write("changed", "old");
    tree_.write("same", "same");
    tree_.write("removed", "gone");
    EXPECT_EQ(4u, saved(1, false));
    tree_.write("changed", "new, and longer");
    tree_.write("added", "added");
    unlink(source("removed").c_str());
    EXPECT_EQ(3u, saved(2, true)); // the folder, whose time is another, and two files
    ASSERT_TRUE(restore(2));
    EXPECT_EQ("new, and longer", read_restored("changed"));
    EXPECT_EQ("same", read_restored("same"));
    EXPECT_EQ("added", read_restored("added"));
    EXPECT_FALSE(std::filesystem::exists(restored("removed")));
    EXPECT_EQ(0u, saved(3, true));
    std::filesystem::remove_all(target_.path() + tree_.path());
    ASSERT_TRUE(restore(3));
    EXPECT_EQ("same", read_restored("same"));
    EXPECT_EQ("new, and longer", read_restored("changed"));
    std::filesystem::remove_all(target_.path() + tree_.path());
    ASSERT_TRUE(restore(1));
    EXPECT_EQ("old", read_restored("changed"));
    EXPECT_EQ("gone", read_restored("removed"));
}

TEST_F(MTF_Backup_Test, AChangeThatKeepsSizeAndTimeIsSeen) {
    tree_.write("a", "one");
    struct stat const before = stat_of(source("a"));
    saved(1, false);
    timespec const times[] = {before.st_atim, before.st_mtim};
    do { // until the coarse clock of the file system has moved on
        tree_.write("a", "two");
        ASSERT_EQ(0, utimensat(AT_FDCWD, source("a").c_str(), times, 0));
    } while (stat_of(source("a")).st_ctim.tv_nsec == before.st_ctim.tv_nsec);
    EXPECT_EQ(1u, saved(2, true));
    ASSERT_TRUE(restore(2));
    EXPECT_EQ("two", read_restored("a"));
}

TEST_F(MTF_Backup_Test, WhatWasWrittenJustBeforeIsSavedOnceMore) {
    tree_.write("a", "x");
    auto const backup = make_backup(1);
    backup->clock([this] { return int64_t(stat_of(source("a")).st_ctim.tv_sec) * 1000000000; });
    ASSERT_TRUE(backup->backup(""));
    EXPECT_EQ(2u, saved(2, true));
    EXPECT_EQ(0u, saved(3, true));
}

TEST_F(MTF_Backup_Test, ASecondNameOfAnOldFileIsALinkToIt) {
    tree_.write("a", "content");
    saved(1, false);
    ASSERT_EQ(0, link(source("a").c_str(), source("b").c_str()));
    saved(2, true);
    tree_.write("c", "new");
    saved(3, true);
    ASSERT_TRUE(restore(3));
    EXPECT_EQ("content", read_restored("b"));
    EXPECT_EQ(stat_of(restored("a")).st_ino, stat_of(restored("b")).st_ino);
    ASSERT_EQ(0, unlink(source("a").c_str()));
    saved(4, true);
    std::filesystem::remove_all(target_.path() + tree_.path());
    ASSERT_TRUE(restore(4));
    EXPECT_EQ("content", read_restored("b"));
}

TEST_F(MTF_Backup_Test, WithoutACatalogueBeforeAllIsSaved) {
    tree_.write("a", "x");
    EXPECT_EQ(2u, saved(5, true));
    EXPECT_TRUE(restore(5));
    EXPECT_TRUE(Log_Capture::instance().contains("because there is no catalogue " + catalogue(4)));
}

TEST_F(MTF_Backup_Test, WithACorruptCatalogueBeforeAllIsSaved) {
    tree_.write("a", "x");
    saved(1, false);
    store_->objects[catalogue(1)].resize(store_->objects[catalogue(1)].size() / 2);
    EXPECT_EQ(2u, saved(2, true));
    EXPECT_LOGGED(LM_WARNING, "is no use");
    EXPECT_TRUE(restore(2));
}

TEST_F(MTF_Backup_Test, WhatLiesInAnArchiveThatHasGoneIsSavedAgain) {
    tree_.write("a", "x");
    saved(1, false);
    tree_.write("b", "y");
    saved(2, true);
    store_->objects.erase(archive(1));
    EXPECT_EQ(1u, saved(3, true));
    EXPECT_LOGGED(LM_WARNING, "Saving again what is in archive 1 because it has gone");
    ASSERT_TRUE(restore(3));
    EXPECT_EQ("x", read_restored("a"));
    EXPECT_EQ("y", read_restored("b"));
}

TEST_F(MTF_Backup_Test, TheCatalogueTellsWhereItComesFrom) {
    tree_.write("a", "x");
    ASSERT_TRUE(back_up());
    auto const restore = make_restore(1);
    ASSERT_TRUE(restore->restore(""));
    EXPECT_EQ("db1", restore->metadata().host());
    EXPECT_EQ("set-1", restore->metadata().uuid());
}

} // namespace
