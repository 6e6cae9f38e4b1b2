#include "host/rpc/json_rpc_object.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"

using json_spirit::Object;
using json_spirit::Value;

namespace {

bool is_id(Value const& value) {
    switch (value.type()) {
    case json_spirit::str_type:
    case json_spirit::int_type:
    case json_spirit::real_type:
    case json_spirit::null_type:
        return true;
    default:
        return false;
    }
}

JSON_RPC_Object_var fault(int code, Value const& id, char const* message) {
    return JSON_RPC_Object_var(new JSON_RPC_Response_Error(code, id, message, Value()));
}

/** The error reply in @a members, or null. */
JSON_RPC_Object* to_error(Object const& members, Value const& id) {
    Object const* error = nullptr;
    int code = 0;
    std::string message;
    if (!object_get(members, "error", error) || !object_get(*error, "code", code) ||
        !object_get(*error, "message", message))
        return nullptr;
    return new JSON_RPC_Response_Error(code, id, message, object_get_any(*error, "data"));
}

/** The message in @a members, whose id is good, or null. */
JSON_RPC_Object* to_object(Object const& members, Value const* id) {
    bool const has_result = members.contains("result");
    bool const has_error = members.contains("error");
    if (object_get_str(members, "jsonrpc") != "2.0")
        return nullptr;
    if (std::string method; object_get(members, "method", method)) {
        if (has_result || has_error)
            return nullptr;
        Value const& params = object_get_any(members, "params");
        if (id)
            return new JSON_RPC_Request(*id, method, params);
        return new JSON_RPC_Notify(method, params);
    }
    if (members.contains("method") || !id || has_result == has_error)
        return nullptr;
    return has_error ? to_error(members, *id)
                     : new JSON_RPC_Response(*id, object_get_any(members, "result"));
}

void add(Value const& value, JSON_RPC_Message& message) {
    constexpr char INVALID[] = "Invalid Request";
    if (value.type() != json_spirit::obj_type) {
        message.faults.push_back(fault(JSON_RPC_INVALID_REQUEST, Value(), INVALID));
        return;
    }
    Object const& members = value.get_obj();
    Value const* const id = object_get_any_ptr(members, "id");
    bool const good_id = !id || is_id(*id);
    if (JSON_RPC_Object* const object = good_id ? to_object(members, id) : nullptr)
        message.objects.push_back(JSON_RPC_Object_var(object));
    else
        message.faults.push_back(
            fault(JSON_RPC_INVALID_REQUEST, id && good_id ? *id : Value(), INVALID));
}

} // namespace

Value JSON_RPC_Object::value() const {
    if (type_ == TYPE_NONE)
        return Value();
    Object members{{"jsonrpc", "2.0"}};
    fill_i(members);
    return members;
}

std::string JSON_RPC_Object::text() const {
    try {
        return json_spirit::to_text(value());
    } catch (json_spirit::Error const&) {
        return substitute_i();
    }
}

void JSON_RPC_Object::fill_i(Object&) const {}

std::string JSON_RPC_Object::substitute_i() const {
    return "";
}

void JSON_RPC_Notify::fill_i(Object& members) const {
    members["method"] = method_;
    if (!params_.is_null())
        members["params"] = params_;
}

void JSON_RPC_Request::fill_i(Object& members) const {
    JSON_RPC_Notify::fill_i(members);
    members["id"] = id_;
}

void JSON_RPC_Response::fill_i(Object& members) const {
    members["id"] = id_;
    members["result"] = result_;
}

std::string JSON_RPC_Response::substitute_i() const {
    return JSON_RPC_Response_Error(JSON_RPC_INTERNAL_ERROR, id_,
                                   "Internal error: the result is nested too deeply", Value())
        .text();
}

void JSON_RPC_Response_Error::fill_i(Object& members) const {
    Object error{{"code", code_}, {"message", message_}};
    if (!data_.is_null())
        error["data"] = data_;
    members["id"] = id_;
    members["error"] = std::move(error);
}

std::string JSON_RPC_Response_Error::substitute_i() const {
    return JSON_RPC_Response_Error(code_, id_, message_, Value()).text();
}

bool parse_json_rpc(std::string_view text, JSON_RPC_Message& message) {
    message = JSON_RPC_Message();
    Value value;
    if (!json_spirit::parse(text, value, nullptr))
        message.faults.push_back(fault(JSON_RPC_PARSE_ERROR, Value(), "Parse error"));
    else if (value.type() != json_spirit::array_type || value.get_array().empty())
        add(value, message);
    else {
        message.batch = true;
        for (Value const& element : value.get_array())
            add(element, message);
    }
    return message.faults.empty();
}

std::string json_rpc_text(std::vector<JSON_RPC_Object_var> const& objects, bool batch) {
    std::string result;
    for (JSON_RPC_Object_var const& object : objects) {
        std::string const text = object->text();
        if (!text.empty() && !batch)
            return text;
        if (!text.empty())
            result += (result.empty() ? "[" : ",") + text;
    }
    return result.empty() ? result : result + "]";
}
