#include "agent/catalog/catalog_calls.h"

#include "agent/catalog/recorded_set.h"

#include "host/catalog/catalog_backend.h"
#include "json_spirit/access.h"

#include <map>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

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
    Recorded_Set set() const { return {get<std::string>("kind"), get<Object>("set")}; }
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
    if (!call.catalog.abort(call.limits, call.get<std::string>("uuid"), pieces))
        return false;
    call.result = Object{{"pieces", std::move(pieces)}};
    return true;
}

bool add_piece(Call const& call) {
    return call.catalog.add_piece(call.limits, call.get<std::string>("uuid"),
                                  call.get<Array>("pieces"));
}

bool get_view(Call const& call) {
    Value view;
    if (!call.catalog.get_view(call.limits, call.get<std::string>("type"),
                               call.get<std::string>("view"), call.get<Object>("query"), view))
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
