#ifndef AGENT_JOBS_JOB_ANSWER_H
#define AGENT_JOBS_JOB_ANSWER_H

#include <string>

/** What became of a request about definitions or runs. Logged by nobody yet, unless FAILED. */
struct [[nodiscard]] Job_Answer {
    enum Kind {
        DONE,
        INVALID,   ///< the request itself is wrong; the text names the member
        NOT_FOUND, ///< the text says what
        REFUSED,   ///< not now, or not this one; the text says why and what to do
        FAILED     ///< the agent's own fault, logged already
    };

    Kind kind = DONE;
    std::string text = {};

    explicit operator bool() const { return kind == DONE; }

    static Job_Answer invalid(std::string why) { return {INVALID, std::move(why)}; }
    static Job_Answer not_found(std::string what) { return {NOT_FOUND, std::move(what)}; }
    static Job_Answer refused(std::string why) { return {REFUSED, std::move(why)}; }
    static Job_Answer failed() { return {FAILED, "the agent's database failed; its log says why"}; }
};

#endif
