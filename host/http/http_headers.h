#ifndef HOST_HTTP_HTTP_HEADERS_H
#define HOST_HTTP_HTTP_HEADERS_H

#include <string>
#include <string_view>
#include <vector>

/**
 * The header fields of a request or a response (RFC 9110, 5). Names are the same in either case.
 *
 * A name that is no token and a value with a control character in it, CR and LF above all, are
 * refused: with them one field could pass for several. One object is for one thread at a time.
 */
class HTTP_Headers {
public:
    struct Field {
        std::string name;
        std::string value;
    };

    /**
     * Sets a field, in place of an earlier value. The value's blanks at both ends are dropped.
     * @return false, with nothing changed and an error line without the value, when refused
     */
    bool put(std::string_view name, std::string_view value);

    /**
     * The same for a field as it came from a peer: a second value joins the first, as "a, b", and
     * a refused one leaves no line in the log.
     */
    bool add(std::string_view name, std::string_view value);

    /** The value; "" when there is no such field. Valid until the headers change. */
    std::string const& get(std::string_view name) const;
    [[nodiscard]] bool contains(std::string_view name) const;
    void remove(std::string_view name);
    void clear() { fields_.clear(); }

    /** All fields, in the order in which they were first set. */
    std::vector<Field> const& fields() const { return fields_; }

private:
    Field* find(std::string_view name);
    Field const* find(std::string_view name) const;

    std::vector<Field> fields_;
};

#endif
