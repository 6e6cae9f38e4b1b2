#include "agent/rpc/connection_slots.h"

#include "qmrt/log.h"

std::shared_ptr<void> Connection_Slots::take(std::string const& address) {
    std::lock_guard const guard(mutex_);
    auto const found = of_address_.find(address);
    size_t const here = found == of_address_.end() ? 0 : found->second;
    if (all_ >= limits_.connections || here >= limits_.connections_per_address) {
        if (!refusing_)
            QMRT_LOG(LM_WARNING, "Refused a connection from %s, there are %Q, %Q of them from it\n",
                     address.empty() ? "this host" : address.c_str(), static_cast<ACE_UINT64>(all_),
                     static_cast<ACE_UINT64>(here));
        refusing_ = true;
        return nullptr;
    }
    refusing_ = false;
    ++all_;
    if (!address.empty())
        ++of_address_[address];
    return std::shared_ptr<void>(
        this, [self = shared_from_this(), address](void*) { self->give_back(address); });
}

size_t Connection_Slots::taken() const {
    std::lock_guard const guard(mutex_);
    return all_;
}

void Connection_Slots::give_back(std::string const& address) {
    std::lock_guard const guard(mutex_);
    --all_;
    auto const found = of_address_.find(address);
    if (found != of_address_.end() && --found->second == 0)
        of_address_.erase(found);
}
