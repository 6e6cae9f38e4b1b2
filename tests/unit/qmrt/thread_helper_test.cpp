#include "qmrt/thread_helper.h"

#include <future>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

namespace {

constexpr long JOINABLE = THR_NEW_LWP | THR_JOINABLE | THR_INHERIT_SCHED;
constexpr long DETACHED = THR_NEW_LWP | THR_DETACHED | THR_INHERIT_SCHED;

struct Worker {
    void run() {
        tid = ACE_OS::thr_self();
        go.get_future().wait();
        done.set_value();
    }
    std::promise<void> go;
    std::promise<void> done;
    std::atomic<ACE_thread_t> tid{};
};

TEST(Thread_Helper, the_flags_have_the_known_values) {
    EXPECT_EQ(0x410002, JOINABLE);
    EXPECT_EQ(0x400042, DETACHED);
}

TEST(Thread_Helper, runs_a_member_function_on_another_thread) {
    Worker worker;
    Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
    EXPECT_FALSE(helper.exists());
    EXPECT_FALSE(helper.running());
    ASSERT_NE(-1, helper.spawn(&Worker::run, &worker));
    EXPECT_TRUE(helper.exists());
    EXPECT_TRUE(helper.running());
    worker.go.set_value();
    helper.join();
    EXPECT_FALSE(helper.exists());
    EXPECT_FALSE(helper.running());
    EXPECT_NE(ACE_OS::thr_self(), worker.tid);
    worker.done.get_future().get();
}

TEST(Thread_Helper, a_second_spawn_is_refused_until_join_even_after_the_thread_has_ended) {
    Worker first;
    Worker second;
    Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
    ASSERT_NE(-1, helper.spawn(&Worker::run, &first));
    ACE_thread_t const tid = helper.tid();
    EXPECT_EQ(-1, helper.spawn(&Worker::run, &second));
    first.go.set_value();
    first.done.get_future().get();
    while (helper.running())
        std::this_thread::yield();
    EXPECT_EQ(-1, helper.spawn(&Worker::run, &second));
    EXPECT_EQ(tid, helper.tid());
    helper.join();
    second.go.set_value();
    EXPECT_NE(-1, helper.spawn(&Worker::run, &second));
    helper.join();
    second.done.get_future().get();
}

TEST(Thread_Helper, the_destructor_waits_for_a_joinable_thread) {
    std::atomic<bool> ended = false;
    {
        Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
        helper.spawn([&] {
            std::this_thread::yield();
            ended = true;
        });
    }
    EXPECT_TRUE(ended);
}

TEST(Thread_Helper, a_detached_thread_outlives_its_helper) {
    auto worker = std::make_shared<Worker>();
    std::future<void> done = worker->done.get_future();
    {
        Thread_Helper helper(DETACHED, ACE_DEFAULT_THREAD_PRIORITY);
        ASSERT_NE(-1, helper.spawn([worker] { worker->run(); }));
        EXPECT_FALSE(helper.running());
    }
    worker->go.set_value();
    done.get();
}

TEST(Thread_Helper, join_without_a_thread_does_nothing) {
    Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
    helper.join();
    EXPECT_FALSE(helper.exists());
}

TEST(Thread_Helper, handle_starting_is_called_on_the_new_thread_before_spawn_returns) {
    struct Starter : Thread_Helper {
        using Thread_Helper::Thread_Helper;
        void handle_starting() override { thread = ACE_OS::thr_self(); }
        ACE_thread_t thread{};
    };
    Starter helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
    ASSERT_NE(-1, helper.spawn([] {}));
    EXPECT_EQ(helper.tid(), helper.thread);
    helper.join();
}

TEST(Thread_Helper, a_thread_that_cannot_be_made_leaves_the_helper_free) {
    // more stack than there is address space
    pthread_attr_t usual;
    pthread_attr_t impossible;
    ASSERT_EQ(0, pthread_getattr_default_np(&usual));
    ASSERT_EQ(0, pthread_getattr_default_np(&impossible));
    ASSERT_EQ(0, pthread_attr_setstacksize(&impossible, size_t{1} << 50));
    ASSERT_EQ(0, pthread_setattr_default_np(&impossible));
    Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
    int const result = helper.spawn([] {});
    pthread_setattr_default_np(&usual);
    EXPECT_EQ(-1, result);
    EXPECT_FALSE(helper.exists());
    EXPECT_FALSE(helper.running());
}

TEST(Thread_Helper, the_name_is_cut_to_what_the_system_takes) {
    Worker worker;
    Thread_Helper helper(JOINABLE, ACE_DEFAULT_THREAD_PRIORITY);
    helper.spawn(&Worker::run, &worker);
    helper.set_name("a-name-longer-than-fifteen");
    char name[32] = {};
    pthread_getname_np(helper.tid(), name, sizeof name);
    EXPECT_STREQ("a-name-longer-t", name);
    worker.go.set_value();
}

TEST(Thread_Helper, flags_and_priority_have_setters) {
    Thread_Helper helper(JOINABLE, 0);
    helper.flag(DETACHED);
    helper.priority(3);
    EXPECT_EQ(DETACHED, helper.flag());
    EXPECT_EQ(3, helper.priority());
}

} // namespace
