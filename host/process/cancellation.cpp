#include "host/process/cancellation.h"

#include <sys/eventfd.h>

namespace {

thread_local std::shared_ptr<Cancellation> current_cancellation;

} // namespace

void Cancellation::cancel() {
    std::lock_guard const guard(mutex_);
    cancelled_ = true;
    if (event_)
        eventfd_write(event_.get(), 1);
}

bool Cancellation::cancelled() const {
    std::lock_guard const guard(mutex_);
    return cancelled_;
}

int Cancellation::handle() const {
    std::lock_guard const guard(mutex_);
    if (!event_)
        event_.reset(eventfd(cancelled_ ? 1 : 0, EFD_CLOEXEC | EFD_NONBLOCK));
    return event_.get();
}

std::shared_ptr<Cancellation> Cancellation::current() {
    return current_cancellation;
}

void Cancellation::current(std::shared_ptr<Cancellation> cancellation) {
    current_cancellation = std::move(cancellation);
}

Cancellation_Scope::Cancellation_Scope(std::shared_ptr<Cancellation> cancellation)
    : outer_(std::move(cancellation)) {
    current_cancellation.swap(outer_);
}

Cancellation_Scope::~Cancellation_Scope() {
    current_cancellation.swap(outer_);
}
