#include "agent/jobs/job_manager.h"
#include "agent/jobs/member_reader.h"
#include "agent/jobs/scheduler.h"
#include "agent/service/agent_methods.h"
#include "json_spirit/access.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr int64_t USUAL_COUNT = 5;
constexpr int64_t MOST_RUNS = 1000;

class Schedule_Methods {
public:
    Schedule_Methods(Job_Manager& manager, Scheduler& scheduler, Pool_Names pool_names)
        : manager_(manager), scheduler_(scheduler), pool_names_(std::move(pool_names)) {}

    bool list(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, instance;
        int64_t count = USUAL_COUNT;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.text("instance", instance, names::fault_of_label);
        reader.number("count", 0, MOST_RUNS, count);
        if (!reader.finish())
            return invalid_params(error, fault);
        std::vector<Described_Definition> all;
        if (!answer(manager_.list(all), fault))
            return false;
        Array schedules;
        for (Described_Definition const& one : all)
            if (is_schedule(one) && (instance.empty() || one.stored.instance == instance))
                schedules.emplace_back(describe(one, static_cast<size_t>(count)));
        result = Object{{"schedules", std::move(schedules)}};
        return true;
    }

    bool show(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, name;
        int64_t count = USUAL_COUNT;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("schedule", name, names::fault_of_label);
        reader.number("count", 0, MOST_RUNS, count);
        if (!reader.finish())
            return invalid_params(error, fault);
        Described_Definition found;
        if (!answer(manager_.show(name, found), fault))
            return false;
        if (!is_schedule(found))
            return not_found("schedule \"" + name + "\"", fault);
        result = describe(found, static_cast<size_t>(count));
        return true;
    }

    bool change(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, name;
        Object const* changes = nullptr;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("definition", name, names::fault_of_label);
        if (!reader.object("changes", changes))
            reader.blame("changes", "is missing");
        if (!reader.finish())
            return invalid_params(error, fault);
        if (!answer(manager_.change(name, *changes), fault))
            return false;
        scheduler_.wake();
        result = Object();
        return true;
    }

private:
    /** Whether a definition has times; one whose times cannot be read has some, too. */
    static bool is_schedule(Described_Definition const& definition) {
        std::string error;
        return !schedule_from_json(definition.stored.body, error).is_empty() || !error.empty();
    }

    Object describe(Described_Definition const& definition, size_t count) const {
        Stored_Definition const& stored = definition.stored;
        std::string error;
        Definition_Schedule const schedule = schedule_from_json(stored.body, error);
        Object const* as_saved = nullptr;
        Object const* target = nullptr;
        json_spirit::object_get(stored.body, "schedule", as_saved);
        json_spirit::object_get(stored.body, "target", target);
        std::string const pool = target ? json_spirit::object_get_str(*target, "id") : "";
        Object described{{"id", stored.id},
                         {"name", stored.name},
                         {"type", json_spirit::object_get_str(stored.body, "type")},
                         {"instance", stored.instance},
                         {"pool", pool_names_(pool)},
                         {"pool_uuid", pool},
                         {"paused", !stored.enabled},
                         {"state", definition.state},
                         {"levels", levels_of(schedule, stored.body, *as_saved)},
                         {"time_zone", schedule.time_zone()},
                         {"catch_up", schedule.catches_up()},
                         {"next_runs", next_runs(definition, count)},
                         {"last_run", int64_t{definition.last_start}},
                         {"fault", error}};
        Object const* options = nullptr;
        if (json_spirit::object_get(stored.body, "options", options))
            described["options"] = *options;
        if (stored.body.contains("rate_limits"))
            described["rate_limits"] = stored.body.at("rate_limits");
        return described;
    }

    /** [{"level", "at"}], the level that covers most first. */
    static Array levels_of(Definition_Schedule const& schedule, Object const& definition,
                           Object const& as_saved) {
        Array levels;
        Object const* times = nullptr;
        json_spirit::object_get(as_saved, "times", times);
        for (std::string const& level : schedule.levels())
            levels.emplace_back(
                Object{{"level", level}, {"at", json_spirit::object_get_str(*times, level)}});
        if (!times)
            levels.emplace_back(
                Object{{"level", json_spirit::object_get_str(definition, "subtype")},
                       {"at", json_spirit::object_get_str(as_saved, "at")},
                       {"type", json_spirit::object_get_str(as_saved, "type")}});
        return levels;
    }

    Array next_runs(Described_Definition const& definition, size_t count) const {
        Array runs;
        std::string const own = json_spirit::object_get_str(definition.stored.body, "subtype");
        for (Due_Run const& run : scheduler_.next_runs(definition, count))
            runs.emplace_back(Object{{"time", int64_t{run.time}},
                                     {"level", run.level.empty() ? own : run.level}});
        return runs;
    }

    Job_Manager& manager_;
    Scheduler& scheduler_;
    Pool_Names const pool_names_;
};

} // namespace

void add_schedule_methods(Method_Table& methods, Job_Manager& manager, Scheduler& scheduler,
                          Pool_Names pool_names) {
    auto const schedules =
        std::make_shared<Schedule_Methods>(manager, scheduler, std::move(pool_names));
    add_member_methods<Schedule_Methods>(methods, schedules,
                                         {{"schedule.list", &Schedule_Methods::list},
                                          {"schedule.show", &Schedule_Methods::show},
                                          {"definition.change", &Schedule_Methods::change}});
}
