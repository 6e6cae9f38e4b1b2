#include "agent/jobs/run_holds.h"

#include "host/job/run_hold.h"

#include <algorithm>

namespace {

char const* title(std::string const& resource) {
    Run_Hold::Resource parsed;
    if (!Run_Hold::parse(resource, parsed))
        return "the same resource";
    switch (parsed.kind) {
    case Run_Hold::Resource::INSTANCE:
        return "the same instance";
    case Run_Hold::Resource::METADATA:
        return "the backup tool's metadata directory on the same host";
    case Run_Hold::Resource::POLICY:
        return "the same policy";
    case Run_Hold::Resource::NODE:
        return "the same database node";
    }
    return "";
}

/** "" for none. */
std::string common_resource(std::set<std::string> const& one, std::set<std::string> const& other) {
    auto const found =
        std::ranges::find_if(one, [&](std::string const& name) { return other.contains(name); });
    return found == one.end() ? "" : *found;
}

} // namespace

std::string Run_Holds::hold(Run const& run, std::set<std::string> const& resources,
                            Clock::time_point now) {
    std::lock_guard const guard(mutex_);
    drop_dead(now);
    auto request = std::ranges::find_if(requests_, [&](Request const& one) {
        return one.is_of(run.host_uuid, run.run_id) && one.resources == resources;
    });
    if (request == requests_.end()) {
        if (!has_room(run.host_uuid))
            return "other runs of its host, of which too many wait";
        request = requests_.insert(requests_.end(), {run, resources, now});
    }
    request->asked = now;
    if (!request->granted && !awaited_.empty() && now < awaited_until_)
        return "the hosts of the group, which connect again after a start of the backup server";
    return request->granted ? "" : place(*request);
}

bool Run_Holds::has(std::string const& host_uuid, std::string const& run_id,
                    std::string const& resource) {
    std::lock_guard const guard(mutex_);
    return std::ranges::any_of(requests_, [&](Request const& one) {
        return one.granted && one.is_of(host_uuid, run_id) && one.resources.contains(resource);
    });
}

void Run_Holds::await(std::set<std::string> hosts, Clock::time_point now) {
    std::lock_guard const guard(mutex_);
    awaited_ = std::move(hosts);
    awaited_until_ = now + AWAITED;
}

void Run_Holds::host_joined(std::string const& host_uuid) {
    std::lock_guard const guard(mutex_);
    awaited_.erase(host_uuid);
}

bool Run_Holds::restore(Run const& run, std::set<std::string> const& resources,
                        Clock::time_point now) {
    std::lock_guard const guard(mutex_);
    drop_dead(now);
    std::erase_if(requests_, [&](Request const& one) {
        return one.is_of(run.host_uuid, run.run_id) && one.resources == resources;
    });
    bool const is_taken = std::ranges::any_of(requests_, [&](Request const& one) {
        return one.granted && !one.is_of(run.host_uuid, run.run_id) &&
               !common_resource(resources, one.resources).empty();
    });
    if (is_taken || !has_room(run.host_uuid))
        return false;
    requests_.push_front({run, resources, now, true});
    return true;
}

bool Run_Holds::has_room(std::string const& host_uuid) const {
    return std::ranges::count_if(requests_, [&](Request const& one) {
               return one.run.host_uuid == host_uuid;
           }) < static_cast<std::ptrdiff_t>(MOST_OF_A_HOST);
}

/** @return what the request waits for; "" when it has just been granted */
std::string Run_Holds::place(Request& request) const {
    for (Request const& earlier : requests_) {
        if (&earlier == &request)
            break;
        if (earlier.is_of(request.run.host_uuid, request.run.run_id))
            continue;
        std::string const common = common_resource(request.resources, earlier.resources);
        if (!common.empty())
            return earlier.run.text + ", which " + (earlier.granted ? "uses " : "waits for ") +
                   title(common);
    }
    request.granted = true;
    return "";
}

void Run_Holds::drop_dead(Clock::time_point now) {
    std::erase_if(requests_, [&](Request const& one) {
        return !is_running_(one.run.host_uuid, one.run.run_id) ||
               (!one.granted && now - one.asked >= LOST_WAITER);
    });
}

void Run_Holds::release(std::string const& host_uuid, std::string const& run_id,
                        std::set<std::string> const& resources) {
    std::lock_guard const guard(mutex_);
    std::erase_if(requests_, [&](Request const& one) {
        return one.is_of(host_uuid, run_id) && one.resources == resources;
    });
}
