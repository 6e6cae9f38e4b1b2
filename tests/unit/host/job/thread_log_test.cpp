#include "host/job/thread_log.h"

#include "qmrt/log.h"

#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace {

class Collector : public ACE_Log_Msg_Callback {
public:
    explicit Collector(std::string& lines) : lines_(lines) {}
    void log(ACE_Log_Record& record) override { lines_ += record.msg_data(); }

private:
    std::string& lines_;
};

TEST(Thread_Log, lines_go_to_the_callback_until_it_is_taken_back) {
    std::string lines;
    log_this_thread_to(std::make_shared<Collector>(lines));
    QMRT_LOG(LM_INFO, "one\n");
    log_this_thread_to(nullptr);
    QMRT_LOG(LM_INFO, "two\n");
    EXPECT_EQ("one\n", lines);
}

TEST(Thread_Log, a_second_callback_takes_the_place_of_the_first) {
    std::string first;
    std::string second;
    log_this_thread_to(std::make_shared<Collector>(first));
    log_this_thread_to(std::make_shared<Collector>(second));
    QMRT_LOG(LM_INFO, "x\n");
    log_this_thread_to(nullptr);
    QMRT_LOG(LM_INFO, "y\n");
    EXPECT_EQ("", first);
    EXPECT_EQ("x\n", second);
}

TEST(Thread_Log, the_thread_gets_back_the_callback_that_it_had) {
    std::string before;
    std::string lines;
    Collector old(before);
    ACE_LOG_MSG->msg_callback(&old);
    log_this_thread_to(std::make_shared<Collector>(lines));
    log_this_thread_to(std::make_shared<Collector>(lines));
    log_this_thread_to(nullptr);
    QMRT_LOG(LM_INFO, "x\n");
    log_this_thread_to(nullptr);
    EXPECT_EQ(&old, ACE_LOG_MSG->msg_callback(nullptr));
    EXPECT_EQ("x\n", before);
    EXPECT_EQ("", lines);
}

TEST(Thread_Log, other_threads_are_not_touched) {
    std::string lines;
    log_this_thread_to(std::make_shared<Collector>(lines));
    std::thread([] { QMRT_LOG(LM_INFO, "elsewhere\n"); }).join();
    log_this_thread_to(nullptr);
    EXPECT_EQ("", lines);
}

TEST(Thread_Log, the_callback_is_let_go_of_at_the_threads_end) {
    std::string lines;
    auto const callback = std::make_shared<Collector>(lines);
    std::thread([&] {
        log_this_thread_to(callback);
        EXPECT_EQ(2, callback.use_count());
    }).join();
    EXPECT_EQ(1, callback.use_count());
}

} // namespace
