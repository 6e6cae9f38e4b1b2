#include "host/mtf/work_report.h"

#include "tests/unit/host/mtf/mtf_fixture.h"

using namespace MTF;

namespace {

class Work_Report_Test : public testing::Test {
protected:
    std::shared_ptr<Recording_Handler> handler_ =
        std::make_shared<Recording_Handler>(PROGRESS_REPORT_BYTES);
    Work_Report report_{handler_};
};

TEST_F(Work_Report_Test, CountsWhatIsDone) {
    report_.add_bytes("/a", 5);
    report_.add_entry("/a");
    report_.add_bytes("/b", 7);
    EXPECT_EQ(1u, report_.entries());
    EXPECT_EQ(12u, report_.bytes());
    ASSERT_EQ(1u, handler_->events.size());
    EXPECT_EQ("/a", handler_->events[0].path);
    EXPECT_EQ(1u, handler_->events[0].entries);
    EXPECT_EQ(5u, handler_->events[0].bytes);
}

TEST_F(Work_Report_Test, BytesAreToldEveryEightMebibytes) {
    for (int at = 0; at < 32; ++at)
        report_.add_bytes("/a", 1024 * 1024);
    EXPECT_EQ(4u, handler_->events.size());
}

TEST_F(Work_Report_Test, WhatIsLeftOutIsLoggedAndTold) {
    report_.skipped("/a\nb", E_NOT_FOUND, "it has gone");
    EXPECT_LOGGED(LM_WARNING, "Left out /a?b, it has gone\n");
    ASSERT_EQ(1u, handler_->events.size());
    EXPECT_EQ(Event::SKIPPED, handler_->events[0].type);
    EXPECT_EQ(E_NOT_FOUND, handler_->events[0].code);
    EXPECT_EQ("/a\nb", handler_->events[0].path);
    EXPECT_EQ(1u, report_.left_out());
}

TEST_F(Work_Report_Test, WithoutWordsTheCodeSpeaks) {
    report_.skipped("/a", E_GET_SOURCE_DATA, "");
    EXPECT_LOGGED(LM_WARNING, "Left out /a, cannot read the source\n");
}

TEST_F(Work_Report_Test, AWarningLeavesNothingOut) {
    report_.warning("/a", "no attributes");
    EXPECT_LOGGED(LM_WARNING, "/a: no attributes\n");
    EXPECT_EQ(0u, report_.left_out());
    ASSERT_EQ(1u, handler_->events.size());
    EXPECT_EQ(Event::WARNING, handler_->events[0].type);
}

TEST_F(Work_Report_Test, AFailureIsLoggedAndGivesItsCode) {
    EXPECT_EQ(E_CORRUPT, report_.failed(E_CORRUPT, "it is broken"));
    EXPECT_LOGGED(LM_ERROR, "it is broken\n");
}

TEST_F(Work_Report_Test, OnceCanceledNobodyIsAskedAgain) {
    handler_->cancel_at = 2;
    EXPECT_FALSE(report_.canceled());
    EXPECT_FALSE(report_.was_canceled());
    EXPECT_TRUE(report_.canceled());
    EXPECT_TRUE(report_.was_canceled());
    handler_->cancel_at = INT32_MAX;
    EXPECT_TRUE(report_.canceled());
    EXPECT_EQ(2, handler_->asked);
}

TEST_F(Work_Report_Test, NobodyNeedListen) {
    Work_Report report(nullptr);
    report.begin();
    report.add_bytes("/a", 1 << 30);
    report.add_entry("/a");
    report.end(E_OK);
    EXPECT_FALSE(report.canceled());
}

TEST_F(Work_Report_Test, TheBaseHandlerNeitherCancelsNorMinds) {
    Event_Handler handler(PROGRESS_REPORT_ENTRIES);
    EXPECT_EQ(PROGRESS_REPORT_ENTRIES, handler.mode());
    EXPECT_FALSE(handler.canceling());
    handler.notify_event({Event::BEGIN});
}

} // namespace
