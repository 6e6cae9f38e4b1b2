#include "host/storage/xbsa_folder.h"
#include "tests/support/log_capture.h"
#include "tests/support/server_child.h"
#include "tests/support/xbsa_world.h"
#include "xbsa/xbsa_mem_map_handle.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using testing::HasSubstr;
using testing::Not;

namespace {

std::string output_of(std::string const& command) {
    std::string text;
    std::unique_ptr<FILE, int (*)(FILE*)> const pipe(popen(command.c_str(), "r"), pclose);
    char piece[4096];
    while (size_t const size = pipe ? fread(piece, 1, sizeof piece, pipe.get()) : 0)
        text.append(piece, size);
    return text;
}

TEST(xbsa_library_file, it_exports_the_api_and_nothing_else) {
    std::set<std::string> names;
    std::istringstream lines(
        output_of("nm -D --defined-only --format=posix " ZENBRAK3_XBSA_LIBRARY));
    for (std::string line; std::getline(lines, line);)
        names.insert(line.substr(0, line.find(' ')));
    std::set<std::string> const api{"BSABeginTxn",
                                    "BSACreateObject",
                                    "BSADeleteObject",
                                    "BSAEndData",
                                    "BSAEndTxn",
                                    "BSAGetData",
                                    "BSAGetEnvironment",
                                    "BSAGetLastError",
                                    "BSAGetObject",
                                    "BSAGetNextQueryObject",
                                    "BSAInit",
                                    "BSAQueryApiVersion",
                                    "BSASendData",
                                    "BSAQueryObject",
                                    "BSAQueryServiceProvider",
                                    "BSATerminate",
                                    "NBBSAUpdateEnv"};
    EXPECT_EQ(api, names);
}

TEST(xbsa_library_file, it_brings_no_library_of_ours_and_knows_where_the_others_are) {
    std::string const dynamic = output_of("readelf -d " ZENBRAK3_XBSA_LIBRARY);
    EXPECT_THAT(dynamic, Not(HasSubstr("libzenbrak3")));
    EXPECT_THAT(dynamic, HasSubstr("NODELETE"));
    EXPECT_THAT(dynamic, HasSubstr("(RPATH)")); // which the LD_LIBRARY_PATH does not override
    EXPECT_THAT(dynamic, Not(HasSubstr(":]"))); // an empty entry is the current directory
}

TEST(xbsa_library_file, its_header_is_good_for_c) {
    EXPECT_EQ(
        "", output_of("cc -std=c99 -Wall -Wextra -pedantic -fsyntax-only -x c " ZENBRAK3_XBSA_HEADER
                      " 2>&1"));
}

/** The tool as a user of the database runs it, in that user's folder of a pool. */
class xbsa_library : public testing::Test {
protected:
    static constexpr char USER[] = "games";
    static constexpr uid_t USER_ID = 5;
    static constexpr gid_t GROUP_ID = 60;

    void SetUp() override {
        if (geteuid() != 0)
            GTEST_SKIP() << "only root can act as the database's user";
        ASSERT_TRUE(separate_pool(world_.pool_path()));
        ASSERT_TRUE(give_xbsa_folder("file://" + world_.pool_path(), Xbsa_World::CLUSTER, USER));
        give(world_.policy_path());
        std::filesystem::create_directory(world_.files().path("out"));
        give(world_.files().path("out"));
    }
    void give(std::string const& path) { ASSERT_EQ(0, chown(path.c_str(), USER_ID, GROUP_ID)); }

