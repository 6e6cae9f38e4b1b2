#include "host/job/job_activity.h"

#include "tests/support/temporary_directory.h"

#include <cstddef>
#include <gtest/gtest.h>

namespace {

// offsetof is only sure for a standard layout, which the header asserts
TEST(Job_Activity, the_layout_is_the_one_of_the_files) {
    EXPECT_EQ(0u, offsetof(Job_Activity, magic));
    EXPECT_EQ(4u, offsetof(Job_Activity, version));
    EXPECT_EQ(8u, offsetof(Job_Activity, id));
    EXPECT_EQ(24u, offsetof(Job_Activity, def_id));
    EXPECT_EQ(40u, offsetof(Job_Activity, uid));
    EXPECT_EQ(56u, offsetof(Job_Activity, type));
    EXPECT_EQ(60u, offsetof(Job_Activity, enabled));
    EXPECT_EQ(64u, offsetof(Job_Activity, state));
    EXPECT_EQ(72u, offsetof(Job_Activity, last_run_time));
    EXPECT_EQ(80u, offsetof(Job_Activity, next_run_time));
    EXPECT_EQ(88u, offsetof(Job_Activity, start_time));
    EXPECT_EQ(96u, offsetof(Job_Activity, size));
    EXPECT_EQ(104u, offsetof(Job_Activity, set_size));
    EXPECT_EQ(112u, offsetof(Job_Activity, set_storage_size));
    EXPECT_EQ(120u, offsetof(Job_Activity, progress));
    EXPECT_EQ(128u, offsetof(Job_Activity, processed_size));
    EXPECT_EQ(136u, offsetof(Job_Activity, speed));
    EXPECT_EQ(144u, offsetof(Job_Activity, code));
    EXPECT_EQ(148u, offsetof(Job_Activity, message));
    EXPECT_EQ(152u, sizeof(Job_Activity));
}

TEST(Job_Activity, two_maps_of_a_file_see_one_record) {
    Temporary_Directory const files;
    std::string const path = files.path("job");
    Job_Activity_Handle writer;
    Job_Activity_Handle reader;
    ASSERT_EQ(0, writer.open_i(path.c_str(), O_RDWR | O_CREAT));
    ASSERT_EQ(0, reader.open_i(path.c_str(), O_RDWR));
    writer->state = JOB_STATE_RUNNING;
    writer->progress = 40;
    EXPECT_EQ(JOB_STATE_RUNNING, reader->state);
    EXPECT_EQ(40, reader->progress);
    EXPECT_EQ(JOB_ACTIVITY_SIZE, files.read("job").size());
}

TEST(Job_Activity, files_lie_in_the_agents_own_directory) {
    EXPECT_EQ("/var/opt/quilmot/zenbrak3/agent/jobs/x", Job_Activity_Handle::path_of("x"));
}

} // namespace
