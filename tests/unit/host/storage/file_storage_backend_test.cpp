#include "host/storage/file_storage_backend.h"

#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class file_storage_backend : public testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directory(directory_.path("pool"));
        connection_ = connect(directory_.path("pool"));
    }
    std::shared_ptr<Storage_Connection> connect(std::string const& path) {
        std::shared_ptr<Storage_Connection> made;
        Storage_Result const result = backend_.connect("file://" + path, {}, made);
        EXPECT_TRUE(result) << result.text();
        return made;
    }
    Storage_Result::Code connect_code(std::string const& url) {
        std::shared_ptr<Storage_Connection> made;
        return backend_.connect(url, {}, made).code();
    }
    Storage_Result put(std::string const& name, std::string const& content, bool replace = true) {
        std::unique_ptr<Storage_Writer> writer;
        Storage_Result result = connection_->create(name, replace, writer);
        if (result)
            result = writer->write(content.data(), content.size());
        return result ? writer->commit() : result;
    }
    /** All that is in the pool's folder, also what is never listed. */
    size_t files_in_pool() const {
        size_t count = 0;
        for (auto const& entry :
             std::filesystem::recursive_directory_iterator(directory_.path("pool")))
            count += entry.is_directory() ? 0 : 1;
        return count;
    }
    std::string names() {
        std::vector<Storage_Entry> entries;
        EXPECT_TRUE(connection_->list("", entries));
        std::string text;
        for (Storage_Entry const& entry : entries)
            text += entry.name + " ";
        return text;
    }

    Temporary_Directory directory_;
    File_Storage_Backend backend_;
    std::shared_ptr<Storage_Connection> connection_;
};

TEST_F(file_storage_backend, an_object_is_a_file_that_others_cannot_read) {
    umask(022);
    ASSERT_TRUE(put("f/o", "content"));
    EXPECT_EQ("content", directory_.read("pool/f/o"));
    struct stat status;
    ASSERT_EQ(0, stat(directory_.path("pool/f/o").c_str(), &status));
    EXPECT_EQ(0640u, status.st_mode & 07777);
    ASSERT_EQ(0, stat(directory_.path("pool/f").c_str(), &status));
    EXPECT_EQ(0750u, status.st_mode & 07777);
}

TEST_F(file_storage_backend, urls_of_other_places_are_refused) {
    for (char const* url : {"dedup:///a", "file://host/a", "file://", "/a", ""})
        EXPECT_EQ(Storage_Result::BAD_NAME, connect_code(url)) << url;
    EXPECT_TRUE(connect(directory_.path("pool")));
    EXPECT_EQ(Storage_Result::OK, connect_code("file://localhost" + directory_.path("pool")));
}

TEST_F(file_storage_backend, a_file_is_no_pool) {
    EXPECT_EQ(Storage_Result::UNREACHABLE, connect_code("file://" + directory_.write("file", "x")));
}

TEST_F(file_storage_backend, the_way_to_the_pool_may_be_a_link) {
    std::filesystem::create_symlink("pool", directory_.path("way"));
    connection_ = connect(directory_.path("way"));
    ASSERT_TRUE(put("o", "x"));
    EXPECT_EQ("x", directory_.read("pool/o"));
}

TEST_F(file_storage_backend, links_in_the_pool_are_refused_and_not_listed) {
    directory_.write("secret/o", "secret");
    std::filesystem::create_symlink("../secret", directory_.path("pool/folder"));
    std::filesystem::create_symlink("../secret/o", directory_.path("pool/object"));
    std::filesystem::create_symlink("nowhere", directory_.path("pool/broken"));
    for (char const* name : {"folder/o", "folder/new", "object", "broken"}) {
        std::unique_ptr<Storage_Writer> writer;
        std::unique_ptr<Storage_Reader> reader;
        Storage_Entry entry;
        EXPECT_EQ(Storage_Result::BAD_NAME, connection_->create(name, true, writer).code()) << name;
        EXPECT_EQ(Storage_Result::BAD_NAME, connection_->open(name, reader).code()) << name;
        EXPECT_EQ(Storage_Result::BAD_NAME, connection_->stat(name, entry).code()) << name;
        EXPECT_EQ(Storage_Result::BAD_NAME, connection_->remove(name).code()) << name;
    }
    std::vector<Storage_Entry> entries;
    EXPECT_EQ(Storage_Result::BAD_NAME, connection_->list("folder", entries).code());
    EXPECT_EQ("", names());
    EXPECT_EQ("secret", directory_.read("secret/o"));
    EXPECT_FALSE(directory_.exists("secret/new"));
}

