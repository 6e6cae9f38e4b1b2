#include "agent/cli/json_times.h"

#include "qmrt/posix_time.h"

#include <algorithm>
#include <string>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

/** The keys under which answers have a time, or an array of times. */
constexpr char const* TIME_KEYS[] = {
    "backup_end_time", "backup_start_time", "begin_time", "data_begin",
    "data_end",        "end_time",          "from",       "last_backup",
    "last_run",        "last_seen",         "next_run",   "next_runs",
    "start_time",      "started",           "time",       "until"};

bool is_time_key(std::string const& key) {
    return std::ranges::find(TIME_KEYS, key) != std::end(TIME_KEYS);
}

Value as_time(Value const& value) {
    if (value.type() != json_spirit::int_type || value.is_uint64())
        return with_iso_times(value);
    int64_t const time = value.get_int64();
    return time == 0 ? Value() : Value(std::string(POSIX_Time_To_ISO8601(time)));
}

} // namespace

Value with_iso_times(Value const& value) {
    if (value.type() == json_spirit::array_type) {
        Array array;
        for (Value const& element : value.get_array())
            array.push_back(with_iso_times(element));
        return array;
    }
    if (value.type() != json_spirit::obj_type)
        return value;
    Object object;
    for (auto const& [key, member] : value.get_obj()) {
        if (!is_time_key(key)) {
            object[key] = with_iso_times(member);
        } else if (member.type() == json_spirit::array_type) {
            Array times;
            for (Value const& time : member.get_array())
                times.push_back(as_time(time));
            object[key] = times;
        } else {
            object[key] = as_time(member);
        }
    }
    return object;
}
