#include "host/storage/rate_limiter.h"

#include <algorithm>

namespace {

constexpr uint64_t PIECES_PER_SECOND = 8;
constexpr int64_t BURST_NS = NS_PER_SECOND / PIECES_PER_SECOND;

int minute_of_day(time_t now) {
    tm local{};
    localtime_r(&now, &local);
    return local.tm_hour * 60 + local.tm_min;
}

} // namespace

Rate_Limiter::Rate_Limiter(Rate_Control_Entries entries, Storage_Clock& clock)
    : entries_(std::move(entries)), clock_(clock), booked_until_ns_(clock.steady_ns()) {}

bool Rate_Limiter::acquire(uint64_t bytes, std::function<bool()> const& go_on) {
    if (entries_.empty())
        return true;
    while (bytes > 0) {
        int64_t wait_ns = 0;
        bytes -= book(bytes, wait_ns);
        clock_.sleep_ns(wait_ns);
        if (wait_ns > 0 && go_on && !go_on())
            return false;
    }
    return true;
}

uint64_t Rate_Limiter::book(uint64_t bytes, int64_t& wait_ns) {
    std::lock_guard const guard(mutex_);
    int64_t const now = clock_.steady_ns();
    uint64_t const rate = rate_at(entries_, minute_of_day(clock_.now()));
    booked_until_ns_ = std::max(booked_until_ns_, now);
    if (rate == 0) {
        booked_until_ns_ = now;
        return bytes;
    }
    uint64_t const piece = std::min(bytes, std::max<uint64_t>(rate / PIECES_PER_SECOND, 1));
    wait_ns = booked_until_ns_ - now - BURST_NS;
    booked_until_ns_ += static_cast<int64_t>(static_cast<double>(piece) /
                                             static_cast<double>(rate) * NS_PER_SECOND);
    return piece;
}