TEST_F(file_storage_backend, a_link_that_comes_while_an_object_is_written_is_not_followed) {
    std::unique_ptr<Storage_Writer> writer;
    ASSERT_TRUE(connection_->create("o", true, writer));
    directory_.write("victim", "kept");
    std::filesystem::create_symlink("../victim", directory_.path("pool/o"));
    EXPECT_EQ(Storage_Result::BAD_NAME, writer->commit().code());
    EXPECT_EQ("kept", directory_.read("victim"));
    EXPECT_EQ(1u, files_in_pool());
}

TEST_F(file_storage_backend, a_pipe_in_the_pool_is_no_object_and_holds_nobody_up) {
    ASSERT_EQ(0, mkfifo(directory_.path("pool/pipe").c_str(), 0600));
    std::unique_ptr<Storage_Reader> reader;
    EXPECT_EQ(Storage_Result::NOT_FOUND, connection_->open("pipe", reader).code());
    EXPECT_EQ(Storage_Result::NOT_FOUND, connection_->remove("pipe").code());
    EXPECT_EQ("", names());
}

TEST_F(file_storage_backend, an_object_that_was_cut_while_it_is_read_is_an_error) {
    ASSERT_TRUE(put("o", "0123456789"));
    std::unique_ptr<Storage_Reader> reader;
    ASSERT_TRUE(connection_->open("o", reader));
    ASSERT_EQ(0, truncate(directory_.path("pool/o").c_str(), 4));
    char buffer[10];
    size_t got;
    Storage_Result const result = reader->read_at(0, buffer, sizeof buffer, got);
    EXPECT_EQ("'o' became shorter while it was read", result.text());
}

TEST_F(file_storage_backend, nothing_is_left_when_a_system_call_fails) {
    ASSERT_TRUE(put("old", "old"));
    struct {
        long call;
        int error;
        Storage_Result::Code wanted;
    } const cases[] = {{SYS_write, ENOSPC, Storage_Result::NO_SPACE},
                       {SYS_write, EDQUOT, Storage_Result::NO_SPACE},
                       {SYS_write, EIO, Storage_Result::FAILED},
                       {SYS_write, ESTALE, Storage_Result::UNREACHABLE},
                       {SYS_fsync, EIO, Storage_Result::FAILED},
                       {SYS_fsync, ENOSPC, Storage_Result::NO_SPACE},
                       {SYS_renameat, EIO, Storage_Result::FAILED}};
    for (auto const& one : cases)
        on_own_thread([&] {
            ASSERT_TRUE(one.call == SYS_write ? deny_writes(4096, one.error)
                                              : deny_system_call(one.call, one.error));
            std::string const content(4096, 'x');
            Storage_Result const result = put("old", content);
            EXPECT_EQ(one.wanted, result.code()) << result.text();
            EXPECT_NE(std::string::npos, result.text().find("'old'")) << result.text();
            if (one.call != SYS_fsync) {
                EXPECT_FALSE(put("f/new", content));
            }
            EXPECT_EQ("old", directory_.read("pool/old"));
            EXPECT_EQ(1u, files_in_pool());
            EXPECT_FALSE(directory_.exists("pool/f"));
        });
}

TEST_F(file_storage_backend, without_replace_a_file_system_that_cannot_rename_so_is_served_too) {
    for (int error : {EINVAL, ENOSYS})
        on_own_thread([&] {
            ASSERT_TRUE(deny_system_call(SYS_renameat2, error));
            std::string const name = "o" + std::to_string(error);
            EXPECT_TRUE(put(name, "1", false));
            std::unique_ptr<Storage_Writer> first, second;
            ASSERT_TRUE(connection_->create("p" + name, false, first));
            ASSERT_TRUE(connection_->create("p" + name, false, second));
            EXPECT_TRUE(first->commit());
            EXPECT_EQ(Storage_Result::EXISTS, second->commit().code());
        });
    EXPECT_EQ(4u, files_in_pool());
}

