#include "gaussdb/job/roach_line_handler.h"

#include "gaussdb/job/roach_progress_handler.h"
#include "host/job/job_event_handler.h"
#include "tests/support/fake_jobs.h"
#include "tests/support/log_capture.h"
#include "tests/unit/host/job/test_job.h"

#include <gtest/gtest.h>

namespace {

class Roach_Line_Test : public testing::Test {
protected:
    void SetUp() override { job_->activity().progress = -1; }
    int told() const { return job_->activity().progress; }
    void line(std::string const& text) {
        EXPECT_EQ(0, lines_.handle_stdout_line(text.c_str(), text.size()));
    }

    Fake_Jobs jobs_;
    Test_Job* const job_ = new Test_Job(make_definition());
    Job_var const holder_{job_, false};
    Job_Event_Handler events_{*job_};
    Roach_Progress_Handler progress_{1, &events_, 3};
    std::string key_;
    Roach_Line_Handler lines_{&key_, &progress_};
};

TEST_F(Roach_Line_Test, a_key_on_a_plain_line) {
    line("[2024] Backup key: 20240101_120000 done");
    EXPECT_EQ("20240101_120000", key_);
    EXPECT_LOGGED(LM_INFO, "[2024] Backup key: 20240101_120000 done");
}

TEST_F(Roach_Line_Test, a_key_without_an_underscore_is_none) {
    line("Backup key: 20240101");
    EXPECT_EQ("", key_);
}

TEST_F(Roach_Line_Test, a_key_in_lower_case) {
    line("backup key: 1_2");
    EXPECT_EQ("1_2", key_);
    line("BACKUP KEY: 3_4");
    EXPECT_EQ("1_2", key_);
}

TEST_F(Roach_Line_Test, of_several_keys_the_last_counts) {
    line("Backup key: 1_2");
    line("backup key: 3_4");
    line("Backup key: 5_6 backup key: 7_8"); // the second spelling is looked for last
    EXPECT_EQ("7_8", key_);
}

TEST_F(Roach_Line_Test, a_key_behind_an_escape) {
    line("\x1B[0mBackup key: 1_2");
    EXPECT_EQ("1_2", key_);
}

TEST_F(Roach_Line_Test, without_a_job_lines_are_logged_and_keys_found) {
    Roach_Line_Handler lines(&key_, nullptr);
    std::string const text = "\x1B[1AN1: 50.00% backup key: 1_2";
    lines.handle_stdout_line(text.c_str(), text.size());
    EXPECT_LOGGED(LM_INFO, " N1: 50.00% backup key: 1_2");
    EXPECT_EQ("1_2", key_);
    EXPECT_EQ(-1, told());
}

TEST_F(Roach_Line_Test, without_a_place_for_it_a_key_is_passed_over) {
    Roach_Line_Handler lines(nullptr, nullptr);
    EXPECT_EQ(0, lines.handle_stdout_line("backup key: 1_2", 15));
    EXPECT_EQ("", key_);
}

TEST_F(Roach_Line_Test, progress_of_a_node_without_its_fraction) {
    Roach_Progress_Handler progress(2, &events_, 1);
    Roach_Line_Handler lines(nullptr, &progress);
    std::string const text = "\x1B[2KN3 dn_6001_6002 : 50.25%";
    lines.handle_stdout_line(text.c_str(), text.size());
    EXPECT_EQ(25, told());
}

TEST_F(Roach_Line_Test, progress_on_a_plain_line_is_only_logged) {
    line("N3: 50.25%");
    line("Restore SUCCESSFUL");
    line("Current progress: 50.0%");
    EXPECT_EQ(-1, told());
    line("\x1B[0mCurrent progress: 20.0%"); // no step was counted either
    EXPECT_EQ(10, told());
}

TEST_F(Roach_Line_Test, a_restore_that_is_done_is_a_step) {
    line("\x1B[0mRestore SUCCESSFUL");
    line("\x1B[0mCurrent progress:  20.17%");
    EXPECT_EQ(60, told());
}

TEST_F(Roach_Line_Test, a_total_of_more_than_all_is_dropped_in_silence) {
    line("\x1B[0mCurrent progress: 101.0%");
    line("\x1B[0mCurrent progress: 99999999999999999999.0%");
    EXPECT_EQ(-1, told());
}

TEST_F(Roach_Line_Test, a_node_of_more_than_all_is_refused_with_a_line) {
    line("\x1B[0mN1: 101.00%");
    EXPECT_CHECK_LOGGED("progress(101) > 100");
    line("\x1B[0mN99999999999999999999: 99999999999999999999%");
    EXPECT_CHECK_LOGGED("progress(2147483647) > 100");
    EXPECT_EQ(-1, told());
}

TEST_F(Roach_Line_Test, control_sequences_become_blanks_in_the_log) {
    line("\x1B[1;31mred\x1B[0m \x1BM up\rback");
    EXPECT_LOGGED(LM_INFO, " red    up back");
}

TEST_F(Roach_Line_Test, a_line_that_begins_otherwise_is_logged_as_it_stands) {
    line("plain \x1B[1mbold");
    EXPECT_LOGGED(LM_INFO, "plain \x1B[1mbold");
}

TEST_F(Roach_Line_Test, a_control_sequence_that_is_cut_stays) {
    line("\x1B[1;3");
    line("1mN1: 30.00%");
    EXPECT_LOGGED(LM_INFO, "\x1B[1;3");
    EXPECT_EQ(-1, told());
}

TEST_F(Roach_Line_Test, what_is_no_line_is_passed_over) {
    EXPECT_EQ(0, lines_.handle_stdout_line(nullptr, 5));
    EXPECT_EQ(0, lines_.handle_stdout_line("", 0));
    EXPECT_EQ(0, lines_.handle_stdout_line("Backup key: 1_2", 0));
    line(std::string("\0Backup key: 1_2", 16));
    lines_.log_roach_line(nullptr, 1);
    EXPECT_EQ("", key_);
    EXPECT_EQ("", Log_Capture::instance().dump());
}

TEST_F(Roach_Line_Test, noise_changes_nothing) {
    for (int number = 0; number < 100000; ++number) {
        std::string const text =
            (number % 2 ? "\x1B[" : "x") + std::to_string(number) + " % N: key";
        lines_.handle_stdout_line(text.c_str(), text.size());
    }
    EXPECT_EQ("", key_);
    EXPECT_EQ(-1, told());
    Log_Capture::instance().clear();
}

TEST_F(Roach_Line_Test, a_megabyte_that_costs_a_pattern_too_much_is_survived) {
    line("\x1B" + std::string(1 << 20, 'N') + "1" + std::string(1 << 20, '1'));
    EXPECT_EQ(-1, told());
    Log_Capture::instance().claim_all(LM_WARNING, "Failed to match a line");
}

} // namespace
