#ifndef HOST_HTTP_HTTP_QUERY_STRING_BUILDER_T_H
#define HOST_HTTP_HTTP_QUERY_STRING_BUILDER_T_H

#include "host/http/http_encode.h"
#include "qmrt/format.h"

#include <cstring>
#include <iterator>
#include <string>

/**
 * Writes the keys and values of a query string through an output iterator:
 *
 *     HTTP_Query_String_Builder(std::back_inserter(request.query_string_buffer()), false)
 *         ("instance_id", id.c_str())("limit", 100u);
 *
 * A null or empty key writes nothing at all. Keys after the first are led in by "&".
 */
template <typename Out>
class HTTP_Query_String_Builder_T {
public:
    /** How keys and values are encoded: "/" as %2f and a space as "+", digits in lower case. */
    enum { ENCODE_FLAGS = HUT_FLAG_SLASH | HUT_FLAG_SPACE };

    /** @param sep  true when the text that @a iter appends to has a key already */
    HTTP_Query_String_Builder_T(Out iter, bool sep) : iter_(iter), sep_(sep) {}

    /**
     * Writes one key and its value. A null value leaves the "=" out, an empty one writes "key=".
     * @param encode_key  false: key and prefix are written as they are
     * @param encode_val  false: the value is written as it is
     * @param key_prefix  written before the key; may be null
     */
    HTTP_Query_String_Builder_T& operator()(char const* key, char const* val,
                                            bool encode_key = true, bool encode_val = true,
                                            char const* key_prefix = nullptr) {
        if (!write_key(key, encode_key, key_prefix) || !val)
            return *this;
        *iter_++ = '=';
        write(val, encode_val);
        return *this;
    }

    /** The same with a number, in decimal. */
    HTTP_Query_String_Builder_T& operator()(char const* key, unsigned int val,
                                            bool encode_key = true,
                                            char const* key_prefix = nullptr) {
        constexpr size_t DIGITS = 21; // any long, its sign and the NUL
        return (*this)(key, snprintf_t<DIGITS>("%ld", static_cast<long>(val)), encode_key, false,
                       key_prefix);
    }

private:
    /** @return false when there was no key to write */
    [[nodiscard]] bool write_key(char const* key, bool encode, char const* prefix) {
        if (!key || !*key)
            return false;
        if (sep_)
            *iter_++ = '&';
        sep_ = true;
        if (prefix)
            write(prefix, encode);
        write(key, encode);
        return true;
    }

    void write(char const* text, bool encode) {
        if (encode)
            iter_ = http_encode_string_i(text, std::strlen(text), iter_, ENCODE_FLAGS);
        else
            while (*text)
                *iter_++ = *text++;
    }

    Out iter_;
    bool sep_;
};

/** The form that appends to a string. */
using HTTP_Query_String_Builder =
    HTTP_Query_String_Builder_T<std::back_insert_iterator<std::string>>;

#endif
