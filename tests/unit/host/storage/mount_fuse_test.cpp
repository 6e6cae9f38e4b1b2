#include "host/storage/mount_fuse.h"

#include "tests/unit/host/storage/mount_world.h"
#include "tests/unit/host/storage/stored_text.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>

namespace {

class mount_fuse_settings : public Mount_World {};
class mount_fuse : public Real_Mount {};

TEST_F(mount_fuse_settings, values_that_cannot_be_are_refused) {
    EXPECT_FALSE(fuse_.compression_method(static_cast<Compression_Method>(9), 1));
    EXPECT_FALSE(fuse_.compression_method(static_cast<Compression_Method>(-1), 1));
    EXPECT_TRUE(fuse_.compression_method(COMPR_ZSTD, 1));
    EXPECT_TRUE(fuse_.encryption_method(ENCRYPTION_NONE, nullptr, 0, nullptr, 0));
    EXPECT_FALSE(fuse_.encryption_method(ENCRYPTION_AES_256, "short", 5, nullptr, 0));
}

TEST_F(mount_fuse_settings, a_source_that_cannot_be_is_told) {
    source_ = "/no/url";
    EXPECT_FALSE(mount());
    EXPECT_LOGGED(LM_ERROR, "Failed to mount '/no/url', invalid URL, no scheme\n");
    source_ = "dedup://host/pool";
    EXPECT_FALSE(mount());
    EXPECT_LOGGED(LM_ERROR, "Failed to mount dedup://host/pool, no storage for URLs of 'dedup'\n");
    source_ = pool_.url() + "/none/none";
    EXPECT_FALSE(mount());
    EXPECT_LOGGED(LM_ERROR, "failed to open pool folder");
    EXPECT_FALSE(fuse_.mount(nullptr, point_.c_str(), nullptr));
    EXPECT_LOGGED(LM_ERROR, "invalid URL");
    EXPECT_FALSE(fuse_.mounted());
    EXPECT_FALSE(directory_.exists("point"));
}

TEST_F(mount_fuse_settings, a_mount_point_that_cannot_be_is_told) {
    point_ = directory_.write("file", "x") + "/point";
    EXPECT_FALSE(mount());
    EXPECT_LOGGED(LM_ERROR, "Failed to make mount point");
    EXPECT_FALSE(fuse_.mount(source_.c_str(), nullptr, nullptr));
    EXPECT_LOGGED(LM_ERROR, "Failed to make mount point ''");
}

TEST_F(mount_fuse_settings, an_unknown_user_gets_no_mount) {
    fuse_.allow_user_access("no-such-user");
    EXPECT_FALSE(mount());
    EXPECT_LOGGED(LM_ERROR, "Failed to mount for user no-such-user, the user is not known");
}

TEST_F(mount_fuse_settings, without_a_mount_there_is_nothing_to_unmount) {
    fuse_.unmount();
    EXPECT_FALSE(fuse_.mounted());
}

TEST_F(mount_fuse, an_option_that_is_not_known_fails_the_mount) {
    fuse_.other_fuse_options("-o no_such_option=1");
    EXPECT_FALSE(mount());
    EXPECT_LOGGED(LM_ERROR, "Failed to mount " + source_);
    EXPECT_LOGGED(LM_ERROR, "no_such_option");
    EXPECT_FALSE(is_mount_point(point_));
}

TEST_F(mount_fuse, a_program_writes_into_the_pool_and_reads_it_again) {
    fuse_.compression_method(COMPR_ZSTD, 1);
    fuse_.read_mode(SYNC_READ);
    fuse_.big_write(true);
    fuse_.other_fuse_options("-o remember=60");
    ASSERT_TRUE(mount());
    EXPECT_TRUE(is_mount_point(point_));
    std::string const text = text_of(10 << 20);
    std::string const in = directory_.write("in", text);
    EXPECT_EQ(0, shell("mkdir -p FULL_1 && cp " + in + " FULL_1/data && sync FULL_1/data"));
    EXPECT_EQ(0, shell("cmp " + in + " FULL_1/data"));
    EXPECT_EQ(0, shell("test $(stat -c %s FULL_1/data) = 10485760"));
    EXPECT_EQ(0, shell("test \"$(ls FULL_1)\" = data"));
    EXPECT_EQ(0, shell("chmod 640 FULL_1/data && chown 0:0 FULL_1/data && touch FULL_1/data"));
    EXPECT_EQ(0, shell("dd if=" + in + " of=FULL_1/two bs=7777 && cmp " + in + " FULL_1/two"));
    EXPECT_EQ(0, shell("mv FULL_1/two FULL_1/three && test ! -e FULL_1/two"));
    EXPECT_EQ(0, shell("test \"$(tail -c 9 FULL_1/three)\" = \"$(tail -c 9 " + in + ")\""));
    EXPECT_EQ(0, shell("rm FULL_1/three"));
    EXPECT_TRUE(pool_.has("source/FULL_1/data.zst"));
    EXPECT_GT(text.size() / 2, pool_.stored("source/FULL_1/data.zst").size());
    EXPECT_EQ(1u, pool_.files());
    fuse_.unmount();
    EXPECT_FALSE(is_mount_point(point_));
    EXPECT_TRUE(std::filesystem::is_empty(point_));

    ASSERT_TRUE(mount()) << "it can be mounted again";
    EXPECT_TRUE(text == read("FULL_1/data"));
    EXPECT_EQ(0, shell("rm -r FULL_1 && test -z \"$(ls)\""));
    EXPECT_EQ(0u, pool_.files());
}

TEST_F(mount_fuse, files_may_be_written_in_any_order) {
    ASSERT_TRUE(mount());
    std::string const text = text_of(3 << 20);
    std::string const in = directory_.write("in", text);
    EXPECT_EQ(0, shell("cp " + in + " o && printf header | dd of=o bs=1 conv=notrunc seek=100"));
    std::string wanted = text;
    wanted.replace(100, 6, "header");
    EXPECT_TRUE(wanted == pool_.stored("source/o"));
    EXPECT_EQ(0, shell("echo more >>o && truncate -s 50 p && echo a >q && echo b >>q"));
    EXPECT_TRUE(wanted + "more\n" == pool_.stored("source/o"));
    EXPECT_EQ(std::string(50, '\0'), pool_.stored("source/p"));
    EXPECT_EQ("a\nb\n", pool_.stored("source/q"));
}

TEST_F(mount_fuse, a_mount_to_read_refuses_to_write) {
    pool_.store("source/o.lzo", "x");
    pool_.store("source/p", "content");
    fuse_.read_mode(READ_ONLY);
    ASSERT_TRUE(mount());
    EXPECT_EQ("content", read("p"));
    EXPECT_NE(0, shell("echo x >new"));
    EXPECT_NE(0, shell("rm p"));
    EXPECT_NE(0, shell("cat o"));
    EXPECT_GE(Log_Capture::instance().claim_all(LM_ERROR, "damaged lzop data"), 1u);
}

TEST_F(mount_fuse, a_failure_to_store_is_told_at_fsync_and_close) {
    // the pool's own file system is full
    on_own_thread([&] {
        ASSERT_EQ(0, unshare(CLONE_FS | CLONE_NEWNS));
        ASSERT_EQ(0, ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
        ASSERT_EQ(0, ::mount("tmpfs", pool_.path().c_str(), "tmpfs", 0, "size=64k"));
        ASSERT_TRUE(mount());
        fuse_.unmount();
        fuse_.compression_method(COMPR_LZOP, 1);
        ASSERT_TRUE(mount());
        for (bool by_fsync : {true, false}) {
            File_Descriptor file(open((point_ + "/o").c_str(), O_WRONLY | O_CREAT, 0600));
            ASSERT_TRUE(file) << errno << by_fsync;
            // less than a block of the codec: nothing comes into the pool before the end
            std::string noise(200 << 10, '\0');
            unsigned seed = 1;
            for (char& c : noise)
                c = static_cast<char>((seed = seed * 1103515245u + 12345u) >> 16);
            ASSERT_EQ(static_cast<ssize_t>(noise.size()),
                      write(file.get(), noise.data(), noise.size()));
            if (by_fsync) {
                EXPECT_EQ(-1, fsync(file.get()));
                EXPECT_EQ(ENOSPC, errno);
            }
            EXPECT_EQ(-1, close(file.release()));
            EXPECT_EQ(ENOSPC, errno);
        }
        EXPECT_EQ(0u, File_Pool::files_below(pool_.path()));
        fuse_.unmount();
    });
    EXPECT_GE(Log_Capture::instance().claim_all(LM_ERROR, "No space left on device"), 2u);
}

TEST_F(mount_fuse, the_user_who_is_allowed_may_use_it_and_nobody_else) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can become other users";
    chmod(directory_.path().c_str(), 0755);
    pool_.store("source/o", "content");
    fuse_.allow_user_access("nobody");
    make_point_of("nobody");
    ASSERT_TRUE(mount());
    struct stat status;
    ASSERT_EQ(0, stat((point_ + "/o").c_str(), &status));
    uid_t const nobody = status.st_uid;
    EXPECT_NE(0u, nobody);
    on_own_thread([&] {
        ASSERT_TRUE(become(nobody, status.st_gid));
        EXPECT_EQ(0, access((point_ + "/o").c_str(), R_OK));
        EXPECT_EQ(1, [&] {
            File_Descriptor const file(open((point_ + "/p").c_str(), O_WRONLY | O_CREAT, 0600));
            return write(file.get(), "x", 1);
        }());
    });
    on_own_thread([&] {
        ASSERT_TRUE(become(nobody - 1, status.st_gid - 1));
        EXPECT_EQ(-1, open((point_ + "/o").c_str(), O_RDONLY));
        EXPECT_EQ(EACCES, errno);
    });
    EXPECT_EQ("x", pool_.stored("source/p"));
}

TEST_F(mount_fuse, a_users_mount_covers_nothing_that_is_not_the_users) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root mounts for other users";
    chmod(directory_.path().c_str(), 0755);
    fuse_.allow_user_access("nobody");
    std::filesystem::create_directory(point_);
    EXPECT_FALSE(mount());
    EXPECT_LOGGED(LM_ERROR, "Failed to mount at " + point_ +
                                ", the directory does not belong to the user nobody; run: chown "
                                "nobody " +
                                point_);
    // a link is followed with the user's rights, and what it leads to is looked at
    std::filesystem::create_directory(directory_.path("roots"));
    std::filesystem::remove(point_);
    std::filesystem::create_symlink("roots", point_);
    EXPECT_FALSE(mount());
    EXPECT_LOGGED(LM_ERROR, "does not belong to the user nobody");
    std::filesystem::permissions(directory_.path("roots"), std::filesystem::perms(0700));
    point_ = directory_.path("roots/point");
    std::filesystem::create_directory(point_);
    EXPECT_FALSE(mount());
    EXPECT_LOGGED(LM_ERROR, "Failed to make mount point");
    EXPECT_FALSE(is_mount_point(point_));
}

