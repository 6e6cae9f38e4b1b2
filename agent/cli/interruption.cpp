#include "agent/cli/interruption.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

int pipe_ends[2] = {-1, -1};
volatile sig_atomic_t noted = 0;

void note(int) {
    int const before = errno;
    noted = 1;
    ssize_t const ignored = write(pipe_ends[1], "", 1);
    (void)ignored; // a full pipe is readable all the same
    errno = before;
}

} // namespace

void Interruption::install() {
    if (pipe_ends[0] != -1 || pipe2(pipe_ends, O_CLOEXEC | O_NONBLOCK) == -1)
        return;
    struct sigaction action = {};
    action.sa_handler = note;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
}

int Interruption::fd() {
    return pipe_ends[0];
}

bool Interruption::happened() {
    return noted != 0;
}

bool Interruption::sleep(std::chrono::milliseconds time) {
    auto const end = std::chrono::steady_clock::now() + time;
    while (!happened()) {
        auto const left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return true;
        pollfd wait{fd(), POLLIN, 0};
        poll(&wait, 1, static_cast<int>(std::min<long>(left.count(), 3600 * 1000)));
    }
    return false;
}
