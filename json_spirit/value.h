#ifndef JSON_SPIRIT_VALUE_H
#define JSON_SPIRIT_VALUE_H

#include "json_spirit/secure_string.h"

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

/** The JSON value model: a tagged value, and objects and arrays of it. */
namespace json_spirit {

class Value;
using String_type = std::string;
/** Keys in ascending byte order. */
using Object = std::map<std::string, Value>;
using Array = std::vector<Value>;

enum Value_type {
    obj_type = 0,
    array_type = 1,
    str_type = 2,
    secure_str_type = 3, ///< a string whose memory is cleared when it is given back
    bool_type = 4,
    int_type = 5, ///< every whole number from the least int64_t to the largest uint64_t, exactly
    real_type = 6,
    null_type = 7
};

/** "object", "array", "string", "secure string", "bool", "int", "real", "null". */
char const* type_name(Value_type type);

/** What every throwing operation of this model throws; what() is ready for a log. */
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** Owns what it holds; copies are deep. One Value is for one thread at a time. */
class Value {
public:
    /** A shared null, to refer to. */
    static Value const null;

    Value() = default; ///< null
    Value(String_type text) : data_(std::move(text)) {}
    Value(secure_string text) : data_(std::move(text)) {}
    /** A null pointer gives a null value. */
    Value(char const* text);
    Value(Object object);
    Value(Array array);
    Value(bool value) : data_(value) {}
    Value(int value) : data_(int64_t{value}) {}
    Value(unsigned int value) : data_(int64_t{value}) {}
    Value(int64_t value) : data_(value) {}
    Value(uint64_t value);
    Value(long long value) : Value(static_cast<int64_t>(value)) {}
    Value(unsigned long long value) : Value(static_cast<uint64_t>(value)) {}
    Value(double value) : data_(value) {}
    template <typename Pointer, typename = std::enable_if_t<std::is_pointer_v<Pointer>>>
    Value(Pointer) = delete; // would turn into a bool

    Value_type type() const;
    [[nodiscard]] bool is_null() const { return type() == null_type; }
    /** True for a whole number above the largest int64_t. */
    [[nodiscard]] bool is_uint64() const { return std::holds_alternative<uint64_t>(data_); }

    /** Each throws Error when the value is of another type; the message names both types. */
    Object const& get_obj() const;
    Object& get_obj();
    Array const& get_array() const;
    Array& get_array();
    String_type const& get_str() const;
    secure_string const& get_secure_str() const;
    [[nodiscard]] bool get_bool() const;
    /** These throw Error also for a number that the result cannot hold. */
    int get_int() const;
    int64_t get_int64() const;
    uint64_t get_uint64() const;
    /** Takes whole numbers too. */
    double get_real() const;

    /** Equal type and equal content; 1 and 1.0 differ. */
    bool operator==(Value const& other) const;

private:
    using Data = std::variant<Object, Array, String_type, secure_string, bool, int64_t, double,
                              std::monostate, uint64_t>;
    template <typename T>
    T const& get(Value_type wanted) const;

    Data data_{std::monostate()};
};

} // namespace json_spirit

#endif
