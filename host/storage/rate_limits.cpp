#include "host/storage/rate_limits.h"

#include "json_spirit/access.h"
#include "qmrt/format.h"
#include "qmrt/natoi.h"

#include <algorithm>

namespace {

constexpr int MINUTES_PER_HOUR = 60;
constexpr int MINUTES_PER_DAY = 24 * MINUTES_PER_HOUR;
constexpr size_t TIME_LENGTH = 5; // HH:MM

bool all_digits(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

/** Reads "HH:MM" as minutes of the day, up to 24:00; -1 for another text. */
int read_time(std::string_view text) {
    if (text.size() != TIME_LENGTH || text[2] != ':' || !all_digits(text.substr(0, 2)) ||
        !all_digits(text.substr(3)))
        return -1;
    int const hour = natoi<int>(text.substr(0, 2));
    int const minute = natoi<int>(text.substr(3));
    int const time = hour * MINUTES_PER_HOUR + minute;
    return minute < MINUTES_PER_HOUR && time <= MINUTES_PER_DAY ? time : -1;
}

/** Reads "HH:MM-HH:MM" into an entry. */
bool read_window(std::string_view text, Rate_Control_Entry& entry) {
    if (text.size() != 2 * TIME_LENGTH + 1 || text[TIME_LENGTH] != '-')
        return false;
    entry.begin = read_time(text.substr(0, TIME_LENGTH));
    entry.end = read_time(text.substr(TIME_LENGTH + 1));
    return entry.begin >= 0 && entry.begin < MINUTES_PER_DAY && entry.end >= 0 &&
           entry.begin != entry.end;
}

void insert_entries(json_spirit::Object& object, char const* key,
                    Rate_Control_Entries const& entries, char separator, bool skip_empty) {
    if (!entries.empty() || !skip_empty)
        json_spirit::insert(object)(key, rate_entries_to_string(entries, separator));
}

bool extract_entries(json_spirit::Object const& object, char const* key, char separator,
                     Rate_Control_Entries& entries) {
    json_spirit::Value const* const value = json_spirit::object_get_any_ptr(object, key);
    if (!value)
        return true;
    return value->type() == json_spirit::str_type &&
           rate_entries_from_string(value->get_str(), separator, entries);
}

} // namespace

bool Rate_Control_Entry::applies(int minute_of_day) const {
    if (begin == end)
        return true;
    if (begin < end)
        return minute_of_day >= begin && minute_of_day < end;
    return minute_of_day >= begin || minute_of_day < end;
}

std::string Rate_Control_Entry::to_string() const {
    std::string const rate = std::to_string(bytes_per_second);
    if (begin == end)
        return rate;
    return string_sprintf("%02d:%02d-%02d:%02d=", begin / MINUTES_PER_HOUR,
                          begin % MINUTES_PER_HOUR, end / MINUTES_PER_HOUR,
                          end % MINUTES_PER_HOUR) +
           rate;
}

bool Rate_Control_Entry::from_string(std::string_view text, Rate_Control_Entry& entry) {
    Rate_Control_Entry read;
    size_t const equals = text.find('=');
    if (equals != std::string_view::npos) {
        if (!read_window(text.substr(0, equals), read))
            return false;
        text.remove_prefix(equals + 1);
    }
    if (!all_digits(text))
        return false;
    read.bytes_per_second = natoi<uint64_t>(text);
    if (errno == ERANGE)
        return false;
    entry = read;
    return true;
}

uint64_t rate_at(Rate_Control_Entries const& entries, int minute_of_day) {
    for (Rate_Control_Entry const& entry : entries)
        if (entry.applies(minute_of_day))
            return entry.bytes_per_second;
    return 0;
}

std::string rate_entries_to_string(Rate_Control_Entries const& entries, char separator) {
    std::string text;
    for (Rate_Control_Entry const& entry : entries) {
        if (!text.empty())
            text += separator;
        text += entry.to_string();
    }
    return text;
}

bool rate_entries_from_string(std::string_view text, char separator,
                              Rate_Control_Entries& entries) {
    Rate_Control_Entries read;
    while (!text.empty()) {
        size_t const end = text.find(separator);
        Rate_Control_Entry entry;
        // a separator at the end has an empty text behind it, which is not valid either
        if (!Rate_Control_Entry::from_string(text.substr(0, end), entry) || end == text.size() - 1)
            return false;
        read.push_back(entry);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    entries = std::move(read);
    return true;
}

void Rate_Limits::to_string_in_object(json_spirit::Object& object, char separator,
                                      bool skip_empty) const {
    insert_entries(object, dest_key, dest, separator, skip_empty);
    insert_entries(object, src_key, src, separator, skip_empty);
}

bool Rate_Limits::from_string_in_object(json_spirit::Object const& object, char separator) {
    Rate_Limits read;
    if (!extract_entries(object, dest_key, separator, read.dest) ||
        !extract_entries(object, src_key, separator, read.src))
        return false;
    *this = std::move(read);
    return true;
}

void Rate_Limits::set_rate_limits_by_channels(unsigned long channels) {
    uint64_t const share = std::max<uint64_t>(channels, 1);
    for (Rate_Control_Entries* entries : {&dest, &src})
        for (Rate_Control_Entry& entry : *entries)
            if (entry.bytes_per_second)
                entry.bytes_per_second = std::max<uint64_t>(entry.bytes_per_second / share, 1);
}
