#ifndef AGENT_JOBS_START_CONDITION_H
#define AGENT_JOBS_START_CONDITION_H

#include <cstdint>
#include <functional>
#include <string>

struct Stored_Definition;

/** Whether the job of a definition may be started now. */
struct Start_Answer {
    enum Kind {
        START,
        WAIT, ///< not yet; asked again by Job_Manager::start_waiting()
        SKIP, ///< never, and that is right: the run ends as skipped
        FAIL  ///< never: the run ends in an error, with an alert
    };

    Kind kind = START;
    std::string text = {}; ///< WAIT: what for, as in "the end of job nightly"; SKIP, FAIL: why
    int64_t limit = 0;     ///< WAIT: seconds after which the run fails; 0 for none

    static Start_Answer wait(std::string what, int64_t seconds = 0) {
        return {WAIT, std::move(what), seconds};
    }
    static Start_Answer skip(std::string why) { return {SKIP, std::move(why)}; }
    static Start_Answer fail(std::string why) { return {FAIL, std::move(why)}; }
};

/** Called with Job_Manager's lock held, so it must not call Job_Manager. */
using Start_Condition = std::function<Start_Answer(Stored_Definition const& definition)>;

#endif