TEST_F(mount_fuse, a_users_mount_point_is_made_with_the_users_rights) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root mounts for other users";
    chmod(directory_.path().c_str(), 0755);
    fuse_.allow_user_access("nobody");
    EXPECT_FALSE(mount()) << "the directory above is root's";
    EXPECT_LOGGED(LM_ERROR, "Failed to make mount point");
    EXPECT_FALSE(directory_.exists("point"));
    chmod(directory_.path().c_str(), 0777);
    EXPECT_TRUE(mount());
}

TEST_F(mount_fuse, what_is_mounted_is_unmounted_wherever_its_path_leads_by_then) {
    if (geteuid() != 0)
        GTEST_SKIP() << "fusermount3, which unmounts for others, is told a path";
    std::filesystem::create_directories(directory_.path("above/point"));
    point_ = directory_.path("above/point");
    ASSERT_TRUE(mount());
    // who owns a directory above may put another one in its place
    std::filesystem::rename(directory_.path("above"), directory_.path("moved"));
    std::filesystem::create_directories(point_);
    ASSERT_EQ(0, ::mount("tmpfs", point_.c_str(), "tmpfs", 0, "size=64k"));
    fuse_.unmount();
    EXPECT_FALSE(is_mount_point(directory_.path("moved/point")));
    EXPECT_TRUE(is_mount_point(point_)) << "another's mount stays";
    EXPECT_EQ(0, umount2(point_.c_str(), MNT_DETACH));
}

