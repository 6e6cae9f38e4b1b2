#include "host/job/job_mutex.h"

#include <ace/Guard_T.h>

#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <vector>

namespace {

TEST(Job_Mutex, a_key_has_one_mutex_for_ever_and_other_keys_have_others) {
    ACE_Thread_Mutex& first = Job_Mutex::get("resource");
    EXPECT_EQ(&first, &Job_Mutex::get(std::string("resource")));
    EXPECT_NE(&first, &Job_Mutex::get("Resource"));
    EXPECT_NE(&first, &Job_Mutex::get(std::string("resource\0", 9)));
    EXPECT_NE(&first, &Job_Mutex::get(""));
    EXPECT_EQ(&Job_Mutex::get(""), &Job_Mutex::get(""));
}

TEST(Job_Mutex, the_mutex_stays_where_it_is_while_others_come) {
    ACE_Thread_Mutex& first = Job_Mutex::get("stays");
    ACE_Guard<ACE_Thread_Mutex> const guard(first);
    for (int key = 0; key < 1000; ++key)
        Job_Mutex::get(std::to_string(key));
    EXPECT_EQ(&first, &Job_Mutex::get("stays"));
    EXPECT_EQ(-1, Job_Mutex::get("stays").tryacquire());
}

TEST(Job_Mutex, threads_get_the_same_one) {
    std::vector<ACE_Thread_Mutex*> found(4);
    std::vector<std::thread> threads;
    for (ACE_Thread_Mutex*& slot : found)
        threads.emplace_back([&slot] {
            for (int key = 0; key < 100; ++key)
                slot = &Job_Mutex::get("shared " + std::to_string(key));
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(1u, std::set<ACE_Thread_Mutex*>(found.begin(), found.end()).size());
}

TEST(Job_Mutex, no_time_stamp_is_given_twice) {
    time_t const before = time(nullptr);
    std::set<time_t> stamps;
    for (int count = 0; count < 5; ++count)
        stamps.insert(Job_Mutex::get_timestamp());
    EXPECT_EQ(5u, stamps.size());
    EXPECT_GE(*stamps.begin(), before);
}

TEST(Unique_Seconds, follow_the_clock) {
    time_t now = 100;
    Unique_Seconds seconds([&] { return now; });
    EXPECT_EQ(100, seconds.next());
    now = 200;
    EXPECT_EQ(200, seconds.next());
}

TEST(Unique_Seconds, step_ahead_within_one_second_and_let_the_clock_catch_up) {
    time_t now = 100;
    Unique_Seconds seconds([&] { return now; });
    EXPECT_EQ(100, seconds.next());
    EXPECT_EQ(101, seconds.next());
    EXPECT_EQ(102, seconds.next());
    now = 101;
    EXPECT_EQ(103, seconds.next());
    now = 110;
    EXPECT_EQ(110, seconds.next());
}

TEST(Unique_Seconds, a_clock_that_was_set_back_repeats_nothing) {
    time_t now = 1000;
    Unique_Seconds seconds([&] { return now; });
    EXPECT_EQ(1000, seconds.next());
    now = 10;
    EXPECT_EQ(1001, seconds.next());
    EXPECT_EQ(1002, seconds.next());
}

TEST(Unique_Seconds, threads_never_get_the_same_one) {
    Unique_Seconds seconds([] { return time_t{7}; });
    std::vector<std::set<time_t>> found(4);
    std::vector<std::thread> threads;
    for (std::set<time_t>& slot : found)
        threads.emplace_back([&] {
            for (int count = 0; count < 250; ++count)
                slot.insert(seconds.next());
        });
    for (std::thread& thread : threads)
        thread.join();
    std::set<time_t> all;
    for (std::set<time_t> const& slot : found)
        all.insert(slot.begin(), slot.end());
    EXPECT_EQ(1000u, all.size());
}

} // namespace
