#ifndef GAUSSDB_INSTANCE_HANDLER_CLOCK_CHECK_H
#define GAUSSDB_INSTANCE_HANDLER_CLOCK_CHECK_H

#include <optional>
#include <string>

/** Prints a host's clock, for another host to compare. */
inline constexpr char ASK_CLOCK[] = "date +%s.%N";

/** Seconds since the epoch by this host's clock. */
double clock_now();

/**
 * How far another host's clock differs from this one's at least. The question takes a while; the
 * other clock was read somewhere in between.
 * @param printed  the last line of ASK_CLOCK's output
 * @param before   clock_now() before the question, @a after behind the answer
 * @return seconds, negative for a clock that is behind; none for a text that is not a time
 */
std::optional<double> clock_difference(std::string const& printed, double before, double after);

#endif
