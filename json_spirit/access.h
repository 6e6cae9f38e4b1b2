#ifndef JSON_SPIRIT_ACCESS_H
#define JSON_SPIRIT_ACCESS_H

#include "json_spirit/value.h"

#include <boost/range/adaptor/filtered.hpp>
#include <boost/range/adaptor/transformed.hpp>
#include <limits>
#include <string>
#include <type_traits>
#include <utility>

/**
 * Reading and writing the keys of an object.
 *
 * What a key can be read into: std::string (from a string), secure_string (from a string or a
 * secure string), bool, every integer type (from an int in its range), double (from a real or an
 * int), Object, Array, Value (from anything), and pointers to const Object, Array, std::string and
 * Value, which then point into the object that was read, and are valid as long as it stays
 * unchanged.
 */
namespace json_spirit {

namespace detail {

template <typename Integer>
Integer to_integer(Value const& value) {
    if constexpr (std::is_signed_v<Integer>) {
        int64_t const number = value.get_int64();
        if (number >= std::numeric_limits<Integer>::min() &&
            number <= std::numeric_limits<Integer>::max())
            return static_cast<Integer>(number);
        throw Error("number " + std::to_string(number) + " is out of range");
    } else {
        uint64_t const number = value.get_uint64();
        if (number <= std::numeric_limits<Integer>::max())
            return static_cast<Integer>(number);
        throw Error("number " + std::to_string(number) + " is out of range");
    }
}

inline void read(Value const& value, std::string& out) {
    out = value.get_str();
}
void read(Value const& value, secure_string& out);
inline void read(Value const& value, bool& out) {
    out = value.get_bool();
}
inline void read(Value const& value, double& out) {
    out = value.get_real();
}
inline void read(Value const& value, Object& out) {
    out = value.get_obj();
}
inline void read(Value const& value, Array& out) {
    out = value.get_array();
}
inline void read(Value const& value, Value& out) {
    out = value;
}
inline void read(Value const& value, Object const*& out) {
    out = &value.get_obj();
}
inline void read(Value const& value, Array const*& out) {
    out = &value.get_array();
}
inline void read(Value const& value, std::string const*& out) {
    out = &value.get_str();
}
inline void read(Value const& value, Value const*& out) {
    out = &value;
}
inline void read(Value& value, Object*& out) {
    out = &value.get_obj();
}
inline void read(Value& value, Array*& out) {
    out = &value.get_array();
}
inline void read(Value& value, Value*& out) {
    out = &value;
}
template <typename Integer>
std::enable_if_t<std::is_integral_v<Integer>> read(Value const& value, Integer& out) {
    out = to_integer<Integer>(value);
}

[[noreturn]] void throw_missing(std::string const& key);
[[noreturn]] void throw_unfit(std::string const& key, std::exception const& cause);

/** Reads one key. @return false when it is absent; throws Error, with the key's name, when unfit.
 */
template <typename Object_type, typename Out>
[[nodiscard]] bool read_key(Object_type& object, std::string const& key, Out& out) {
    auto const found = object.find(key);
    if (found == object.end())
        return false;
    try {
        read(found->second, out);
    } catch (Error const& cause) {
        throw_unfit(key, cause);
    }
    return true;
}

} // namespace detail

/**
 * Reads a key into @a out if it is there and of the right kind and range.
 * @return true when it was read; false leaves @a out alone. Does not throw.
 */
template <typename Out>
bool object_get(Object const& object, std::string const& key, Out& out) {
    try {
        return detail::read_key(object, key, out);
    } catch (Error const&) {
        return false;
    }
}

/** The text under a key; "" when it is absent or no string. */
std::string object_get_str(Object const& object, std::string const& key);
/** The value under a key; Value::null when it is absent. Valid as long as the object. */
Value const& object_get_any(Object const& object, std::string const& key);
/** The value under a key; a null pointer when it is absent. */
Value const* object_get_any_ptr(Object const& object, std::string const& key);
/** The whole number under a key; throws Error when it is absent, of another kind or too large. */
int64_t object_get_int64_or_throw(Object const& object, std::string const& key);

/** Chained plain reads: extract(object)("name", name)("port", port). Never throws. */
class Const_Object_Extractor {
public:
    explicit Const_Object_Extractor(Object const& object) : object_(object) {}
    template <typename Out>
    Const_Object_Extractor const& operator()(std::string const& key, Out& out) const {
        object_get(object_, key, out);
        return *this;
    }

private:
    Object const& object_;
};

/**
 * Chained throwing reads: extract_or_throw(object)("uid", uid, true)("database", name, false).
 * A required key that is absent throws Error; one that is not required leaves its target alone. A
 * key that is there with a value of another kind, or out of range, throws either way. The message
 * names the key, the kind wanted and the kind found. What was read before stays read.
 */
template <typename Object_type>
class Throw_Extractor_T {
public:
    explicit Throw_Extractor_T(Object_type& object) : object_(object) {}
    template <typename Out>
    Throw_Extractor_T const& operator()(std::string const& key, Out& out,
                                        bool required = true) const {
        if (!detail::read_key(object_, key, out) && required)
            detail::throw_missing(key);
        return *this;
    }

private:
    Object_type& object_;
};

using Const_Object_Throw_Extractor = Throw_Extractor_T<Object const>;
using Object_Throw_Extractor = Throw_Extractor_T<Object>;

inline Const_Object_Extractor extract(Object const& object) {
    return Const_Object_Extractor(object);
}
inline Const_Object_Throw_Extractor extract_or_throw(Object const& object) {
    return Const_Object_Throw_Extractor(object);
}
inline Object_Throw_Extractor extract_or_throw(Object& object) {
    return Object_Throw_Extractor(object);
}

/** In an inserter's value position: the key is left out when the text, object or array is empty. */
template <typename T>
struct Skip_Empty_Helper {
    explicit Skip_Empty_Helper(T const& wrapped) : value(wrapped) {}
    [[nodiscard]] bool skip() const { return value.empty(); }
    T const& value;
};

/** In an inserter's value position: the key is left out when the value is null. */
template <typename T>
struct Skip_NULL_Helper {
    explicit Skip_NULL_Helper(T const& wrapped) : value(wrapped) {}
    [[nodiscard]] bool skip() const { return Value(value).is_null(); }
    T const& value;
};

/** Chained writes: insert(object)("name", name)("port", 8002). A key that is there is replaced. */
class Object_Inserter {
public:
    explicit Object_Inserter(Object& object) : object_(object) {}

