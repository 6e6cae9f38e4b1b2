#include "json_spirit/text.h"

#include "json_spirit/escape_scan.h"
#include "qmrt/file.h"
#include "qmrt/log.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <yajl/yajl_gen.h>
#include <yajl/yajl_parse.h>

namespace json_spirit {

namespace {

/** Builds a value from the events of the parser. */
class Builder {
public:
    std::string const& error() const { return error_; }
    Value& result() { return root_; }

    /** The parser that this gets its events from. */
    yajl_handle parser = nullptr;
    /** Where the text stands behind the value; a number at the very end of the text has no such. */
    size_t value_end = std::string_view::npos;

    static yajl_callbacks const* callbacks() {
        static yajl_callbacks const table = {
            [](void* self) { return of(self).add(Value()); },
            [](void* self, int value) { return of(self).add(Value(value != 0)); },
            nullptr, // whole numbers
            nullptr, // reals: both come as text, which loses nothing
            [](void* self, char const* text, size_t length) {
                return of(self).number(std::string_view(text, length));
            },
            [](void* self, unsigned char const* text, size_t length) {
                return of(self).add(Value(to_string(text, length)));
            },
            [](void* self) { return of(self).open(Value(Object())); },
            [](void* self, unsigned char const* text, size_t length) {
                of(self).key_ = to_string(text, length);
                return 1;
            },
            [](void* self) { return of(self).close(); },
            [](void* self) { return of(self).open(Value(Array())); },
            [](void* self) { return of(self).close(); },
        };
        return &table;
    }

private:
    static Builder& of(void* self) { return *static_cast<Builder*>(self); }
    static std::string to_string(unsigned char const* text, size_t length) {
        return std::string(reinterpret_cast<char const*>(text), length);
    }

    Value* place(Value&& value) {
        if (stack_.empty()) {
            root_ = std::move(value);
            return &root_;
        }
        Value& top = *stack_.back();
        if (top.type() == obj_type) {
            Object& object = top.get_obj();
            // with the end as a hint, keys that come in ascending order cost no search
            return &object.insert_or_assign(object.end(), std::move(key_), std::move(value))
                        ->second;
        }
        // the address stays right: an array does not grow while one of its elements is open
        return &top.get_array().emplace_back(std::move(value));
    }

    int add(Value&& value) {
        place(std::move(value));
        return done();
    }

    int done() {
        if (stack_.empty() && parser)
            value_end = yajl_get_bytes_consumed(parser);
        return 1;
    }

    int open(Value&& container) {
        if (stack_.size() == MAX_DEPTH) {
            error_ = "nested deeper than " + std::to_string(MAX_DEPTH) + " levels";
            return 0;
        }
        stack_.push_back(place(std::move(container)));
        return 1;
    }

    int close() {
        stack_.pop_back();
        return done();
    }

    int number(std::string_view text) {
        char const* const end = text.data() + text.size();
        int64_t whole;
        uint64_t large;
        double real = 0;
        if (auto read = std::from_chars(text.data(), end, whole);
            read.ec == std::errc() && read.ptr == end)
            return add(Value(whole));
        if (auto read = std::from_chars(text.data(), end, large);
            read.ec == std::errc() && read.ptr == end)
            return add(Value(large));
        auto const read = std::from_chars(text.data(), end, real);
        if (read.ec == std::errc::result_out_of_range) // too large, or rounded to the nearest
            real = std::strtod(std::string(text).c_str(), nullptr);
        if (read.ptr == end && std::isfinite(real))
            return add(Value(real));
        error_ = "number " + std::string(text.substr(0, 40)) + " is out of range";
        return 0;
    }

    Value root_;
    std::vector<Value*> stack_;
    std::string key_;
    std::string error_;
};

struct Parser_Deleter {
    void operator()(yajl_handle parser) const { yajl_free(parser); }
};
using Parser = std::unique_ptr<std::remove_pointer_t<yajl_handle>, Parser_Deleter>;

std::string describe(yajl_handle parser, Builder const& builder) {
    size_t const offset = yajl_get_bytes_consumed(parser);
    std::string text = builder.error();
    if (text.empty()) {
        unsigned char* const message = yajl_get_error(parser, 0, nullptr, 0);
        text = reinterpret_cast<char*>(message);
        yajl_free_error(parser, message);
        while (!text.empty() && text.back() == '\n')
            text.pop_back();
    }
    return text + " near byte " + std::to_string(offset);
}

struct Generator_Deleter {
    void operator()(yajl_gen generator) const { yajl_gen_free(generator); }
};
using Generator = std::unique_ptr<std::remove_pointer_t<yajl_gen>, Generator_Deleter>;

class Writer {
public:
    Writer(bool pretty, bool hide_secrets)
        : generator_(yajl_gen_alloc(nullptr)), hide_secrets_(hide_secrets) {
        yajl_gen_config(generator_.get(), yajl_gen_beautify, pretty ? 1 : 0);
        yajl_gen_config(generator_.get(), yajl_gen_indent_string, "  ");
    }