TEST_F(file_storage_backend, a_full_file_system_leaves_the_old_object_and_nothing_new) {
    on_own_thread([&] {
        ASSERT_EQ(0, unshare(CLONE_FS | CLONE_NEWNS));
        ASSERT_EQ(0, mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr));
        ASSERT_EQ(0, mount("tmpfs", directory_.path("pool").c_str(), "tmpfs", 0, "size=1m"));
        connection_ = connect(directory_.path("pool"));
        ASSERT_TRUE(put("o", "old"));
        Storage_Result const result = put("o", std::string(2 << 20, 'x'));
        EXPECT_EQ(Storage_Result::NO_SPACE, result.code()) << result.text();
        EXPECT_EQ("old", directory_.read("pool/o"));
        EXPECT_EQ(1u, files_in_pool());
        connection_.reset();
    });
}

TEST_F(file_storage_backend, what_a_killed_process_left_is_not_listed_and_goes_after_a_day) {
    pid_t const child = fork();
    if (child == 0) {
        std::unique_ptr<Storage_Writer> writer;
        if (connection_->create("o", true, writer) && writer->write("x", 1))
            raise(SIGKILL);
        _exit(1);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
    ASSERT_EQ(1u, files_in_pool());
    EXPECT_EQ("", names());

    ASSERT_TRUE(put("p", "x"));
    EXPECT_EQ(2u, files_in_pool()) << "young ones stay";
    for (auto const& entry : std::filesystem::directory_iterator(directory_.path("pool"))) {
        timespec const times[2] = {{1000000000, 0}, {1000000000, 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, entry.path().c_str(), times, 0));
    }
    connection_ = connect(directory_.path("pool"));
    ASSERT_TRUE(put("p", "x"));
    EXPECT_EQ(1u, files_in_pool());
}

TEST_F(file_storage_backend, what_somebody_still_writes_is_not_swept_however_old) {
    std::unique_ptr<Storage_Writer> writer;
    ASSERT_TRUE(connection_->create("o", true, writer));
    for (auto const& entry : std::filesystem::directory_iterator(directory_.path("pool"))) {
        timespec const times[2] = {{1000000000, 0}, {1000000000, 0}};
        ASSERT_EQ(0, utimensat(AT_FDCWD, entry.path().c_str(), times, 0));
    }
    auto const other = connect(directory_.path("pool"));
    std::unique_ptr<Storage_Writer> another;
    ASSERT_TRUE(other->create("p", true, another));
    EXPECT_EQ(2u, files_in_pool());
    EXPECT_TRUE(writer->commit());
}

TEST_F(file_storage_backend, an_access_written_once_and_read_once_stores_the_same) {
    Storage_Access access;
    access.extra_options[Storage_Access::ACCESS_MODE] = Storage_Access::ACCESS_MODE_D2T;
    ASSERT_TRUE(backend_.connect("file://" + directory_.path("pool"), access, connection_));
    std::string content;
    for (int i = 0; content.size() < 40u << 20; ++i)
        content += std::to_string(i) + "\n";
    std::unique_ptr<Storage_Writer> writer;
    ASSERT_TRUE(connection_->create("o", true, writer));
    for (size_t at = 0; at < content.size(); at += 1 << 20)
        ASSERT_TRUE(
            writer->write(content.data() + at, std::min<size_t>(1 << 20, content.size() - at)));
    ASSERT_TRUE(writer->commit());
    EXPECT_TRUE(content == directory_.read("pool/o"));
}

TEST_F(file_storage_backend, folders_that_come_and_go_meanwhile_fail_nobody) {
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread)
        threads.emplace_back([&, thread] {
            std::string const name = "f/g/o" + std::to_string(thread);
            for (int round = 0; round < 100; ++round) {
                Storage_Result result = put(name, "x");
                ASSERT_TRUE(result) << result.text();
                result = connection_->remove(name);
                ASSERT_TRUE(result) << result.text();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_TRUE(std::filesystem::is_empty(directory_.path("pool")));
}

/** A pool that root and the users of a group share, in a directory that they can reach. */
class file_storage_shared_pool : public file_storage_backend {
protected:
    static constexpr gid_t POOL_GROUP = 1;
    static constexpr gid_t OTHER_GROUP = 2;
    static constexpr uid_t DATABASE_USER = 4242;
    static constexpr uid_t OTHER_USER = 4343;

    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can act as other users";
        file_storage_backend::SetUp();
        ASSERT_EQ(0, chmod(directory_.path().c_str(), 0755));
        share(02770);
    }
    void share(mode_t mode) {
        ASSERT_EQ(0, chown(pool_.c_str(), 0, POOL_GROUP));
        ASSERT_EQ(0, chmod(pool_.c_str(), mode));
        connection_ = connect(pool_);
    }
    /** Does something as another user, who is in the pool's group; true when it was done. */
    bool as_user(uid_t user, std::function<bool()> const& action) {
        pid_t const child = fork();
        if (child == 0) {
            gid_t const groups[] = {POOL_GROUP};
            umask(077);
            bool const changed =
                setgroups(1, groups) == 0 && setgid(OTHER_GROUP) == 0 && setuid(user) == 0;
            _exit(changed && action() ? 0 : 1);
        }
        int status = -1;
        return waitpid(child, &status, 0) == child && status == 0;
    }
    bool put_as(uid_t user, std::string const& name) {
        return as_user(user, [&] {
            connection_ = connect(pool_);
            Storage_Result const result = put(name, "content");
            if (!result)
                fprintf(stderr, "%s\n", result.text().c_str());
            return static_cast<bool>(result);
        });
    }
    std::string mode_and_group(std::string const& name) const {
        struct stat status {};
        EXPECT_EQ(0, stat((pool_ + "/" + name).c_str(), &status));
        std::ostringstream text;
        text << std::oct << (status.st_mode & 07777) << " " << std::dec << status.st_gid;
        return text.str();
    }

    std::string const pool_ = directory_.path("pool");
};

TEST_F(file_storage_shared_pool, what_a_member_makes_has_the_pool_s_group_and_its_rights) {
    ASSERT_TRUE(put_as(DATABASE_USER, "set/data/object"));
    EXPECT_EQ("2770 1", mode_and_group("set"));
    EXPECT_EQ("2770 1", mode_and_group("set/data"));
    EXPECT_EQ("660 1", mode_and_group("set/data/object"));
}

TEST_F(file_storage_shared_pool, what_root_makes_a_member_can_read_replace_and_remove) {
    ASSERT_TRUE(put("set/object", "by root"));
    EXPECT_EQ("660 1", mode_and_group("set/object"));
    EXPECT_TRUE(as_user(DATABASE_USER, [&] {
        connection_ = connect(pool_);
        std::unique_ptr<Storage_Reader> reader;
        return connection_->open("set/object", reader) && put("set/object", "by the user") &&
               connection_->remove("set/object");
    }));
    EXPECT_EQ(0u, files_in_pool());
}

TEST_F(file_storage_shared_pool, members_share_folders) {
    ASSERT_TRUE(put_as(DATABASE_USER, "set/one"));
    EXPECT_TRUE(put_as(OTHER_USER, "set/two"));
    EXPECT_TRUE(put_as(OTHER_USER, "set/one"));
    EXPECT_TRUE(as_user(DATABASE_USER, [&] { return !!connect(pool_)->remove("set/two"); }));
}

TEST_F(file_storage_shared_pool, a_pool_without_the_set_group_bit_is_shared_too) {
    share(0770);
    ASSERT_TRUE(put_as(DATABASE_USER, "set/object"));
    EXPECT_EQ("770 1", mode_and_group("set"));
    EXPECT_EQ("660 1", mode_and_group("set/object"));
}

TEST_F(file_storage_shared_pool, a_pool_that_its_group_may_only_read_is_as_it_was) {
    umask(022);
    share(0750);
    ASSERT_TRUE(put("set/object", "content"));
    EXPECT_EQ("750 0", mode_and_group("set"));
    EXPECT_EQ("640 0", mode_and_group("set/object"));
}

TEST_F(file_storage_shared_pool, a_pool_of_its_owner_alone_is_as_it_was) {
    umask(022);
    share(0700);
    ASSERT_TRUE(put("set/object", "content"));
    EXPECT_EQ("750 0", mode_and_group("set"));
    EXPECT_EQ("640 0", mode_and_group("set/object"));
    EXPECT_FALSE(as_user(DATABASE_USER, [&] {
        std::shared_ptr<Storage_Connection> made;
        return !!backend_.connect("file://" + pool_, {}, made);
    }));
}

TEST_F(file_storage_shared_pool, rights_that_the_group_does_not_have_are_not_given) {
    share(02730); // may make things in it, and not list it
    ASSERT_TRUE(put("set/object", "content"));
    EXPECT_EQ("2730 1", mode_and_group("set"));
    EXPECT_EQ("620 1", mode_and_group("set/object"));
}

} // namespace
