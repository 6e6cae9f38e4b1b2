#include "host/job/job.h"

#include "host/agent/host_manager.h"
#include "host/agent/host_services.h"
#include "host/job/job_backend.h"
#include "host/job/thread_log.h"
#include "host/process/cancellation.h"
#include "qmrt/check.h"
#include "qmrt/format.h"

#include <algorithm>
#include <cstring>

/** The record with the texts that it points at: what an activity file looks like. */
struct Job::Activity_Page {
    static constexpr size_t TEXT_SIZE = JOB_ACTIVITY_SIZE - sizeof(Job_Activity);

    Job_Activity record;
    char text[TEXT_SIZE] = {};
};

namespace {

constexpr char RUN_CANCELLED[] = "the run was cancelled";

bool cancel_requested(Job_State state) {
    return state == JOB_STATE_CANCELING || state == JOB_STATE_ABORTING;
}

/** True for a record of this layout and that definition; a file may hold anything. */
bool is_record_of(Job_Activity& record, uuid_binary const& definition_id) {
    if (record.magic != Job_Activity::MAGIC || record.version != Job_Activity::VERSION ||
        std::memcmp(record.def_id, definition_id, sizeof record.def_id) != 0)
        return false;
    unsigned char enabled;
    std::memcpy(&enabled, &record.enabled, sizeof enabled);
    return enabled <= 1 && record.state >= JOB_STATE_NONE && record.state <= JOB_STATE_OPENING;
}

} // namespace

Job::Job(Job_Definition_var definition)
    : definition_(definition), page_(std::make_unique<Activity_Page>()), activity_(&page_->record) {
    reference_counting_policy().value(Reference_Counting_Policy::ENABLED);
    init_activity();
}

Job::~Job() = default;

void Job::init_activity() {
    activity_->enabled = true;
    activity_->state = JOB_STATE_IDLE;
    if (definition_.null())
        return;
    activity_->type = definition_->type();
    uuid_string_to_binary(definition_->id(), activity_->def_id);
    uuid_string_to_binary(definition_->uid(), activity_->uid);
}

// requests

int Job::start(Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    std::string hindrance = run_on();
    if (hindrance.empty() && !activity_->enabled)
        hindrance = "it is disabled";
    if (hindrance.empty() && definition_.null())
        hindrance = "it has no definition";
    if (removed_ || !hindrance.empty())
        return carry_out("be started", hindrance, nullptr, refusal);
    return start_run(options, refusal);
}

int Job::start_run(Action_Options const* options, std::string* refusal) {
    std::shared_ptr<Job_Backend> const jobs = backend();
    std::string const run = jobs ? jobs->new_run_id(*this) : std::string();
    uuid_binary id;
    if (!uuid_string_to_binary(run, id))
        return refuse("be started", "there is no run id for it", refusal);

    Job_State const before = activity_->state;
    uuid_binary id_before;
    std::memcpy(id_before, activity_->id, sizeof id);
    set_run_id(id);
    running_ = true;
    outcome_told_ = false;
    self_ = Job_var(this);
    set_cancellation(std::make_shared<Cancellation>(RUN_CANCELLED));
    change_state(JOB_STATE_STARTING);
    if (start_i(options) == 0)
        return 0;

    change_state(before);
    running_ = false;
    set_run_id(id_before);
    set_cancellation(nullptr);
    self_ = Job_var();
    return refuse("be started", "its run could not begin", refusal);
}

int Job::stop(Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    if (no_run_open().empty() && cancel_requested(activity_->state))
        return 0;
    return carry_out(
        "be stopped", no_run_open(), [&] { return stop_i(options); }, refusal);
}

int Job::abort(Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    if (no_run_open().empty() && cancel_requested(activity_->state))
        return 0;
    return carry_out(
        "be aborted", no_run_open(), [&] { return abort_i(options); }, refusal);
}

int Job::abort_now(Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    if (abort(options, refusal) == -1)
        return -1;
    if (std::shared_ptr<Cancellation> const run = cancellation())
        run->cancel();
    return 0;
}

int Job::enable(Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    return carry_out(
        "be enabled", "", [&] { return enable_i(options); }, refusal);
}

