#include "host/storage/file_storage_backend.h"

#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/temporary_directory.h"

#include "host/storage/file_pool_folder.h"
#include "host/storage/file_storage_writer.h"
#include "host/storage/xbsa_folder.h"
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sched.h>
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
        std::string text, names_only;
        for (Storage_Entry const& entry : entries)
            text += entry.name + " ";
        EXPECT_TRUE(connection_->list_names("", entries));
        for (Storage_Entry const& entry : entries)
            names_only += entry.name + " ";
        EXPECT_EQ(text, names_only);
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
    EXPECT_EQ(0600u, status.st_mode & 07777);
    ASSERT_EQ(0, stat(directory_.path("pool/f").c_str(), &status));
    EXPECT_EQ(0700u, status.st_mode & 07777);
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
    EXPECT_EQ(Storage_Result::BAD_NAME, connection_->list_names("folder", entries).code());
    EXPECT_EQ("", names());
    EXPECT_EQ("secret", directory_.read("secret/o"));
    EXPECT_FALSE(directory_.exists("secret/new"));
}

TEST_F(file_storage_backend, a_time_of_modification_that_is_set_does_not_hide_a_change) {
    ASSERT_TRUE(put("f/o", "content"));
    timespec const old[2] = {{1000, 0}, {1000, 0}};
    ASSERT_EQ(0, utimensat(AT_FDCWD, directory_.path("pool/f").c_str(), old, 0));
    std::vector<Storage_Entry> entries;
    ASSERT_TRUE(connection_->list("", entries));
    ASSERT_EQ(1u, entries.size());
    EXPECT_EQ(1000, entries[0].modified);
    EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(entries[0].changed) / 1e9,
                60);
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

/** A pool with the folders of two databases' users in it, where they can reach it. */
class file_storage_separate_pool : public file_storage_backend {
protected:
    static constexpr char FIRST[] = "daemon";
    static constexpr char SECOND[] = "games";

    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can act as other users";
        file_storage_backend::SetUp();
        ASSERT_EQ(0, chmod(directory_.path().c_str(), 0755));
        EXPECT_TRUE(separate_pool(pool_));
        EXPECT_TRUE(give_xbsa_folder(url(), "first", FIRST));
        EXPECT_TRUE(give_xbsa_folder(url(), "second", SECOND));
    }
    std::string url() const { return "file://" + pool_; }
    /** Does something as a user of the operating system; true when it was done. */
    bool as_user(char const* name, std::function<bool()> const& action) {
        passwd const* const user = getpwnam(name);
        pid_t const child = fork();
        if (child == 0) {
            umask(0);
            bool const changed = setgroups(0, nullptr) == 0 && setgid(user->pw_gid) == 0 &&
                                 setuid(user->pw_uid) == 0;
            connection_ = changed ? connect(pool_) : nullptr;
            _exit(connection_ && action() ? 0 : 1);
        }
        int status = -1;
        return waitpid(child, &status, 0) == child && status == 0;
    }
    bool can_read(std::string const& name) {
        std::unique_ptr<Storage_Reader> reader;
        return static_cast<bool>(connection_->open(name, reader));
    }
    bool can_list(std::string const& folder) {
        std::vector<Storage_Entry> entries;
        return static_cast<bool>(connection_->list(folder, entries));
    }
    std::string mode_of(std::string const& name) const {
        struct stat status {};
        EXPECT_EQ(0, lstat((pool_ + "/" + name).c_str(), &status)) << name;
        std::ostringstream text;
        passwd const* const user = getpwuid(status.st_uid);
        text << std::oct << (status.st_mode & 07777) << " " << (user ? user->pw_name : "?");
        return text.str();
    }

    std::string const pool_ = directory_.path("pool");
};

