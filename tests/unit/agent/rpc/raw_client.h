#ifndef TESTS_UNIT_AGENT_RPC_RAW_CLIENT_H
#define TESTS_UNIT_AGENT_RPC_RAW_CLIENT_H

#include "qmrt/file.h"

#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

/** A socket that sends whatever bytes a test likes and reads what comes back. */
class Raw_Client {
public:
    static constexpr int PATIENCE_MS = 30'000;

    explicit Raw_Client(std::string const& path)
        : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        if (::connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == -1)
            throw std::runtime_error("cannot connect to " + path);
    }

    /** @return false when the other side has closed */
    bool send(std::string_view text) {
        while (!text.empty()) {
            ssize_t const size = ::send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
            if (size <= 0)
                return false;
            text.remove_prefix(static_cast<size_t>(size));
        }
        return true;
    }

    /** @return the next line without its end; "closed" at the end, "late" when nothing comes */
    std::string line() {
        size_t end = 0;
        while ((end = inbox_.find('\n')) == std::string::npos)
            if (std::string const fault = read(); !fault.empty())
                return fault;
        std::string const result = inbox_.substr(0, end);
        inbox_.erase(0, end + 1);
        return result;
    }

    /** @return true when the other side closes, whatever it sends before */
    bool closed() {
        while (true) {
            std::string const fault = read();
            if (!fault.empty())
                return fault == "closed";
            inbox_.clear();
        }
    }

    void half_close() { ::shutdown(socket_.get(), SHUT_WR); }
    void close() { socket_.reset(); }
    int fd() const { return socket_.get(); }

private:
    std::string read() {
        pollfd one{socket_.get(), POLLIN, 0};
        if (::poll(&one, 1, PATIENCE_MS) <= 0)
            return "late";
        char buffer[4096];
        ssize_t const size = ::recv(socket_.get(), buffer, sizeof buffer, 0);
        if (size <= 0)
            return "closed";
        inbox_.append(buffer, static_cast<size_t>(size));
        return "";
    }

    File_Descriptor socket_;
    std::string inbox_;
};

#endif