int Job::disable(Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    return carry_out(
        "be disabled", "", [&] { return disable_i(options); }, refusal);
}

int Job::pause(Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    return carry_out(
        "be paused", not_in(JOB_STATE_RUNNING, JOB_STATE_RUNNING), [&] { return pause_i(options); },
        refusal);
}

int Job::resume(Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    return carry_out(
        "be resumed", not_in(JOB_STATE_PAUSED, JOB_STATE_PAUSING),
        [&] { return resume_i(options); }, refusal);
}

int Job::switch_over(Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    return carry_out(
        "be switched", not_in(JOB_STATE_RUNNING, JOB_STATE_RUNNING),
        [&] { return switch_i(options); }, refusal);
}

int Job::remove(bool with_data, Action_Options const* options, std::string* refusal) {
    std::lock_guard const guard(lock_);
    Job_State const before = activity_->state;
    auto const operation = [&] {
        change_state(JOB_STATE_DELETING);
        if (remove_i(with_data, options) == -1) {
            change_state(before);
            return -1;
        }
        change_state(JOB_STATE_DELETED);
        removed_ = true;
        return 0;
    };
    return carry_out("be removed", run_on(), operation, refusal);
}

int Job::update(Job_Definition_var definition, std::string* refusal) {
    std::lock_guard const guard(lock_);
    std::string hindrance = run_on();
    if (definition.null())
        hindrance = "there is no new definition";
    else if (!definition_.null() && definition->id() != definition_->id())
        hindrance = "the new definition is another job's";
    else if (hindrance.empty() && !can_update_i(activity_->state))
        hindrance = string_sprintf("it is %s", job_state_to_string(activity_->state));
    auto const operation = [&] {
        if (update_i(definition) == -1)
            return -1;
        std::lock_guard const data_guard(data_lock_);
        definition_ = definition;
        return 0;
    };
    return carry_out("be updated", hindrance, operation, refusal);
}

int Job::rollback(std::string* refusal) {
    std::lock_guard const guard(lock_);
    return carry_out(
        "be rolled back", run_on(), [&] { return rollback_i(); }, refusal);
}

int Job::setup_ondemand(std::string* refusal) {
    std::lock_guard const guard(lock_);
    bool const ondemand = !definition_.null() && !definition_->schedule().null() &&
                          definition_->schedule()->type() == Job_Schedule::TYPE_ONDEMAND;
    return carry_out(
        "be set up", ondemand ? "" : "it has no on-demand schedule",
        [&] { return setup_ondemand_i(); }, refusal);
}

int Job::handle_timeout(ACE_Time_Value const&, void const*) {
    start();
    return 0;
}

/** Calls @a operation, unless there is something in the way. */
int Job::carry_out(char const* verb, std::string const& hindrance,
                   std::function<int()> const& operation, std::string* refusal) {
    if (removed_)
        return refuse(verb, "it has been removed", refusal);
    if (!hindrance.empty())
        return refuse(verb, hindrance, refusal);
    if (operation() == -1)
        return refuse(verb, "its kind does not do that, or failed to", refusal);
    return 0;
}

int Job::refuse(char const* verb, std::string const& reason, std::string* refusal) const {
    std::string const text =
        string_sprintf("Job %s cannot %s: %s", label().c_str(), verb, reason.c_str());
    QMRT_LOG(LM_WARNING, "%s\n", text.c_str());
    if (refusal)
        *refusal = text;
    return -1;
}

/** Why a run cannot be acted upon; "" when it can. */
std::string Job::no_run_open() const {
    return running_ && !outcome_told_ ? "" : "it is not running";
}

/** Why the job is not free for something else; "" when it is. */
std::string Job::run_on() const {
    return running_ ? "it is running already" : "";
}

std::string Job::not_in(Job_State wanted, Job_State other) const {
    Job_State const now = activity_->state;
    if (!no_run_open().empty() || now == wanted || now == other)
        return no_run_open();
    return string_sprintf("it is %s", job_state_to_string(now));
}

// what a job that overrides nothing does

int Job::setup_ondemand_by_job() {
    return setup_ondemand_i();
}

int Job::start_i(Action_Options const*) {
    return -1;
}

int Job::stop_i(Action_Options const*) {
    return -1;
}

