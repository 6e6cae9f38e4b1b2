#ifndef TESTS_UNIT_HOST_STORAGE_MOUNT_WORLD_H
#define TESTS_UNIT_HOST_STORAGE_MOUNT_WORLD_H

#include "host/storage/mount_fuse.h"
#include "qmrt/file.h"
#include "tests/support/file_pool.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>

/** A pool and a place to mount its folder "source" at. */
class Mount_World : public testing::Test {
protected:
    File_Pool pool_;
    Temporary_Directory directory_;
    Mount_Fuse fuse_;
    std::string source_ = pool_.url() + "/source";
    std::string point_ = directory_.path("point");

    bool mount() { return fuse_.mount(source_.c_str(), point_.c_str(), nullptr); }
};

/** Needs a kernel that mounts. */
class Real_Mount : public Mount_World {
protected:
    void SetUp() override {
        if (access("/dev/fuse", R_OK | W_OK) == -1)
            GTEST_SKIP() << "this machine has no /dev/fuse, errno=" << errno;
        if (geteuid() == 0 && !can_mount())
            GTEST_SKIP() << "this machine lets nobody mount";
    }
    static bool can_mount() {
        bool good = false;
        on_own_thread([&] {
            good = unshare(CLONE_FS | CLONE_NEWNS) == 0 &&
                   ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        });
        return good;
    }
    static bool is_mount_point(std::string const& path) {
        std::ifstream mounts("/proc/self/mountinfo");
        for (std::string line; std::getline(mounts, line);)
            if (line.find(" " + path + " ") != std::string::npos)
                return true;
        return false;
    }
    void make_point_of(char const* user) const {
        std::filesystem::create_directories(point_);
        ASSERT_EQ(0, chown_r(point_.c_str(), user));
    }
    int shell(std::string const& command) const {
        return std::system(("cd " + point_ + " && (" + command + ") 2>/dev/null").c_str());
    }
    std::string read(std::string const& name) const { return directory_.read("point/" + name); }
};

#endif
