#include "gaussdb/job/roach_progress_handler.h"

#include "host/job/job_event_handler.h"
#include "qmrt/check.h"

#include <algorithm>
#include <numeric>

Roach_Progress_Handler::Roach_Progress_Handler(int num, Job_Event_Handler* handler, int steps)
    : num_(std::max(num, 1)), handler_(handler), steps_(std::max(steps, 1)) {}

bool Roach_Progress_Handler::update(int node, int progress) {
    if (QMRT_EXCEEDS(progress, 100))
        return false;
    nodes_[node] = progress;
    int64_t const sum = std::accumulate(
        nodes_.begin(), nodes_.end(), int64_t(0),
        [](int64_t before, map_type::value_type const& entry) { return before + entry.second; });
    // each division truncates by itself, so the steps that are done never lose to rounding
    report(int64_t(current_step_) * 100 / steps_ + sum / (int64_t(num_) * steps_));
    return true;
}

bool Roach_Progress_Handler::update(int progress) {
    if (QMRT_EXCEEDS(progress, 100) || QMRT_IS_BELOW(progress, 0))
        return false;
    // the tool gives a total in data steps only, and the last step of a restore is its start
    report((int64_t(current_step_) * 100 + progress) / std::max(steps_ - 1, 1));
    return true;
}

void Roach_Progress_Handler::next_step() {
    ++current_step_;
    nodes_.clear();
}

void Roach_Progress_Handler::report(int64_t total) {
    if (handler_)
        handler_->handle_progress(static_cast<int>(total), 0, 0, 0);
}
