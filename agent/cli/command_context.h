#ifndef AGENT_CLI_COMMAND_CONTEXT_H
#define AGENT_CLI_COMMAND_CONTEXT_H

#include "agent/cli/agent_connection.h"
#include "agent/cli/exit_code.h"
#include "agent/cli/list_wishes.h"
#include "agent/cli/terminal.h"
#include "agent/cli/text_form.h"
#include "json_spirit/access.h"

#include <functional>
#include <string>

/** {"error": {"code", "message", "hint"}}; a hint of "" is null. */
json_spirit::Value json_error(int code, std::string const& message, std::string const& hint);

/**
 * What every command works with: the agent, the terminal, and one way to print and to fail. Results
 * go to stdout; what went wrong, to what, and what to do next go to stderr.
 */
class Command_Context {
public:
    Command_Context(Agent_Connection& agent, Terminal const& terminal, bool json,
                    List_Wishes list = {})
        : agent_(agent), terminal_(terminal), json_(json), list_(std::move(list)) {}

    Terminal const& terminal() const { return terminal_; }
    /** The results are wanted as JSON. */
    [[nodiscard]] bool json() const { return json_; }
    /** What is wanted of the list that the command shows. */
    List_Wishes const& list() const { return list_; }
    /** How the first column shows an id: short for people, whole for what reads a pipe. */
    Form id_form() const;

    /**
     * Calls a method. A failure is told to the user, and status() says what to exit with.
     * @param doing   what it is for: "list the pools", "start the backup of prod"
     * @param advice  what to do when that is not found; "" for nothing
     */
    [[nodiscard]] bool ask(std::string const& method, json_spirit::Value const& params,
                           std::string const& doing, json_spirit::Object& result,
                           std::string const& advice = "");
    /** The same, for an answer of any kind. */
    [[nodiscard]] bool ask(std::string const& method, json_spirit::Value const& params,
                           std::string const& doing, json_spirit::Value& result,
                           std::string const& advice = "");
    /** The same without a word to the user, who can be told by fail_to(). */
    [[nodiscard]] bool try_to_ask(std::string const& method, json_spirit::Value const& params,
                                  json_spirit::Value& result, Rpc_Error& error) {
        return agent_.call(method, params, result, error);
    }
    /** Tells of the failure of a call, and returns the exit status. */
    int fail_to(std::string const& doing, Rpc_Error const& error, std::string const& advice = "") {
        return status_ = tell_failure(error, doing, advice);
    }
    /** The same without a word to the user. */
    [[nodiscard]] bool try_to_ask(std::string const& method, json_spirit::Value const& params,
                                  json_spirit::Value& result);
    /** Limits the time of all later questions together. */
    void time_limit(std::chrono::seconds limit) { agent_.time_limit(limit); }

    /** Tells of a failure and returns @a code. */
    int fail(Exit_Code code, std::string const& what, std::string const& advice = "");
    /** What the last failure makes the command end with. */
    int status() const { return status_; }

    void print(std::string const& text);
    /** Prints a result as JSON, indented or on one line, with its times as ISO 8601. */
    void print_json(json_spirit::Value const& value, bool indented = true);
    /**
     * Prints json_error() of the last failure if the command failed, JSON is wanted, and nothing
     * was printed as JSON: so the output is always exactly one document.
     * @param status  the exit status, which becomes the code
     */
    void print_json_error(int status);
    /** Prints to stderr. */
    static void tell(std::string const& text);

    /**
     * Shows something once or, with an interval above 0, again and again until Ctrl-C: on a
     * terminal in the same place, elsewhere only when it has changed.
     * @param show  makes the text; false after a failure, which ends it
     */
    int show(double interval, std::function<bool(std::string& text)> const& make);

private:
    Exit_Code tell_failure(Rpc_Error const& error, std::string const& doing,
                           std::string const& advice);
    std::string suggestion(Rpc_Error const& error);

    Agent_Connection& agent_;
    Terminal const terminal_;
    bool const json_;
    List_Wishes const list_;
    bool printed_json_ = false;
    int status_ = EXIT_OK;
    std::string message_; ///< of the last failure
    std::string hint_;    ///< what to do about it; "" for nothing
};

#endif
