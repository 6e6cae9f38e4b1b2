#include "gaussdb/job/roach_progress_handler.h"

#include "host/job/job_event_handler.h"
#include "tests/support/fake_jobs.h"
#include "tests/support/log_capture.h"
#include "tests/unit/host/job/test_job.h"

#include <gtest/gtest.h>

namespace {

class Roach_Progress_Test : public testing::Test {
protected:
    /** The percentage that the job was told last; -1 before there was one. */
    int told() const { return job_->activity().progress; }
    void SetUp() override { job_->activity().progress = -1; }

    Fake_Jobs jobs_;
    Test_Job* const job_ = new Test_Job(make_definition());
    Job_var const holder_{job_, false};
    Job_Event_Handler events_{*job_};
};

TEST_F(Roach_Progress_Test, one_node_of_four_is_a_quarter) {
    Roach_Progress_Handler progress(4, &events_, 1);
    EXPECT_TRUE(progress.update(1, 100));
    EXPECT_EQ(25, told());
    for (int node : {2, 3, 4})
        EXPECT_TRUE(progress.update(node, 100));
    EXPECT_EQ(100, told());
}

TEST_F(Roach_Progress_Test, steps_that_are_done_count_whole) {
    Roach_Progress_Handler progress(4, &events_, 2);
    progress.next_step();
    EXPECT_TRUE(progress.update(1, 100));
    EXPECT_EQ(62, told());
}

TEST_F(Roach_Progress_Test, each_division_truncates_by_itself) {
    Roach_Progress_Handler progress(2, &events_, 3);
    progress.next_step();
    EXPECT_TRUE(progress.update(1, 5)); // 33.3 and 0.8 make 34.1 together
    EXPECT_EQ(33, told());
}

TEST_F(Roach_Progress_Test, a_total_of_the_only_step) {
    Roach_Progress_Handler progress(4, &events_, 1);
    EXPECT_TRUE(progress.update(40));
    EXPECT_EQ(40, told());
}

TEST_F(Roach_Progress_Test, a_total_is_divided_by_one_step_less) {
    Roach_Progress_Handler progress(4, &events_, 3);
    progress.next_step();
    EXPECT_TRUE(progress.update(40));
    EXPECT_EQ(70, told());
}

TEST_F(Roach_Progress_Test, a_total_leaves_the_nodes_alone) {
    Roach_Progress_Handler progress(2, &events_, 1);
    progress.update(1, 100);
    progress.update(10);
    progress.update(2, 100);
    EXPECT_EQ(100, told());
}

TEST_F(Roach_Progress_Test, a_nodes_later_percentage_takes_the_place_of_its_earlier_one) {
    Roach_Progress_Handler progress(2, &events_, 1);
    progress.update(2, 100);
    EXPECT_EQ(50, told());
    progress.update(2, 50);
    EXPECT_EQ(25, told());
}

TEST_F(Roach_Progress_Test, a_negative_node_lowers_the_sum) {
    Roach_Progress_Handler progress(1, &events_, 1);
    progress.update(2, 50);
    EXPECT_TRUE(progress.update(1, -5));
    EXPECT_EQ(45, told());
}

TEST_F(Roach_Progress_Test, a_new_step_knows_no_node) {
    Roach_Progress_Handler progress(2, &events_, 2);
    progress.update(1, 100);
    progress.next_step();
    progress.update(2, 100);
    EXPECT_EQ(75, told());
}

TEST_F(Roach_Progress_Test, more_than_all_is_refused_and_changes_nothing) {
    Roach_Progress_Handler progress(1, &events_, 1);
    progress.update(1, 30);
    EXPECT_FALSE(progress.update(1, 101));
    EXPECT_CHECK_LOGGED("progress(101) > 100");
    EXPECT_FALSE(progress.update(101));
    EXPECT_CHECK_LOGGED("progress(101) > 100");
    EXPECT_EQ(30, told());
    progress.update(2, 0);
    EXPECT_EQ(30, told());
}

TEST_F(Roach_Progress_Test, a_negative_total_is_refused) {
    Roach_Progress_Handler progress(1, &events_, 1);
    EXPECT_FALSE(progress.update(-1));
    EXPECT_CHECK_LOGGED("progress(-1) < 0");
    EXPECT_EQ(-1, told());
}

TEST_F(Roach_Progress_Test, without_a_job_nodes_are_kept_and_nothing_is_told) {
    Roach_Progress_Handler progress(4, nullptr, 1);
    EXPECT_TRUE(progress.update(1, 100));
    EXPECT_TRUE(progress.update(50));
    EXPECT_EQ(-1, told());
}

TEST_F(Roach_Progress_Test, no_nodes_and_no_steps_count_as_one) {
    Roach_Progress_Handler progress(0, &events_, 0);
    EXPECT_TRUE(progress.update(1, 60));
    EXPECT_EQ(60, told());
    EXPECT_TRUE(progress.update(70));
    EXPECT_EQ(70, told());
}

TEST_F(Roach_Progress_Test, more_nodes_than_were_told_of) {
    Roach_Progress_Handler progress(100, &events_, 1);
    for (int node = 1; node <= 1000; ++node)
        progress.update(node, 100);
    EXPECT_EQ(1000, told());
}

} // namespace
