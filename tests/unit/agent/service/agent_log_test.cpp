#include "agent/service/agent_log.h"

#include "host/job/thread_log.h"
#include "qmrt/log.h"

#include <ace/Log_Msg_Callback.h>
#include <ace/Log_Record.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>

namespace {

/** What the log of a process of its own, which logs by @a work, writes to its stderr. */
std::string stderr_of(std::function<void()> const& work) {
    int ends[2];
    EXPECT_EQ(0, pipe(ends));
    pid_t const child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        work();
        _exit(0);
    }
    close(ends[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t size; (size = read(ends[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, static_cast<size_t>(size));
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    return text;
}

class Lines : public ACE_Log_Msg_Callback {
public:
    void log(ACE_Log_Record& record) override { text_ += record.msg_data(); }
    std::string text_;
};

TEST(Agent_Log_Test, a_line_has_time_priority_and_text_and_low_ones_are_left_out) {
    std::string const text = stderr_of([] {
        unsetenv("JOURNAL_STREAM");
        open_agent_log("stderr", "info");
        QMRT_LOG(LM_DEBUG, "hidden\n");
        QMRT_LOG(LM_WARNING, "shown %d\n", 7);
        agent_log_level("debug");
        QMRT_LOG(LM_DEBUG, "shown now\n");
    });
    EXPECT_EQ(std::string::npos, text.find("hidden")) << text;
    EXPECT_NE(std::string::npos, text.find(" warning shown 7\n")) << text;
    EXPECT_NE(std::string::npos, text.find(" debug shown now\n")) << text;
    EXPECT_EQ("20", text.substr(0, 2));
}

TEST(Agent_Log_Test, systemd_gets_marks_instead_of_times) {
    EXPECT_EQ("<3>broken\n<2>worse\n", stderr_of([] {
                  setenv("JOURNAL_STREAM", "8:1", 1);
                  open_agent_log("stderr", "info");
                  QMRT_LOG(LM_ERROR, "broken\n");
                  QMRT_LOG(LM_EMERGENCY, "worse\n");
              }));
}

TEST(Agent_Log_Test, the_log_of_a_run_gets_lines_of_every_level) {
    EXPECT_EQ("", stderr_of([] {
                  open_agent_log("stderr", "error");
                  auto const lines = std::make_shared<Lines>();
                  log_this_thread_to(lines);
                  QMRT_LOG(LM_DEBUG, "to the run\n");
                  log_this_thread_to(nullptr);
                  if (lines->text_ != "to the run\n")
                      _exit(1);
              }));
}

} // namespace
