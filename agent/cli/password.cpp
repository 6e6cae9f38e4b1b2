#include "agent/cli/password.h"

#include "agent/cli/interruption.h"
#include "agent/cli/terminal.h"
#include "qmrt/file.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace {

/** The terminal of stdin without an echo, until the end of the scope. */
class Silent_Terminal {
public:
    Silent_Terminal() {
        if (tcgetattr(STDIN_FILENO, &before_) == -1)
            return;
        termios silent = before_;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        is_silent_ = tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
    }
    ~Silent_Terminal() {
        if (is_silent_)
            tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
    }
    Silent_Terminal(Silent_Terminal const&) = delete;
    Silent_Terminal& operator=(Silent_Terminal const&) = delete;

    bool is_silent() const { return is_silent_; }

private:
    termios before_ = {};
    bool is_silent_ = false;
};

/** Reads up to a line break or the end; one byte each, so that what follows is left to others. */
bool read_secret_line(secure_string& line, std::string& error) {
    for (;;) {
        pollfd polled[] = {{STDIN_FILENO, POLLIN, 0}, {Interruption::fd(), POLLIN, 0}};
        if (poll(polled, 2, -1) == -1 && errno != EINTR) {
            error = std::strerror(errno);
            return false;
        }
        if (Interruption::happened())
            return false;
        if (!polled[0].revents)
            continue;
        char byte = 0;
        ssize_t const count = read(STDIN_FILENO, &byte, 1);
        if (count == -1 && errno != EINTR) {
            error = std::strerror(errno);
            return false;
        }
        if (count == 0 || (count == 1 && byte == '\n'))
            return true;
        if (count == 1)
            line.push_back(byte);
        if (line.size() > MAX_PASSWORD + 1) {
            error = "it is longer than " + std::to_string(MAX_PASSWORD) + " bytes";
            return false;
        }
    }
}

bool is_password(secure_string& line, std::string& error) {
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    if (line.empty())
        error = "it is empty";
    else if (line.size() > MAX_PASSWORD)
        error = "it is longer than " + std::to_string(MAX_PASSWORD) + " bytes";
    else if (line.find('\0') != secure_string::npos)
        error = "there is a NUL in it";
    else
        return true;
    return false;
}

} // namespace

bool read_password(std::string const& prompt, secure_string& password, std::string& error) {
    secure_string line;
    line.reserve(MAX_PASSWORD + 2); // so that it is not moved about in memory
    error.clear();
    bool is_read = false;
    if (isatty(STDIN_FILENO)) {
        Interruption::install(); // or Ctrl-C would leave a terminal without an echo behind
        Silent_Terminal const terminal;
        if (!terminal.is_silent()) {
            error = "the terminal's echo cannot be turned off";
            return false;
        }
        write_all(STDERR_FILENO, prompt.data(), prompt.size());
        is_read = read_secret_line(line, error);
        write_all(STDERR_FILENO, "\n", 1);
    } else {
        is_read = read_secret_line(line, error);
    }
    if (!is_read || !is_password(line, error))
        return false;
    password = line;
    return true;
}
