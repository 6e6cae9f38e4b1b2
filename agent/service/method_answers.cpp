#include "agent/service/agent_methods.h"

#include "agent/jobs/member_reader.h"
#include "host/storage/storage_backend.h"

bool only_name(Method_Call const& call, char const* key, names::Rule rule, std::string& name,
               Method_Fault& fault) {
    std::string error;
    Member_Reader reader(call.params.get_obj(), "", error);
    reader.required_text(key, name, rule);
    return reader.finish() || invalid_params(error, fault);
}

bool invalid_params(std::string const& why, Method_Fault& fault) {
    fault = {JSON_RPC_INVALID_PARAMS, "Invalid params: " + why, {}};
    return false;
}

bool not_found(std::string const& what, Method_Fault& fault) {
    fault = {AGENT_RPC_NOT_FOUND, what + " is not known", what};
    return false;
}

bool refused(std::string const& why, Method_Fault& fault) {
    fault = {AGENT_RPC_REFUSED, why, {}};
    return false;
}

bool answer(Job_Answer const& answer, Method_Fault& fault) {
    switch (answer.kind) {
    case Job_Answer::DONE:
        return true;
    case Job_Answer::INVALID:
        return invalid_params(answer.text, fault);
    case Job_Answer::NOT_FOUND:
        fault = {AGENT_RPC_NOT_FOUND, answer.text + " does not exist", answer.text};
        return false;
    case Job_Answer::REFUSED:
        return refused(answer.text, fault);
    case Job_Answer::FAILED:
        break;
    }
    fault = {JSON_RPC_INTERNAL_ERROR, answer.text, {}};
    return false;
}

bool answer(Storage_Result const& result, Method_Fault& fault) {
    switch (result.code()) {
    case Storage_Result::OK:
        return true;
    case Storage_Result::NOT_FOUND:
        fault = {AGENT_RPC_NOT_FOUND, result.text(), result.text()};
        return false;
    case Storage_Result::UNREACHABLE:
        fault = {JSON_RPC_INTERNAL_ERROR, result.text(), {}};
        return false;
    default:
        return refused(result.text(), fault);
    }
}
