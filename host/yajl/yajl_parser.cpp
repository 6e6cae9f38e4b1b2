#include "host/yajl/yajl_parser.h"

#include "json_spirit/text.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <array>
#include <yajl/yajl_parse.h>

/** The events of yajl, checked and handed to the parser's handlers. */
struct YAJL_Parser_Events {
    using Parser = YAJL_Parser_Base;

    /** Calls a handler; what it throws must not reach the C code of yajl. */
    template <typename Handle>
    static int tell(void* context, Handle handle) {
        Parser& parser = *static_cast<Parser*>(context);
        try {
            return handle(parser) && parser.err_ == YAJL_ERR_NONE ? 1 : 0;
        } catch (std::exception const& fault) {
            parser.reason_ = fault.what();
            return 0;
        }
    }

    static int on_null(void* context) {
        return tell(context, [](Parser& parser) { return parser.handle_null_i(); });
    }
    static int on_boolean(void* context, int value) {
        return tell(context, [=](Parser& parser) { return parser.handle_boolean_i(value != 0); });
    }
    static int on_number(void* context, char const* text, size_t length) {
        return tell(context, [=](Parser& parser) { return parser.handle_number_i(text, length); });
    }
    static int on_string(void* context, unsigned char const* bytes, size_t length) {
        char const* const text = reinterpret_cast<char const*>(bytes);
        return tell(context, [=](Parser& parser) {
            return parser.check(text, length) && parser.handle_string_i(text, length);
        });
    }
    static int on_start_map(void* context) {
        return tell(context,
                    [](Parser& parser) { return parser.enter() && parser.handle_start_map_i(); });
    }
    static int on_map_key(void* context, unsigned char const* bytes, size_t length) {
        char const* const text = reinterpret_cast<char const*>(bytes);
        return tell(context, [=](Parser& parser) {
            if (!parser.check(text, length))
                return false;
            parser.keys_.back().assign(text, length);
            return parser.handle_map_key_i(text, length);
        });
    }
    static int on_end_map(void* context) {
        return tell(context,
                    [](Parser& parser) { return parser.leave() && parser.handle_end_map_i(); });
    }
    static int on_start_array(void* context) {
        return tell(context,
                    [](Parser& parser) { return parser.enter() && parser.handle_start_array_i(); });
    }
    static int on_end_array(void* context) {
        return tell(context,
                    [](Parser& parser) { return parser.leave() && parser.handle_end_array_i(); });
    }
};

