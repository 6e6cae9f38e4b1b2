#ifndef TESTS_UNIT_AGENT_CLI_SCRIPTED_CONNECTION_H
#define TESTS_UNIT_AGENT_CLI_SCRIPTED_CONNECTION_H

#include "agent/cli/agent_connection.h"
#include "tests/support/temporary_directory.h"

#include <map>
#include <string>
#include <utility>
#include <vector>

/** An agent whose answers are the test's; what it has none for it does not find. */
class Scripted_Connection : public Agent_Connection {
public:
    void answers(std::string const& method, json_spirit::Value const& result) {
        refusals_.erase(method);
        results_[method] = result;
    }
    void refuses(std::string const& method, int code, char const* message,
                 json_spirit::Value const& data) {
        refusals_[method] = {Rpc_Error::ANSWERED, code, message, data};
    }
    std::vector<std::string> methods() const {
        std::vector<std::string> names;
        for (auto const& call : calls)
            names.push_back(call.first);
        return names;
    }

    bool call(std::string const& method, json_spirit::Value const& params,
              json_spirit::Value& result, Rpc_Error& error) override {
        calls.emplace_back(method, params);
        if (refusals_.count(method) || !results_.count(method)) {
            error = refusals_.count(method)
                        ? refusals_[method]
                        : Rpc_Error{Rpc_Error::ANSWERED, Rpc_Error::NOT_FOUND, "not found", {}};
            return false;
        }
        result = results_[method];
        return true;
    }

    std::vector<std::pair<std::string, json_spirit::Value>> calls;

private:
    std::map<std::string, json_spirit::Value> results_;
    std::map<std::string, Rpc_Error> refusals_;
};

#endif
