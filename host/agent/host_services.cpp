#include "host/agent/host_services.h"

Host_Services& Host_Services::instance() {
    static Host_Services services;
    return services;
}

std::shared_ptr<Storage_Backend> Host_Services::storage(std::string const& scheme) const {
    std::lock_guard const guard(mutex_);
    auto const found = storage_.find(scheme);
    return found == storage_.end() ? nullptr : found->second;
}

void Host_Services::storage(std::string const& scheme, std::shared_ptr<Storage_Backend> value) {
    std::lock_guard const guard(mutex_);
    storage_[scheme].swap(value);
}
