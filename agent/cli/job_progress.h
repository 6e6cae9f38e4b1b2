#ifndef AGENT_CLI_JOB_PROGRESS_H
#define AGENT_CLI_JOB_PROGRESS_H

#include "agent/cli/terminal.h"
#include "host/job/job_state.h"
#include "json_spirit/value.h"

#include <chrono>
#include <string>

/** How far a run has come, in words and bars. A run is the agent's own record of it. */

/** The state of a run; JOB_STATE_NONE for a word that is no state. */
Job_State state_of(json_spirit::Object const& run);
/** True when nothing more will happen to it. */
[[nodiscard]] bool is_over(json_spirit::Object const& run);
/** "backup of prod", "restore of prod", "job": what a run is, for a sentence. */
std::string run_title(json_spirit::Object const& run);

/**
 * "running, 42%, 1.2 GiB of 3.0 GiB, 55.0 MiB/s, 0:32 left, saving metadata" or "waiting for job 7
 * of prod"; unknown parts are left out. A size that was computed from percents has an "about".
 */
std::string progress_text(json_spirit::Object const& run);
/** The state in a word; "waiting" for a run that waits. */
std::string state_text(json_spirit::Object const& run);
/** "[#######-------------] " and progress_text(), within the width. */
std::string progress_bar(json_spirit::Object const& run, size_t width);

/** How the progress of a run is shown. */
enum class Progress_Form {
    AUTO,  ///< a bar on a terminal, lines elsewhere
    BAR,   ///< one line that is redrawn
    LINES, ///< a line for each change, and one a minute while only numbers change
    JSON,  ///< the run as one line of JSON for each change
    NONE
};

/** Chooses what to print as a run goes on. */
class Progress_Printer {
public:
    using Time = std::chrono::steady_clock::time_point;

    explicit Progress_Printer(Terminal const& terminal, Progress_Form form = Progress_Form::AUTO);

    /** What to print for the run as it is now; "" for nothing. */
    std::string next(json_spirit::Object const& run, Time now);
    /** What to print before anything else is printed. */
    std::string end();

private:
    Terminal const terminal_;
    Progress_Form const form_; ///< not AUTO
    std::string state_;        ///< the last state, wait and phase
    std::string text_;
    Time printed_{};
    bool drawn_ = false;
};

#endif