TEST_F(mount_fuse, a_mount_on_a_mount_leaves_that_one_alone) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root mounts file systems";
    std::filesystem::create_directory(point_);
    ASSERT_EQ(0, ::mount("tmpfs", point_.c_str(), "tmpfs", 0, "size=64k"));
    std::ofstream(point_ + "/below") << "x";
    ASSERT_TRUE(mount());
    EXPECT_FALSE(directory_.exists("point/below"));
    fuse_.unmount();
    EXPECT_TRUE(directory_.exists("point/below"));
    EXPECT_EQ(0, umount2(point_.c_str(), MNT_DETACH));
}

TEST_F(mount_fuse, one_object_mounts_one_thing_at_a_time) {
    ASSERT_TRUE(mount());
    EXPECT_FALSE(fuse_.mount(source_.c_str(), directory_.path("other").c_str(), nullptr));
    EXPECT_LOGGED(LM_ERROR, "is mounted already");
    EXPECT_TRUE(is_mount_point(point_));
}

TEST_F(mount_fuse, the_destructor_unmounts) {
    {
        Mount_Fuse other;
        ASSERT_TRUE(other.mount(source_.c_str(), point_.c_str(), nullptr));
        EXPECT_TRUE(is_mount_point(point_));
    }
    EXPECT_FALSE(is_mount_point(point_));
}