int Job::enable_i(Action_Options const*) {
    activity_->enabled = true;
    sync(nullptr);
    return 0;
}

int Job::disable_i(Action_Options const*) {
    activity_->enabled = false;
    sync(nullptr);
    return 0;
}

int Job::pause_i(Action_Options const*) {
    return -1;
}

int Job::resume_i(Action_Options const*) {
    return -1;
}

int Job::abort_i(Action_Options const*) {
    return -1;
}

int Job::switch_i(Action_Options const*) {
    return -1;
}

int Job::remove_i(bool, Action_Options const*) {
    return 0;
}

int Job::update_i(Job_Definition_var) {
    return 0;
}

int Job::rollback_i() {
    return -1;
}

bool Job::can_update_i(Job_State state) {
    return !is_run_state(state);
}

int Job::setup_ondemand_i() {
    return -1;
}

int Job::run_i(Action_Options const*) {
    return -1;
}

// the run

void Job::set_job_thread() {
    std::shared_ptr<Job_Backend> const jobs = Host_Services::instance().jobs();
    set_run_key(jobs ? jobs->run_key(*this) : secure_string());
    std::lock_guard const guard(lock_);
    if (!running_)
        outcome_told_ = false;
    running_ = true;
    if (!cancellation())
        set_cancellation(std::make_shared<Cancellation>(RUN_CANCELLED));
    Cancellation::current(cancellation());
    log_this_thread_to(log_msg_callback());
}

void Job::begin_work() {
    std::lock_guard const guard(lock_);
    outcome_told_ = false;
    activity_->start_time = time(nullptr);
    activity_->last_run_time = activity_->start_time;
    activity_->progress = 0;
    activity_->processed_size = 0;
    activity_->speed = 0;
    activity_->code = 0;
    set_message("");
    // a cancel that came while the run was starting stands
    if (!cancel_requested(activity_->state))
        change_state(JOB_STATE_RUNNING);
}

void Job::report(Job_Progress const& progress) {
    std::lock_guard const guard(lock_);
    activity_->progress = progress.percent;
    if (progress.processed_size)
        activity_->processed_size = progress.processed_size;
    if (progress.total_size)
        activity_->size = progress.total_size;
    if (progress.speed)
        activity_->speed = progress.speed;
    if (std::shared_ptr<Job_Backend> const jobs = backend())
        jobs->progressed(*this, progress);
}

void Job::end(Job_State result, int code, std::string const& message) {
    std::lock_guard const guard(lock_);
    if (outcome_told_) {
        QMRT_LOG(LM_ERROR, "Job %s told a second outcome, %s: ignored\n", label().c_str(),
                 job_state_to_string(result));
        return;
    }
    outcome_told_ = true;
    activity_->code = code;
    set_message(message);
    if (result == JOB_STATE_COMPLETED)
        activity_->progress = 100;
    change_state(result);
    if (std::shared_ptr<Job_Backend> const jobs = backend())
        jobs->ended(*this, {result, code, message});
}

void Job::complete() {
    Job_var last; // outlives the guard: it may be the last reference
    std::lock_guard const guard(lock_);
    last = self_;
    Job_State const state = activity_->state;
    if (!outcome_told_ && cancel_requested(state))
        end(JOB_STATE_CANCELED, 0, "");
    else if (!outcome_told_ && is_run_state(state))
        end(JOB_STATE_ERROR, -1, "The run ended without an outcome");
    running_ = false;
    if (std::shared_ptr<Job_Backend> const jobs = backend())
        jobs->finished(*this);
    set_run_key(secure_string());
    log_this_thread_to(nullptr);
    Cancellation::current(nullptr);
    set_cancellation(nullptr);
    self_ = Job_var();
}

void Job::phase(std::string const& what) const {
    if (std::shared_ptr<Job_Backend> const jobs = backend())
        jobs->phase(*this, what);
}

/** Of the run and of the calling thread, which is the run's. */
void Job::set_run_key(secure_string const& key) {
    Host_Manager::instance()->access_key(key);
    std::lock_guard const guard(data_lock_);
    run_key_ = key;
}

// state and record

std::shared_ptr<Cancellation> Job::cancellation() const {
    std::lock_guard const guard(data_lock_);
    return cancellation_;
}

