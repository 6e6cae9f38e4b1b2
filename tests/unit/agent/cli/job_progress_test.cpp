#include "agent/cli/job_progress.h"

#include "json_spirit/access.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Object;
using namespace std::chrono_literals;

Object const RUN{{"type", "backup"}, {"instance", "prod"},     {"state", "running"},
                 {"percent", 40},    {"processed_size", 4096}, {"total_size", 10240},
                 {"speed", 1024},    {"remaining", 6}};

Object with(Object run, char const* key, json_spirit::Value const& value) {
    run[key] = value;
    return run;
}

TEST(Job_Progress, states_that_are_an_end) {
    for (char const* state : {"completed", "completed with errors", "canceled", "error", "skipped",
                              "expired", "deleted"})
        EXPECT_TRUE(is_over({{"state", state}})) << state;
    for (char const* state : {"running", "starting", "canceling", "completing", "paused", "idle",
                              "dispatching", "none", "nonsense", ""})
        EXPECT_FALSE(is_over({{"state", state}})) << state;
    EXPECT_FALSE(is_over({}));
    EXPECT_EQ(JOB_STATE_NONE, state_of({{"state", 5}}));
}

TEST(Job_Progress, titles) {
    EXPECT_EQ("backup of prod", run_title(RUN));
    EXPECT_EQ("restore", run_title({{"type", "restore"}}));
    EXPECT_EQ("job", run_title({}));
    EXPECT_EQ("backup of \\x1b", run_title({{"type", "backup"}, {"instance", "\x1b"}}));
}

TEST(Job_Progress, all_that_is_known) {
    EXPECT_EQ("running, 40%, 4.0 KiB of 10.0 KiB, 1.0 KiB/s, 0:06 left", progress_text(RUN));
}

TEST(Job_Progress, what_is_not_known_is_left_out) {
    EXPECT_EQ("starting", progress_text({{"state", "starting"}}));
    EXPECT_EQ("running, 5.0 KiB, 1.0 KiB/s",
              progress_text({{"state", "running"}, {"processed_size", 5120}, {"speed", 1024}}));
}

TEST(Job_Progress, without_percent_the_sizes_tell_it) {
    Object run = RUN;
    run.erase("percent");
    EXPECT_EQ("running, 40%, 4.0 KiB of 10.0 KiB, 1.0 KiB/s, 0:06 left", progress_text(run));
    EXPECT_EQ("running, 20.0 KiB of 10.0 KiB, 1.0 KiB/s, 0:06 left",
              progress_text(with(run, "processed_size", 20480)));
}

TEST(Job_Progress, a_size_that_is_only_expected_is_about) {
    Object const run{{"state", "running"}, {"percent", 40}, {"expected_size", 10240}};
    EXPECT_EQ("running, 40%, about 4.0 KiB of 10.0 KiB", progress_text(run));
    EXPECT_EQ("running, 40%, 5.0 KiB of about 10.0 KiB",
              progress_text(with(run, "processed_size", 5120)));
    EXPECT_EQ("running, 40%, 20.0 KiB", progress_text(with(run, "processed_size", 20480)));
    EXPECT_EQ("running, 0%", progress_text(with(run, "percent", 0)));
}

TEST(Job_Progress, what_it_does_and_what_it_waits_for) {
    EXPECT_EQ("running, 0%, saving metadata",
              progress_text({{"state", "running"}, {"percent", 0}, {"phase", "saving metadata"}}));
    Object const waits{{"state", "running"}, {"percent", 0}, {"waiting_for", "job 7 of prod"}};
    EXPECT_EQ("waiting for job 7 of prod", progress_text(waits));
    EXPECT_EQ("waiting", state_text(waits));
    EXPECT_EQ("canceling, waits for job 7 of prod",
              progress_text(with(waits, "state", "canceling")));
    EXPECT_EQ("canceled", state_text(with(waits, "state", "canceled")));
    EXPECT_EQ("running", state_text(RUN));
}

TEST(Job_Progress, other_forms) {
    Progress_Printer::Time const time(10s);
    Terminal const pipe{false, true, 80};
    EXPECT_EQ("", Progress_Printer(pipe, Progress_Form::NONE).next(RUN, time));
    EXPECT_EQ("{\"percent\":40,\"state\":\"run\\u0007\"}\n",
              Progress_Printer(pipe, Progress_Form::JSON)
                  .next({{"state", "run\a"}, {"percent", 40}}, time));
    EXPECT_EQ("\r\x1b[K" + progress_bar(RUN, 79),
              Progress_Printer(pipe, Progress_Form::BAR).next(RUN, time));
    Progress_Printer lines({true, true, 80}, Progress_Form::LINES);
    EXPECT_EQ("backup of prod: " + progress_text(RUN) + "\n", lines.next(RUN, time));
}

TEST(Job_Progress, numbers_beyond_reason) {
    EXPECT_EQ("running, 100%", progress_text({{"state", "running"}, {"percent", 4000}}));
    EXPECT_EQ("running", progress_text({{"state", "running"}, {"percent", -7}, {"speed", -1}}));
}

TEST(Job_Progress, the_bar_fills_and_fits) {
    EXPECT_EQ("[########------------] running, 40%", progress_bar(RUN, 35));
    EXPECT_EQ("[####################] x, 100%",
              progress_bar({{"state", "x"}, {"percent", 100}}, 80));
    EXPECT_EQ("[--------------------] x", progress_bar({{"state", "x"}}, 80));
    EXPECT_EQ("", progress_bar(RUN, 0));
}

TEST(Job_Progress, a_terminal_gets_one_line_that_is_drawn_again) {
    Progress_Printer printer({true, true, 36});
    EXPECT_EQ("", printer.end());
    EXPECT_EQ("\r\x1b[K[########------------] running, 40%",
              printer.next(RUN, Progress_Printer::Time(10s)));
    EXPECT_EQ("\r\x1b[K[########------------] running, 40%",
              printer.next(RUN, Progress_Printer::Time(11s)));
    EXPECT_EQ("\r\x1b[K", printer.end());
    EXPECT_EQ("", printer.end());
}

TEST(Job_Progress, a_pipe_gets_a_line_for_each_change_and_few_for_numbers) {
    Progress_Printer printer({false, true, 80});
    auto const at = [&](std::chrono::seconds time, Object const& run) {
        return printer.next(run, Progress_Printer::Time(time));
    };
    EXPECT_EQ("backup of prod: starting\n",
              at(100s, with({{"type", "backup"}, {"instance", "prod"}}, "state", "starting")));
    EXPECT_EQ("backup of prod: " + progress_text(RUN) + "\n", at(101s, RUN)) << "a new state";
    Object const further = with(RUN, "percent", 41);
    EXPECT_EQ("", at(102s, further)) << "too soon for a number";
    EXPECT_EQ("", at(160s, further));
    EXPECT_EQ("backup of prod: " + progress_text(further) + "\n", at(161s, further));
    EXPECT_EQ("", at(1000s, further)) << "nothing has changed";
    Object const later = with(further, "phase", "saving metadata");
    EXPECT_EQ("backup of prod: " + progress_text(later) + "\n", at(1001s, later));
    EXPECT_EQ("", printer.end());
}

} // namespace