TEST_F(file_storage_separate_pool, a_user_has_its_own_folder_and_nothing_else) {
    ASSERT_TRUE(as_user(FIRST, [&] {
        return put("first/xbsa/set/object", "content") && can_read("first/xbsa/set/object") &&
               can_list("first/xbsa") && put("first/xbsa/set/object", "other") &&
               put("first/xbsa/set/gone", "x") && connection_->remove("first/xbsa/set/gone");
    }));
    EXPECT_EQ("700 daemon", mode_of("first/xbsa/set"));
    EXPECT_EQ("600 daemon", mode_of("first/xbsa/set/object"));
    EXPECT_FALSE(as_user(SECOND, [&] { return can_read("first/xbsa/set/object"); }));
    EXPECT_FALSE(as_user(SECOND, [&] { return can_list("first/xbsa"); }));
    EXPECT_FALSE(as_user(SECOND, [&] { return can_list("first/xbsa/set"); }));
    EXPECT_FALSE(as_user(SECOND, [&] { return can_list("first"); }));
    EXPECT_FALSE(as_user(SECOND, [&] { return can_list(""); }));
    EXPECT_FALSE(as_user(SECOND, [&] { return !!put("first/xbsa/set/object", "mine"); }));
    EXPECT_FALSE(as_user(SECOND, [&] { return !!put("first/xbsa/set/new", "mine"); }));
    EXPECT_FALSE(as_user(SECOND, [&] { return !!put("first/roach/new", "mine"); }));
    EXPECT_FALSE(as_user(SECOND, [&] { return !!put("third/xbsa/new", "mine"); }));
    EXPECT_FALSE(as_user(SECOND, [&] { return !!connection_->remove("first/xbsa/set/object"); }));
    EXPECT_TRUE(can_read("first/xbsa/set/object"));
}

TEST_F(file_storage_separate_pool, what_root_makes_is_roots) {
    umask(0);
    ASSERT_TRUE(put("first/roach/key/backups.ini", "content"));
    EXPECT_EQ("700 root", mode_of("first/roach"));
    EXPECT_EQ("600 root", mode_of("first/roach/key/backups.ini"));
    EXPECT_FALSE(as_user(FIRST, [&] { return can_read("first/roach/key/backups.ini"); }));
}

TEST_F(file_storage_separate_pool, folders_have_the_owners_and_modes_that_separate) {
    EXPECT_EQ("711 root", mode_of(""));
    EXPECT_EQ("711 root", mode_of("first"));
    EXPECT_EQ("700 daemon", mode_of("first/xbsa"));
    EXPECT_EQ("", fault_of_separation(pool_));
    ASSERT_EQ(0, chmod(pool_.c_str(), 02775));
    EXPECT_NE("", fault_of_separation(pool_));
    ASSERT_EQ(0, chmod(pool_.c_str(), 0711));
    ASSERT_EQ(0, chown(pool_.c_str(), getpwnam(FIRST)->pw_uid, 0));
    EXPECT_NE("", fault_of_separation(pool_));
}

TEST_F(file_storage_separate_pool, anothers_folder_is_refused_with_both_names) {
    Storage_Result const result = give_xbsa_folder(url(), "first", SECOND);
    EXPECT_FALSE(result);
    EXPECT_NE(std::string::npos, result.text().find("daemon")) << result.text();
    EXPECT_NE(std::string::npos, result.text().find("games")) << result.text();
    EXPECT_EQ("700 daemon", mode_of("first/xbsa"));
    EXPECT_TRUE(check_xbsa_folder_readable(url(), "first", FIRST));
    EXPECT_TRUE(check_xbsa_folder_readable(url(), "none", FIRST));
    Storage_Result const read = check_xbsa_folder_readable(url(), "first", SECOND);
    EXPECT_FALSE(read);
    EXPECT_NE(std::string::npos, read.text().find("setfacl")) << read.text();
}

TEST_F(file_storage_separate_pool, a_pool_is_tried_as_its_user) {
    EXPECT_TRUE(check_pool_writable(pool_, "first", FIRST));
    EXPECT_TRUE(check_pool_writable(pool_, "third", FIRST)) << "before the first backup";
    EXPECT_TRUE(std::filesystem::is_empty(pool_ + "/first/xbsa"));
    size_t entries = 0;
    for (auto const& entry : std::filesystem::directory_iterator(pool_))
        entries += entry.is_directory();
    EXPECT_EQ(2u, entries) << "a scratch folder is left behind";
    Storage_Result const other = check_pool_writable(pool_, "first", SECOND);
    EXPECT_FALSE(other);
    EXPECT_NE(std::string::npos, other.text().find("belongs to the user daemon")) << other.text();
    EXPECT_FALSE(check_pool_writable(pool_, "first", "no-such-user"));
    EXPECT_FALSE(check_pool_writable(directory_.path("none"), "first", FIRST));
    ASSERT_EQ(0, chmod(directory_.path().c_str(), 0700));
    Storage_Result const closed = check_pool_writable(pool_, "first", FIRST);
    EXPECT_FALSE(closed);
    EXPECT_EQ("the user daemon cannot pass through " + directory_.path(), closed.text());
}