    /** Runs the tool to its end. @return its exit status; output() what it printed */
    int tool(std::vector<std::string> args, std::string const& user = USER) {
        args.insert(args.begin(), {ZENBRAK3_XBSA_TOOL, ZENBRAK3_XBSA_LIBRARY, Xbsa_World::POLICY});
        std::filesystem::remove(world_.files().path("tool.log"));
        return Server_Child::run(args, user, world_.files().path("tool.log"));
    }
    std::string output() const { return world_.files().read("tool.log"); }
    std::string list() {
        // root, who sees what the policy's set has, whoever wrote it
        EXPECT_EQ(0, tool({"list", "db", "*"}, "")) << output();
        return output();
    }
    std::string file(std::string const& name, size_t size) {
        std::string text;
        while (text.size() < size)
            text += name + std::to_string(text.size());
        std::string const path = world_.files().write(name, text.substr(0, size));
        chmod(path.c_str(), 0644);
        return path;
    }

    Xbsa_World world_;
};

TEST_F(xbsa_library, a_user_of_the_database_backs_up_and_restores) {
    std::vector<std::string> const names{"one", "two", "three"};
    std::vector<std::string> put{"put", "db"};
    for (std::string const& name : names)
        put.push_back(file(name, name.size() * 1000000));
    ASSERT_EQ(0, tool(put)) << output();
    EXPECT_EQ("", output());
    ASSERT_EQ(0, tool({"get", "db", "*", world_.files().path("out")})) << output();
    for (std::string const& name : names)
        EXPECT_TRUE(world_.files().read(name) == world_.files().read("out/" + name)) << name;
}

TEST_F(xbsa_library, root_reads_what_the_user_stored_and_another_user_does_not) {
    ASSERT_EQ(0, tool({"put", "db", file("by-user", 1000)})) << output();
    ASSERT_EQ(0, tool({"get", "db", "*by-*", world_.files().path("out")}, "")) << output();
    EXPECT_EQ(1000u, world_.files().read("out/by-user").size());
    // with a policy of its own that names the same cluster
    ASSERT_EQ(0, chown(world_.policy_path().c_str(), 1, 1));
    for (std::vector<std::string> const& words :
         {std::vector<std::string>{"list", "db", "*"}, {"put", "db", file("other", 10)}}) {
        EXPECT_NE(0, tool(words, "daemon"));
        EXPECT_THAT(output(), HasSubstr("Permission denied"));
    }
}

TEST_F(xbsa_library, a_policy_of_another_user_is_not_read) {
    ASSERT_EQ(0, chown(world_.policy_path().c_str(), 0, 0));
    ASSERT_EQ(0, chmod(world_.policy_path().c_str(), 0640));
    EXPECT_NE(0, tool({"list", "db", "*"}));
    EXPECT_THAT(output(), HasSubstr("BSAInit: 0x4d policy 'nightly' cannot be used: Permission"));
}

/** The tool, started and left alone when it has sent half of a file. */
class Half_Sent {
public:
    explicit Half_Sent(std::string const& path) {
        int in[2], out[2];
        if (pipe2(in, O_CLOEXEC) == -1 || pipe2(out, O_CLOEXEC) == -1)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            execl(ZENBRAK3_XBSA_TOOL, ZENBRAK3_XBSA_TOOL, ZENBRAK3_XBSA_LIBRARY, Xbsa_World::POLICY,
                  "half", "db", path.c_str(), nullptr);
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        stdin_ = in[1];
        std::string line;
        for (char c = 0; read(out[0], &c, 1) == 1 && c != '\n';)
            line += c;
        EXPECT_EQ("half", line);
        close(out[0]);
    }
    void kill() {
        ::kill(pid_, SIGKILL);
        wait();
        close(stdin_);
    }
    void let_it_exit() {
        close(stdin_);
        wait();
    }

private:
    void wait() {
        int status = 0;
        waitpid(pid_, &status, 0);
    }
    pid_t pid_ = -1;
    int stdin_ = -1;
};

TEST_F(xbsa_library, a_process_killed_while_it_sends_leaves_nothing_to_be_seen) {
    Half_Sent sender(file("large", 4000000));
    EXPECT_EQ(1u, world_.files_in_pool());
    sender.kill();
    EXPECT_EQ("", list());
    EXPECT_TRUE(world_.data_files().empty());
    EXPECT_TRUE(world_.calls("catalog.add_piece").empty());
}

TEST_F(xbsa_library, a_process_that_exits_while_it_sends_leaves_nothing_at_all) {
    Half_Sent sender(file("large", 4000000));
    EXPECT_EQ(1u, world_.files_in_pool());
    sender.let_it_exit();
    EXPECT_EQ(0u, world_.files_in_pool());
}

TEST_F(xbsa_library, a_forked_child_ends_nothing_of_its_parent_s) {
    ASSERT_EQ(0, tool({"fork", "db", file("forked", 1000)})) << output();
    EXPECT_THAT(list(), HasSubstr("/forked 1000 "));
}

TEST_F(xbsa_library, the_process_stays_as_it_was_and_nothing_is_printed) {
    ASSERT_EQ(0, tool({"idle"})) << output();
    EXPECT_EQ("", output());
}

TEST_F(xbsa_library, log_lines_go_to_the_file_that_is_named_and_nowhere_else) {
    std::string const log = world_.files().path("out/xbsa.log");
    world_.pool()["read_only"] = true;
    world_.save_agent();
    EXPECT_NE(0, tool({"put", "db", file("one", 10)}));
    EXPECT_THAT(output(), HasSubstr("BSACreateObject: 0x4d pool 'the pool' is for restores only"));
    std::string const before = output();
    setenv("ZENBRAK3_XBSA_LOG", log.c_str(), 1);
    EXPECT_NE(0, tool({"put", "db", file("one", 10)}));
    unsetenv("ZENBRAK3_XBSA_LOG");
    EXPECT_EQ(before, output());
    EXPECT_THAT(world_.files().read("out/xbsa.log"),
                HasSubstr(" LM_ERROR BSACreateObject: pool 'the pool' is for restores only\n"));
    EXPECT_THAT(world_.files().read("out/xbsa.log"), Not(HasSubstr(Xbsa_World::KEY)));
}

TEST_F(xbsa_library, eight_processes_at_once_lose_nothing_and_count_together) {
    constexpr int PROCESSES = 8;
    constexpr size_t SIZE = 700000;
    Xbsa_Mem_Map_Handle counter;
    ASSERT_EQ(0, counter.open((world_.policy_path() + "_act").c_str(), USER));
    std::vector<std::unique_ptr<Server_Child>> children;
    for (int i = 0; i < PROCESSES; ++i) {
        std::string const name = "part-" + std::to_string(i);
        std::vector<std::string> const args{
            ZENBRAK3_XBSA_TOOL, ZENBRAK3_XBSA_LIBRARY,     Xbsa_World::POLICY, "put", "db",
            file(name, SIZE),   file(name + "-more", SIZE)};
        children.push_back(std::make_unique<Server_Child>(
            args, USER, world_.files().path(name + ".log"), SIGTERM));
    }
    for (auto const& child : children)
        while (child->running())
            usleep(1000);
    EXPECT_EQ(2 * PROCESSES * SIZE, counter->current_size);
    EXPECT_EQ(2 * PROCESSES * SIZE, counter->original_size);
    uint64_t stored = 0;
    for (std::string const& path : world_.data_files())
        stored += std::filesystem::file_size(path);
    EXPECT_EQ(stored, counter->storage_size);
    EXPECT_EQ(8u, world_.calls("catalog.add_piece").size());
    ASSERT_EQ(0, tool({"get", "db", "*part-*", world_.files().path("out")})) << output();
    for (int i = 0; i < PROCESSES; ++i)
        for (std::string const& name :
             {"part-" + std::to_string(i), "part-" + std::to_string(i) + "-more"})
            EXPECT_TRUE(world_.files().read(name) == world_.files().read("out/" + name)) << name;
    EXPECT_EQ(4 * PROCESSES * SIZE, counter->current_size);
}

} // namespace
