#include "gaussdb/job/gaussdb_restore_job_options.h"

#include "tests/support/log_capture.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"
#include "tests/unit/gaussdb/job/random_definitions.h"

#include <gtest/gtest.h>

namespace {

using Options = GaussDB_Restore_Job_Options;

TEST(GaussDB_Restore_Job_Options, the_defaults) {
    EXPECT_EQ(std::make_tuple(0, 0, 0, 0, 0u, false, "", "", ""), fields(Options()));
}

TEST(GaussDB_Restore_Job_Options, defaults_write_exactly_two_empty_strings) {
    Options options;
    EXPECT_EQ(R"({"xml_config_path":"","restore_time":""})", generated(options));
}

TEST(GaussDB_Restore_Job_Options, everything_is_written_in_this_order) {
    Options options;
    options.channels_ = 1;
    options.max_memory_usage_ = 2;
    options.buffer_size_ = 3;
    options.buffer_block_size_ = 4;
    options.mount_ = true;
    options.xml_config_path_ = "/x";
    options.master_timeout_ = 5;
    options.logging_level_ = "INFO";
    options.restore_time_ = "2026";
    EXPECT_EQ(R"({"channels":1,"max_memory_usage":2,"buffer_size":3,"buffer_block_size":4,)"
              R"("mount":true,"xml_config_path":"/x","master_timeout":5,"logging_level":"INFO",)"
              R"("restore_time":"2026"})",
              generated(options));
}

TEST(GaussDB_Restore_Job_Options, a_null_generator_is_refused) {
    EXPECT_EQ(-1, Options().generate(nullptr));
    EXPECT_CHECK_LOGGED("generator is NULL");
}

TEST(GaussDB_Restore_Job_Options, a_generator_that_takes_no_more_gives_a_failure) {
    YAJL_Gen gen;
    EXPECT_EQ(0, Options().generate(gen.get()));
    EXPECT_EQ(-1, Options().generate(gen.get()));
}

TEST(GaussDB_Restore_Job_Options, what_is_generated_parses_to_the_same) {
    Random_Definitions random(2);
    for (int round = 0; round < 5000; ++round) {
        Options options = random.restore_options();
        Parse<Restore_Options> const parsed(generated(options));
        ASSERT_TRUE(parsed.ok) << generated(options) << parsed.error();
        ASSERT_EQ(fields(options), fields(parsed.object()));
    }
}

} // namespace