    void write(Value const& value, int depth = 0) {
        yajl_gen const gen = generator_.get();
        switch (value.type()) {
        case obj_type:
            check_depth(depth);
            yajl_gen_map_open(gen);
            for (auto const& [key, member] : value.get_obj()) {
                string(key);
                write(member, depth + 1);
            }
            yajl_gen_map_close(gen);
            break;
        case array_type:
            check_depth(depth);
            yajl_gen_array_open(gen);
            for (Value const& element : value.get_array())
                write(element, depth + 1);
            yajl_gen_array_close(gen);
            break;
        case str_type:
            string(value.get_str());
            break;
        case secure_str_type:
            string(hide_secrets_ ? std::string_view("******")
                                 : std::string_view(value.get_secure_str()));
            break;
        case bool_type:
            yajl_gen_bool(gen, value.get_bool());
            break;
        case int_type:
            if (value.is_uint64())
                number(value.get_uint64());
            else
                number(value.get_int64());
            break;
        case real_type:
            real(value.get_real());
            break;
        case null_type:
            yajl_gen_null(gen);
            break;
        }
    }

    std::string text() const {
        unsigned char const* data = nullptr;
        size_t length = 0;
        yajl_gen_get_buf(generator_.get(), &data, &length);
        return std::string(reinterpret_cast<char const*>(data), length);
    }

private:
    static void check_depth(int depth) {
        if (depth == MAX_DEPTH)
            throw Error("nested deeper than " + std::to_string(MAX_DEPTH) + " levels");
    }

    void string(std::string_view text) {
        std::string mended;
        if (!qmrt::is_utf8(text))
            text = mended = qmrt::to_utf8(text);
        yajl_gen_string(generator_.get(), reinterpret_cast<unsigned char const*>(text.data()),
                        text.size());
    }

    template <typename Number>
    void number(Number value) {
        char text[40];
        auto const end = std::to_chars(text, text + sizeof text, value).ptr;
        yajl_gen_number(generator_.get(), text, static_cast<size_t>(end - text));
    }

    void real(double value) {
        std::string const text = real_to_text(value);
        yajl_gen_number(generator_.get(), text.data(), text.size());
    }

    Generator generator_;
    bool hide_secrets_;
};

} // namespace

bool parse(std::string_view text, Value& value, std::string* error) {
    if (!qmrt::is_utf8(text)) {
        if (error)
            *error = "text is not UTF-8";
        return false;
    }
    if (!Escape_Scan().feed(text)) {
        if (error)
            *error = Escape_Scan::FAULT;
        return false;
    }
    Builder builder;
    Parser const parser(yajl_alloc(Builder::callbacks(), nullptr, &builder));
    yajl_config(parser.get(), yajl_dont_validate_strings, 1); // checked above, more strictly
    auto const* const bytes = reinterpret_cast<unsigned char const*>(text.data());
    builder.parser = parser.get();
    bool ok = yajl_parse(parser.get(), bytes, text.size()) == yajl_status_ok;
    builder.parser = nullptr; // its count of bytes begins anew with what follows
    ok = ok && yajl_complete_parse(parser.get()) == yajl_status_ok;
    if (!ok) {
        if (error)
            *error = describe(parser.get(), builder);
        return false;
    }
    // the parser takes a string that begins behind the value and never ends for blanks
    size_t const end = std::min(builder.value_end, text.size());
    if (text.find_first_not_of(" \t\r\n", end) != std::string_view::npos) {
        if (error)
            *error = "text behind the value near byte " + std::to_string(end);
        return false;
    }
    value = std::move(builder.result());
    return true;
}

std::string real_to_text(double value) {
    if (!std::isfinite(value))
        return "null";
    char digits[40];
    char const* const end = std::to_chars(digits, digits + sizeof digits, value).ptr;
    std::string text(digits, static_cast<size_t>(end - digits));
    // 1e300 and 0.5 read back as reals; a plain 1 would come back as a whole number
    if (text.find_first_of(".e") == std::string::npos)
        text += ".0";
    return text;
}

std::string to_text(Value const& value, bool pretty) {
    Writer writer(pretty, false);
    writer.write(value);
    return writer.text();
}

} // namespace json_spirit

JSON_Dump::JSON_Dump(json_spirit::Value const& value, bool pretty) {
    try {
        json_spirit::Writer writer(pretty, true);
        writer.write(value);
        text_ = writer.text();
    } catch (json_spirit::Error const& error) {
        text_ = error.what();
    }
}

bool loads_json(char const* text, size_t length, json_spirit::Value& value, int log_failure) {
    std::string error;
    if (json_spirit::parse(std::string_view(text, length), value, &error))
        return true;
    if (log_failure)
        QMRT_LOG(LM_ERROR, "Failed to parse JSON, %s\n", error.c_str());
    return false;
}

bool load_json(char const* path, json_spirit::Value& value, int log_failure) {
    std::string content;
    if (read_file(path, content, json_spirit::MAX_FILE_SIZE) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to read %s, errno=%d, %m\n", path, errno);
        return false;
    }
    std::string error;
    if (json_spirit::parse(content, value, &error))
        return true;
    if (log_failure)
        QMRT_LOG(LM_ERROR, "Failed to parse JSON %s, %s\n", path, error.c_str());
    return false;
}

bool dump_json(char const* path, json_spirit::Value const& value, int silent, bool pretty,
               mode_t mode, File_Owner const* owner) {
    std::string text;
    try {
        text = json_spirit::to_text(value, pretty);
    } catch (json_spirit::Error const& error) {
        if (!silent)
            QMRT_LOG(LM_ERROR, "Failed to write JSON %s, %s\n", path, error.what());
        return false;
    }
    if (write_file_atomically(path, text, mode, owner) == 0)
        return true;
    if (!silent)
        QMRT_LOG(LM_ERROR, "Failed to write %s, errno=%d, %m\n", path, errno);
    return false;
}