TEST_F(file_storage_separate_pool, it_is_told_why_a_user_cannot_write) {
    std::string const folder = pool_ + "/first/xbsa";
    EXPECT_EQ("the user games cannot pass through " + folder + ", which belongs to the user daemon",
              check_pool_writable(pool_, "first", SECOND).text());
    ASSERT_EQ(0, chmod(folder.c_str(), 0755));
    EXPECT_EQ(folder + " belongs to the user daemon; the user games cannot write to it",
              check_pool_writable(pool_, "first", SECOND).text());
    ASSERT_EQ(0, symlink(folder.c_str(), (pool_ + "/second/link").c_str()));
    ASSERT_EQ(0, rename((pool_ + "/second/xbsa").c_str(), (pool_ + "/second/old").c_str()));
    ASSERT_EQ(0, rename((pool_ + "/second/link").c_str(), (pool_ + "/second/xbsa").c_str()));
    EXPECT_TRUE(
        check_pool_writable(pool_, "second", FIRST).text().starts_with("cannot open " + pool_));
}

TEST_F(file_storage_separate_pool, another_user_may_be_let_in_to_read) {
    EXPECT_FALSE(check_xbsa_folder_readable(url(), "first", SECOND));
    ASSERT_EQ(0, chmod((pool_ + "/first/xbsa").c_str(), 0755));
    EXPECT_TRUE(check_xbsa_folder_readable(url(), "first", SECOND));
}

TEST_F(file_storage_separate_pool, a_pool_of_another_kind_is_left_as_it_is) {
    std::string const other = "other://" + pool_;
    EXPECT_TRUE(give_xbsa_folder(other, "third", FIRST));
    EXPECT_FALSE(std::filesystem::exists(pool_ + "/third"));
    EXPECT_TRUE(check_xbsa_folder_readable(other, "first", SECOND));
    EXPECT_EQ(Storage_Result::UNREACHABLE,
              give_xbsa_folder("file://" + directory_.path("none"), "third", FIRST).code());
}

TEST_F(file_storage_separate_pool, what_others_have_beside_a_users_folder_is_closed) {
    passwd const* const user = getpwnam(FIRST);
    directory_.write("pool/first/roach/key/file", "x");
    for (char const* name : {"/first", "/first/roach"}) {
        ASSERT_EQ(0, chown((pool_ + name).c_str(), user->pw_uid, user->pw_gid));
        ASSERT_EQ(0, chmod((pool_ + name).c_str(), 0777));
    }
    EXPECT_TRUE(give_xbsa_folder(url(), "first", FIRST));
    EXPECT_EQ("711 root", mode_of("first"));
    EXPECT_EQ("700 root", mode_of("first/roach"));
    EXPECT_EQ("700 daemon", mode_of("first/xbsa"));
}

/** A user namespace with root alone: no file can be given to anybody else in it. */
bool enter_namespace_of_root() {
    if (unshare(CLONE_NEWUSER) == -1)
        return false;
    File_Descriptor const map(open("/proc/self/uid_map", O_WRONLY | O_CLOEXEC));
    return map && write(map.get(), "0 0 1", 5) == 5;
}

TEST_F(file_storage_separate_pool, a_file_system_that_keeps_no_owners_is_noticed) {
#ifdef __SANITIZE_THREAD__
    GTEST_SKIP() << "a process with the sanitizer's thread gets no user namespace of its own";
#endif
    ASSERT_TRUE(std::filesystem::create_directory(pool_ + "/third"));
    pid_t const child = fork();
    if (child == 0) {
        if (!enter_namespace_of_root())
            _exit(100);
        bool const told = fault_of_separation(pool_).starts_with("its file system does not keep");
        Storage_Result const given = give_xbsa_folder(url(), "third", FIRST);
        _exit(
            (told ? 0 : 1) +
            (given.text().find("cannot be given to the user daemon") == std::string::npos ? 2 : 0));
    }
    int status = -1;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, WEXITSTATUS(status)) << "100: no namespace; else which check did not notice";
}

