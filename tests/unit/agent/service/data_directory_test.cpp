#include "agent/service/data_directory.h"

#include "tests/support/temporary_directory.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class Data_Directory_Test : public testing::Test {
protected:
    Temporary_Directory directory_;
    std::string path_ = directory_.path() + "/a/b";
    std::string error_;
};

TEST_F(Data_Directory_Test, is_made_with_its_parents_for_this_user_alone) {
    auto const data = Data_Directory::take(path_, error_);
    ASSERT_TRUE(data) << error_;
    struct stat status;
    ASSERT_EQ(0, stat(path_.c_str(), &status));
    EXPECT_EQ(0700u, status.st_mode & 0777u);
    EXPECT_EQ(path_ + "/x", data->file("x"));
}

TEST_F(Data_Directory_Test, a_second_agent_is_refused_and_told_of_the_first) {
    auto const data = Data_Directory::take(path_, error_);
    ASSERT_TRUE(data) << error_;
    EXPECT_FALSE(Data_Directory::take(path_, error_));
    EXPECT_NE(std::string::npos, error_.find("(process " + std::to_string(getpid()) + ")"))
        << error_;
}

TEST_F(Data_Directory_Test, an_agent_that_was_killed_holds_it_no_longer) {
    pid_t const child = fork();
    if (child == 0) {
        std::string error;
        auto const data = Data_Directory::take(path_, error);
        kill(getpid(), SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_TRUE(Data_Directory::take(path_, error_)) << error_;
}

TEST_F(Data_Directory_Test, a_place_that_cannot_be_one_is_refused) {
    std::ofstream(directory_.path() + "/file") << "x";
    EXPECT_FALSE(Data_Directory::take(directory_.path() + "/file", error_));
    EXPECT_NE(std::string::npos, error_.find("/file")) << error_;
    EXPECT_FALSE(Data_Directory::take(directory_.path() + "/file/below", error_));
}

} // namespace