void Job::set_cancellation(std::shared_ptr<Cancellation> cancellation) {
    std::lock_guard const guard(data_lock_);
    cancellation_ = std::move(cancellation);
}

secure_string Job::run_key() const {
    std::lock_guard const guard(data_lock_);
    return run_key_;
}

Job_Definition_var Job::definition() const {
    std::lock_guard const guard(data_lock_);
    return definition_;
}

std::string Job::run_id() const {
    std::lock_guard const guard(data_lock_);
    return uuid_binary_to_string(activity_->id);
}

void Job::set_run_id(uuid_binary const& id) {
    std::lock_guard const guard(data_lock_);
    std::memcpy(activity_->id, id, sizeof id);
}

std::string Job::message() const {
    std::lock_guard const guard(data_lock_);
    size_t const offset = activity_->message.offset;
    size_t const size = activity_->message.size;
    // a mapped file may hold anything
    if (offset < sizeof(Job_Activity) || offset + size > JOB_ACTIVITY_SIZE)
        return "";
    return std::string(reinterpret_cast<char const*>(activity_) + offset, size);
}

void Job::set_message(std::string const& text) {
    std::lock_guard const guard(data_lock_);
    size_t const size = std::min(text.size(), Activity_Page::TEXT_SIZE);
    std::memcpy(reinterpret_cast<char*>(activity_) + sizeof(Job_Activity), text.data(), size);
    activity_->message.size = static_cast<ACE_UINT16>(size);
    activity_->message.offset = size ? sizeof(Job_Activity) : 0;
}

void Job::state(Job_State value) {
    std::lock_guard const guard(lock_);
    change_state(value);
}

int Job::state_i(Job_State value) {
    std::lock_guard const guard(lock_);
    if (outcome_told_)
        return -1;
    change_state(value);
    return 0;
}

void Job::change_state(Job_State value) {
    activity_->state = value;
    if (std::shared_ptr<Job_Backend> const jobs = backend())
        jobs->state_changed(*this, value);
}

void Job::sync(Action_Options const*) {
    std::lock_guard const guard(lock_);
    if (std::shared_ptr<Job_Backend> const jobs = backend())
        jobs->synced(*this);
}

std::shared_ptr<ACE_Log_Msg_Callback> Job::log_msg_callback() const {
    std::shared_ptr<Job_Backend> const jobs = backend();
    return jobs ? jobs->log_callback(*this) : nullptr;
}

int Job::map_activity(std::string const& path) {
    std::lock_guard const guard(lock_);
    if (running_)
        return refuse("change its activity file", "it is running already", nullptr);
    if (file_) {
        page_->record = *activity_;
        activity_ = &page_->record;
        file_.close();
    }
    if (file_.open_i(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC) == -1)
        return -1;

    activity_ = file_.operator->();
    if (!is_record_of(*activity_, page_->record.def_id))
        *activity_ = page_->record;
    if (is_run_state(activity_->state)) {
        QMRT_LOG(LM_WARNING, "Job %s was cut short while it was %s: its run has failed\n",
                 label().c_str(), job_state_to_string(activity_->state));
        activity_->state = JOB_STATE_ERROR;
        activity_->code = -1;
    }
    return 0;
}

std::shared_ptr<Job_Backend> Job::backend() const {
    std::shared_ptr<Job_Backend> jobs = Host_Services::instance().jobs();
    if (!jobs)
        QMRT_LOG(LM_ERROR, "No job service is installed for job %s\n", label().c_str());
    return jobs;
}

std::string Job::label() const {
    Job_Definition_var const def = definition();
    if (def.null())
        return "without a definition";
    return def->name().empty() ? def->id() : def->name();
}

// references

void Job::intrusive_add_ref(Job* job) {
    if (job)
        job->add_reference();
}

void Job::intrusive_remove_ref(Job* job) {
    if (job)
        job->remove_reference();
}

ACE_Event_Handler::Reference_Count Job::add_reference() {
    return ++references_;
}

ACE_Event_Handler::Reference_Count Job::remove_reference() {
    Reference_Count const left = --references_;
    if (left == 0)
        delete this;
    return left;
}
