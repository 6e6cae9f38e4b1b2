#ifndef QMRT_POSIX_TIME_H
#define QMRT_POSIX_TIME_H

#include <ctime>
#include <string>

/**
 * Reads a time by a strptime format that must take the whole text.
 * With %z in the format the zone of the text counts; without it the text is local time.
 * @return false, with @a result unchanged, when the text does not fit or names no real date.
 */
[[nodiscard]] bool local_to_posix_time(std::string const& text, time_t& result, char const* format);

/**
 * Reads an ISO 8601 time: "2026-11-21T06:41:00", with a "T" or a blank, an optional fraction of a
 * second that is dropped, and "Z", "+hh:mm", "+hhmm", "+hh" or nothing, which means local time.
 * @return false, with @a result unchanged, for any other text.
 */
[[nodiscard]] bool iso8601_to_posix_time(std::string const& text, time_t& result);

/** A time as ISO 8601 text in UTC: "2026-11-21T06:41:00Z". */
class POSIX_Time_To_ISO8601 {
public:
    explicit POSIX_Time_To_ISO8601(time_t time);
    char const* c_str() const { return text_; }
    operator std::string() const { return text_; }

private:
    char text_[40];
};

#endif
