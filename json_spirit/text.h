#ifndef JSON_SPIRIT_TEXT_H
#define JSON_SPIRIT_TEXT_H

#include "json_spirit/value.h"

#include <sys/types.h>

struct File_Owner;

/**
 * The text form of JSON values (RFC 8259).
 *
 * Reading: whole numbers that fit into an int64_t or a uint64_t stay exact, larger ones become
 * reals; of equal keys the last counts; text must be UTF-8; comments and anything behind the value
 * are faults. Half of a surrogate pair, written as "\ud800", becomes "?". Writing: keys in the
 * object's order, UTF-8 as it is; a byte that is not UTF-8 becomes U+FFFD; a real that is no number
 * becomes null. Reals get the shortest text that reads back the same.
 */
namespace json_spirit {

/** Deeper nesting is an error, in reading and in writing, and never a stack overflow. */
constexpr int MAX_DEPTH = 100;
/** Larger files are not read. */
constexpr size_t MAX_FILE_SIZE = 256 * 1024 * 1024;

/**
 * Reads one JSON value.
 * @param error  on failure, what is wrong and near which byte; may be null
 * @return false, with @a value untouched, on any fault. Logs nothing.
 */
[[nodiscard]] bool parse(std::string_view text, Value& value, std::string* error);

/**
 * The text of @a value; secure strings are written in plain, so the result is for the wire and for
 * files, never for a log. Throws Error for a value nested deeper than MAX_DEPTH.
 * @param pretty  indented, with line breaks
 */
std::string to_text(Value const& value, bool pretty = false);

/**
 * The text of a real: the shortest that reads back as the same real, never as a whole number;
 * "null" for what is no number.
 */
std::string real_to_text(double value);

} // namespace json_spirit

/**
 * The text of a value for logs and messages: a secure string shows as "******".
 * A value nested too deeply shows as the reason.
 */
class JSON_Dump {
public:
    explicit JSON_Dump(json_spirit::Value const& value, bool pretty = false);
    char const* c_str() const { return text_.c_str(); }
    std::string const& str() const { return text_; }

private:
    std::string text_;
};

/**
 * Reads one JSON value from a text.
 * @param log_failure  not 0: a fault is logged at LM_ERROR
 * @return false, with @a value untouched, on any fault
 */
[[nodiscard]] bool loads_json(char const* text, size_t length, json_spirit::Value& value,
                              int log_failure);

/** The same from a file. A file that cannot be read is always logged. */
[[nodiscard]] bool load_json(char const* path, json_spirit::Value& value, int log_failure = 1);

/**
 * Writes a value to a file in one step: readers see the old content or the new, never a part, and
 * nobody reads it before the owner and the mode are right.
 * @param silent   0: a failure is logged at LM_ERROR; else it is not
 * @param pretty   indented, with line breaks
 * @param mode     of the file, whatever the umask
 * @param owner    null keeps this process's
 */
[[nodiscard]] bool dump_json(char const* path, json_spirit::Value const& value, int silent,
                             bool pretty, mode_t mode, File_Owner const* owner = nullptr);

#endif
