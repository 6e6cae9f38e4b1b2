#ifndef TESTS_SUPPORT_AGENT_PROCESS_H
#define TESTS_SUPPORT_AGENT_PROCESS_H

#include "json_spirit/value.h"
#include "tests/support/temporary_directory.h"

#include <string>
#include <sys/types.h>
#include <vector>

/**
 * The built agent as a child of the test, with a data directory, a socket and a pool of its own. It
 * ends with this object.
 */
class Agent_Process {
public:
    /** What came back for a call. */
    struct Reply {
        json_spirit::Value result; ///< null for an error
        int code = 0;              ///< of the error; 1 when there was no answer at all
        std::string message;
        explicit operator bool() const { return code == 0; }
    };

    /**
     * @param module    path of the protection module to load
     * @param settings  further lines of its configuration, after those of [agent]
     * @param launcher  a command before the program, such as a limit
     */
    explicit Agent_Process(std::string module, std::string settings = "",
                           std::vector<std::string> launcher = {});
    ~Agent_Process();
    Agent_Process(Agent_Process const&) = delete;
    Agent_Process& operator=(Agent_Process const&) = delete;

    /** Starts it and waits until it says that it is ready. @return false when it ended instead */
    bool start();
    /** Kills it without a chance to do anything. */
    void kill();
    /** Asks it to end. @return its exit status; -1 for a signal */
    int stop();
    /** Sends it a signal. */
    void signal(int number) const;
    /** Waits for its end. @return its exit status; -1 for a signal */
    int wait();
    bool running() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

    /** One JSON-RPC call on a connection of its own. */
    Reply call(std::string const& method, json_spirit::Object const& params = {}) const;
    /** The same; a failure fails the test, and gives an empty object. */
    json_spirit::Object ask(std::string const& method,
                            json_spirit::Object const& params = {}) const;

    std::string data_dir() const { return directory_.path("data"); }
    std::string socket() const { return directory_.path("agent.sock"); }
    std::string config() const { return directory_.path("agent.toml"); }
    std::string pool_dir() const { return directory_.path("pool"); }
    /** All that it has logged since the last start. */
    std::string log() const { return directory_.read("log"); }
    Temporary_Directory const& directory() const { return directory_; }

private:
    bool wait_until_ready(int notifications);

    Temporary_Directory directory_;
    std::vector<std::string> const launcher_;
    pid_t pid_ = -1;
};

#endif
