#include "tests/support/fake_jobs.h"

#include "host/agent/host_services.h"
#include "host/job/job.h"
#include "qmrt/uuid.h"

#include <ace/Log_Record.h>
#include <ace/Thread_Manager.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>

namespace {

constexpr std::chrono::minutes PATIENCE(1);

/** What jobs write their lines to; shared with whoever still logs. */
struct Lines {
    std::mutex mutex;
    std::vector<std::string> all;
    std::map<std::string, std::vector<std::string>> by_run;
};

class Collecting_Callback : public ACE_Log_Msg_Callback {
public:
    Collecting_Callback(std::shared_ptr<Lines> lines, std::string run)
        : lines_(std::move(lines)), run_(std::move(run)) {}
    void log(ACE_Log_Record& record) override {
        std::lock_guard const guard(lines_->mutex);
        lines_->all.emplace_back(record.msg_data());
        lines_->by_run[run_].emplace_back(record.msg_data());
    }

private:
    std::shared_ptr<Lines> lines_;
    std::string const run_;
};

} // namespace

class Fake_Jobs::Backend : public Job_Backend {
public:
    std::string new_run_id(Job const&) override {
        std::lock_guard const guard(mutex_);
        if (refuse_runs_)
            return "";
        run_ids_.push_back(uuid_string());
        return run_ids_.back();
    }
    secure_string run_key(Job const& job) override {
        return secure_string(std::string_view("key of " + job.run_id()));
    }
    void state_changed(Job const& job, Job_State state) override {
        std::string const run = job.run_id();
        add(std::string("state ") + job_state_to_string(state), [&] {
            states_.push_back(state);
            runs_[run].last_state = state;
        });
    }
    void progressed(Job const&, Job_Progress const& progress) override {
        add("progress " + std::to_string(progress.percent),
            [&] { progress_.push_back(progress.percent); });
    }
    void ended(Job const& job, Job_Outcome const& outcome) override {
        std::string const run = job.run_id();
        std::string event = std::string("ended ") + job_state_to_string(outcome.state) + " " +
                            std::to_string(outcome.code);
        if (!outcome.message.empty())
            event += " " + outcome.message;
        add(event, [&] {
            outcomes_.push_back(outcome);
            runs_[run].outcomes.push_back(outcome);
        });
    }
    void finished(Job const&) override {
        add("finished", [&] { ++finished_; });
    }
    Hold_Answer hold(Job const&, std::set<std::string> const& resources) override {
        std::function<Hold_Answer(std::set<std::string> const&)> action;
        {
            std::lock_guard const guard(mutex_);
            holds_.push_back("hold" + joined(resources));
            action = on_hold_;
        }
        return action ? action(resources) : Hold_Answer();
    }
    void release(Job const&, std::set<std::string> const& resources) override {
        std::lock_guard const guard(mutex_);
        holds_.push_back("release" + joined(resources));
    }
    void waiting(Job const&, std::string const& what) override {
        std::lock_guard const guard(mutex_);
        holds_.push_back("waiting " + what);
    }
    static std::string joined(std::set<std::string> const& resources) {
        std::string text;
        for (std::string const& resource : resources)
            text += " " + resource;
        return text;
    }
    void synced(Job const&) override {
        add("synced", [] {});
    }
    void alert(Job const& job, Job_Alert const& alert) override {
        std::string const run = job.run_id();
        add("alert " + std::to_string(alert.level) + " " + std::to_string(alert.code), [&] {
            alerts_.push_back(alert);
            runs_[run].alerts.push_back(alert);
        });
    }
    std::shared_ptr<ACE_Log_Msg_Callback> log_callback(Job const& job) override {
        return std::make_shared<Collecting_Callback>(lines_, job.run_id());
    }

    template <typename Keep>
    void add(std::string const& event, Keep keep) {
        std::function<void(std::string const&)> action;
        {
            std::lock_guard const guard(mutex_);
            action = on_event_;
        }
        if (action)
            action(event);
        std::lock_guard const guard(mutex_);
        events_.push_back(event);
        keep();
        changed_.notify_all();
    }

