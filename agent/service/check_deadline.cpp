#include "agent/service/check_deadline.h"

#include <cerrno>
#include <poll.h>

Check_Deadline::Check_Deadline(std::chrono::milliseconds time)
    : thread_([this, time] { watch(time); }) {}

Check_Deadline::~Check_Deadline() {
    done_.cancel();
    thread_.join();
}

void Check_Deadline::watch(std::chrono::milliseconds time) {
    auto const end = std::chrono::steady_clock::now() + time;
    pollfd events[] = {{done_.handle(), POLLIN, 0}, {outer_ ? outer_->handle() : -1, POLLIN, 0}};
    for (;;) {
        auto const left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        int const ready = left.count() > 0 ? poll(events, 2, static_cast<int>(left.count())) : 0;
        if (done_.cancelled())
            return;
        if (ready == -1 && errno == EINTR)
            continue;
        return limit_->cancel();
    }
}
