#include "xbsa/library/xbsa_counter.h"

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

class Xbsa_Counter_Test : public testing::Test {
protected:
    Temporary_Directory files_;
    std::string path_ = files_.path("policy_act");
};

TEST_F(Xbsa_Counter_Test, without_a_file_nothing_is_counted_and_none_is_made) {
    Xbsa_Counter counter(path_);
    counter.add_current(5);
    counter.add_object(5, 3);
    EXPECT_FALSE(files_.exists("policy_act"));
}

TEST_F(Xbsa_Counter_Test, what_is_counted_the_job_sees) {
    Xbsa_Mem_Map_Handle job;
    ASSERT_EQ(0, job.open(path_.c_str(), nullptr));
    Xbsa_Counter counter(path_);
    counter.add_current(5);
    counter.add_current(6);
    counter.add_object(11, 3);
    EXPECT_EQ(11u, job->current_size);
    EXPECT_EQ(11u, job->original_size);
    EXPECT_EQ(3u, job->storage_size);
}

TEST_F(Xbsa_Counter_Test, counts_go_on_from_where_they_stand) {
    Xbsa_Mem_Map_Handle job;
    ASSERT_EQ(0, job.open(path_.c_str(), nullptr));
    job->current_size = 100;
    Xbsa_Counter(path_).add_current(1);
    EXPECT_EQ(101u, job->current_size);
}

TEST_F(Xbsa_Counter_Test, many_writers_lose_no_count) {
    constexpr int WRITERS = 4;
    constexpr int STEPS = 20000;
    Xbsa_Mem_Map_Handle job;
    ASSERT_EQ(0, job.open(path_.c_str(), nullptr));
    std::vector<std::thread> threads;
    for (int i = 0; i < WRITERS; ++i)
        threads.emplace_back([&] {
            Xbsa_Counter counter(path_);
            for (int step = 0; step < STEPS; ++step)
                counter.add_current(1);
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(static_cast<uint64_t>(WRITERS) * STEPS, job->current_size);
}

TEST_F(Xbsa_Counter_Test, a_file_that_is_truncated_meanwhile_is_counted_in_no_more) {
    Xbsa_Mem_Map_Handle job;
    ASSERT_EQ(0, job.open(path_.c_str(), nullptr));
    Xbsa_Counter counter(path_);
    counter.add_current(5);
    ASSERT_EQ(0, truncate(path_.c_str(), 0));
    counter.add_current(5);
    counter.add_object(5, 3);
    EXPECT_EQ("", files_.read("policy_act"));
    ASSERT_EQ(0, unlink(path_.c_str()));
    counter.add_current(5);
    EXPECT_FALSE(files_.exists("policy_act"));
}

TEST_F(Xbsa_Counter_Test, a_file_of_another_user_is_left_alone) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    Xbsa_Mem_Map_Handle job;
    ASSERT_EQ(0, job.open(path_.c_str(), "daemon"));
    Xbsa_Counter(path_).add_current(5);
    EXPECT_EQ(0u, job->current_size);
}

TEST_F(Xbsa_Counter_Test, a_file_that_is_none_is_left_alone) {
    // a mapping of too short a file would end the process
    for (std::string const& content :
         {std::string(), std::string(10, 'x'), std::string(5000, 'x')}) {
        files_.write("policy_act", content);
        Xbsa_Counter(path_).add_current(1);
        EXPECT_EQ(content, files_.read("policy_act"));
    }
    std::filesystem::remove(path_);
    std::string const target = files_.write("target", std::string(4096, '\0'));
    std::filesystem::create_symlink(target, path_);
    Xbsa_Counter(path_).add_current(1);
    EXPECT_EQ(std::string(4096, '\0'), files_.read("target"));
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
    Xbsa_Counter(path_).add_current(1);
    std::filesystem::remove(path_);
    ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
    Xbsa_Counter(path_).add_current(1);
}

} // namespace
