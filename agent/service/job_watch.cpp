#include "agent/service/job_watch.h"

#include "agent/jobs/member_reader.h"
#include "agent/service/agent_methods.h"
#include "host/storage/storage_clock.h"
#include "qmrt/log.h"

#include <algorithm>

namespace {

constexpr int64_t NS_PER_MS = 1'000'000;

int64_t steady_now() {
    return Storage_Clock::system().steady_ns();
}

} // namespace

Job_Watch::Job_Watch(Agent_Jobs& runs)
    : runs_(runs), thread_(THR_NEW_LWP | THR_JOINABLE, ACE_DEFAULT_THREAD_PRIORITY) {
    runs_.on_changed([this] {
        if (waiting_ > 0)
            ring();
    });
}

Job_Watch::~Job_Watch() {
    stop();
    runs_.on_changed({});
}

int Job_Watch::start() {
    if (thread_.spawn(&Job_Watch::work, this) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to start the thread of watched jobs, %m\n");
        return -1;
    }
    thread_.set_name("job-watch");
    return 0;
}

void Job_Watch::stop() {
    if (!thread_.exists())
        return;
    ring(true);
    thread_.join();
}

void Job_Watch::ring(bool stop) {
    std::lock_guard const guard(bell_.mutex);
    bell_.rung = true;
    bell_.stopping = bell_.stopping || stop;
    bell_.changed.notify_all();
}

int Job_Watch::handle_object(JSON_RPC_Channel_ptr channel, JSON_RPC_Object_var object) {
    auto const* const request = dynamic_cast<JSON_RPC_Request const*>(object.get());
    JSON_RPC_Channel_var const peer(channel.strong());
    if (!request || peer.null())
        return -1;
    Method_Fault fault;
    auto const refuse = [&] {
        return peer->send_error(fault.code, request->id(), fault.message.c_str(), fault.data);
    };
    std::string error, job;
    int64_t seen = 0, pause = 0;
    json_spirit::Object const none;
    bool const is_object = request->params().type() == json_spirit::obj_type;
    Member_Reader reader(is_object ? request->params().get_obj() : none, "", error);
    reader.required_text("job", job, names::fault_of_id);
    reader.number("seen", 0, INT64_MAX, seen);
    reader.number("pause", 0, LONGEST_WAIT_MS, pause);
    if (!reader.finish()) {
        (void)invalid_params(error, fault);
        return refuse();
    }
    Job_Run run;
    if (!::answer(runs_.find(job, run), fault))
        return refuse();
    int64_t const now = steady_now();
    Watcher const watcher{channel,
                          request->id(),
                          run.run_id,
                          static_cast<uint64_t>(seen),
                          now + pause * NS_PER_MS,
                          now + LONGEST_WAIT_MS * NS_PER_MS};
    {
        std::lock_guard const guard(mutex_);
        if (watchers_.size() < MAX_WATCHERS) {
            watchers_.push_back(watcher);
            waiting_ = watchers_.size();
            ring();
            return 0;
        }
    }
    return answer(watcher);
}

void Job_Watch::work() {
    int64_t next = steady_now();
    for (;;) {
        {
            std::unique_lock lock(bell_.mutex);
            int64_t const left = std::max<int64_t>(next - steady_now(), 0);
            (void)bell_.changed.wait_for(lock, std::chrono::nanoseconds(left),
                                         [&] { return bell_.rung; });
            if (bell_.stopping)
                return;
            bell_.rung = false;
        }
        next = serve();
    }
}

int64_t Job_Watch::serve() {
    int64_t const now = steady_now();
    int64_t next = now + LONGEST_WAIT_MS * NS_PER_MS;
    std::vector<Watcher> due;
    {
        std::lock_guard const guard(mutex_);
        std::erase_if(watchers_, [&](Watcher const& watcher) {
            int64_t at = 0;
            if (!is_due(watcher, now, at)) {
                next = std::min(next, at);
                return false;
            }
            due.push_back(watcher);
            return true;
        });
        waiting_ = watchers_.size();
    }
    for (Watcher const& watcher : due)
        (void)answer(watcher); // logged by the channel
    return next;
}

bool Job_Watch::is_due(Watcher const& watcher, int64_t now, int64_t& due) {
    due = watcher.all_due;
    switch (runs_.change_since(watcher.run_id, watcher.seen)) {
    case Agent_Jobs::OVER:
    case Agent_Jobs::NEW_STATE:
        return true;
    case Agent_Jobs::NEW_NUMBERS:
        due = watcher.numbers_due;
        break;
    case Agent_Jobs::NOTHING_NEW:
        break;
    }
    return now >= due;
}

int Job_Watch::answer(Watcher const& watcher) {
    JSON_RPC_Channel_var const peer(JSON_RPC_Channel_ptr(watcher.channel).strong());
    if (peer.null())
        return -1;
    json_spirit::Object run;
    Method_Fault fault;
    if (!describe_run(runs_, watcher.run_id, run, fault))
        return peer->send_error(fault.code, watcher.id, fault.message.c_str(), fault.data);
    return peer->send(JSON_RPC_Response(watcher.id, std::move(run)));
}
