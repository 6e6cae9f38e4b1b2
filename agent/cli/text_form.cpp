#include "agent/cli/text_form.h"

#include "agent/cli/terminal.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/format.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>

namespace {

constexpr char UNITS[] = "KMGTPE";

std::string number_text(int64_t number, Form form) {
    auto const bytes = static_cast<uint64_t>(number < 0 ? 0 : number);
    switch (form) {
    case Form::SIZE:
        return size_text(bytes);
    case Form::LIMIT:
        return number == 0 ? "-" : size_text(bytes);
    case Form::SPEED:
        return size_text(bytes) + "/s";
    case Form::TIME:
        return time_text(number);
    case Form::DURATION:
        return duration_text(number);
    case Form::PERCENT:
        return std::to_string(number) + "%";
    default:
        return std::to_string(number);
    }
}

void append(std::string& list, std::string const& text) {
    list += (list.empty() ? "" : ", ") + text;
}

std::string member_text(std::string const& key, json_spirit::Value const& value) {
    return printable(key) + "=" + value_text(value);
}

} // namespace

std::string size_text(uint64_t bytes) {
    if (bytes < 1024)
        return std::to_string(bytes) + " B";
    int unit = 0;
    uint64_t whole = bytes;
    uint64_t below = 0; // what is lost of the last step
    for (; whole >= 1024; ++unit) {
        below = whole % 1024;
        whole /= 1024;
    }
    std::string text = std::to_string(whole);
    if (whole < 100)
        text += "." + std::to_string(below * 10 / 1024);
    return text + " " + UNITS[unit - 1] + "iB";
}

std::string time_text(time_t time) {
    tm local = {};
    char text[64];
    if (time == 0 || !localtime_r(&time, &local) ||
        strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local) == 0)
        return "-";
    long const minutes = local.tm_gmtoff / 60;
    if (minutes == 0)
        return std::string(text) + "Z";
    return text + string_sprintf("%c%02ld:%02ld", minutes < 0 ? '-' : '+', std::labs(minutes) / 60,
                                 std::labs(minutes) % 60);
}

std::string duration_text(int64_t seconds) {
    if (seconds < 0)
        seconds = 0;
    auto const days = static_cast<long long>(seconds / 86400);
    auto const hours = static_cast<int>(seconds / 3600 % 24);
    auto const minutes = static_cast<int>(seconds / 60 % 60);
    auto const rest = static_cast<int>(seconds % 60);
    if (days)
        return string_sprintf("%lldd %d:%02d:%02d", days, hours, minutes, rest);
    if (hours)
        return string_sprintf("%d:%02d:%02d", hours, minutes, rest);
    return string_sprintf("%d:%02d", minutes, rest);
}

bool read_size(std::string const& text, uint64_t& bytes) {
    double number = 0;
    char const* const end = text.data() + text.size();
    auto const read = std::from_chars(text.data(), end, number, std::chars_format::fixed);
    if (read.ec != std::errc() || !std::isfinite(number) || number < 0)
        return false;
    std::string unit;
    for (char const* at = read.ptr; at != end; ++at)
        if (*at != ' ')
            unit += static_cast<char>(std::toupper(static_cast<unsigned char>(*at)));
    if (unit.ends_with("IB"))
        unit.resize(unit.size() - 2);
    else if (unit.ends_with("B"))
        unit.pop_back();
    size_t const power = unit.empty() ? 0 : std::string_view(UNITS).find(unit) + 1;
    if (unit.size() > 1 || (power == 0 && !unit.empty()))
        return false;
    number = std::floor(std::ldexp(number, static_cast<int>(power) * 10));
    if (number >= std::ldexp(1.0, 63))
        return false;
    bytes = static_cast<uint64_t>(number);
    return true;
}

std::string value_text(json_spirit::Value const& value, Form form) {
    using namespace json_spirit;
    std::string list;
    switch (value.type()) {
    case null_type:
        return "-";
    case str_type:
        if (form == Form::SHORT_ID)
            return printable(value.get_str().substr(0, 8));
        return value.get_str().empty() ? "-" : printable(value.get_str());
    case int_type:
        if (!value.is_uint64())
            return number_text(value.get_int64(), form);
        break;
    case real_type:
        if (form != Form::TEXT && std::abs(value.get_real()) < 9e18)
            return number_text(static_cast<int64_t>(value.get_real()), form);
        break;
    case bool_type:
        return value.get_bool() ? "yes" : "no";
    case array_type:
        for (Value const& element : value.get_array())
            append(list, value_text(element, form));
        return list.empty() ? "-" : list;
    case obj_type:
        for (auto const& [key, member] : value.get_obj())
            append(list, member_text(key, member));
        return list.empty() ? "-" : list;
    default:
        break;
    }
    return printable(JSON_Dump(value).str());
}

std::vector<std::string> value_lines(json_spirit::Value const& value, Form form) {
    std::vector<std::string> lines;
    if (value.type() == json_spirit::obj_type)
        for (auto const& [key, member] : value.get_obj())
            lines.push_back(member_text(key, member));
    if (value.type() == json_spirit::array_type)
        for (json_spirit::Object const& element : json_spirit::objects_of(value.get_array()))
            lines.push_back(value_text(element, form));
    if (lines.empty())
        lines.push_back(value_text(value, form));
    return lines;
}

int64_t number_of(json_spirit::Object const& object, std::string const& key, int64_t otherwise) {
    int64_t number = otherwise;
    if (!json_spirit::object_get(object, key, number)) {
        double real = 0;
        if (json_spirit::object_get(object, key, real) && std::abs(real) < 9e18)
            number = static_cast<int64_t>(real);
    }
    return number;
}
