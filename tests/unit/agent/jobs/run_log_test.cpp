#include "agent/jobs/run_log.h"

#include "qmrt/log.h"
#include "tests/support/log_capture.h"
#include "tests/support/own_thread.h"
#include "tests/support/temporary_directory.h"

#include <ace/Log_Record.h>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

constexpr char RUN[] = "11111111-2222-4333-8444-555555555555";
constexpr char OTHER[] = "99999999-2222-4333-8444-555555555555";

class Run_Log_Test : public testing::Test {
protected:
    static void add(Run_Log& log, std::string const& text, ACE_Log_Priority priority = LM_INFO) {
        ACE_Log_Record record(priority, ACE_Time_Value(1795314600), 1);
        record.msg_data(text.c_str());
        log.log(record);
    }
    std::string content(char const* run = RUN) {
        return directory_.read(std::string("logs/") + run + ".log");
    }
    Run_Log_Piece read(uint64_t offset, uint64_t limit = 1 << 20) {
        Run_Log_Piece piece;
        EXPECT_TRUE(logs_.read(RUN, offset, limit, piece));
        EXPECT_EQ(offset, piece.offset);
        return piece;
    }

    Temporary_Directory const directory_;
    Run_Logs logs_{directory_.path("logs"), 1000};
};

TEST_F(Run_Log_Test, a_line_has_time_priority_and_text) {
    auto const log = logs_.open(RUN);
    add(*log, "hello\n");
    add(*log, "no line end", LM_ERROR);
    EXPECT_EQ("2026-11-22T02:30:00Z INFO hello\n2026-11-22T02:30:00Z ERROR no line end\n",
              content());
}

TEST_F(Run_Log_Test, only_the_agents_user_can_read_it) {
    auto const log = logs_.open(RUN);
    struct stat status {};
    ASSERT_EQ(0, stat(logs_.path_of(RUN).c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 07777);
    ASSERT_EQ(0, stat(directory_.path("logs").c_str(), &status));
    EXPECT_EQ(0700u, status.st_mode & 07777);
}

TEST_F(Run_Log_Test, all_who_hold_it_hold_the_same) {
    auto const log = logs_.open(RUN);
    EXPECT_EQ(log, logs_.open(RUN));
    EXPECT_NE(log, logs_.open(OTHER));
}

TEST_F(Run_Log_Test, a_log_that_is_opened_again_goes_on) {
    add(*logs_.open(RUN), "one");
    add(*logs_.open(RUN), "two");
    EXPECT_EQ("2026-11-22T02:30:00Z INFO one\n2026-11-22T02:30:00Z INFO two\n", content());
}

TEST_F(Run_Log_Test, it_ends_at_its_limit_with_a_line_that_says_so) {
    auto const log = logs_.open(RUN);
    for (int line = 0; line < 100; ++line)
        add(*log, "twenty bytes of text");
    std::string const text = content();
    EXPECT_LT(text.size(), 1100u);
    std::string const last = "The rest of the log is cut: it is longer than 1000 bytes\n";
    EXPECT_EQ(last, text.substr(text.size() - last.size()));
    EXPECT_EQ(text.find(last), text.rfind(last));
}

TEST_F(Run_Log_Test, a_log_that_was_cut_stays_cut_when_it_is_opened_again) {
    for (int line = 0; line < 100; ++line)
        add(*logs_.open(RUN), "twenty bytes of text");
    std::string const text = content();
    EXPECT_EQ(text.find("is cut"), text.rfind("is cut"));
}

TEST_F(Run_Log_Test, one_huge_line_is_cut_whole) {
    add(*logs_.open(RUN), std::string(1 << 20, 'x'));
    EXPECT_EQ("The rest of the log is cut: it is longer than 1000 bytes\n", content());
}

TEST_F(Run_Log_Test, a_full_disk_is_told_once_and_disturbs_nobody) {
    auto const log = logs_.open(RUN);
    on_own_thread([&] {
        ASSERT_TRUE(deny_writes(40, ENOSPC));
        for (int line = 0; line < 5; ++line)
            add(*log, "a line that is long enough to be denied");
    });
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, "No space left on device"));
    EXPECT_EQ("", content());
}

