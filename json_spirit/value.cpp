#include "json_spirit/value.h"

#include <limits>
#include <string.h>

void secure_memset(void* memory, int value, size_t size) {
    memset(memory, value, size);
    // the memory counts as read from here on, so the write above has to stay
    __asm__ __volatile__("" : : "r"(memory) : "memory");
}

namespace json_spirit {

namespace {

[[noreturn]] void throw_wrong_type(Value_type wanted, Value_type found) {
    throw Error(std::string("expected ") + type_name(wanted) + ", found " + type_name(found));
}

[[noreturn]] void throw_out_of_range(std::string const& number) {
    throw Error("number " + number + " is out of range");
}

} // namespace

Value const Value::null;

char const* type_name(Value_type type) {
    static char const* const NAMES[] = {"object", "array", "string", "secure string",
                                        "bool",   "int",   "real",   "null"};
    return NAMES[type];
}

Value::Value(char const* text) {
    if (text)
        data_ = String_type(text);
}

Value::Value(Object object) : data_(std::move(object)) {}

Value::Value(Array array) : data_(std::move(array)) {}

Value::Value(uint64_t value) {
    // one form for each number, so that equal numbers compare equal
    if (value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        data_ = static_cast<int64_t>(value);
    else
        data_ = value;
}

Value_type Value::type() const {
    return is_uint64() ? int_type : static_cast<Value_type>(data_.index());
}

template <typename T>
T const& Value::get(Value_type wanted) const {
    if (T const* const found = std::get_if<T>(&data_))
        return *found;
    throw_wrong_type(wanted, type());
}

Object const& Value::get_obj() const {
    return get<Object>(obj_type);
}

Object& Value::get_obj() {
    return const_cast<Object&>(get<Object>(obj_type));
}

Array const& Value::get_array() const {
    return get<Array>(array_type);
}

Array& Value::get_array() {
    return const_cast<Array&>(get<Array>(array_type));
}

String_type const& Value::get_str() const {
    return get<String_type>(str_type);
}

secure_string const& Value::get_secure_str() const {
    return get<secure_string>(secure_str_type);
}

bool Value::get_bool() const {
    return get<bool>(bool_type);
}

int Value::get_int() const {
    int64_t const value = get_int64();
    if (value < std::numeric_limits<int>::min() || value > std::numeric_limits<int>::max())
        throw_out_of_range(std::to_string(value));
    return static_cast<int>(value);
}

int64_t Value::get_int64() const {
    if (uint64_t const* const large = std::get_if<uint64_t>(&data_))
        throw_out_of_range(std::to_string(*large));
    return get<int64_t>(int_type);
}

uint64_t Value::get_uint64() const {
    if (uint64_t const* const large = std::get_if<uint64_t>(&data_))
        return *large;
    int64_t const value = get<int64_t>(int_type);
    if (value < 0)
        throw_out_of_range(std::to_string(value));
    return static_cast<uint64_t>(value);
}

double Value::get_real() const {
    if (is_uint64())
        return static_cast<double>(get_uint64());
    if (int64_t const* const whole = std::get_if<int64_t>(&data_))
        return static_cast<double>(*whole);
    return get<double>(real_type);
}

bool Value::operator==(Value const& other) const {
    return data_ == other.data_;
}

} // namespace json_spirit
