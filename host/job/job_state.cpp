#include "host/job/job_state.h"

#include <iterator>

namespace {

struct State_Row {
    char const* name;
    bool run;
};

constexpr State_Row STATES[] = {
    {"none", false},       {"idle", false},
    {"starting", true},    {"running", true},
    {"pausing", true},     {"paused", true},
    {"completing", true},  {"completed", false},
    {"canceling", true},   {"canceled", false},
    {"error", false},      {"created", false},
    {"updated", false},    {"deleting", false},
    {"deleted", false},    {"completed with errors", false},
    {"dispatching", true}, {"skipped", false},
    {"expired", false},    {"disabled", false},
    {"aborting", true},    {"creating", false},
    {"syncing", true},     {"switching", true},
    {"activating", true},  {"opening", true},
};
static_assert(std::size(STATES) == JOB_STATE_OPENING + 1);

State_Row const* row_of(Job_State state) {
    auto const index = static_cast<unsigned int>(state);
    return index < std::size(STATES) ? &STATES[index] : nullptr;
}

} // namespace

char const* job_state_to_string(Job_State state) {
    State_Row const* const row = row_of(state);
    return row ? row->name : "unknown";
}

bool is_run_state(Job_State state) {
    State_Row const* const row = row_of(state);
    return row && row->run;
}

bool is_cancel_state(Job_State state) {
    return state == JOB_STATE_CANCELING || state == JOB_STATE_CANCELED ||
           state == JOB_STATE_ABORTING;
}
