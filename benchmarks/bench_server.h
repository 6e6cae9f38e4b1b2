#ifndef BENCHMARKS_BENCH_SERVER_H
#define BENCHMARKS_BENCH_SERVER_H

#include "agent/rpc/tls.h"
#include "tests/support/temporary_directory.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <string>
#include <unistd.h>
#include <vector>

/**
 * A process that serves, and ends when its stdin does. It gets the path of a socket, a certificate
 * and a key behind its other arguments, and prints its port. Throws when it does not.
 */
class Bench_Server {
public:
    explicit Bench_Server(std::vector<char const*> command) {
        std::string error;
        if (!make_self_signed(certificate, files_.path("key"), "localhost", error))
            throw std::runtime_error(error);
        std::string const key = files_.path("key");
        command.insert(command.end(), {socket.c_str(), certificate.c_str(), key.c_str(), nullptr});
        int in[2];
        int out[2];
        if (::pipe2(in, O_CLOEXEC) == -1 || ::pipe2(out, O_CLOEXEC) == -1)
            throw std::runtime_error("pipe2");
        if (::fork() == 0) {
            ::dup2(in[0], STDIN_FILENO);
            ::dup2(out[1], STDOUT_FILENO);
            ::setenv("NODE_PATH", "/usr/share/nodejs", 0);
            ::execvp(command[0], const_cast<char* const*>(command.data()));
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        FILE* const output = ::fdopen(out[0], "r");
        unsigned number = 0;
        if (std::fscanf(output, "%u", &number) != 1)
            throw std::runtime_error(std::string(command[0]) + " does not serve");
        port = static_cast<unsigned short>(number);
    }

    unsigned short port = 0;

private:
    Temporary_Directory files_;

public:
    std::string const socket = files_.path("socket");
    std::string const certificate = files_.path("certificate");
};

#endif
