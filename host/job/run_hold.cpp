#include "host/job/run_hold.h"

#include "host/agent/host_services.h"
#include "host/job/job.h"
#include "host/job/job_backend.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/utf8.h"

#include <algorithm>
#include <cctype>
#include <thread>

using std::chrono::milliseconds;

namespace {

constexpr char INSTANCE_PREFIX[] = "instance/";
constexpr char METADATA_PREFIX[] = "metadata/";
constexpr char POLICY_PREFIX[] = "policy/";
constexpr char NODE_PREFIX[] = "node/";

/** Between two questions for the resources; doubles up to the longest. */
constexpr milliseconds SHORTEST_PAUSE{20};
constexpr milliseconds LONGEST_PAUSE{1000};
/** How soon a cancel is noticed. */
constexpr milliseconds CANCEL_LOOK{50};

bool is_canceled(Job const& job) {
    Job_State const state = job.state();
    return state == JOB_STATE_CANCELING || state == JOB_STATE_ABORTING;
}

} // namespace

std::string Run_Hold::instance(std::string const& resource_id) {
    return INSTANCE_PREFIX + resource_id;
}

std::string Run_Hold::metadata(std::string const& host_uuid) {
    return METADATA_PREFIX + host_uuid;
}

std::string Run_Hold::policy(std::string const& host_uuid, std::string const& policy_name) {
    return POLICY_PREFIX + host_uuid + "/" + policy_name;
}

std::string Run_Hold::node(std::string const& address) {
    std::string host = address.substr(address.find('@') + 1); // all of it without an account
    std::ranges::transform(host, host.begin(), [](unsigned char c) { return std::tolower(c); });
    return NODE_PREFIX + host;
}

bool Run_Hold::parse(std::string const& name, Resource& resource) {
    size_t const first = name.find('/');
    if (first == std::string::npos)
        return false;
    std::string const prefix = name.substr(0, first + 1);
    std::string rest = name.substr(first + 1);
    if (prefix == INSTANCE_PREFIX)
        resource.kind = Resource::INSTANCE;
    else if (prefix == METADATA_PREFIX)
        resource.kind = Resource::METADATA;
    else if (prefix == POLICY_PREFIX)
        resource.kind = Resource::POLICY;
    else if (prefix == NODE_PREFIX)
        resource.kind = Resource::NODE;
    else
        return false;
    if (resource.kind == Resource::POLICY) {
        size_t const second = rest.find('/');
        if (second == std::string::npos || !names::fault_of_id(rest.substr(second + 1)).empty())
            return false;
        rest.resize(second);
    }
    resource.owner = rest;
    auto const rule = resource.kind == Resource::NODE ? names::fault_of_host : names::fault_of_id;
    return rule(rest).empty();
}

Run_Hold::Run_Hold(Job& job, std::set<std::string> resources)
    : job_(job), resources_(std::move(resources)), backend_(Host_Services::instance().jobs()) {
    if (!backend_)
        QMRT_LOG(LM_ERROR, "Failed to reserve what the run uses, no job service is installed\n");
    else
        held_ = wait();
}

Run_Hold::~Run_Hold() {
    // also after a wait: the run may have a place in the queue
    if (backend_)
        backend_->release(job_, resources_);
}

bool Run_Hold::wait() {
    std::string shown;
    bool held = false;
    for (milliseconds pause = SHORTEST_PAUSE;; pause = std::min(pause * 2, LONGEST_PAUSE)) {
        std::string waiting_for;
        held = ask(waiting_for);
        if (held || refused_)
            break;
        if (waiting_for != shown) {
            shown = waiting_for;
            QMRT_LOG(LM_INFO, "Waiting for %s\n", shown.c_str());
            backend_->waiting(job_, shown);
        }
        if (!sleep(pause)) {
            QMRT_LOG(LM_INFO, "Canceled while waiting for %s\n", shown.c_str());
            break;
        }
    }
    if (!shown.empty())
        backend_->waiting(job_, "");
    return held;
}

bool Run_Hold::ask(std::string& waiting_for) {
    Hold_Answer const answer = backend_->hold(job_, resources_);
    waiting_for = qmrt::to_one_line(answer.text);
    refused_ = answer.kind == Hold_Answer::REFUSED;
    if (refused_)
        QMRT_LOG(LM_ERROR, "Failed to reserve what the run uses, %s\n", waiting_for.c_str());
    return answer.kind == Hold_Answer::GRANTED;
}

/** @return false when the run was canceled */
bool Run_Hold::sleep(milliseconds time) const {
    while (time.count() > 0 && !is_canceled(job_)) {
        milliseconds const step = std::min(time, CANCEL_LOOK);
        std::this_thread::sleep_for(step);
        time -= step;
    }
    return !is_canceled(job_);
}
