#include "agent/service/run_access.h"

#include "host/agent/host_services.h"
#include "host/job/job.h"
#include "host/rpc/upstream_backend.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/utf8.h"

using json_spirit::Object;

namespace {

/** Seconds: the backup server only notes it. */
constexpr Upstream_Backend::Limits LIMITS{30, 0};

Run_Scope scope_of(Job const& job, std::string const& host_uuid, std::string const& instance) {
    Run_Scope scope{job.run_id(), false, host_uuid, instance, {}, {}};
    Job_Definition_var const definition = job.definition();
    if (definition.null())
        return scope;
    scope.backup = definition->type() == JOB_DEFINITION_BACKUP;
    if (!definition->source().null())
        scope.cluster_id = definition->source()->id();
    if (scope.backup)
        scope.pool_uuid = definition->target().id();
    return scope;
}

} // namespace

secure_string Run_Access::begin(Job const& job, std::string const& instance) {
    Run_Keys::Entry entry{{}, scope_of(job, host_uuid_, instance)};
    secure_string const key = Run_Keys::make();
    if (entry.scope.cluster_id.empty() || key.empty()) {
        QMRT_LOG(LM_WARNING, "Run %s has no key for the data path, %s\n",
                 entry.scope.run_id.c_str(),
                 key.empty() ? "cannot read random bytes" : "its source has no id");
        return {};
    }
    entry.digest = key_digest(std::string_view(key.data(), key.size()));
    Object const told = entry.dump();
    std::string const run = entry.scope.run_id;
    if (!keys_.add(std::move(entry))) {
        QMRT_LOG(LM_WARNING, "Run %s has no key for the data path, there are too many\n",
                 run.c_str());
        return {};
    }
    if (!member_)
        return key;
    std::shared_ptr<Upstream_Backend> const server = Host_Services::instance().upstream();
    JSON_RPC_Reply reply;
    // one that is not connected is told when it is
    if (!server || !server->call("run.begin", told, LIMITS, reply))
        QMRT_LOG(LM_WARNING, "The backup server was not told of run %s, %s\n", job.run_id().c_str(),
                 qmrt::to_one_line(reply.message).c_str());
    return key;
}

void Run_Access::end(std::string const& run_id) {
    keys_.end(host_uuid_, run_id);
    {
        std::lock_guard const guard(mutex_);
        held_.erase(run_id);
    }
    std::shared_ptr<Upstream_Backend> const server = Host_Services::instance().upstream();
    std::string ignored;
    if (member_ && server)
        (void)server->notify("run.end", Object{{"run_id", run_id}}, ignored);
}

namespace {

json_spirit::Object hold_request(Job const& job, std::set<std::string> const& resources) {
    Job_Definition_var const definition = job.definition();
    return {{"run_id", job.run_id()},
            {"name", definition.null() ? std::string() : definition->name()},
            {"resources", json_spirit::Array(resources.begin(), resources.end())}};
}

} // namespace

std::string Run_Access::text_of(std::string const& job_name, std::string const& instance) {
    return "job \"" + names::shown(job_name) + "\" of instance \"" + names::shown(instance) + "\"";
}

Hold_Answer Run_Access::hold(Job const& job, std::set<std::string> const& resources) {
    std::shared_ptr<Run_Scope const> const run = keys_.find_run(host_uuid_, job.run_id());
    if (!run)
        return {Hold_Answer::REFUSED, "the run has no key, so nobody could see when it ends"};
    std::string waits_for;
    if (!member_) {
        Job_Definition_var const definition = job.definition();
        std::string const name = definition.null() ? std::string() : definition->name();
        waits_for = holds_.hold({host_uuid_, run->run_id, text_of(name, run->instance)}, resources);
    } else {
        std::shared_ptr<Upstream_Backend> const server = Host_Services::instance().upstream();
        Job_Definition_var const definition = job.definition();
        Upstream_Backend::Limits const limits{
            LIMITS.answer, definition.null() ? -1 : definition->max_seconds_retry()};
        JSON_RPC_Reply reply;
        if (!server || !server->call("run.hold", hold_request(job, resources), limits, reply))
            return {Hold_Answer::REFUSED, server ? "the backup server answered: " + reply.message
                                                 : std::string("no backup server is configured")};
        if (reply.result.type() != json_spirit::obj_type)
            return {Hold_Answer::REFUSED, "the backup server did not answer with an object"};
        waits_for = json_spirit::object_get_str(reply.result.get_obj(), "waits_for");
        if (waits_for.empty()) {
            std::lock_guard const guard(mutex_);
            Held& held = held_[run->run_id];
            held.name = definition.null() ? std::string() : definition->name();
            held.requests.insert(resources);
        }
    }
    return {waits_for.empty() ? Hold_Answer::GRANTED : Hold_Answer::WAIT, waits_for};
}

void Run_Access::release(Job const& job, std::set<std::string> const& resources) {
    std::string const run_id = job.run_id();
    if (!member_)
        return holds_.release(host_uuid_, run_id, resources);
    {
        std::lock_guard const guard(mutex_);
        if (auto const held = held_.find(run_id); held != held_.end())
            held->second.requests.erase(resources);
    }
    std::shared_ptr<Upstream_Backend> const server = Host_Services::instance().upstream();
    std::string ignored; // the server frees them when it learns that the run has ended
    if (server)
        (void)server->notify("run.release", hold_request(job, resources), ignored);
}

json_spirit::Array Run_Access::runs() const {
    json_spirit::Array array;
    std::lock_guard const guard(mutex_);
    for (Run_Keys::Entry const& entry : keys_.of_host(host_uuid_)) {
        json_spirit::Object run = entry.dump();
        if (auto const held = held_.find(entry.scope.run_id); held != held_.end()) {
            json_spirit::Array holds;
            for (std::set<std::string> const& one : held->second.requests)
                holds.emplace_back(json_spirit::Array(one.begin(), one.end()));
            json_spirit::insert(run)("name", held->second.name)("holds", std::move(holds));
        }
        array.emplace_back(std::move(run));
    }
    return array;
}
