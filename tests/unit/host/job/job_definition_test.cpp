#include "host/job/job_definition.h"

#include <gtest/gtest.h>

namespace {

TEST(Job_Definition, a_new_one_asks_for_nothing) {
    Job_Definition const definition;
    EXPECT_EQ(JOB_DEFINITION_NONE, definition.type());
    EXPECT_EQ(JOB_DEFINITION_SUBTYPE_NONE, definition.subtype());
    EXPECT_EQ(-1, definition.max_seconds_retry());
    EXPECT_EQ(0u, definition.resumption_buffer_size());
    EXPECT_FALSE(definition.rate_limits());
    EXPECT_TRUE(definition.schedule().null());
    EXPECT_TRUE(definition.source().null());
    EXPECT_TRUE(definition.options().null());
    EXPECT_EQ("", definition.precondition() + definition.pre_action() + definition.post_action());
    EXPECT_FALSE(definition.ignore_pre_action_failure());
    EXPECT_FALSE(definition.ignore_post_action_failure());
    EXPECT_FALSE(definition.run_post_action_always());
}

TEST(Job_Definition, each_setter_sets_its_own_value) {
    Job_Definition definition;
    definition.type(JOB_DEFINITION_RESTORE);
    definition.subtype(JOB_DEFINITION_SUBTYPE_TABLE);
    definition.id("id");
    definition.uid("uid");
    definition.name("name");
    definition.host_id("host");
    definition.agent("agent");
    definition.max_seconds_retry(60);
    definition.resumption_buffer_size(4096);
    definition.schedule(Job_Schedule_var(new Job_Schedule(Job_Schedule::TYPE_ONDEMAND)));
    definition.precondition("pre");
    definition.pre_action("before");
    definition.post_action("after");
    definition.ignore_pre_action_failure(true);
    EXPECT_FALSE(definition.ignore_post_action_failure() || definition.run_post_action_always());
    definition.ignore_post_action_failure(true);
    EXPECT_FALSE(definition.run_post_action_always());
    definition.run_post_action_always(true);
    EXPECT_EQ(JOB_DEFINITION_RESTORE, definition.type());
    EXPECT_EQ(JOB_DEFINITION_SUBTYPE_TABLE, definition.subtype());
    EXPECT_EQ("id uid name host agent", definition.id() + " " + definition.uid() + " " +
                                            definition.name() + " " + definition.host_id() + " " +
                                            definition.agent());
    EXPECT_EQ(60, definition.max_seconds_retry());
    EXPECT_EQ(4096u, definition.resumption_buffer_size());
    EXPECT_EQ(7, definition.schedule()->type());
    EXPECT_EQ("pre before after", definition.precondition() + " " + definition.pre_action() + " " +
                                      definition.post_action());
    EXPECT_TRUE(definition.ignore_pre_action_failure() && definition.run_post_action_always());
}

TEST(Job_Definition, schedule_types_have_their_values) {
    EXPECT_EQ(0, Job_Schedule::TYPE_NONE);
    EXPECT_EQ(1, Job_Schedule::TYPE_ONCE);
    EXPECT_EQ(5, Job_Schedule::TYPE_MONTHLY);
    EXPECT_EQ(7, Job_Schedule::TYPE_ONDEMAND);
}

TEST(Job_Target, each_setter_sets_its_own_value) {
    Job_Target target;
    target.id("id");
    target.name("name");
    target.location("location");
    target.username("user");
    target.password(secure_string("password"));
    target.device_id("device");
    target.scan_initiators({"one", "two"});
    Job_Definition definition;
    definition.target(target);
    Job_Target const& kept = definition.target();
    EXPECT_EQ("id name location user device", kept.id() + " " + kept.name() + " " +
                                                  kept.location() + " " + kept.username() + " " +
                                                  kept.device_id());
    EXPECT_EQ("password", kept.password().plain());
    EXPECT_EQ(2u, kept.scan_initiators().size());
}

} // namespace