TEST_F(Run_Log_Test, telling_of_a_full_disk_through_the_same_log_comes_to_an_end) {
    auto const log = logs_.open(RUN);
    on_own_thread([&] {
        ACE_LOG_MSG->msg_callback(log.get());
        ASSERT_TRUE(deny_writes(40, ENOSPC));
        QMRT_LOG(LM_INFO, "a line that is long enough to be denied\n");
        QMRT_LOG(LM_INFO, "and another one that is long enough for it\n");
        ACE_LOG_MSG->msg_callback(nullptr);
    });
    EXPECT_LOGGED(LM_ERROR, "Cannot write the job log");
}

TEST_F(Run_Log_Test, a_directory_that_cannot_be_made_is_told_and_disturbs_nobody) {
    directory_.write("logs", "a file in the way");
    auto const log = logs_.open(RUN);
    ASSERT_TRUE(log);
    add(*log, "lost");
    EXPECT_LOGGED(LM_ERROR, "Cannot make the job log");
}

TEST_F(Run_Log_Test, a_link_in_the_way_is_not_followed) {
    std::string const target = directory_.write("precious", "data");
    std::filesystem::create_directory(directory_.path("logs"));
    std::filesystem::create_symlink(target, logs_.path_of(RUN));
    add(*logs_.open(RUN), "lost");
    EXPECT_EQ("data", directory_.read("precious"));
    EXPECT_LOGGED(LM_ERROR, "Cannot make the job log");
    Run_Log_Piece piece;
    EXPECT_FALSE(logs_.read(RUN, 0, 100, piece));
    EXPECT_LOGGED(LM_ERROR, "Cannot read the job log");
}

TEST_F(Run_Log_Test, lines_of_many_threads_stay_whole) {
    Run_Logs logs(directory_.path("many"));
    auto const log = logs.open(RUN);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread)
        threads.emplace_back([&] {
            for (int line = 0; line < 200; ++line)
                add(*log, "a whole line\n");
        });
    for (std::thread& thread : threads)
        thread.join();
    std::string expected;
    for (int line = 0; line < 800; ++line)
        expected += "2026-11-22T02:30:00Z INFO a whole line\n";
    EXPECT_EQ(expected, directory_.read(std::string("many/") + RUN + ".log"));
}

TEST_F(Run_Log_Test, is_read_piece_by_piece_in_whole_lines) {
    directory_.write(std::string("logs/") + RUN + ".log", "one\ntwo\nthree\n");
    Run_Log_Piece piece = read(0, 9);
    EXPECT_EQ("one\ntwo\n", piece.text);
    EXPECT_EQ(8u, piece.next_offset);
    piece = read(8, 9);
    EXPECT_EQ("three\n", piece.text);
    piece = read(14);
    EXPECT_EQ("", piece.text);
    EXPECT_EQ(14u, piece.next_offset);
}

TEST_F(Run_Log_Test, a_line_longer_than_a_piece_is_read_in_whole_characters) {
    directory_.write(std::string("logs/") + RUN + ".log", "a\u00e4\u20acz");
    EXPECT_EQ("a\u00e4", read(0, 4).text);
    EXPECT_EQ("\u20acz", read(3, 5).text);
    EXPECT_EQ("a\u00e4", read(0, 0).text) << "a limit that is too small to get on with";
}

TEST_F(Run_Log_Test, what_is_no_UTF8_is_read_to_the_end_as_well) {
    std::string const junk(10, '\xbf');
    directory_.write(std::string("logs/") + RUN + ".log", junk + "\xff");
    std::string all;
    for (Run_Log_Piece piece = read(0, 4); !piece.text.empty(); piece = read(piece.next_offset, 4))
        all += piece.text;
    EXPECT_EQ(junk + "\xff", all);
}

TEST_F(Run_Log_Test, a_log_that_is_not_there_or_ended_long_before_is_empty) {
    EXPECT_EQ("", read(0).text);
    directory_.write(std::string("logs/") + RUN + ".log", "one\n");
    EXPECT_EQ("", read(~uint64_t{0}).text);
}

TEST_F(Run_Log_Test, logs_without_a_run_are_deleted_and_other_files_stay) {
    logs_.open(RUN);
    logs_.open(OTHER);
    directory_.write("logs/notes.txt", "mine");
    logs_.keep_only({RUN});
    EXPECT_TRUE(directory_.exists(std::string("logs/") + RUN + ".log"));
    EXPECT_FALSE(directory_.exists(std::string("logs/") + OTHER + ".log"));
    EXPECT_TRUE(directory_.exists("logs/notes.txt"));
    logs_.remove(RUN);
    logs_.remove(RUN);
    EXPECT_FALSE(directory_.exists(std::string("logs/") + RUN + ".log"));
}

} // namespace
