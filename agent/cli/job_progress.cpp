#include "agent/cli/job_progress.h"

#include "agent/cli/json_times.h"
#include "agent/cli/text_form.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <algorithm>

namespace {

constexpr auto LEAST_PAUSE = std::chrono::seconds(60);
constexpr size_t BAR_WIDTH = 20;
constexpr char WAITING[] = "waiting";
constexpr char DRAW_AGAIN[] = "\r\x1b[K";

/** Percent, by the sizes when the run does not say; -1 when nobody knows. */
int64_t percent_of(json_spirit::Object const& run) {
    int64_t const told = number_of(run, "percent", -1);
    if (told >= 0)
        return std::min<int64_t>(told, 100);
    int64_t const total = number_of(run, "total_size");
    int64_t const processed = number_of(run, "processed_size");
    return total > 0 && processed >= 0 && processed <= total
               ? static_cast<int64_t>(100.0 * static_cast<double>(processed) /
                                      static_cast<double>(total))
               : -1;
}

/** "1.2 GiB of 3.0 GiB"; "" while nothing has passed. */
std::string size_progress(json_spirit::Object const& run) {
    auto const text = [](int64_t size) { return size_text(static_cast<uint64_t>(size)); };
    int64_t const total = number_of(run, "total_size");
    int64_t const expected = number_of(run, "expected_size");
    int64_t const processed = number_of(run, "processed_size");
    if (processed > 0 && total > 0)
        return text(processed) + " of " + text(total);
    if (processed > 0)
        return text(processed) + (expected > processed ? " of about " + text(expected) : "");
    int64_t const percent = percent_of(run);
    return percent > 0 && expected > 0
               ? "about " +
                     text(static_cast<int64_t>(static_cast<double>(expected) / 100 *
                                               static_cast<double>(percent))) +
                     " of " + text(expected)
               : "";
}

} // namespace

Job_State state_of(json_spirit::Object const& run) {
    std::string const word = json_spirit::object_get_str(run, "state");
    for (int state = JOB_STATE_NONE; state <= JOB_STATE_OPENING; ++state)
        if (word == job_state_to_string(static_cast<Job_State>(state)))
            return static_cast<Job_State>(state);
    return JOB_STATE_NONE;
}

bool is_over(json_spirit::Object const& run) {
    switch (state_of(run)) {
    case JOB_STATE_COMPLETED:
    case JOB_STATE_COMPLETED_WITH_ERRORS:
    case JOB_STATE_CANCELED:
    case JOB_STATE_ERROR:
    case JOB_STATE_SKIPPED:
    case JOB_STATE_EXPIRED:
    case JOB_STATE_DELETED:
        return true;
    default:
        return false;
    }
}

std::string run_title(json_spirit::Object const& run) {
    std::string const type = json_spirit::object_get_str(run, "type");
    std::string const instance = json_spirit::object_get_str(run, "instance");
    std::string const title = type.empty() ? "job" : type;
    return printable(instance.empty() ? title : title + " of " + instance);
}

std::string progress_text(json_spirit::Object const& run) {
    std::string text = state_text(run);
    std::string const waits_for = json_spirit::object_get_str(run, "waiting_for");
    if (!waits_for.empty())
        return text + (text == WAITING ? " for " : ", waits for ") + printable(waits_for);
    if (int64_t const percent = percent_of(run); percent >= 0)
        text += ", " + std::to_string(percent) + "%";
    if (std::string const size = size_progress(run); !size.empty())
        text += ", " + size;
    if (int64_t const speed = number_of(run, "speed"); speed > 0)
        text += ", " + size_text(static_cast<uint64_t>(speed)) + "/s";
    if (int64_t const remaining = number_of(run, "remaining", -1); remaining >= 0)
        text += ", " + duration_text(remaining) + " left";
    std::string const phase = json_spirit::object_get_str(run, "phase");
    return phase.empty() ? text : text + ", " + printable(phase);
}

std::string state_text(json_spirit::Object const& run) {
    bool const waits = state_of(run) != JOB_STATE_CANCELING && !is_over(run) &&
                       !json_spirit::object_get_str(run, "waiting_for").empty();
    return waits ? WAITING : printable(json_spirit::object_get_str(run, "state"));
}

std::string progress_bar(json_spirit::Object const& run, size_t width) {
    auto const done = static_cast<size_t>(std::max<int64_t>(percent_of(run), 0)) * BAR_WIDTH / 100;
    std::string const bar =
        "[" + std::string(done, '#') + std::string(BAR_WIDTH - done, '-') + "] ";
    return fit(bar + progress_text(run), width, "");
}

Progress_Printer::Progress_Printer(Terminal const& terminal, Progress_Form form)
    : terminal_(terminal),
      form_(form != Progress_Form::AUTO ? form
            : terminal.interactive      ? Progress_Form::BAR
                                        : Progress_Form::LINES) {}

std::string Progress_Printer::next(json_spirit::Object const& run, Time now) {
    if (form_ == Progress_Form::NONE)
        return "";
    if (form_ == Progress_Form::JSON)
        return printable_json(json_spirit::to_text(with_iso_times(run))) + "\n";
    if (form_ == Progress_Form::BAR) {
        // the last column stays free: writing to it would begin a new line on some terminals
        std::string const bar = progress_bar(run, std::max<size_t>(terminal_.width, 2) - 1);
        drawn_ = true;
        return DRAW_AGAIN + bar;
    }
    std::string const state = state_text(run) + json_spirit::object_get_str(run, "waiting_for") +
                              json_spirit::object_get_str(run, "phase");
    std::string const text = run_title(run) + ": " + progress_text(run) + "\n";
    if (text == text_ || (state == state_ && now - printed_ < LEAST_PAUSE))
        return "";
    state_ = state;
    text_ = text;
    printed_ = now;
    return text;
}

std::string Progress_Printer::end() {
    bool const drawn = drawn_;
    drawn_ = false;
    return drawn ? DRAW_AGAIN : "";
}
