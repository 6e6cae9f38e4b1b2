#include "agent/instances/account_key.h"

#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class Account_Key_Test : public testing::Test {
protected:
    std::string load() {
        error_.clear();
        auto const key = Account_Key::load(path_, error_);
        EXPECT_EQ(key.has_value(), error_.empty());
        return key ? std::string(key->data(), key->size()) : "";
    }
    void expect_refused(std::string const& words) {
        std::string const before = directory_.read("key");
        EXPECT_EQ("", load());
        EXPECT_NE(std::string::npos, error_.find(words)) << error_;
        EXPECT_NE(std::string::npos, error_.find(path_)) << error_;
        EXPECT_EQ(before, directory_.read("key"));
    }

    Temporary_Directory directory_;
    std::string path_ = directory_.path("key");
    std::string error_;
};

TEST_F(Account_Key_Test, is_made_at_first_and_stays_the_same_for_its_user_alone) {
    mode_t const umask_before = umask(0);
    std::string const key = load();
    umask(umask_before);
    EXPECT_EQ(Account_Key::SIZE, key.size());
    EXPECT_EQ(key, load());
    EXPECT_EQ(key, directory_.read("key"));
    struct stat status;
    ASSERT_EQ(0, stat(path_.c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 07777u);
    path_ = directory_.path("another");
    EXPECT_NE(key, load());
}

TEST_F(Account_Key_Test, a_file_that_others_can_read_is_refused) {
    load();
    for (mode_t const mode : {0640u, 0604u, 0620u}) {
        ASSERT_EQ(0, chmod(path_.c_str(), mode));
        expect_refused("others may read it");
    }
    ASSERT_EQ(0, chmod(path_.c_str(), 0400));
    EXPECT_EQ(Account_Key::SIZE, load().size());
}

TEST_F(Account_Key_Test, a_file_of_another_size_is_refused) {
    for (size_t const size : {size_t{0}, Account_Key::SIZE - 1, Account_Key::SIZE + 1}) {
        directory_.write("key", std::string(size, 'k'));
        ASSERT_EQ(0, chmod(path_.c_str(), 0600));
        expect_refused("it has " + std::to_string(size) + " bytes and not 32");
    }
}

TEST_F(Account_Key_Test, a_link_is_refused_also_one_that_leads_nowhere) {
    directory_.write("real", std::string(Account_Key::SIZE, 'k'));
    ASSERT_EQ(0, chmod(directory_.path("real").c_str(), 0600));
    ASSERT_EQ(0, symlink("real", path_.c_str()));
    expect_refused("it is a link");
    ASSERT_EQ(0, unlink(directory_.path("real").c_str()));
    expect_refused("it is a link");
    EXPECT_FALSE(directory_.exists("real"));
}

TEST_F(Account_Key_Test, a_directory_and_a_pipe_are_refused_and_a_missing_directory_is_told) {
    ASSERT_EQ(0, mkdir(path_.c_str(), 0700));
    EXPECT_EQ("", load());
    EXPECT_NE(std::string::npos, error_.find("it is no regular file")) << error_;
    ASSERT_EQ(0, rmdir(path_.c_str()));
    ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
    EXPECT_EQ("", load());
    EXPECT_NE(std::string::npos, error_.find("it is no regular file")) << error_;
    path_ = directory_.path("missing/key");
    EXPECT_EQ("", load());
    EXPECT_NE(std::string::npos, error_.find("it cannot be made")) << error_;
}

} // namespace
