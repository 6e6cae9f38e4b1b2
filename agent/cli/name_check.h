#ifndef AGENT_CLI_NAME_CHECK_H
#define AGENT_CLI_NAME_CHECK_H

#include "qmrt/names.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <string>

/** Refuses what no name of a kind can be, before the agent is asked. */
inline CLI::Validator name_check(names::Rule rule) {
    return CLI::Validator(
        [rule](std::string const& name) {
            std::string const fault = rule(name);
            return fault.empty() ? fault : "'" + names::shown(name) + "' " + fault;
        },
        "");
}

/** Refuses all but whole numbers of a range, whatever the length of the text. */
inline CLI::Validator whole_number_check(int64_t least, int64_t most) {
    return CLI::Validator(
        [least, most](std::string const& text) {
            int64_t number = 0;
            char const* const end = text.data() + text.size();
            auto const read = std::from_chars(text.data(), end, number);
            bool const is_valid =
                read.ec == std::errc() && read.ptr == end && number >= least && number <= most;
            return is_valid ? std::string()
                            : "'" + names::shown(text) + "' is not a whole number from " +
                                  std::to_string(least) + " to " + std::to_string(most);
        },
        "");
}

/** Refuses all but numbers of seconds from @a least to a day; a fraction is allowed. */
inline CLI::Validator seconds_check(char const* least) {
    return CLI::Validator(
        [least](std::string const& text) {
            constexpr double A_DAY = 86400;
            double lowest = 0;
            double number = 0;
            char const* const end = text.data() + text.size();
            std::from_chars(least, least + std::string_view(least).size(), lowest);
            auto const read = std::from_chars(text.data(), end, number, std::chars_format::fixed);
            bool const is_valid =
                read.ec == std::errc() && read.ptr == end && number >= lowest && number <= A_DAY;
            return is_valid ? std::string()
                            : "'" + names::shown(text) + "' is not a number of seconds from " +
                                  least + " to 86400";
        },
        "");
}

#endif
