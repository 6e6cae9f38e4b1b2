#include "host/job/job_creator.h"

#include "tests/unit/host/job/test_job.h"

#include <gtest/gtest.h>

namespace {

class Local_Creator : public Job_Creator {
public:
    Job_var create(Job_Definition_var definition) override {
        return Job_var(definition.null() ? nullptr : new Test_Job(definition), false);
    }
};

TEST(Job_Creator, init_and_fini_succeed_unless_overridden) {
    Local_Creator creator;
    EXPECT_EQ(0, creator.init(0, nullptr));
    EXPECT_EQ(0, creator.fini());
}

TEST(Job_Creator, a_created_job_has_one_reference_the_holders) {
    Local_Creator creator;
    bool destroyed = false;
    {
        Job_var const job = creator.create(make_definition());
        static_cast<Test_Job*>(job.get())->destroyed = &destroyed;
    }
    EXPECT_TRUE(destroyed);
    EXPECT_FALSE(creator.create(Job_Definition_var()));
}

} // namespace
