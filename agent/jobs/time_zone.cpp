#include "agent/jobs/time_zone.h"

#include <absl/time/time.h>

#include <algorithm>
#include <cctype>

struct Time_Zone::Rules {
    absl::TimeZone zone;
};

namespace {

/** The library makes a path of it, and has names of its own that are not in the database. */
bool is_zone_name(std::string const& name) {
    constexpr size_t MAX_LENGTH = 64;
    auto const is_allowed = [](unsigned char c) {
        return std::isalnum(c) || c == '/' || c == '_' || c == '-' || c == '+';
    };
    return name.size() <= MAX_LENGTH && std::isupper(static_cast<unsigned char>(name[0])) &&
           std::all_of(name.begin(), name.end(), is_allowed);
}

} // namespace

bool Time_Zone::find(std::string const& name, Time_Zone& result) {
    Time_Zone found;
    if (!name.empty()) {
        auto const rules = std::make_shared<Rules>();
        if (!is_zone_name(name) || !absl::LoadTimeZone(name, &rules->zone))
            return false;
        found.name_ = name;
        found.rules_ = rules;
    }
    result = found;
    return true;
}

time_t Time_Zone::offset_at(time_t time) const {
    if (rules_)
        return rules_->zone.At(absl::FromTimeT(time)).offset;
    tm local{};
    localtime_r(&time, &local);
    return local.tm_gmtoff;
}
