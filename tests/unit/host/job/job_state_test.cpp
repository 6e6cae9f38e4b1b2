#include "host/job/job_state.h"

#include <gtest/gtest.h>
#include <set>
#include <string>

namespace {

TEST(Job_State, the_values_are_those_that_are_kept_on_disk) {
    Job_State const in_order[] = {JOB_STATE_NONE,        JOB_STATE_IDLE,
                                  JOB_STATE_STARTING,    JOB_STATE_RUNNING,
                                  JOB_STATE_PAUSING,     JOB_STATE_PAUSED,
                                  JOB_STATE_COMPLETING,  JOB_STATE_COMPLETED,
                                  JOB_STATE_CANCELING,   JOB_STATE_CANCELED,
                                  JOB_STATE_ERROR,       JOB_STATE_CREATED,
                                  JOB_STATE_UPDATED,     JOB_STATE_DELETING,
                                  JOB_STATE_DELETED,     JOB_STATE_COMPLETED_WITH_ERRORS,
                                  JOB_STATE_DISPATCHING, JOB_STATE_SKIPPED,
                                  JOB_STATE_EXPIRED,     JOB_STATE_DISABLED,
                                  JOB_STATE_ABORTING,    JOB_STATE_CREATING,
                                  JOB_STATE_SYNCING,     JOB_STATE_SWITCHING,
                                  JOB_STATE_ACTIVATING,  JOB_STATE_OPENING};
    int value = 0;
    for (Job_State state : in_order)
        EXPECT_EQ(value++, state);
    EXPECT_EQ(26, value);
}

TEST(Job_State, each_has_a_name_of_its_own) {
    std::set<std::string> names;
    for (int value = JOB_STATE_NONE; value <= JOB_STATE_OPENING; ++value)
        names.insert(job_state_to_string(static_cast<Job_State>(value)));
    EXPECT_EQ(26u, names.size());
    EXPECT_STREQ("canceling", job_state_to_string(JOB_STATE_CANCELING));
    EXPECT_STREQ("completed with errors", job_state_to_string(JOB_STATE_COMPLETED_WITH_ERRORS));
    EXPECT_STREQ("skipped", job_state_to_string(JOB_STATE_SKIPPED));
    EXPECT_STREQ("opening", job_state_to_string(JOB_STATE_OPENING));
}

TEST(Job_State, a_number_that_is_no_state_is_unknown) {
    for (int value : {-1, 26, 1000}) {
        EXPECT_STREQ("unknown", job_state_to_string(static_cast<Job_State>(value)));
        EXPECT_FALSE(is_run_state(static_cast<Job_State>(value)));
    }
}

TEST(Job_State, a_run_is_on_in_its_own_states_only) {
    std::set<int> run;
    for (int value = JOB_STATE_NONE; value <= JOB_STATE_OPENING; ++value)
        if (is_run_state(static_cast<Job_State>(value)))
            run.insert(value);
    EXPECT_EQ((std::set<int>{JOB_STATE_STARTING, JOB_STATE_RUNNING, JOB_STATE_PAUSING,
                             JOB_STATE_PAUSED, JOB_STATE_COMPLETING, JOB_STATE_CANCELING,
                             JOB_STATE_DISPATCHING, JOB_STATE_ABORTING, JOB_STATE_SYNCING,
                             JOB_STATE_SWITCHING, JOB_STATE_ACTIVATING, JOB_STATE_OPENING}),
              run);
}

TEST(Job_State, a_cancel_has_three_states) {
    std::set<int> cancel;
    for (int value = JOB_STATE_NONE; value <= JOB_STATE_OPENING; ++value)
        if (is_cancel_state(static_cast<Job_State>(value)))
            cancel.insert(value);
    EXPECT_EQ((std::set<int>{JOB_STATE_CANCELING, JOB_STATE_CANCELED, JOB_STATE_ABORTING}), cancel);
}

} // namespace
