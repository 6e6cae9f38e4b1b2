#ifndef AGENT_CLI_TEXT_FORM_H
#define AGENT_CLI_TEXT_FORM_H

#include "json_spirit/value.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

/** How numbers are written for people, and read from them. */

/** "0 B", "1023 B", "1.0 KiB", "1.5 GiB": three digits or so, never more than it is. */
std::string size_text(uint64_t bytes);
/** Local time with its offset, "2026-11-22 02:30:00+08:00", "Z" for none; "-" for 0, which is no
 * time. */
std::string time_text(time_t time);
/** "0:07", "12:30", "3:05:09", "2d 3:05:09". */
std::string duration_text(int64_t seconds);
/**
 * Reads "1073741824", "1GiB", "1.5 g", "512K" (all in steps of 1024).
 * @return false, with @a bytes unchanged, for any other text and for what is beyond the range
 */
[[nodiscard]] bool read_size(std::string const& text, uint64_t& bytes);

/** How the value of a key is shown. A LIMIT is a size of which 0 is none, a WORD a text whose case
 * does not matter. */
enum class Form { TEXT, SHORT_ID, SIZE, LIMIT, TIME, DURATION, PERCENT, YES_NO, WORD, SPEED };

/**
 * A value as printable text, whatever it really is: a text as it stands, an array as its elements
 * with commas, an object as "key=value" with commas, null and what is not there as "-". A value of
 * another kind than its form wants is shown as it came.
 */
std::string value_text(json_spirit::Value const& value, Form form = Form::TEXT);
/** The same in lines: one for each key of an object, and for each element of an array of objects.
 */
std::vector<std::string> value_lines(json_spirit::Value const& value, Form form = Form::TEXT);

/** A number under a key; @a otherwise when there is none. */
int64_t number_of(json_spirit::Object const& object, std::string const& key, int64_t otherwise = 0);

#endif
