#include "agent/cli/command_context.h"

#include "agent/cli/interruption.h"
#include "agent/cli/json_times.h"
#include "agent/cli/suggestion.h"
#include "agent/cli/unix_connection.h"
#include "host/rpc/json_rpc_object.h"
#include "json_spirit/text.h"

#include <cstdio>

namespace {

constexpr char IS_IT_RUNNING[] =
    "`systemctl status zenbrak3-agent` says whether the agent runs; --socket or ZENBRAK3_SOCKET "
    "names another socket.";
constexpr char SEE_THE_LOG[] = "The agent's log says more: `journalctl -u zenbrak3-agent`.";
constexpr char CLEAR_SCREEN[] = "\x1b[H\x1b[2J\x1b[3J";

constexpr std::string_view ABSENT = " does not exist";

/** "pool x does not exist", if that is why the parameters are wrong. */
std::string absent_name(Rpc_Error const& error) {
    if (!error.message.ends_with(ABSENT))
        return "";
    size_t const colon = error.message.rfind(": ");
    return colon == std::string::npos ? error.message : error.message.substr(colon + 2);
}

/** What to exit with for the code of an agent's answer. */
Exit_Code exit_code_of(int code) {
    switch (code) {
    case Rpc_Error::NOT_FOUND:
        return EXIT_NOT_FOUND;
    case Rpc_Error::REFUSED:
        return EXIT_REFUSED;
    case JSON_RPC_INVALID_PARAMS:
        return EXIT_USAGE;
    default:
        return EXIT_FAILED;
    }
}

} // namespace

Form Command_Context::id_form() const {
    return terminal_.interactive ? Form::SHORT_ID : Form::TEXT;
}

bool Command_Context::ask(std::string const& method, json_spirit::Value const& params,
                          std::string const& doing, json_spirit::Value& result,
                          std::string const& advice) {
    Rpc_Error error;
    if (agent_.call(method, params, result, error))
        return true;
    status_ = tell_failure(error, doing, advice);
    return false;
}

bool Command_Context::ask(std::string const& method, json_spirit::Value const& params,
                          std::string const& doing, json_spirit::Object& result,
                          std::string const& advice) {
    json_spirit::Value answer;
    if (!ask(method, params, doing, answer, advice))
        return false;
    if (answer.type() != json_spirit::obj_type) {
        fail(EXIT_FAILED,
             "cannot " + doing + ": the agent's answer to " + method + " is no object");
        return false;
    }
    result = std::move(answer.get_obj());
    return true;
}

bool Command_Context::try_to_ask(std::string const& method, json_spirit::Value const& params,
                                 json_spirit::Value& result) {
    Rpc_Error ignored;
    return agent_.call(method, params, result, ignored);
}

Exit_Code Command_Context::tell_failure(Rpc_Error const& error, std::string const& doing,
                                        std::string const& advice) {
    std::string what = "cannot " + doing + ": " + error.message;
    if (error.data.type() == json_spirit::str_type &&
        error.message.find(error.data.get_str()) == std::string::npos)
        what += ": " + error.data.get_str();
    if (error.kind == Rpc_Error::INTERRUPTED)
        return EXIT_INTERRUPTED;
    if (error.kind == Rpc_Error::DENIED) {
        fail(EXIT_REFUSED, what, WHO_MAY_ASK);
        return EXIT_REFUSED;
    }
    if (error.kind == Rpc_Error::UNREACHABLE) {
        fail(EXIT_UNREACHABLE, what, IS_IT_RUNNING);
        return EXIT_UNREACHABLE;
    }
    Exit_Code const code = exit_code_of(error.code);
    if (std::string const absent = absent_name(error); code == EXIT_USAGE && !absent.empty())
        return tell_failure({Rpc_Error::ANSWERED, Rpc_Error::NOT_FOUND, absent, absent}, doing,
                            advice);
    std::string const close = code == EXIT_NOT_FOUND ? suggestion(error) : std::string();
    if (code == EXIT_NOT_FOUND)
        fail(code, what, close + (close.empty() || advice.empty() ? "" : " ") + advice);
    else if (error.code == JSON_RPC_METHOD_NOT_FOUND)
        fail(code, what, "This agent does not know of that; it is older than this command.");
    else
        fail(code, what, code == EXIT_FAILED ? SEE_THE_LOG : "");
    return code;
}

