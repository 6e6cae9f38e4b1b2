// When backups are made by themselves.
#include "agent/cli/commands.h"
#include "agent/cli/results.h"
#include "agent/cli/table.h"
#include "json_spirit/text.h"

#include <algorithm>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::object_get_str;
using json_spirit::Value;

namespace {

constexpr char LIST_SCHEDULES[] = "`zenbrak3 schedule list` lists the schedules.";
constexpr char NO_LEVEL[] = "none"; ///< times of a level that is not made any more

bool is_true(Object const& object, char const* key) {
    bool value = false;
    json_spirit::object_get(object, key, value);
    return value;
}

/** The member "schedule" of a definition, or the changes of it. */
Object schedule_of(Schedule_Wishes const& wishes, bool is_change) {
    Object schedule;
    Object times;
    for (auto const& [level, at] : wishes.times)
        times[level] = is_change && at == NO_LEVEL ? Value() : Value(at);
    if (!times.empty()) {
        schedule = {{"type", "calendar"}, {"times", times}};
        if (is_change)
            schedule["at"] = Value(); // of a definition that had one time only
    }
    if (wishes.time_zone == "local")
        schedule["time_zone"] = Value();
    else if (!wishes.time_zone.empty())
        schedule["time_zone"] = wishes.time_zone;
    if (wishes.catch_up)
        schedule["catch_up"] = *wishes.catch_up;
    return schedule;
}

/** "full Sun 02:00; incremental Mon..Sat 02:00" */
std::string times_text(Object const& schedule) {
    std::string text;
    Array const levels = array_of(schedule, "levels");
    for (Object const& level : json_spirit::objects_of(levels)) {
        std::string const type = object_get_str(level, "type");
        text += (text.empty() ? "" : "; ") + object_get_str(level, "level") + " " +
                (type.empty() || type == "calendar" ? "" : type + " ") +
                object_get_str(level, "at");
    }
    return text;
}

std::string state_text_of(Object const& schedule) {
    if (!object_get_str(schedule, "fault").empty())
        return "unreadable";
    std::string const state = object_get_str(schedule, "state");
    return is_true(schedule, "paused") && state == "disabled" ? "paused" : state;
}

/** The runs to come of all schedules, the first one first. */
std::string next_runs_text(Array const& schedules, Terminal const& terminal) {
    std::vector<Object> runs;
    for (Object const& schedule : json_spirit::objects_of(schedules)) {
        Array const next = array_of(schedule, "next_runs");
        for (Object run : json_spirit::objects_of(next)) {
            run["name"] = object_get_str(schedule, "name");
            run["instance"] = object_get_str(schedule, "instance");
            runs.push_back(run);
        }
    }
    std::ranges::stable_sort(runs, {}, [](Object const& run) { return number_of(run, "time"); });
    Table table({{"NEXT RUN", "time", Form::TIME},
                 {"LEVEL", "level"},
                 {"INSTANCE", "instance"},
                 {"SCHEDULE", "name"}});
    for (Object const& run : runs)
        table.add(run);
    return table.empty() ? "" : "\n" + table.text(terminal);
}

/** Finds a schedule; tells of a failure. */
bool find_schedule(Command_Context& context, std::string const& name, std::string const& doing,
                   Object& schedule) {
    return context.ask("schedule.show", Object{{"schedule", name}}, doing, schedule,
                       LIST_SCHEDULES);
}

/** "; the next run is full, at 2026-11-22 02:00:00" */
std::string next_run_text(Command_Context& context, std::string const& name) {
    Value answer;
    if (!context.try_to_ask("schedule.show", Object{{"schedule", name}, {"count", 1}}, answer) ||
        answer.type() != json_spirit::obj_type)
        return "";
    Array const runs = array_of(answer.get_obj(), "next_runs");
    for (Object const& run : json_spirit::objects_of(runs))
        return "; its next run is " + object_get_str(run, "level") + ", at " +
               time_text(static_cast<time_t>(number_of(run, "time")));
    return "";
}

} // namespace

int add_schedule(Command_Context& context, std::string const& instance,
                 Schedule_Wishes const& wishes, Job_Wishes const& job) {
    std::string const name = job.name.empty() ? instance : job.name;
    std::string const doing = "add schedule " + name;
    Object found, definition, result;
    std::string error;
    Value taken;
    if (!context.ask("instance.show", Object{{"instance", instance}}, doing, found,
                     "`zenbrak3 instances --refresh` looks for instances and lists them."))
        return context.status();
    if (context.try_to_ask("definition.show", Object{{"definition", name}}, taken))
        return context.fail(EXIT_REFUSED, "cannot " + doing + ": it exists already",
                            "`zenbrak3 schedule update " + printable(name) +
                                "` changes it, --name adds another one.");
    if (!make_backup_definition(found, wishes.pool, "", job, definition, error))
        return context.fail(EXIT_USAGE, "cannot " + doing + ": " + error);
    definition.erase("subtype"); // the schedule says the levels
    definition["name"] = name;
    definition["schedule"] = schedule_of(wishes, false);
    if (!context.ask("definition.save", definition, doing, result,
                     "`zenbrak3 pools` lists the pools."))
        return context.status();
    return done(context, result, "Added schedule " + name + next_run_text(context, name) + ".");
}

