#include "agent/jobs/member_reader.h"

#include "qmrt/format.h"

json_spirit::Value const* Member_Reader::find(char const* key, json_spirit::Value_type wanted) {
    known_.insert(key);
    auto const found = object_.find(key);
    if (!error_.empty() || found == object_.end() || found->second.is_null())
        return nullptr;
    if (found->second.type() == wanted)
        return &found->second;
    blame(key, string_sprintf("wanted %s, but got %s", type_name(wanted),
                              type_name(found->second.type())));
    return nullptr;
}

bool Member_Reader::text(char const* key, std::string& result, names::Rule rule) {
    json_spirit::Value const* const value = find(key, json_spirit::str_type);
    if (!value)
        return false;
    std::string const& text = value->get_str();
    if (std::string const fault = text.empty() ? "" : rule(text); !fault.empty()) {
        blame(key, fault);
        return false;
    }
    result = text;
    return true;
}

bool Member_Reader::flag(char const* key, bool& result) {
    json_spirit::Value const* const value = find(key, json_spirit::bool_type);
    if (!value)
        return false;
    result = value->get_bool();
    return true;
}

bool Member_Reader::number(char const* key, int64_t least, int64_t largest, int64_t& result) {
    json_spirit::Value const* const value = find(key, json_spirit::int_type);
    if (!value)
        return false;
    if (value->is_uint64() || value->get_int64() < least || value->get_int64() > largest) {
        blame(key, "is not within " + std::to_string(least) + " and " + std::to_string(largest));
        return false;
    }
    result = value->get_int64();
    return true;
}

bool Member_Reader::object(char const* key, json_spirit::Object const*& result) {
    json_spirit::Value const* const value = find(key, json_spirit::obj_type);
    if (!value)
        return false;
    result = &value->get_obj();
    return true;
}

bool Member_Reader::required_text(char const* key, std::string& result, names::Rule rule) {
    if (text(key, result, rule) && !result.empty())
        return true;
    blame(key, "is missing");
    return false;
}

void Member_Reader::blame(char const* key, std::string const& why) {
    if (error_.empty())
        error_ = path_ + key + ": " + why;
}

bool Member_Reader::finish() {
    for (auto const& [key, value] : object_)
        if (!known_.count(key))
            blame(names::shown(key).c_str(), "is not known");
    return error_.empty();
}
