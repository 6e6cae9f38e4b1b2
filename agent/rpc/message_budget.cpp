#include "agent/rpc/message_budget.h"

#include "qmrt/log.h"

#include <chrono>

namespace {

constexpr int64_t TELL_INTERVAL_SECS = 60;

int64_t now_seconds() {
    auto const now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::seconds>(now).count() + 1;
}

} // namespace

bool Message_Budget::Charge::grow_to(size_t size) {
    if (size <= FREE_BYTES || size <= taken_)
        return true;
    size_t const more = size - taken_;
    size_t const before = budget_->taken_.fetch_add(more);
    if (before + more <= budget_->bytes_) {
        taken_ = size;
        return true;
    }
    budget_->taken_ -= more;
    int64_t told = budget_->told_at_;
    int64_t const now = now_seconds();
    if ((told == 0 || now - told >= TELL_INTERVAL_SECS) &&
        budget_->told_at_.compare_exchange_strong(told, now))
        QMRT_LOG(LM_WARNING,
                 "Refused a message, those that are not answered hold %Q bytes "
                 "(limits.unfinished_size)\n",
                 static_cast<ACE_UINT64>(before));
    return false;
}
