#include "tests/unit/host/storage/mount_world.h"

#include <atomic>
#include <fcntl.h>
#include <functional>
#include <random>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

/** Several programs use a mount at once. */
class Mount_Load_Test : public Real_Mount {
protected:
    static constexpr unsigned USERS = 6;

    /** Bytes that tell which file they are of, and where in it they stand. */
    static std::string noise(unsigned seed, size_t size) {
        std::mt19937 random(seed);
        std::string text(size, '\0');
        for (size_t at = 0; at < size; ++at)
            text[at] = static_cast<char>(random() & (at % 3 ? 0xff : 0x0f)); // packs a little
        return text;
    }
    std::string path(std::string const& name) const { return point_ + "/" + name; }
    /** Writes in pieces of a size. @return 0, or the errno of what failed, close() included */
    int write_file(std::string const& name, std::string const& content, size_t piece,
                   bool sync = false) const {
        File_Descriptor file(
            open(path(name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!file)
            return errno;
        for (size_t at = 0; at < content.size(); at += piece)
            if (write_all(file.get(), content.data() + at, std::min(piece, content.size() - at)) ==
                -1)
                return errno;
        if (sync && fsync(file.get()) == -1)
            return errno;
        return close(file.release()) == -1 ? errno : 0;
    }
    std::string read_back(std::string const& name) const {
        std::string content;
        return ::read_file(path(name).c_str(), content, 1 << 30) == 0 ? content : "not read";
    }
    static void each_user(std::function<void(unsigned user)> const& action) {
        std::vector<std::thread> users;
        for (unsigned user = 0; user < USERS; ++user)
            users.emplace_back(action, user);
        for (std::thread& user : users)
            user.join();
    }
    static std::string folder(unsigned user) { return "set" + std::to_string(user); }
};

TEST_F(Mount_Load_Test, big_and_small_files_are_written_and_read_by_many_at_once) {
    for (Compression_Method const method : {COMPR_NONE, COMPR_ZSTD}) {
        ASSERT_TRUE(fuse_.compression_method(method, 1));
        ASSERT_TRUE(mount());
        std::vector<size_t> const sizes{0, 1, 4095, 4096, 4097, 131072, 5 << 20, 300003};
        each_user([&](unsigned user) {
            EXPECT_EQ(0, mkdir(path(folder(user)).c_str(), 0700));
            for (unsigned i = 0; i < sizes.size(); ++i) {
                std::string const name = folder(user) + "/" + std::to_string(i);
                std::string const content = noise(user * 100 + i, sizes[i]);
                EXPECT_EQ(0, write_file(name, content, i % 2 ? 1000 : 1 << 20, i % 3 == 0)) << name;
                EXPECT_TRUE(content == read_back(name)) << name;
            }
        });
        // everybody reads what everybody has written
        each_user([&](unsigned reader) {
            for (unsigned i = 0; i < sizes.size(); ++i) {
                unsigned const user = (reader + i) % USERS;
                EXPECT_TRUE(noise(user * 100 + i, sizes[i]) ==
                            read_back(folder(user) + "/" + std::to_string(i)));
            }
        });
        EXPECT_EQ(USERS * sizes.size(), pool_.files());
        fuse_.unmount();
        // what is in the pool is what was written, without the mount's memory
        ASSERT_TRUE(mount());
        for (unsigned user = 0; user < USERS; ++user)
            for (unsigned i = 0; i < sizes.size(); ++i)
                EXPECT_TRUE(noise(user * 100 + i, sizes[i]) ==
                            read_back(folder(user) + "/" + std::to_string(i)));
        EXPECT_EQ(0, shell("rm -r *"));
        fuse_.unmount();
        EXPECT_EQ(0u, pool_.files());
    }
}

TEST_F(Mount_Load_Test, files_that_are_cut_renamed_and_appended_to_at_once) {
    ASSERT_TRUE(mount());
    each_user([&](unsigned user) {
        EXPECT_EQ(0, mkdir(path(folder(user)).c_str(), 0700));
        std::string const name = folder(user) + "/data";
        for (unsigned round = 0; round < 20; ++round) {
            std::string content = noise(user + round, 50000 + round);
            EXPECT_EQ(0, write_file(name + ".part", content, 7777, true));
            EXPECT_EQ(0, truncate(path(name + ".part").c_str(), 30000));
            content.resize(30000);
            EXPECT_EQ(0, rename(path(name + ".part").c_str(), path(name).c_str()));
            File_Descriptor const file(open(path(name).c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
            EXPECT_EQ(0, write_all(file.get(), "tail", 4));
            EXPECT_EQ(0, fsync(file.get()));
            EXPECT_TRUE(content + "tail" == read_back(name)) << user << " " << round;
        }
    });
    fuse_.unmount();
    EXPECT_EQ(size_t(USERS), pool_.files()) << "no part is left";
    for (unsigned user = 0; user < USERS; ++user)
        EXPECT_TRUE(noise(user + 19, 50019).substr(0, 30000) + "tail" ==
                    pool_.stored("source/" + folder(user) + "/data"));
}

TEST_F(Mount_Load_Test, a_file_is_seen_whole_or_not_at_all_while_it_is_replaced) {
    ASSERT_TRUE(mount());
    std::vector<std::string> const versions{noise(1, 300000), noise(2, 300000)};
    ASSERT_EQ(0, write_file("o", versions[0], 1 << 16));
    std::atomic<bool> over = false;
    std::thread writer([&] {
        for (unsigned round = 1; round < 40; ++round) {
            EXPECT_EQ(0, write_file("part", versions[round % 2], 1 << 16));
            EXPECT_EQ(0, rename(path("part").c_str(), path("o").c_str()));
        }
        over = true;
    });
    unsigned times_seen = 0;
    while (!over) {
        File_Descriptor const file(open(path("o").c_str(), O_RDONLY | O_CLOEXEC));
        // the kernel tries it twice, and the file may be replaced both times
        if (!file && errno == ESTALE)
            continue;
        EXPECT_TRUE(file) << errno;
        ++times_seen;
        // without a look at its size: the kernel asks for that by the name, which may be gone
        std::string seen(versions[0].size() + 1, '\0');
        size_t size = 0;
        for (ssize_t got = 1; got > 0; size += static_cast<size_t>(std::max<ssize_t>(got, 0)))
            got = ::read(file.get(), seen.data() + size, seen.size() - size);
        seen.resize(size);
        EXPECT_TRUE(seen == versions[0] || seen == versions[1]) << seen.size();
    }
    writer.join();
    EXPECT_LT(0u, times_seen);
}

TEST_F(Mount_Load_Test, a_full_pool_is_told_to_every_writer_and_takes_more_when_there_is_room) {
    on_own_thread([&] {
        ASSERT_EQ(0, unshare(CLONE_FS | CLONE_NEWNS));
        ASSERT_EQ(0, ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
        ASSERT_EQ(0, ::mount("tmpfs", pool_.path().c_str(), "tmpfs", 0, "size=4m"));
        ASSERT_TRUE(mount());
        std::string const before = noise(7, 1 << 20);
        EXPECT_EQ(0, write_file("before", before, 1 << 16));
        each_user([&](unsigned user) {
            EXPECT_EQ(ENOSPC, write_file(folder(user), noise(user, 8 << 20), 1 << 16, user % 2));
        });
        EXPECT_EQ(1u, File_Pool::files_below(pool_.path())) << "nothing of them is left";
        EXPECT_TRUE(before == read_back("before"));
        EXPECT_EQ(0, write_file("after", before, 1 << 16));
        EXPECT_TRUE(before == read_back("after"));
        fuse_.unmount();
    });
    EXPECT_GE(Log_Capture::instance().claim_all(LM_ERROR, "No space left on device"), USERS);
}

TEST_F(Mount_Load_Test, a_vanished_pool_is_an_error_for_everybody_and_is_never_made_anew) {
    ASSERT_TRUE(mount());
    std::string const before = noise(7, 100000);
    ASSERT_EQ(0, write_file("before", before, 1 << 16));
    std::filesystem::remove_all(pool_.path());
    each_user([&](unsigned user) {
        EXPECT_NE(0, write_file(folder(user), noise(user, 100000), 1 << 16, true));
        EXPECT_EQ("not read", read_back("new" + std::to_string(user)));
    });
    EXPECT_FALSE(std::filesystem::exists(pool_.path()));
    EXPECT_LE(1u, Log_Capture::instance().claim_all(LM_ERROR, "Failed to serve /set"));
    fuse_.unmount();
    std::filesystem::create_directory(pool_.path());
    ASSERT_TRUE(mount()) << "another one in its place is mounted again";
    EXPECT_EQ(0, write_file("after", before, 1 << 16));
    EXPECT_TRUE(before == read_back("after"));
}

TEST_F(Mount_Load_Test, an_unmount_ends_everybody_who_is_at_work) {
    ASSERT_TRUE(mount());
    std::atomic<unsigned> at_work = 0;
    std::thread users([&] {
        each_user([&](unsigned user) {
            std::string const content = noise(user, 1 << 20);
            bool counted = false;
            for (int error = 0; error == 0;) {
                error = write_file("user" + std::to_string(user), content, 1 << 16, true);
                if (!std::exchange(counted, true))
                    ++at_work;
            }
        });
    });
    while (at_work < USERS)
        std::this_thread::yield();
    fuse_.unmount();
    // they write into the directory below by now, unless that refuses them
    std::filesystem::permissions(point_, std::filesystem::perms(0));
    std::filesystem::remove_all(point_);
    users.join();
    EXPECT_FALSE(is_mount_point(point_));
    for (unsigned user = 0; user < USERS; ++user) {
        std::string const stored = pool_.stored("source/user" + std::to_string(user));
        EXPECT_TRUE(noise(user, 1 << 20).starts_with(stored)) << user;
    }
    Log_Capture::instance().claim_all(LM_WARNING,
                                      " was still being written, it is stored as it is");
}

} // namespace
