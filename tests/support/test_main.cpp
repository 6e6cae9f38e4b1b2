#include "tests/support/log_capture.h"

#include <ace/ACE.h>
#include <ace/Init_ACE.h>
#include <ace/Log_Msg.h>

#include <gtest/gtest.h>
#include <iostream>

namespace {

/** Fails a test that left a warning or an error in the log without having asked for it. */
class Unexpected_Log_Listener : public testing::EmptyTestEventListener {
    void OnTestStart(testing::TestInfo const&) override { Log_Capture::instance().clear(); }
    void OnTestEnd(testing::TestInfo const&) override {
        for (Log_Capture::Line const& line : Log_Capture::instance().unclaimed())
            ADD_FAILURE() << "unexpected line in the log: " << line.text;
    }
};

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    ACE::init();
    ACE_Log_Msg::msg_backend(&Log_Capture::instance());
    ACE_LOG_MSG->open(argv[0], ACE_Log_Msg::CUSTOM | ACE_Log_Msg::MSG_CALLBACK);
    testing::UnitTest& suite = *testing::UnitTest::GetInstance();
    // first in, last called: the default printer still has to see the failure
    testing::TestEventListener* const printer =
        suite.listeners().Release(suite.listeners().default_result_printer());
    suite.listeners().Append(printer);
    suite.listeners().Append(new Unexpected_Log_Listener);

    int result = RUN_ALL_TESTS();
    if (suite.test_to_run_count() == 0) {
        std::cerr << "no test was run\n";
        result = 1;
    }
    ACE::fini();
    return result;
}
