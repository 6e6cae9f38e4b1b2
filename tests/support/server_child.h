#ifndef TESTS_SUPPORT_SERVER_CHILD_H
#define TESTS_SUPPORT_SERVER_CHILD_H

#include <string>
#include <sys/types.h>
#include <vector>

/**
 * A real server program as a child of the test, in the foreground: it ends with this object, and
 * with the test program whatever that dies of.
 */
class Server_Child {
public:
    /**
     * @param args  the program's path and its arguments
     * @param user  the operating-system user to run as; "" for the test's own
     * @param log   file for its stdout and stderr
     * @param stop_signal  asks it to end
     */
    Server_Child(std::vector<std::string> const& args, std::string const& user,
                 std::string const& log, int stop_signal);
    ~Server_Child();
    Server_Child(Server_Child const&) = delete;
    Server_Child& operator=(Server_Child const&) = delete;

    pid_t pid() const { return pid_; }
    /** True while it has not ended. */
    bool running();

    /** Runs a program to its end in the same way; returns its exit status, -1 for a signal. */
    static int run(std::vector<std::string> const& args, std::string const& user,
                   std::string const& log);
    /** A port of the loopback that nobody listened on a moment ago. */
    static unsigned short free_port();
    /** Returns true when a connection to the port of the loopback is taken; asks once. */
    static bool accepts(unsigned short port);

private:
    pid_t pid_;
    int stop_signal_;
};

#endif