TEST_F(file_storage_separate_pool, ids_that_lead_elsewhere_are_refused) {
    for (char const* id : {"", "..", "a/b", "/tmp"})
        EXPECT_FALSE(give_xbsa_folder(url(), id, FIRST)) << id;
    EXPECT_EQ("the user no-such-user is not known on this host",
              give_xbsa_folder(url(), "third", "no-such-user").text());
    EXPECT_FALSE(std::filesystem::exists(pool_ + "/third"));
}

TEST_F(file_storage_separate_pool, links_in_the_place_of_folders_are_not_followed) {
    directory_.write("victim/xbsa/file", "x");
    std::string const victim = directory_.path("victim");
    struct stat before {};
    ASSERT_EQ(0, stat((victim + "/xbsa").c_str(), &before));
    ASSERT_EQ(0, symlink(victim.c_str(), (pool_ + "/third").c_str()));
    EXPECT_FALSE(give_xbsa_folder(url(), "third", FIRST));
    ASSERT_EQ(0, mkdir((pool_ + "/fourth").c_str(), 0777));
    ASSERT_EQ(0, symlink((victim + "/xbsa").c_str(), (pool_ + "/fourth/xbsa").c_str()));
    EXPECT_FALSE(give_xbsa_folder(url(), "fourth", FIRST));
    EXPECT_TRUE(separate_pool(pool_));
    struct stat status;
    ASSERT_EQ(0, stat((victim + "/xbsa").c_str(), &status));
    EXPECT_EQ(0u, status.st_uid);
    EXPECT_EQ(before.st_mode, status.st_mode);
}

TEST_F(file_storage_separate_pool, a_pool_of_an_older_version_is_closed) {
    ASSERT_TRUE(as_user(FIRST, [&] { return !!put("first/xbsa/set/object", "content"); }));
    directory_.write("pool/first/roach/key/file", "x");
    directory_.write("pool/host/roach/file", "x");
    passwd const* const user = getpwnam(FIRST);
    ASSERT_EQ(0, chown((pool_ + "/first").c_str(), user->pw_uid, user->pw_gid));
    for (char const* name : {"", "/first", "/first/xbsa", "/first/roach", "/host"})
        ASSERT_EQ(0, chmod((pool_ + name).c_str(), 02770));
    EXPECT_TRUE(separate_pool(pool_));
    EXPECT_EQ("711 root", mode_of(""));
    EXPECT_EQ("711 root", mode_of("first"));
    EXPECT_EQ("700 daemon", mode_of("first/xbsa"));
    EXPECT_EQ("700 root", mode_of("first/roach"));
    EXPECT_EQ("700 root", mode_of("host"));
    EXPECT_TRUE(as_user(FIRST, [&] { return can_read("first/xbsa/set/object"); }));
}

TEST_F(file_storage_separate_pool, a_users_folder_stays_when_root_removes_the_last_object) {
    ASSERT_TRUE(as_user(FIRST, [&] { return !!put("first/xbsa/set/object", "content"); }));
    connection_ = connect(pool_);
    EXPECT_TRUE(connection_->remove("first/xbsa/set/object"));
    EXPECT_EQ("700 daemon", mode_of("first/xbsa"));
    EXPECT_TRUE(std::filesystem::is_empty(pool_ + "/first/xbsa"));
    EXPECT_TRUE(as_user(FIRST, [&] { return !!put("first/xbsa/next/object", "content"); }));
}

TEST_F(file_storage_separate_pool, a_pipe_that_looks_unfinished_does_not_hold_root) {
    std::string const name = pool_ + "/first/xbsa/" + UNFINISHED_PREFIX + "x";
    ASSERT_EQ(0, mkfifo(name.c_str(), 0666));
    File_Descriptor const folder(open((pool_ + "/first/xbsa").c_str(), O_RDONLY | O_DIRECTORY));
    size_t left = 0;
    EXPECT_EQ(0u, sweep_unfinished(folder, 0, &left));
    EXPECT_EQ(1u, left);
}

} // namespace
