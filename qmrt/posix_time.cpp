#include "qmrt/posix_time.h"

#include <boost/regex.hpp>
#include <cstring>

namespace {

/** Seconds since the epoch of a broken-down time; false when a field was no real date or time. */
bool to_seconds(tm fields, bool has_zone, time_t& result) {
    tm const wanted = fields;
    long const offset = fields.tm_gmtoff;
    fields.tm_isdst = -1;
    errno = 0;
    time_t const seconds = has_zone ? timegm(&fields) - offset : mktime(&fields);
    // the 30th of February comes back as the 2nd of March
    if (fields.tm_mday != wanted.tm_mday || fields.tm_mon != wanted.tm_mon)
        return false;
    result = seconds;
    return true;
}

} // namespace

bool local_to_posix_time(std::string const& text, time_t& result, char const* format) {
    tm fields{};
    char const* const end = strptime(text.c_str(), format, &fields);
    if (end == nullptr || end != text.c_str() + text.size())
        return false;
    return to_seconds(fields, std::strstr(format, "%z") != nullptr, result);
}

bool iso8601_to_posix_time(std::string const& text, time_t& result) {
    static boost::regex const RE_ISO8601(
        "(\\d{4}-\\d{2}-\\d{2})[T ](\\d{2}:\\d{2}:\\d{2})(?:[.,]\\d+)?"
        "(Z|[+-]\\d{2}(?::?\\d{2})?)?");
    boost::smatch parts;
    if (!boost::regex_match(text, parts, RE_ISO8601))
        return false;
    std::string const plain = parts[1] + "T" + parts[2];
    if (parts[3].matched)
        return local_to_posix_time(plain + parts[3], result, "%Y-%m-%dT%H:%M:%S%z");
    return local_to_posix_time(plain, result, "%Y-%m-%dT%H:%M:%S");
}

POSIX_Time_To_ISO8601::POSIX_Time_To_ISO8601(time_t time) {
    tm fields{};
    gmtime_r(&time, &fields);
    if (strftime(text_, sizeof text_, "%Y-%m-%dT%H:%M:%SZ", &fields) == 0)
        text_[0] = '\0';
}
