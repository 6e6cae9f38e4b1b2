#include "host/xml/xml_text.h"

#include "qmrt/regex.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <charconv>
#include <iconv.h>
#include <string_view>

namespace {

constexpr std::string_view BLANKS = " \t\r\n";
constexpr std::string_view UTF8_MARK = "\xef\xbb\xbf";
constexpr size_t LONGEST_DECLARATION = 1024;

boost::regex const RE_ENCODING("<\\?xml\\s[^>]*?(\\sencoding\\s*=\\s*[\"']([A-Za-z][-A-Za-z0-9._]*)"
                               "[\"'])[^>]*>");

bool starts_at(std::string const& text, size_t at, std::string_view with) {
    return text.compare(at, with.size(), with) == 0;
}

/** Converts a text to UTF-8. @return false when a byte has no meaning, or nobody knows the name */
bool convert(std::string const& text, std::string const& encoding, std::string& result) {
    iconv_t const converter = iconv_open("UTF-8", encoding.c_str());
    if (converter == reinterpret_cast<iconv_t>(-1))
        return false;
    std::string made(4 * text.size() + 16, '\0'); // no character takes more for each of its bytes
    char* from = const_cast<char*>(text.data());
    char* to = made.data();
    size_t left = text.size();
    size_t room = made.size();
    bool const whole = iconv(converter, &from, &left, &to, &room) != static_cast<size_t>(-1) &&
                       iconv(converter, nullptr, nullptr, &to, &room) != static_cast<size_t>(-1);
    iconv_close(converter);
    if (!whole)
        return false;
    made.resize(made.size() - room);
    result = std::move(made);
    return true;
}

/** The encoding by the first bytes; "" when these do not tell. */
std::string marked_encoding(std::string const& text) {
    using namespace std::string_literals;
    if (text.starts_with("\xfe\xff") || text.starts_with("\xff\xfe"))
        return "UTF-16";
    if (text.starts_with("\0<"s))
        return "UTF-16BE";
    return text.starts_with("<\0"s) ? "UTF-16LE" : "";
}

bool decode(std::string& text, std::string& fault) {
    std::string encoding = marked_encoding(text);
    std::string result = text;
    if (!encoding.empty() && !convert(text, encoding, result)) {
        fault = "it is not " + encoding;
        return false;
    }
    if (result.starts_with(UTF8_MARK))
        result.erase(0, UTF8_MARK.size());
    std::string const head = result.substr(0, LONGEST_DECLARATION);
    boost::smatch groups;
    if (boost::regex_search(head, groups, RE_ENCODING, boost::match_continuous)) {
        std::string const declared = groups[2];
        bool const is_utf8 = boost::iequals(declared, "UTF-8") || boost::iequals(declared, "UTF8");
        if (encoding.empty() && !is_utf8) {
            if (!convert(result, declared, result)) {
                fault = "it has an unknown encoding, or bytes that are not of it: " + declared;
                return false;
            }
            encoding = declared;
        }
        if (!encoding.empty()) // which it has no more
            result.erase(static_cast<size_t>(groups.position(1)),
                         static_cast<size_t>(groups.length(1)));
    }
    text = std::move(result);
    return true;
}

/** Takes the comments out that stand before anything else, or right behind the declaration. */
void drop_first_comments(std::string& text) {
    size_t begin = 0;
    if (starts_at(text, 0, "<?xml") && text.find("?>") != std::string::npos)
        begin = text.find("?>") + 2;
    size_t at = begin;
    for (;;) {
        size_t const next = text.find_first_not_of(BLANKS, at);
        size_t const end = next != std::string::npos && starts_at(text, next, "<!--")
                               ? text.find("--", next + 4)
                               : std::string::npos;
        if (end == std::string::npos || !starts_at(text, end, "-->"))
            break;
        at = end + 3;
    }
    size_t const content = std::min(text.find_first_not_of(BLANKS, at), text.size());
    text.erase(begin, content - begin); // nor does the parser take blanks at the beginning
}

bool is_character(unsigned long code) {
    return (code >= 0x80 && code < 0xd800) || (code >= 0xe000 && code <= 0xfffd) ||
           (code >= 0x10000 && code <= 0x10ffff);
}

void append_utf8(std::string& text, unsigned long code) {
    auto const put = [&](unsigned long byte) { text += static_cast<char>(byte); };
    if (code < 0x800) {
        put(0xc0 | code >> 6);
    } else {
        if (code < 0x10000) {
            put(0xe0 | code >> 12);
        } else {
            put(0xf0 | code >> 18);
            put(0x80 | (code >> 12 & 0x3f));
        }
        put(0x80 | (code >> 6 & 0x3f));
    }
    put(0x80 | (code & 0x3f));
}

/** The length of a reference to a character beyond ASCII; 0 for anything else. */
size_t reference_at(std::string const& text, size_t at, unsigned long& code) {
    if (!starts_at(text, at, "&#"))
        return 0;
    size_t const end = text.find(';', at);
    bool const is_hex = starts_at(text, at, "&#x");
    char const* const first = text.data() + at + (is_hex ? 3 : 2);
    if (end == std::string::npos)
        return 0;
    auto const read = std::from_chars(first, text.data() + end, code, is_hex ? 16 : 10);
    bool const whole = read.ec == std::errc() && read.ptr == text.data() + end;
    return whole && is_character(code) ? end + 1 - at : 0;
}

/** Where a part ends in which "&" has no meaning; @a at itself when none begins there. */
size_t skip_literal(std::string const& text, size_t at) {
    for (auto const& [begin, end] : {std::pair<std::string_view, std::string_view>{"<!--", "-->"},
                                     {"<![CDATA[", "]]>"},
                                     {"<?", "?>"}})
        if (starts_at(text, at, begin)) {
            size_t const found = text.find(end, at + begin.size());
            return found == std::string::npos ? text.size() : found + end.size();
        }
    return at;
}

void resolve_references(std::string& text) {
    if (text.find("&#") == std::string::npos)
        return;
    std::string result;
    result.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        unsigned long code = 0;
        if (size_t const literal = text[at] == '<' ? skip_literal(text, at) : at; literal != at) {
            result.append(text, at, literal - at);
            at = literal;
        } else if (size_t const length = text[at] == '&' ? reference_at(text, at, code) : 0) {
            append_utf8(result, code);
            at += length;
        } else
            result += text[at++];
    }
    text = std::move(result);
}

} // namespace

bool normalise_xml(std::string& text, std::string& fault) {
    if (!decode(text, fault))
        return false;
    drop_first_comments(text);
    resolve_references(text);
    return true;
}