int update_schedule(Command_Context& context, std::string const& schedule,
                    Schedule_Wishes const& wishes, Job_Wishes const& job) {
    std::string const doing = "update schedule " + schedule;
    Object changes, before, result;
    std::string error;
    if (!make_backup_changes(job, changes, error))
        return context.fail(EXIT_USAGE, "cannot " + doing + ": " + error);
    if (Object const times = schedule_of(wishes, true); !times.empty())
        changes["schedule"] = times;
    if (!wishes.pool.empty())
        changes["target"] = Object{{"id", Value()}, {"pool", wishes.pool}};
    if (changes.empty())
        return context.fail(EXIT_USAGE,
                            "nothing to change in schedule " + schedule +
                                ": name at least one option (see schedule update --help)");
    if (!find_schedule(context, schedule, doing, before) ||
        !context.ask("definition.change", Object{{"definition", schedule}, {"changes", changes}},
                     doing, result, "`zenbrak3 pools` lists the pools."))
        return context.status();
    std::string const name = job.name.empty() ? schedule : job.name;
    std::string const running = object_get_str(before, "state") == "running"
                                    ? " The run that is running goes on as it began."
                                    : "";
    return done(context, result,
                "Changed schedule " + name + next_run_text(context, name) + "." + running);
}

int list_schedules(Command_Context& context, std::string const& instance, double interval) {
    Object params;
    if (!instance.empty())
        params["instance"] = instance;
    constexpr char DOING[] = "list the schedules";
    return context.show(interval, [&](std::string& text) {
        Object result;
        Table table({{"NAME", "name"},
                     {"INSTANCE", "instance"},
                     {"POOL", "pool"},
                     {"STATE", "state"},
                     {"LAST RUN", "last_run", Form::TIME},
                     {"TIMES", "times"}});
        if (!choose(context, table) || !context.ask("schedule.list", params, DOING, result))
            return false;
        Array const schedules = array_of(result, "schedules");
        if (schedules.empty() && !is_known(context, "instance", instance, DOING))
            return false;
        for (Object const& schedule : json_spirit::objects_of(schedules)) {
            Object shown = schedule;
            shown["times"] = times_text(schedule);
            shown["state"] = state_text_of(schedule);
            table.add(shown, schedule);
        }
        text = text_of_list(context, result, "schedules", table,
                            "No schedules; `zenbrak3 schedule add` adds one.");
        if (!context.json() && context.list().columns.empty())
            text += next_runs_text(table.rows(), context.terminal());
        return true;
    });
}

int show_schedule(Command_Context& context, std::string const& schedule) {
    Object found;
    if (!find_schedule(context, schedule, "show schedule " + schedule, found))
        return context.status();
    if (context.json()) {
        context.print_json(found);
        return EXIT_OK;
    }
    Object shown = found;
    shown["state"] = state_text_of(found);
    shown["times"] = times_text(found);
    if (object_get_str(found, "time_zone").empty())
        shown["time_zone"] = "that of the agent's host";
    shown["missed"] = is_true(found, "catch_up")
                          ? "made up for once, when the agent is back (the level that covers most)"
                          : "not made up for";
    shown["overlap"] = "skipped, with an alert of the run that is still running";
    if (object_get_str(found, "fault").empty())
        shown.erase("fault");
    context.print(fields_text(shown,
                              {{"Schedule", "name"},
                               {"Type", "type"},
                               {"Instance", "instance"},
                               {"Pool", "pool"},
                               {"State", "state"},
                               {"Fault", "fault"},
                               {"Times", "times"},
                               {"Time zone", "time_zone"},
                               {"Missed runs", "missed"},
                               {"Due while running", "overlap"},
                               {"Options", "options"},
                               {"Rate limits", "rate_limits"},
                               {"Last run", "last_run", Form::TIME},
                               {"Definition id", "id"}},
                              {"levels", "next_runs", "paused", "catch_up", "pool_uuid"}));
    context.print(next_runs_text(Array{found}, context.terminal()));
    return EXIT_OK;
}

int enable_schedule(Command_Context& context, std::string const& schedule, bool enabled) {
    std::string const doing = (enabled ? "resume schedule " : "pause schedule ") + schedule;
    Object found, result;
    Object const changes{{"enabled", enabled}};
    if (!find_schedule(context, schedule, doing, found) ||
        !context.ask("definition.change", Object{{"definition", schedule}, {"changes", changes}},
                     doing, result, LIST_SCHEDULES))
        return context.status();
    return done(context, result,
                enabled
                    ? "Schedule " + schedule + " is active" + next_run_text(context, schedule) + "."
                    : "Schedule " + schedule +
                          " is paused; a run that is running goes on. `zenbrak3 schedule "
                          "resume " +
                          schedule + "` ends the pause.");
}

int remove_schedule(Command_Context& context, std::string const& schedule) {
    std::string const doing = "remove schedule " + schedule;
    Object found, result;
    if (!find_schedule(context, schedule, doing, found) ||
        !context.ask("definition.remove", Object{{"definition", schedule}}, doing, result,
                     LIST_SCHEDULES))
        return context.status();
    return done(context, result, "Removed schedule " + schedule + "; its backups stay.");
}

int run_schedule(Command_Context& context, std::string const& schedule, std::string const& level,
                 Wait const& wait) {
    Object found;
    if (!find_schedule(context, schedule, "run schedule " + schedule, found))
        return context.status();
    if (is_true(found, "paused"))
        return context.fail(EXIT_REFUSED, "cannot run schedule " + schedule + ": it is paused",
                            "`zenbrak3 schedule resume " + printable(schedule) +
                                "` ends the pause; `zenbrak3 backup` makes a backup without it.");
    return start_definition(context, schedule, wait, level);
}
