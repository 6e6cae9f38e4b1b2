#ifndef JSON_SPIRIT_ESCAPE_SCAN_H
#define JSON_SPIRIT_ESCAPE_SCAN_H

#include <string_view>

namespace json_spirit {

/**
 * Finds a "\u" escape that names half of a surrogate pair without its other half (RFC 8259,
 * section 8.2). yajl replaces one by "?" and loses the character behind it, or combines two escapes
 * that are not a pair, so the readers look for it first. Reads the text as written, in as many
 * pieces as it comes in. One object is for one text and one thread.
 */
class Escape_Scan {
public:
    static constexpr char FAULT[] = "an escape names half of a surrogate pair";

    /** @return false from the first half of a pair on; malformed escapes are left to the parser */
    [[nodiscard]] bool feed(std::string_view piece);

private:
    enum State { PLAIN, BACKSLASH, DIGITS };

    [[nodiscard]] bool end_of_escape();

    State state_ = PLAIN;
    unsigned int code_ = 0;
    int digits_ = 0;
    bool high_pending_ = false; ///< the last escape was a high surrogate
    bool broken_ = false;
};

} // namespace json_spirit

#endif