TEST_F(mount_fuse, a_mount_that_the_kernel_has_cut_off_is_unmounted_as_well) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root cuts a mount off, and unmounts it then";
    std::string const control = directory_.path("control");
    std::filesystem::create_directory(control);
    ASSERT_EQ(0, ::mount("none", control.c_str(), "fusectl", 0, nullptr));
    ASSERT_TRUE(mount());
    struct stat status {};
    ASSERT_EQ(0, stat(point_.c_str(), &status));
    std::ofstream(control + "/" + std::to_string(minor(status.st_dev)) + "/abort") << "1";
    EXPECT_EQ(0, umount2(control.c_str(), MNT_DETACH));
    EXPECT_NE(0, shell("echo x >x")) << "though what stat() tells is cached";
    fuse_.unmount();
    EXPECT_FALSE(is_mount_point(point_));
}

TEST_F(mount_fuse, a_mount_point_in_use_is_given_up_all_the_same_and_what_is_open_is_stored) {
    ASSERT_TRUE(mount());
    File_Descriptor const file(open((point_ + "/o").c_str(), O_WRONLY | O_CREAT, 0600));
    ASSERT_TRUE(file);
    ASSERT_EQ(3, write(file.get(), "abc", 3));
    fuse_.unmount();
    EXPECT_LOGGED(LM_WARNING, "/o was still being written, it is stored as it is\n");
    EXPECT_FALSE(is_mount_point(point_));
    EXPECT_EQ("abc", pool_.stored("source/o"));
    EXPECT_EQ(-1, write(file.get(), "def", 3));
}

/** Bytes that this process and its children that have ended have read so far. */
uint64_t bytes_read() {
    std::ifstream counters("/proc/self/io");
    std::string key;
    uint64_t value = 0;
    while (counters >> key >> value && key != "rchar:")
        ;
    return value;
}

TEST_F(mount_fuse, what_is_packed_is_unpacked_once_though_requests_overtake_each_other) {
    fuse_.read_mode(SYNC_READ);
    fuse_.compression_method(COMPR_ZSTD, 1);
    ASSERT_TRUE(mount());
    EXPECT_EQ(0, shell("dd if=/dev/urandom of=o bs=1M count=64"));
    fuse_.unmount();
    ASSERT_TRUE(mount());
    uint64_t const before = bytes_read();
    EXPECT_EQ(0, shell("dd if=o of=/dev/null bs=1M"));
    uint64_t const read = bytes_read() - before; // once by dd and once from the pool
    EXPECT_GT(read, 128u << 20);
    EXPECT_LT(read, 132u << 20);
}

TEST_F(mount_fuse, a_reader_sees_what_others_write_meanwhile) {
    ASSERT_TRUE(mount());
    std::string const path = point_ + "/o";
    File_Descriptor const writer(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    File_Descriptor const reader(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(writer && reader);
    char got[3] = {};
    EXPECT_EQ(3, pwrite(writer.get(), "abc", 3, 0));
    EXPECT_EQ(3, pread(reader.get(), got, 3, 0));
    EXPECT_EQ("abc", std::string(got, 3));
    EXPECT_EQ(3, pwrite(writer.get(), "def", 3, 0));
    EXPECT_EQ(3, pread(reader.get(), got, 3, 0));
    EXPECT_EQ("def", std::string(got, 3));
}

TEST_F(mount_fuse, small_writes_and_several_readers_work_too) {
    fuse_.big_write(false);
    fuse_.read_mode(ASYNC_READ);
    fuse_.compression_method(COMPR_LZOP, 1);
    ASSERT_TRUE(mount());
    std::string const text = text_of(4 << 20);
    std::string const in = directory_.write("in", text);
    EXPECT_EQ(0, shell("cp " + in + " o"));
    fuse_.unmount();
    ASSERT_TRUE(mount());
    EXPECT_EQ(
        0, shell("cmp " + in + " o & cmp " + in + " o & cmp " + in + " o && wait %1 && wait %2"));
    struct statvfs space;
    ASSERT_EQ(0, statvfs(point_.c_str(), &space));
    EXPECT_GT(space.f_blocks, 0u);
}

} // namespace