/** The name of the same kind that is close to the one which the agent did not find. */
std::string Command_Context::suggestion(Rpc_Error const& error) {
    struct Kind {
        char const* name;
        char const* method;
        char const* list;
        char const* key;
        bool is_id;
    };
    static constexpr Kind KINDS[] = {
        {"instance", "instance.list", "instances", "name", false},
        {"pool", "pool.list", "pools", "name", false},
        {"member", "member.list", "members", "name", false},
        {"definition", "definition.list", "definitions", "name", false},
        {"job", "job.list", "jobs", "run_id", true},
        {"backup", "backup.list", "backups", "uuid", true}};
    if (error.data.type() != json_spirit::str_type)
        return "";
    // as the agent names it: instance prod, or job "0f3a"
    std::string what = error.data.get_str();
    if (what.ends_with(ABSENT))
        what.resize(what.size() - ABSENT.size());
    size_t const blank = what.find(' ');
    if (blank == std::string::npos)
        return "";
    std::string name = what.substr(blank + 1);
    if (name.size() > 1 && name.starts_with('"') && name.ends_with('"'))
        name = name.substr(1, name.size() - 2);
    for (Kind const& kind : KINDS) {
        json_spirit::Value answer;
        json_spirit::Array rows;
        if (what.substr(0, blank) != kind.name ||
            !try_to_ask(kind.method, json_spirit::Object(), answer) ||
            answer.type() != json_spirit::obj_type ||
            !json_spirit::object_get(answer.get_obj(), kind.list, rows))
            continue;
        std::vector<std::string> names;
        for (json_spirit::Object const& row : json_spirit::objects_of(rows))
            names.push_back(json_spirit::object_get_str(row, kind.key));
        std::string const close = kind.is_id ? nearest_id(name, names) : nearest(name, names);
        return close.empty() ? "" : "Did you mean '" + close + "'?";
    }
    return "";
}

int Command_Context::fail(Exit_Code code, std::string const& what, std::string const& advice) {
    tell("zenbrak3: " + printable(what) + "\n");
    if (!advice.empty())
        tell(printable(advice) + "\n");
    message_ = what;
    hint_ = advice;
    return status_ = code;
}

void Command_Context::print(std::string const& text) {
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

void Command_Context::print_json(json_spirit::Value const& value, bool indented) {
    std::string text = json_spirit::to_text(with_iso_times(value), indented);
    if (!text.ends_with('\n'))
        text += '\n';
    print(printable_json(text));
    printed_json_ = true;
}

void Command_Context::print_json_error(int status) {
    if (!json_ || printed_json_ || status == EXIT_OK)
        return;
    if (message_.empty())
        message_ = status == EXIT_INTERRUPTED ? "interrupted" : "Nothing was changed.";
    print_json(json_error(status, message_, hint_));
}

json_spirit::Value json_error(int code, std::string const& message, std::string const& hint) {
    return json_spirit::Object{
        {"error", json_spirit::Object{
                      {"code", code},
                      {"message", message},
                      {"hint", hint.empty() ? json_spirit::Value() : json_spirit::Value(hint)}}}};
}

void Command_Context::tell(std::string const& text) {
    std::fwrite(text.data(), 1, text.size(), stderr);
}

int Command_Context::show(double interval, std::function<bool(std::string& text)> const& make) {
    auto const pause = std::chrono::milliseconds(static_cast<int64_t>(interval * 1000));
    if (interval > 0)
        Interruption::install();
    std::string shown;
    do {
        std::string text;
        if (!make(text))
            return status_;
        if (interval > 0 && terminal_.interactive)
            print(CLEAR_SCREEN + text);
        else if (text != shown)
            print((shown.empty() ? "" : "\n") + text);
        shown = text;
    } while (interval > 0 && Interruption::sleep(pause));
    return interval > 0 ? EXIT_INTERRUPTED : EXIT_OK;
}
