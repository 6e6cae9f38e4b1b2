#include "agent/catalog/catalog_calls.h"

#include "agent/catalog/recorded_set.h"

#include "host/catalog/catalog_backend.h"
#include "json_spirit/access.h"
#include "qmrt/names.h"

#include <algorithm>
#include <map>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

void require(std::string const& key, std::string const& text, names::Rule rule) {
    if (std::string const fault = rule(text); !fault.empty())
        throw json_spirit::Error(key + ": " + fault);
}

/** How the members of a set and its parts are checked; each other text is one line. */
struct Member_Rule {
    char const* key;
    names::Rule rule;
};
constexpr Member_Rule MEMBER_RULES[] = {
    {"uuid", names::fault_of_id},           {"pool_uuid", names::fault_of_id},
    {"resource_uuid", names::fault_of_id},  {"host_uuid", names::fault_of_id},
    {"backup_key", names::fault_of_id},     {"prior_backup_key", names::fault_of_id},
    {"instance", names::fault_of_instance},
};

/** A path in a pool, with as many slashes around it as its writer likes. */
std::string fault_of_pool_path(std::string_view path) {
    size_t const begin = std::min(path.find_first_not_of('/'), path.size());
    size_t const end = path.find_last_not_of('/') + 1;
    return names::fault_of_relative_path(path.substr(begin, end > begin ? end - begin : 0));
}

void check_member(std::string const& key, Value const& value) {
    if (value.type() == json_spirit::obj_type) {
        for (auto const& [name, member] : value.get_obj())
            check_member(name, member);
    } else if (value.type() == json_spirit::array_type) {
        for (Value const& element : value.get_array())
            check_member(key, element);
    } else if (value.type() == json_spirit::str_type && !value.get_str().empty()) {
        auto const special = std::ranges::find(MEMBER_RULES, key, &Member_Rule::key);
        require(key, value.get_str(),
                special == std::end(MEMBER_RULES) ? names::fault_of_text : special->rule);
    }
}

void check_pieces(Array const& pieces) {
    for (Object const& piece : json_spirit::objects_of(pieces))
        require("path", json_spirit::object_get_str(piece, "path"), fault_of_pool_path);
}

/** Throws json_spirit::Error for a set that has a name in it which nothing can have. */
void check_set(Object const& set) {
    require("uuid", json_spirit::object_get_str(set, "uuid"), names::fault_of_id);
    check_member("", set);
    if (std::string const uri = json_spirit::object_get_str(set, "uri"); !uri.empty())
        require("uri", uri, fault_of_pool_path);
    Array pieces;
    json_spirit::object_get(set, "pieces", pieces);
    check_pieces(pieces);
}

struct Call {
    Catalog_Backend& catalog;
    Object const& params;
    Catalog_Limits limits;
    Value& result;

    /** Throws json_spirit::Error for a parameter that is missing or of another kind. */
    template <typename T>
    T get(char const* key) const {
        T value;
        json_spirit::extract_or_throw(params)(key, value, true);
        return value;
    }
    std::string name(char const* key, names::Rule rule) const {
        std::string text = get<std::string>(key);
        require(key, text, rule);
        return text;
    }
    Recorded_Set set() const {
        Object set = get<Object>("set");
        check_set(set);
        return {name("kind", names::fault_of_id), std::move(set)};
    }
};

bool initialize(Call const& call) {
    return call.catalog.initialize(call.limits, call.set());
}

bool complete(Call const& call) {
    return call.catalog.complete(call.limits, call.set());
}

bool commit(Call const& call) {
    bool overwrite = false;
    json_spirit::extract_or_throw(call.params)("overwrite", overwrite, false);
    return call.catalog.commit(call.limits, call.set(), overwrite);
}

bool abort_set(Call const& call) {
    Array pieces;
    if (!call.catalog.abort(call.limits, call.name("uuid", names::fault_of_id), pieces))
        return false;
    call.result = Object{{"pieces", std::move(pieces)}};
    return true;
}

bool add_piece(Call const& call) {
    Array const pieces = call.get<Array>("pieces");
    check_pieces(pieces);
    return call.catalog.add_piece(call.limits, call.name("uuid", names::fault_of_id), pieces);
}

bool get_view(Call const& call) {
    Value view;
    if (!call.catalog.get_view(call.limits, call.name("type", names::fault_of_id),
                               call.name("view", names::fault_of_id), call.get<Object>("query"),
                               view))
        return false;
    call.result = Object{{"result", std::move(view)}};
    return true;
}

std::map<std::string, bool (*)(Call const&)> const OPERATIONS = {
    {"initialize", initialize}, {"complete", complete},   {"commit", commit},
    {"abort", abort_set},       {"add_piece", add_piece}, {"get_view", get_view}};

} // namespace

bool serve_catalog_call(Catalog_Backend& catalog, std::string const& operation,
                        Object const& params, Value& result, std::string& message) {
    auto const found = OPERATIONS.find(operation);
    if (found == OPERATIONS.end()) {
        message = "Invalid params: the catalog has no operation \"" + operation + "\"";
        return false;
    }
    try {
        Catalog_Limits limits{-1, -1};
        json_spirit::extract_or_throw(params)("timeout", limits.timeout, false)(
            "max_seconds_retry", limits.max_seconds_retry, false);
        Value answer = Object();
        if (!found->second(Call{catalog, params, limits, answer})) {
            message = "The catalog could not do " + operation + "; its log says why";
            return false;
        }
        result = std::move(answer);
        return true;
    } catch (json_spirit::Error const& fault) {
        message = std::string("Invalid params: ") + fault.what();
        return false;
    }
}