    template <typename T>
    T copy(T const& member) const {
        std::lock_guard const guard(mutex_);
        return member;
    }

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<std::string> events_;
    std::vector<Job_State> states_;
    std::vector<int> progress_;
    std::vector<Job_Outcome> outcomes_;
    std::vector<Job_Alert> alerts_;
    std::vector<std::string> run_ids_;
    std::map<std::string, Fake_Jobs::Run> runs_;
    size_t finished_ = 0;
    bool refuse_runs_ = false;
    std::function<Hold_Answer(std::set<std::string> const&)> on_hold_;
    std::vector<std::string> holds_;
    std::function<void(std::string const&)> on_event_;
    std::shared_ptr<Lines> lines_ = std::make_shared<Lines>();
};

Fake_Jobs::Fake_Jobs() : backend_(std::make_shared<Backend>()) {
    Host_Services::instance().jobs(backend_);
}

Fake_Jobs::~Fake_Jobs() {
    ACE_Thread_Manager::instance()->wait();
    Host_Services::instance().jobs(nullptr);
}

void Fake_Jobs::on_hold(std::function<Hold_Answer(std::set<std::string> const& resources)> action) {
    std::lock_guard const guard(backend_->mutex_);
    backend_->on_hold_ = std::move(action);
}

std::vector<std::string> Fake_Jobs::holds() const {
    return backend_->copy(backend_->holds_);
}

std::vector<std::string> Fake_Jobs::events() const {
    return backend_->copy(backend_->events_);
}

std::vector<Job_State> Fake_Jobs::states() const {
    return backend_->copy(backend_->states_);
}

std::vector<int> Fake_Jobs::progress() const {
    return backend_->copy(backend_->progress_);
}

std::vector<Job_Outcome> Fake_Jobs::outcomes() const {
    return backend_->copy(backend_->outcomes_);
}

std::vector<Job_Alert> Fake_Jobs::alerts() const {
    return backend_->copy(backend_->alerts_);
}

std::vector<std::string> Fake_Jobs::run_ids() const {
    return backend_->copy(backend_->run_ids_);
}

std::vector<std::string> Fake_Jobs::log_lines() const {
    std::lock_guard const guard(backend_->lines_->mutex);
    return backend_->lines_->all;
}

Fake_Jobs::Run Fake_Jobs::run(std::string const& id) const {
    Run run;
    {
        std::lock_guard const guard(backend_->mutex_);
        run = backend_->runs_[id];
    }
    std::lock_guard const guard(backend_->lines_->mutex);
    run.log_lines = backend_->lines_->by_run[id];
    return run;
}

void Fake_Jobs::clear() {
    std::lock_guard const guard(backend_->mutex_);
    backend_->events_.clear();
    backend_->states_.clear();
    backend_->progress_.clear();
    backend_->outcomes_.clear();
    backend_->alerts_.clear();
    backend_->run_ids_.clear();
    backend_->runs_.clear();
    backend_->holds_.clear();
    backend_->finished_ = 0;
}

bool Fake_Jobs::wait_for_finished(size_t count) const {
    std::unique_lock lock(backend_->mutex_);
    return backend_->changed_.wait_for(lock, PATIENCE,
                                       [&] { return backend_->finished_ >= count; });
}

bool Fake_Jobs::wait_for(std::string const& event) const {
    std::unique_lock lock(backend_->mutex_);
    std::vector<std::string> const& events = backend_->events_;
    return backend_->changed_.wait_for(lock, PATIENCE, [&] {
        return std::find(events.begin(), events.end(), event) != events.end();
    });
}

void Fake_Jobs::on_event(std::function<void(std::string const&)> action) {
    std::lock_guard const guard(backend_->mutex_);
    backend_->on_event_ = std::move(action);
}

void Fake_Jobs::refuse_runs(bool value) {
    std::lock_guard const guard(backend_->mutex_);
    backend_->refuse_runs_ = value;
}

std::shared_ptr<Job_Backend> Fake_Jobs::backend() const {
    return backend_;
}
