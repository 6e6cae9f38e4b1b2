#include "tests/support/log_capture.h"

#include "qmrt/log.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

TEST(Log_Capture, a_line_is_claimed_by_its_priority_and_a_part_of_its_text) {
    QMRT_LOG(LM_ERROR, "Failed to open %s\n", "x");
    EXPECT_FALSE(Log_Capture::instance().claim(LM_WARNING, "Failed"));
    EXPECT_FALSE(Log_Capture::instance().claim(LM_ERROR, "failed"));
    EXPECT_TRUE(Log_Capture::instance().claim(LM_ERROR, "Failed to open x\n"));
    EXPECT_FALSE(Log_Capture::instance().claim(LM_ERROR, "Failed to open x\n"));
}

TEST(Log_Capture, warnings_and_worse_that_nobody_claims_are_told) {
    QMRT_LOG(LM_DEBUG, "debug\n");
    QMRT_LOG(LM_INFO, "info\n");
    QMRT_LOG(LM_WARNING, "warning\n");
    QMRT_LOG(LM_EMERGENCY, "emergency\n");
    EXPECT_EQ(2u, Log_Capture::instance().unclaimed().size());
    Log_Capture::instance().clear();
}

TEST(Log_Capture, lines_of_other_threads_are_held) {
    std::thread([] { QMRT_LOG(LM_INFO, "from elsewhere\n"); }).join();
    EXPECT_TRUE(Log_Capture::instance().contains("from elsewhere"));
}

} // namespace
