#include "json_spirit/access.h"

namespace json_spirit {

namespace detail {

void read(Value const& value, secure_string& out) {
    if (value.type() == str_type)
        out = secure_string(std::string_view(value.get_str()));
    else
        out = value.get_secure_str();
}

void throw_missing(std::string const& key) {
    throw Error("key '" + key + "' is missing");
}

void throw_unfit(std::string const& key, std::exception const& cause) {
    throw Error("key '" + key + "': " + cause.what());
}

} // namespace detail

std::string object_get_str(Object const& object, std::string const& key) {
    std::string text;
    object_get(object, key, text);
    return text;
}

Value const& object_get_any(Object const& object, std::string const& key) {
    Value const* const found = object_get_any_ptr(object, key);
    return found ? *found : Value::null;
}

Value const* object_get_any_ptr(Object const& object, std::string const& key) {
    auto const found = object.find(key);
    return found == object.end() ? nullptr : &found->second;
}

int64_t object_get_int64_or_throw(Object const& object, std::string const& key) {
    int64_t number = 0;
    extract_or_throw(object)(key, number, true);
    return number;
}

void update_json_partial(Object& target, Object const& changes, std::string const& key) {
    if (Value const* const value = object_get_any_ptr(changes, key))
        target[key] = *value;
}

} // namespace json_spirit
