#ifndef QMRT_REGEX_H
#define QMRT_REGEX_H

#include "qmrt/log.h"

#include <boost/regex.hpp>
#include <string>
#include <string_view>

namespace qmrt {

/** The groups of a match; they point into the text that was searched. */
using svmatch = boost::match_results<std::string_view::const_iterator>;

namespace detail {

/**
 * Boost gives up, by an exception, on a text whose matching costs too much. Tool output and
 * profiles are not ours to trust, so that counts as no match, and the log says so.
 */
template <typename Operation>
[[nodiscard]] bool matches(Operation operation) {
    try {
        return operation();
    } catch (std::runtime_error const& error) {
        QMRT_LOG(LM_WARNING, "Failed to match a line, it is passed over: %s\n", error.what());
        return false;
    }
}

} // namespace detail

/** True when the whole of @a text matches. Never throws. */
[[nodiscard]] inline bool regex_match(std::string_view text, svmatch& groups,
                                      boost::regex const& pattern) {
    return detail::matches(
        [&] { return boost::regex_match(text.begin(), text.end(), groups, pattern); });
}

[[nodiscard]] inline bool regex_match(std::string_view text, boost::regex const& pattern) {
    svmatch groups;
    return regex_match(text, groups, pattern);
}

/** True when some part of @a text matches. Never throws. */
[[nodiscard]] inline bool regex_search(std::string_view text, svmatch& groups,
                                       boost::regex const& pattern) {
    return detail::matches(
        [&] { return boost::regex_search(text.begin(), text.end(), groups, pattern); });
}

} // namespace qmrt

#endif