    Object_Inserter const& operator()(std::string const& key, Value value) const {
        object_.insert_or_assign(key, std::move(value));
        return *this;
    }
    template <typename T>
    Object_Inserter const& operator()(std::string const& key,
                                      Skip_Empty_Helper<T> const& helper) const {
        return helper.skip() ? *this : (*this)(key, Value(helper.value));
    }
    template <typename T>
    Object_Inserter const& operator()(std::string const& key,
                                      Skip_NULL_Helper<T> const& helper) const {
        return helper.skip() ? *this : (*this)(key, Value(helper.value));
    }

private:
    Object& object_;
};

inline Object_Inserter insert(Object& object) {
    return Object_Inserter(object);
}

/** Builds an object in one expression: Value(Object_Maker()("a", 1)("b", "x")). */
class Object_Maker {
public:
    template <typename T>
    Object_Maker& operator()(std::string const& key, T&& value) {
        insert(object_)(key, std::forward<T>(value));
        return *this;
    }
    operator Object() const { return object_; }
    operator Value() const { return Value(object_); }

private:
    Object object_;
};

/** Builds an array in one expression: Value(Array_Maker()(1)("x")). */
class Array_Maker {
public:
    Array_Maker& operator()(Value value) {
        array_.push_back(std::move(value));
        return *this;
    }
    operator Array() const { return array_; }
    operator Value() const { return Value(array_); }

private:
    Array array_;
};

/**
 * Predicate and converters for ranges over an array:
 *
 *     array | filtered(Type_Checker(obj_type)) | transformed(Get_Object_Helper())
 */
class Type_Checker {
public:
    explicit Type_Checker(Value_type type) : type_(type) {}
    bool operator()(Value const& value) const { return value.type() == type_; }

private:
    Value_type type_;
};

struct Get_Object_Helper {
    using result_type = Object const&;
    Object const& operator()(Value const& value) const { return value.get_obj(); }
};

struct Get_Array_Helper {
    using result_type = Array const&;
    Array const& operator()(Value const& value) const { return value.get_array(); }
};

struct Get_String_type_Helper {
    using result_type = String_type const&;
    String_type const& operator()(Value const& value) const { return value.get_str(); }
};

struct Get_secure_string_Helper {
    using result_type = secure_string const&;
    secure_string const& operator()(Value const& value) const { return value.get_secure_str(); }
};

/** The elements of one type as a range of what they hold; others are passed over. The range refers
 *  to the array, which therefore has to outlive it. */
inline auto objects_of(Array const& array) {
    return array | boost::adaptors::filtered(Type_Checker(obj_type)) |
           boost::adaptors::transformed(Get_Object_Helper());
}
void objects_of(Array const&&) = delete;
inline auto strings_of(Array const& array) {
    return array | boost::adaptors::filtered(Type_Checker(str_type)) |
           boost::adaptors::transformed(Get_String_type_Helper());
}
void strings_of(Array const&&) = delete;

/** Copies into @a target the value of @a key in @a changes; nothing when it is not there. */
void update_json_partial(Object& target, Object const& changes, std::string const& key);

} // namespace json_spirit

#endif
