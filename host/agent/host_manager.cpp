#include "host/agent/host_manager.h"

#include <sys/utsname.h>

namespace {
thread_local secure_string run_key;
} // namespace

Host_Manager* Host_Manager::instance() {
    static Host_Manager manager;
    return &manager;
}

Host_Manager::Host_Manager() {
    utsname names;
    if (uname(&names) == 0)
        name_ = names.nodename;
}

std::string Host_Manager::uuid() const {
    std::lock_guard const guard(mutex_);
    return uuid_;
}

void Host_Manager::uuid(std::string value) {
    std::lock_guard const guard(mutex_);
    uuid_ = std::move(value);
}

std::string Host_Manager::name() const {
    std::lock_guard const guard(mutex_);
    return name_;
}

void Host_Manager::name(std::string value) {
    std::lock_guard const guard(mutex_);
    name_ = std::move(value);
}

secure_string Host_Manager::access_key() const {
    return run_key;
}

void Host_Manager::access_key(secure_string value) {
    run_key = std::move(value);
}

secure_string Host_Manager::node_access_key() const {
    std::lock_guard const guard(mutex_);
    return node_access_key_;
}

void Host_Manager::node_access_key(secure_string value) {
    std::lock_guard const guard(mutex_);
    node_access_key_ = std::move(value);
}

Host_Manager::Component Host_Manager::component() const {
    std::lock_guard const guard(mutex_);
    return component_;
}

void Host_Manager::component(Component value) {
    std::lock_guard const guard(mutex_);
    component_ = value;
}
