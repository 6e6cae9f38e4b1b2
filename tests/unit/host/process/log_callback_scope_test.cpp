#include "host/process/log_callback_scope.h"

#include "qmrt/log.h"
#include "tests/support/log_capture.h"

#include <ace/Log_Record.h>

#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace {

struct Callback : ACE_Log_Msg_Callback {
    void log(ACE_Log_Record& record) override { text += record.msg_data(); }
    std::string text;
};

TEST(Log_Callback_Scope, sends_lines_to_the_innermost_callback_and_gives_back_the_one_before) {
    auto const outer = std::make_shared<Callback>();
    auto const inner = std::make_shared<Callback>();
    {
        Log_Callback_Scope const one(outer);
        QMRT_LOG(LM_INFO, "1");
        {
            Log_Callback_Scope const two(inner);
            QMRT_LOG(LM_INFO, "2");
            Log_Callback_Scope const none(nullptr);
            QMRT_LOG(LM_INFO, "3");
        }
        QMRT_LOG(LM_INFO, "4");
    }
    QMRT_LOG(LM_INFO, "5");
    EXPECT_EQ("14", outer->text);
    EXPECT_EQ("23", inner->text);
    EXPECT_EQ(nullptr, ACE_LOG_MSG->msg_callback());
    EXPECT_EQ(1, outer.use_count());
}

TEST(Log_Callback_Scope, the_usual_log_gets_the_lines_too) {
    Log_Callback_Scope const scope(std::make_shared<Callback>());
    QMRT_LOG(LM_INFO, "for both\n");
    EXPECT_LOGGED(LM_INFO, "for both\n");
}

TEST(Log_Callback_Scope, other_threads_are_not_concerned) {
    auto const callback = std::make_shared<Callback>();
    Log_Callback_Scope const scope(callback);
    std::thread([] { QMRT_LOG(LM_INFO, "elsewhere\n"); }).join();
    EXPECT_EQ("", callback->text);
}

} // namespace
