#include "host/process/process_view.h"

#include "host/process/password_file_entry.h"
#include "tests/support/database_process.h"
#include "tests/support/test_child_path.h"

#include <climits>
#include <csignal>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

class Process_View_Test : public testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root: processes of other users are started";
        ASSERT_EQ(0, nobody_.get("nobody"));
    }
    void TearDown() override {
        if (child_ > 0) {
            kill(child_, SIGKILL);
            waitpid(child_, nullptr, 0);
        }
        if (!program_.empty())
            std::filesystem::remove(program_);
    }

    /** Starts a child that does this and then stays. */
    void start(std::function<void()> const& setup) {
        int ready[2];
        ASSERT_EQ(0, pipe2(ready, O_CLOEXEC));
        child_ = fork();
        if (child_ == 0) {
            setup();
            if (write(ready[1], "x", 1) == 1)
                for (;;)
                    pause();
            _exit(1);
        }
        char byte;
        ASSERT_EQ(1, read(ready[0], &byte, 1));
        close(ready[0]);
        close(ready[1]);
    }
    void become_nobody() const {
        if (setresgid(nobody_.gid(), nobody_.gid(), nobody_.gid()) == -1 ||
            setresuid(nobody_.uid(), nobody_.uid(), nobody_.uid()) == -1)
            _exit(1);
    }

    Password_File_Entry nobody_;
    pid_t child_ = -1;
    std::string program_;
    Process_View view_;
};

TEST_F(Process_View_Test, a_process_is_seen_with_all_that_belongs_to_it) {
    Database_Process const process("/opt/db/bin/gaussdb", {"A=1", "B=x y"}, "nobody", {},
                                   ZENBRAK3_TEST_CHILD);
    ASSERT_EQ(0, view_process(process.pid(), view_));
    EXPECT_EQ(process.pid(), view_.pid);
    EXPECT_EQ(nobody_.uid(), view_.uid);
    EXPECT_EQ("", view_.fault);
    EXPECT_THAT(view_.arguments, ElementsAre("/opt/db/bin/gaussdb", "cat"));
    EXPECT_EQ(std::string("A=1\0B=x y\0", 10), view_.environment);
    EXPECT_EQ(std::filesystem::canonical(ZENBRAK3_TEST_CHILD), view_.program);
    struct stat expected;
    ASSERT_EQ(0, stat(ZENBRAK3_TEST_CHILD, &expected));
    EXPECT_EQ(expected.st_ino, view_.program_status.st_ino);
    EXPECT_EQ(std::filesystem::current_path(), view_.directory);
}

TEST_F(Process_View_Test, a_process_that_has_gone_is_told_by_errno) {
    Database_Process process("x", {}, "nobody", {}, ZENBRAK3_TEST_CHILD);
    pid_t const pid = process.pid();
    process.end();
    view_.program = "before";
    EXPECT_EQ(-1, view_process(pid, view_));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("before", view_.program);
    EXPECT_EQ(-1, view_process(-1, view_));
    EXPECT_EQ(ENOENT, errno);
}

TEST_F(Process_View_Test, an_environment_that_a_caller_gave_a_setuid_program_is_at_fault) {
    program_ = "/var/lib/zenbrak3-test-setuid-" + std::to_string(getpid());
    std::filesystem::copy_file(ZENBRAK3_TEST_CHILD, program_);
    Password_File_Entry owner;
    ASSERT_EQ(0, owner.get("daemon"));
    ASSERT_EQ(0, chown(program_.c_str(), owner.uid(), owner.gid()));
    ASSERT_EQ(0, chmod(program_.c_str(), 04755));
    int input[2];
    ASSERT_EQ(0, pipe(input));
    child_ = fork();
    if (child_ == 0) {
        dup2(input[0], 0);
        become_nobody();
        char const* const environment[] = {"GS_CLUSTER_NAME=c1", nullptr};
        execle(program_.c_str(), "gaussdb", "cat", nullptr, environment);
        _exit(1);
    }
    do // until it has started the program
        ASSERT_EQ(0, view_process(child_, view_));
    while (view_.program != program_ || view_.fault == "it is changing its user");
    EXPECT_THAT(view_.fault, HasSubstr("started by uid " + std::to_string(nobody_.uid()) +
                                       " with the rights of uid " + std::to_string(owner.uid())));
    close(input[0]);
    close(input[1]);
}

TEST_F(Process_View_Test, a_process_that_has_taken_over_the_user_completely_is_at_fault) {
    start([this] { become_nobody(); }); // as a setuid program does, with its caller's environment
    ASSERT_EQ(0, view_process(child_, view_));
    EXPECT_EQ(nobody_.uid(), view_.uid);
    EXPECT_THAT(view_.fault, HasSubstr("hides its memory"));
}

TEST_F(Process_View_Test, a_process_that_hides_its_memory_is_not_taken_for_roots) {
    start([this] {
        become_nobody();
        prctl(PR_SET_DUMPABLE, 0);
    });
    ASSERT_EQ(0, view_process(child_, view_));
    EXPECT_EQ(nobody_.uid(), view_.uid);
    EXPECT_NE("", view_.fault);
}

} // namespace
