#include "agent/service/instance_probe.h"

#include "host/agent/host_services.h"
#include "host/agent/instance_backend.h"
#include "host/job/minor_resource_id.h"
#include "qmrt/log.h"

#include <chrono>

Instance_Probe::Instance_Probe(std::shared_ptr<Instance_Handler> handler)
    : handler_(std::move(handler)),
      thread_(THR_NEW_LWP | THR_JOINABLE, ACE_DEFAULT_THREAD_PRIORITY) {}

Instance_Probe::~Instance_Probe() {
    stop();
}

std::string Instance_Probe::uuid_of(std::string const& type, std::string const& name) {
    // by name, since a cluster's hosts find it each for itself and must agree on what it is
    std::string uuid;
    (void)compute_minor_resource_id(type, name, uuid);
    return uuid;
}

bool Instance_Probe::probe() {
    std::lock_guard const one(probing_);
    bool const recorded = search();
    searched_ = true;
    if (on_searched_)
        on_searched_();
    return recorded;
}

bool Instance_Probe::search() {
    std::shared_ptr<Instance_Backend> const record = Host_Services::instance().instances();
    if (!handler_ || !record)
        return true;
    Instance_Handler::instances_type instances;
    for (std::shared_ptr<Instance> const& known : record->list(handler_->type()))
        instances[known->name] = known;
    Instance_Handler::instances_type const before = instances;
    if (handler_->probe_instances(instances) != 0)
        QMRT_LOG(LM_ERROR, "Not all instances of %s could be looked for\n",
                 handler_->type().c_str());
    bool recorded = true;
    for (auto const& [name, instance] : instances) {
        if (before.count(name) || !instance)
            continue;
        // on record since, or the list could not be read: what is on record is kept
        if (record->find(handler_->type(), name))
            continue;
        instance->uuid = uuid_of(handler_->type(), name);
        if (!record->put(*instance)) {
            recorded = false;
            continue;
        }
        QMRT_LOG(LM_INFO, "Found the instance %s\n", name.c_str());
        // where there is no server to be told now, it is when the connection is made
        (void)record->tell_server(Instance_Backend::ADDED, *instance);
    }
    return recorded;
}

void Instance_Probe::start(int64_t seconds) {
    interval(seconds);
    if (thread_.spawn([this] { run(); }) < 0)
        QMRT_LOG(LM_ERROR, "No thread could be made to look for instances\n");
}

void Instance_Probe::interval(int64_t seconds) {
    std::lock_guard const guard(mutex_);
    interval_ = seconds;
    changed_.notify_all();
}

void Instance_Probe::cancel() {
    cancellation_->cancel();
}

void Instance_Probe::stop() {
    cancel();
    {
        std::lock_guard const guard(mutex_);
        ended_ = true;
        changed_.notify_all();
    }
    thread_.join();
}

void Instance_Probe::run() {
    Cancellation_Scope const scope(cancellation_);
    std::unique_lock lock(mutex_);
    while (!ended_) {
        lock.unlock();
        (void)probe();
        lock.lock();
        auto const last = std::chrono::steady_clock::now();
        // a new interval counts from the last look on
        while (!ended_) {
            if (interval_ == 0)
                changed_.wait(lock);
            else if (changed_.wait_until(lock, last + std::chrono::seconds(interval_)) ==
                     std::cv_status::timeout)
                break;
        }
    }
}
