#include "host/process/process_tree.h"

#include "tests/support/temporary_directory.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr uid_t USER = 23456;
constexpr uid_t OTHER = 23457;
constexpr time_t YOUNG = 3600;

/** A script that runs as some user in the background, with a child of its own. */
class Background_Script {
public:
    /** @param body  what its shell does first */
    Background_Script(Temporary_Directory const& directory, std::string const& name, uid_t user,
                      std::string const& body = "")
        : ready_(directory.path("ready." + name + std::to_string(user))) {
        std::string const path = directory.path(name);
        std::ofstream(path) << body << "\nsleep 1000 &\necho $! > " << ready_ << ".new\nmv "
                            << ready_ << ".new " << ready_ << "\nwait\nsleep 1000\n";
        pid_ = fork();
        if (pid_ == 0) {
            if (setgid(user) == 0 && setuid(user) == 0)
                execl("/bin/sh", "sh", path.c_str(), nullptr);
            _exit(127);
        }
        while (child_ <= 0) {
            std::ifstream(ready_) >> child_;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ~Background_Script() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            kill(child_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    bool lives() const { return !has_ended(pid_); }
    bool child_lives() const { return !has_ended(child_); }

private:
    static bool has_ended(pid_t pid) {
        std::string line;
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        return !std::getline(stat, line) || line.find(") Z ") != std::string::npos;
    }
    std::string const ready_;
    pid_t pid_ = -1;
    pid_t child_ = 0;
};

class End_Programs_Test : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can start programs of other users";
        ASSERT_EQ(0, chmod(directory_.path("").c_str(), 0777));
    }
    Temporary_Directory directory_;
};

TEST_F(End_Programs_Test, a_users_program_ends_with_what_it_has_started) {
    Background_Script const tool(directory_, "gs_roach", USER);
    EXPECT_TRUE(end_programs({USER, {"gs_roach"}, YOUNG}, 5));
    EXPECT_FALSE(tool.lives());
    EXPECT_FALSE(tool.child_lives());
}

TEST_F(End_Programs_Test, one_that_ignores_the_signal_or_is_stopped_is_killed) {
    Background_Script const deaf(directory_, "gs_roach", USER, "trap '' TERM");
    EXPECT_TRUE(end_programs({USER, {"gs_roach"}, YOUNG}, 0));
    EXPECT_FALSE(deaf.lives());
    EXPECT_FALSE(deaf.child_lives());
}

TEST_F(End_Programs_Test, programs_of_another_user_or_name_live) {
    Background_Script const others(directory_, "gs_roach", OTHER);
    Background_Script const other_name(directory_, "gs_roach2", USER);
    EXPECT_TRUE(end_programs({USER, {"gs_roach"}, YOUNG}, 5));
    EXPECT_TRUE(others.lives());
    EXPECT_TRUE(other_name.lives());
}

TEST_F(End_Programs_Test, a_program_that_is_older_than_asked_for_lives) {
    Background_Script const tool(directory_, "gs_roach", USER);
    EXPECT_TRUE(end_programs({USER, {"gs_roach"}, -1}, 5));
    EXPECT_TRUE(tool.lives());
}

TEST_F(End_Programs_Test, roots_programs_live) {
    Background_Script const tool(directory_, "gs_roach", 0);
    EXPECT_TRUE(end_programs({0, {"gs_roach"}, YOUNG}, 5));
    EXPECT_TRUE(tool.lives());
}

TEST_F(End_Programs_Test, nothing_to_end_is_a_success) {
    EXPECT_TRUE(end_programs({USER, {"gs_roach"}, YOUNG}, 5));
}

} // namespace
