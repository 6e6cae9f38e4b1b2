#ifndef TESTS_SUPPORT_SCRIPTED_AGENT_H
#define TESTS_SUPPORT_SCRIPTED_AGENT_H

#include "json_spirit/value.h"
#include "qmrt/file.h"
#include "tests/support/temporary_directory.h"

#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/**
 * An agent at a real Unix socket that answers as the test says: JSON-RPC, one text a line, one
 * client at a time. What it has no answer for it does not find.
 */
class Scripted_Agent {
public:
    /** What an answer throws to become an error of JSON-RPC. */
    struct Refusal {
        int code;
        std::string message;
        json_spirit::Value data{};
    };
    /** Called on the agent's thread with a request's params. */
    using Answer = std::function<json_spirit::Value(json_spirit::Value const& params)>;

    Scripted_Agent();
    ~Scripted_Agent();
    Scripted_Agent(Scripted_Agent const&) = delete;
    Scripted_Agent& operator=(Scripted_Agent const&) = delete;

    std::string path() const { return directory_.path("agent.sock"); }
    void on(std::string const& method, Answer const& answer);
    /** The same answer every time. */
    void on(std::string const& method, json_spirit::Value const& result);
    /** These answers in turn; the last one from then on. */
    void on(std::string const& method, std::vector<json_spirit::Value> const& results);
    /** From now on every request gets these bytes, and then the connection is closed. */
    void answer_raw(std::string const& bytes);
    /** From now on this is sent before each answer. */
    void send_first(std::string const& bytes);
    /** From now on no request gets an answer. */
    void be_silent();

    /** The params of all calls of a method so far. */
    std::vector<json_spirit::Value> calls(std::string const& method) const;
    /** Waits until a method has been called so often. */
    void await(std::string const& method, size_t count) const;

private:
    void serve();
    void serve(int client);
    bool answer(int client, std::string const& line);
    std::string reply(json_spirit::Object const& request);

    Temporary_Directory directory_;
    File_Descriptor listener_;
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, Answer> answers_;
    std::vector<std::pair<std::string, json_spirit::Value>> calls_;
    std::string raw_;
    std::string first_;
    bool is_raw_ = false;
    bool is_silent_ = false;
    bool is_ending_ = false;
    int client_ = -1;
    std::thread thread_;
};

#endif
