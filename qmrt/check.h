#ifndef QMRT_CHECK_H
#define QMRT_CHECK_H

#include "qmrt/log.h"

#include <sstream>
#include <string>

/**
 * Checks of preconditions. Each macro is an expression: true when the precondition is broken, and
 * then one line with the source file, the line, the argument's own name and a stack trace has been
 * logged, at LM_EMERGENCY or at the priority given to the _AT form. The return stays visible:
 *
 *     if (QMRT_IS_NULL_OR_EMPTY(name))
 *         return false;
 */
#define QMRT_IS_NULL_AT(priority, pointer)                                                         \
    qmrt::broken((pointer) == nullptr, [&] {                                                       \
        QMRT_LOG(priority, "Unexpected error in %N:%l, " #pointer " is NULL:\n%?\n");              \
    })

/** For a char const*: null and "" are the same fault. */
#define QMRT_IS_NULL_OR_EMPTY_AT(priority, text)                                                   \
    qmrt::broken((text) == nullptr || *(text) == '\0', [&] {                                       \
        QMRT_LOG(priority, "Unexpected error in %N:%l, " #text " is NULL or \"\":\n%?\n");         \
    })

/** For a std::string, or anything with empty(). */
#define QMRT_IS_EMPTY_AT(priority, container)                                                      \
    qmrt::broken((container).empty(), [&] {                                                        \
        QMRT_LOG(priority, "Unexpected error in %N:%l, " #container " is empty:\n%?\n");           \
    })

#define QMRT_COMPARES_AT(priority, value, relation, limit)                                         \
    qmrt::broken((value)relation(limit), [&] {                                                     \
        QMRT_LOG(priority,                                                                         \
                 "Unexpected error in %N:%l, " #value "%s " #relation " " #limit "%s:\n%?\n",      \
                 to_string_for_qmrt_check_macro((value), #value).c_str(),                          \
                 to_string_for_qmrt_check_macro((limit), #limit).c_str());                         \
    })

#define QMRT_IS_NULL(pointer) QMRT_IS_NULL_AT(LM_EMERGENCY, pointer)
#define QMRT_IS_NULL_OR_EMPTY(text) QMRT_IS_NULL_OR_EMPTY_AT(LM_EMERGENCY, text)
#define QMRT_IS_EMPTY(container) QMRT_IS_EMPTY_AT(LM_EMERGENCY, container)

/** True, and logged, when value > limit. */
#define QMRT_EXCEEDS(value, limit) QMRT_COMPARES_AT(LM_EMERGENCY, value, >, limit)
/** True, and logged, when value < limit. */
#define QMRT_IS_BELOW(value, limit) QMRT_COMPARES_AT(LM_EMERGENCY, value, <, limit)

/**
 * How a comparison check shows one of its operands behind the operand's own spelling.
 * @return "(101)" for a variable called progress that holds 101; "" for the constant 100, whose
 *         spelling already says its value.
 */
template <typename T>
std::string to_string_for_qmrt_check_macro(T const& value, char const* label) {
    std::ostringstream text;
    text << value;
    return text.str() == label ? std::string() : "(" + text.str() + ")";
}

namespace qmrt {

/** Calls @a report when @a is_broken; returns @a is_broken. */
template <typename Report>
[[nodiscard]] bool broken(bool is_broken, Report report) {
    if (is_broken)
        report();
    return is_broken;
}

} // namespace qmrt

#endif
