#include "agent/service/member_duties.h"

#include "agent/instances/sqlite_instances.h"
#include "agent/rpc/group_link.h"
#include "json_spirit/value.h"
#include "qmrt/log.h"

#include <limits>

namespace {

/** How soon a stop is noticed. */
constexpr std::chrono::milliseconds LOOK{500};

} // namespace

Member_Duties::Member_Duties(Group_Link& link, SQLite_Instances& instances, std::string host_uuid)
    : link_(link),
      instances_(instances),
      host_uuid_(std::move(host_uuid)),
      started_(time(nullptr)),
      thread_(THR_NEW_LWP | THR_JOINABLE, ACE_DEFAULT_THREAD_PRIORITY) {}

Member_Duties::~Member_Duties() {
    stop();
}

void Member_Duties::start() {
    if (thread_.spawn(&Member_Duties::run, this) < 0)
        QMRT_LOG(LM_ERROR, "No thread could be made to tell the backup server of this host\n");
}

void Member_Duties::stop() {
    ended_ = true;
    thread_.join();
}

void Member_Duties::run() {
    while (!ended_) {
        if (!link_.await(true, LOOK))
            continue;
        dropped_ = dropped_ || drop_open_sets();
        announce_instances();
        while (!ended_ && !link_.await(false, LOOK))
            drop_failed();
    }
}

bool Member_Duties::drop_open_sets() {
    // only what is older than this process: its own jobs may have begun meanwhile
    JSON_RPC_Reply reply;
    if (link_.call("catalog.abort_open",
                   json_spirit::Object{{"host_uuid", host_uuid_}, {"before", started_}}, {}, reply))
        return true;
    QMRT_LOG(LM_WARNING, "The backup server did not drop the sets that this host left open: %s\n",
             reply.message.c_str());
    return false;
}

void Member_Duties::drop_set_of(std::string const& run_id) {
    std::lock_guard const guard(mutex_);
    failed_.insert(run_id);
}

void Member_Duties::drop_failed() {
    std::set<std::string> failed;
    {
        std::lock_guard const guard(mutex_);
        failed.swap(failed_);
    }
    for (std::string const& run_id : failed) {
        JSON_RPC_Reply reply;
        if (link_.call("catalog.abort_open",
                       json_spirit::Object{{"host_uuid", host_uuid_},
                                           {"before", std::numeric_limits<time_t>::max()},
                                           {"uuid", run_id}},
                       {}, reply))
            continue;
        QMRT_LOG(LM_WARNING, "The backup server did not drop the set that run %s left open: %s\n",
                 run_id.c_str(), reply.message.c_str());
        drop_set_of(run_id);
        return; // retried with the next look
    }
}

void Member_Duties::announce_instances() {
    for (std::shared_ptr<Instance> const& instance : instances_.list_all())
        (void)instances_.tell_server(Instance_Backend::ADDED, *instance); // logs its failure
}
