#include "gaussdb/instance_handler/clock_check.h"

#include <charconv>
#include <chrono>
#include <cmath>

double clock_now() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::optional<double> clock_difference(std::string const& printed, double before, double after) {
    double there = 0;
    char const* const end = printed.data() + printed.size();
    auto const read = std::from_chars(printed.data(), end, there, std::chars_format::fixed);
    constexpr double LATEST = 1e11; // some thousand years
    if (read.ec != std::errc() || read.ptr != end || !std::isfinite(there) || there < 0 ||
        there > LATEST)
        return std::nullopt;
    if (there < before)
        return there - before;
    return there > after ? there - after : 0;
}
