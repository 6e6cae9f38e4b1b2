#include "host/storage/pool_mounts.h"

#include "tests/unit/host/storage/mount_world.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

class Dead_Mounts_Test : public Real_Mount {
protected:
    void SetUp() override {
        Real_Mount::SetUp();
        if (!IsSkipped() && geteuid() != 0)
            GTEST_SKIP() << "only root mounts without fusermount3";
        std::filesystem::create_directory(point_);
    }
    void TearDown() override {
        while (umount2(point_.c_str(), MNT_DETACH) == 0)
            ;
    }
    /** Mounts as an agent does. @return its end of the connection: closed, as when it is killed */
    File_Descriptor mount_raw(std::string const& point, char const* source = "zenbrak3",
                              char const* type = "fuse.pool", std::string const& user = "0") const {
        File_Descriptor device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
        std::string const options =
            "fd=" + std::to_string(device.get()) + ",rootmode=40000,group_id=0,user_id=" + user;
        EXPECT_EQ(0, ::mount(source, point.c_str(), type, MS_NOSUID | MS_NODEV, options.c_str()))
            << errno;
        return device;
    }
    bool is_dead() const {
        struct stat status;
        return stat(point_.c_str(), &status) == -1 && errno == ENOTCONN;
    }
};

TEST_F(Dead_Mounts_Test, one_of_a_killed_agent_is_unmounted) {
    mount_raw(point_);
    ASSERT_TRUE(is_dead());
    EXPECT_LE(1u, unmount_dead_pools()) << "there may be others on this machine";
    EXPECT_LOGGED(LM_INFO, "Unmounted " + point_ + ", whose agent has ended\n");
    EXPECT_FALSE(is_mount_point(point_));
}

TEST_F(Dead_Mounts_Test, several_go_whatever_their_names_have_in_them) {
    std::filesystem::create_directory(directory_.path("a b\\c"));
    std::string const odd = directory_.path("a b\\c");
    mount_raw(odd);
    mount_raw(point_);
    EXPECT_LE(2u, unmount_dead_pools());
    EXPECT_TRUE(std::filesystem::is_empty(odd));
    EXPECT_FALSE(is_mount_point(point_));
}

TEST_F(Dead_Mounts_Test, the_kernel_reads_far_ahead_in_a_pool_once_it_is_used) {
    pool_.store("source/o", "abc");
    ASSERT_TRUE(mount());
    EXPECT_EQ("abc", read("o"));
    struct stat status;
    ASSERT_EQ(0, stat(point_.c_str(), &status));
    std::string const setting = "/sys/class/bdi/" + std::to_string(major(status.st_dev)) + ":" +
                                std::to_string(minor(status.st_dev)) + "/read_ahead_kb";
    if (access(setting.c_str(), W_OK) == -1)
        GTEST_SKIP() << setting << " cannot be written here";
    std::string value;
    std::ifstream(setting) >> value;
    EXPECT_EQ("4096", value);
}

TEST_F(Dead_Mounts_Test, one_that_is_served_stays) {
    ASSERT_TRUE(mount());
    unmount_dead_pools();
    EXPECT_TRUE(is_mount_point(point_));
}

TEST_F(Dead_Mounts_Test, those_of_others_stay) {
    for (auto const& [source, type] :
         {std::pair{"other", "fuse.pool"}, {"zenbrak3", "fuse.other"}, {"zenbrak3", "fuse"}}) {
        mount_raw(point_, source, type);
        unmount_dead_pools();
        EXPECT_TRUE(is_dead());
        EXPECT_EQ(0, umount2(point_.c_str(), MNT_DETACH));
    }
}

TEST_F(Dead_Mounts_Test, one_that_a_user_has_mounted_under_our_names_is_not_asked) {
    constexpr char BY_A_USER[] = "1000,allow_other";
    mount_raw(point_, "zenbrak3", "fuse.pool", BY_A_USER);
    unmount_dead_pools();
    EXPECT_TRUE(is_dead());
    EXPECT_EQ(0, umount2(point_.c_str(), MNT_DETACH));
    // the user's program does not answer: whoever asks anything waits for ever
    File_Descriptor const served = mount_raw(point_, "zenbrak3", "fuse.pool", BY_A_USER);
    unmount_dead_pools();
    EXPECT_TRUE(is_mount_point(point_));
}

TEST_F(Dead_Mounts_Test, one_below_another_mount_is_not_reached_and_stays) {
    mount_raw(point_);
    std::filesystem::create_directory(directory_.path("above"));
    std::filesystem::create_directory(directory_.path("above/point"));
    mount_raw(directory_.path("above/point"));
    ASSERT_EQ(0, ::mount("tmpfs", directory_.path("above").c_str(), "tmpfs", 0, "size=64k"));
    std::filesystem::create_directory(directory_.path("above/point"));
    mount_raw(directory_.path("above/point"), "other", "fuse.other");
    unmount_dead_pools(); // the path of the second leads to the dead one of somebody else
    EXPECT_FALSE(is_mount_point(point_));
    struct stat status;
    EXPECT_EQ(-1, stat(directory_.path("above/point").c_str(), &status));
    EXPECT_EQ(ENOTCONN, errno) << "it stays";
    EXPECT_EQ(0, umount2(directory_.path("above/point").c_str(), MNT_DETACH));
    EXPECT_EQ(0, umount2(directory_.path("above").c_str(), MNT_DETACH));
    EXPECT_LE(1u, unmount_dead_pools());
}

TEST_F(Dead_Mounts_Test, a_mount_finds_its_place_again_after_a_kill) {
    mount_raw(point_);
    ASSERT_TRUE(is_dead());
    ASSERT_TRUE(mount());
    EXPECT_EQ(0, shell("echo x >o"));
    fuse_.unmount();
    EXPECT_EQ("x\n", pool_.stored("source/o"));
    EXPECT_FALSE(is_mount_point(point_));
}

} // namespace