namespace {

// numbers come as text, which loses nothing, so there is nothing for integers and doubles
constexpr yajl_callbacks CALLBACKS = {
    YAJL_Parser_Events::on_null,
    YAJL_Parser_Events::on_boolean,
    nullptr,
    nullptr,
    YAJL_Parser_Events::on_number,
    YAJL_Parser_Events::on_string,
    YAJL_Parser_Events::on_start_map,
    YAJL_Parser_Events::on_map_key,
    YAJL_Parser_Events::on_end_map,
    YAJL_Parser_Events::on_start_array,
    YAJL_Parser_Events::on_end_array,
};

/** What a byte means to the bound of strings and numbers; a byte may mean several of them. */
enum Byte_Meaning : unsigned char { ENDS_STRING = 1, ENDS_PLAIN_STRING = 2, ENDS_NUMBER = 4 };

constexpr std::array<unsigned char, 256> BYTE_MEANINGS = [] {
    std::array<unsigned char, 256> meanings{};
    for (char const c : std::string_view(" \t\r\n{}[]:,"))
        meanings[static_cast<unsigned char>(c)] = ENDS_NUMBER;
    meanings['"'] = ENDS_STRING | ENDS_PLAIN_STRING | ENDS_NUMBER;
    meanings['\\'] = ENDS_PLAIN_STRING;
    return meanings;
}();

bool has(Byte_Meaning meaning, char byte) {
    return BYTE_MEANINGS[static_cast<unsigned char>(byte)] & meaning;
}

/** What yajl says of its own errors, without the line break. */
std::string message_of(yajl_handle handle) {
    unsigned char* const message = yajl_get_error(handle, 0, nullptr, 0);
    std::string text = message ? reinterpret_cast<char*>(message) : "out of memory";
    yajl_free_error(handle, message);
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

} // namespace

void YAJL_Parser_Base::Handle_Deleter::operator()(yajl_handle_t* handle) const {
    yajl_free(handle);
}

YAJL_Parser_Base::YAJL_Parser_Base() : handle_(yajl_alloc(&CALLBACKS, nullptr, this)) {
    if (handle_)
        yajl_config(handle_.get(), yajl_dont_validate_strings, 1); // checked here, more strictly
}

YAJL_Parser_Base::~YAJL_Parser_Base() = default;

bool YAJL_Parser_Base::parse(char const* text, size_t size) {
    if (err_ != YAJL_ERR_NONE)
        return false;
    if (!handle_)
        return fail(YAJL_ERR_MEMORY, "out of memory", 0);
    if (completed_)
        return fail(YAJL_ERR_TRAILING, "the text was said to be over", consumed_);
    if (!escapes_.feed(std::string_view(text, size)))
        return fail(YAJL_ERR_UTF8, json_spirit::Escape_Scan::FAULT, consumed_);
    size_t const usable = bytes_before_too_long(std::string_view(text, size));
    auto const* const bytes = reinterpret_cast<unsigned char const*>(text);
    yajl_status const status = yajl_parse(handle_.get(), bytes, usable);
    if (status != yajl_status_ok)
        return fail_by_yajl(status, false);
    consumed_ += usable;
    if (usable < size)
        return fail(YAJL_ERR_LENGTH,
                    "a string or number is longer than " + std::to_string(max_string_size_) +
                        " bytes",
                    consumed_);
    return true;
}

bool YAJL_Parser_Base::complete() {
    if (err_ != YAJL_ERR_NONE)
        return false;
    if (!handle_)
        return fail(YAJL_ERR_MEMORY, "out of memory", 0);
    if (completed_)
        return true;
    completed_ = true;
    yajl_status const status = yajl_complete_parse(handle_.get());
    if (status != yajl_status_ok)
        return fail_by_yajl(status, true);
    // yajl takes a string that begins behind the value and never ends for blanks
    return !in_string_ || fail(YAJL_ERR_TRAILING, "an open string behind the value", consumed_);
}

bool YAJL_Parser_Base::stop(int code, std::string what) {
    err_ = code;
    reason_ = std::move(what);
    return false;
}

bool YAJL_Parser_Base::ignore(std::string what) {
    if (ignored_.empty())
        ignored_ = qmrt::to_one_line(what);
    return true;
}

bool YAJL_Parser_Base::fail_by_yajl(int status, bool at_end) {
    // at the end yajl counts the blank that it adds
    size_t const at = consumed_ + (at_end ? 0 : yajl_get_bytes_consumed(handle_.get()));
    if (status == yajl_status_client_canceled) {
        int const code = err_ != YAJL_ERR_NONE ? err_ : int{YAJL_ERR_REFUSED};
        return fail(code, reason_.empty() ? "the value or key was refused" : reason_, at);
    }
    std::string const message = message_of(handle_.get());
    if (message.find("trailing garbage") != std::string::npos)
        return fail(YAJL_ERR_TRAILING, message, at);
    return fail(at_end ? YAJL_ERR_INCOMPLETE : YAJL_ERR_SYNTAX, message, at);
}

bool YAJL_Parser_Base::fail(int code, std::string const& what, size_t at) {
    err_ = code;
    std::string const key = current_key();
    error_ = qmrt::to_one_line(what + (key.empty() ? "" : " at key \"" + key + "\"")) +
             " near byte " + std::to_string(at) + " (code " + std::to_string(code) + ")";
    return false;
}

/**
 * How much of a piece may go to yajl, which collects a string or number of any length in memory:
 * all of it, or up to where one becomes too long.
 */
size_t YAJL_Parser_Base::bytes_before_too_long(std::string_view piece) {
    size_t at = 0;
    while (at < piece.size()) {
        size_t const begin = at;
        // the token's bytes that may still come, from here to where the token or its bound ends
        size_t const end = begin + std::min(piece.size() - begin, max_string_size_ - token_size_);
        if (escaped_ && at < end) {
            escaped_ = false;
            ++at;
        }
        while (at < end && !has(in_string_ ? ENDS_PLAIN_STRING : ENDS_NUMBER, piece[at]))
            ++at;
        token_size_ += at - begin;
        if (at == piece.size())
            break;
        char const c = piece[at];
        if (in_string_ && c == '\\' && at < end) {
            escaped_ = true;
            ++token_size_;
        } else if (!escaped_ && has(in_string_ ? ENDS_STRING : ENDS_NUMBER, c)) {
            in_string_ = in_string_ != (c == '"');
            token_size_ = 0;
        } else {
            return at;
        }
        ++at;
    }
    return at;
}

bool YAJL_Parser_Base::enter() {
    if (keys_.size() == json_spirit::MAX_DEPTH)
        return stop(YAJL_ERR_DEPTH,
                    "nested deeper than " + std::to_string(json_spirit::MAX_DEPTH) + " levels");
    keys_.emplace_back();
    return true;
}

bool YAJL_Parser_Base::leave() {
    keys_.pop_back();
    return true;
}

bool YAJL_Parser_Base::check(char const* text, size_t length) {
    if (qmrt::is_utf8(std::string_view(text, length)))
        return true;
    return stop(YAJL_ERR_UTF8, "a string or key is no UTF-8");
}

std::string YAJL_Parser_Base::current_key() const {
    constexpr size_t MAX_SHOWN = 64;
    auto const found = std::find_if(keys_.rbegin(), keys_.rend(),
                                    [](std::string const& key) { return !key.empty(); });
    return found == keys_.rend() ? "" : found->substr(0, MAX_SHOWN);
}
