#include "agent/jobs/run_meter.h"

#include "host/storage/storage_clock.h"

namespace {

/** The least time between two samples that are kept. */
constexpr int64_t GRAIN = NS_PER_SECOND / 4;
constexpr int64_t SHORTEST_WORK = 3 * NS_PER_SECOND;
constexpr double SMALLEST_PART = 0.01;

} // namespace

void Run_Meter::restart(int64_t now) {
    beginning_ = latest_ = {now, 0};
    samples_ = {beginning_};
}

void Run_Meter::note(int64_t now, uint64_t bytes) {
    latest_ = {now, bytes};
    if (now - samples_.back().time >= GRAIN)
        samples_.push_back(latest_);
    while (samples_.size() > 1 && now - samples_[1].time >= SPAN)
        samples_.pop_front();
}

uint64_t Run_Meter::speed(int64_t now) const {
    return rate(samples_.front(), now);
}

uint64_t Run_Meter::average_speed(int64_t now) const {
    return rate(beginning_, now);
}

/** Bytes per second since a sample. */
uint64_t Run_Meter::rate(Sample const& from, int64_t now) const {
    if (now <= from.time || latest_.bytes <= from.bytes)
        return 0;
    return static_cast<uint64_t>(static_cast<double>(latest_.bytes - from.bytes) *
                                 static_cast<double>(NS_PER_SECOND) /
                                 static_cast<double>(now - from.time));
}

int64_t Run_Meter::remaining(int64_t now, double done) const {
    int64_t const worked = now - beginning_.time;
    if (worked < SHORTEST_WORK || done < SMALLEST_PART || done > 1)
        return -1;
    return static_cast<int64_t>(static_cast<double>(worked) * (1 - done) / done /
                                static_cast<double>(NS_PER_SECOND));
}
