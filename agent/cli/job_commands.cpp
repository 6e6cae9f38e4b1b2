// What is done: backups, restores, and the runs of jobs.
#include "agent/cli/commands.h"
#include "agent/cli/consequences.h"
#include "agent/cli/definition_file.h"
#include "agent/cli/guide.h"
#include "agent/cli/interruption.h"
#include "agent/cli/job_progress.h"
#include "agent/cli/results.h"
#include "agent/cli/table.h"
#include "json_spirit/text.h"

#include <algorithm>
#include <chrono>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::object_get_str;
using json_spirit::Value;

namespace {

constexpr char LISTING_JOBS[] = "list the jobs";
/** Rows of a list without --limit, and those that the agent answers at most. */
constexpr int USUAL_JOBS = 100;
constexpr int MOST_JOBS = 10000;
constexpr char LIST_JOBS[] = "`zenbrak3 jobs` lists the jobs.";
constexpr std::chrono::milliseconds FIRST_LOOK{50};
constexpr int64_t LONGEST_PAUSE_MS = 30000; ///< the agent's own limit
/** How long a cancelled run is looked at: one that waits ends at once. */
constexpr std::chrono::milliseconds SOON{1000};
/** The same for one whose programs are ended. */
constexpr std::chrono::milliseconds LONGEST_END{15000};

std::vector<Column> const& run_fields() {
    static std::vector<Column> const fields{{"Job", "run_id"},
                                            {"Definition", "name"},
                                            {"Type", "type"},
                                            {"Level", "level"},
                                            {"Asked for", "subtype"},
                                            {"Instance", "instance"},
                                            {"State", "state"},
                                            {"Waits for", "waiting_for"},
                                            {"Phase", "phase"},
                                            {"Code", "code"},
                                            {"Message", "message"},
                                            {"Done", "percent", Form::PERCENT},
                                            {"Processed", "processed_size", Form::SIZE},
                                            {"Total", "total_size", Form::SIZE},
                                            {"Expected", "expected_size", Form::SIZE},
                                            {"Speed", "speed", Form::SPEED},
                                            {"Average speed", "average_speed", Form::SPEED},
                                            {"Backup size", "set_size", Form::SIZE},
                                            {"Started", "start_time", Form::TIME},
                                            {"Ended", "end_time", Form::TIME},
                                            {"Elapsed", "elapsed", Form::DURATION},
                                            {"Left", "remaining", Form::DURATION},
                                            {"Alerts", "alerts"},
                                            {"Definition id", "definition"}};
    return fields;
}

/** How long a run has taken; "" while nobody knows. */
std::string took(Object const& run) {
    int64_t const start = number_of(run, "start_time");
    int64_t const end = number_of(run, "end_time");
    return start > 0 && end >= start ? duration_text(end - start) : "";
}

/** What went wrong and what to do, two lines for each alert. */
std::string alerts_text(Object const& run) {
    constexpr int64_t FAILS = 7;
    Array alerts;
    json_spirit::object_get(run, "alert_list", alerts);
    if (alerts.empty())
        return "";
    std::string text;
    for (Object const& alert : json_spirit::objects_of(alerts)) {
        int64_t const count = number_of(alert, "count", 1);
        std::string const advice = object_get_str(alert, "advice");
        text += (number_of(alert, "level") < FAILS ? "Warning, " : "Alert, ") +
                time_text(static_cast<time_t>(number_of(alert, "time"))) + ": " +
                printable(object_get_str(alert, "text")) +
                (count > 1 ? " (" + std::to_string(count) + " times)" : "") + "\n";
        if (!advice.empty())
            text += "  -> " + printable(advice) + "\n";
    }
    return text;
}

Exit_Code exit_code_of(Object const& run) {
    switch (state_of(run)) {
    case JOB_STATE_COMPLETED:
        return EXIT_OK;
    case JOB_STATE_CANCELED:
        return EXIT_CANCELED;
    default:
        return EXIT_FAILED;
    }
}

/** A run without the members that are unknown or no longer of interest. */
Object known_of(Object run) {
    for (char const* const key :
         {"waiting_for", "phase", "message", "processed_size", "total_size", "expected_size",
          "speed", "average_speed", "set_size", "end_time", "remaining"}) {
        auto const member = run.find(key);
        if (member == run.end())
            continue;
        Value const& value = member->second;
        if (value == Value("") || value == Value(0) || value.is_null())
            run.erase(member);
    }
    if (is_over(run) || !object_get_str(run, "waiting_for").empty())
        run.erase("speed");
    run.try_emplace("level", json_spirit::object_get_any(run, "subtype"));
    if (object_get_str(run, "level") == object_get_str(run, "subtype"))
        run.erase("subtype");
    return run;
}

/** Says how a run that is over ended, and of one that did not complete, where to look. */
int tell_outcome(Command_Context& context, std::string const& id, Object const& run,
                 Progress_Form form) {
    Exit_Code const code = exit_code_of(run);
    if (form == Progress_Form::JSON) { // its last line
        context.print_json(run, false);
        return code;
    }
    if (context.json()) {
        context.print_json(run);
        return code;
    }
    std::string const time = took(run);
    int64_t const size = number_of(run, "set_size");
    std::string text =
        "The " + run_title(run) + " ended: " + printable(object_get_str(run, "state"));
    if (!time.empty())
        text += ", after " + time;
    if (code == EXIT_OK && size > 0)
        text += ", backup of " + size_text(static_cast<uint64_t>(size));
    context.print(text + "\n");
    std::string const alerts = alerts_text(run);
    if (code == EXIT_OK) {
        Command_Context::tell(alerts);
        return code;
    }
    std::string const message = printable(object_get_str(run, "message"));
    Command_Context::tell("zenbrak3: the " + run_title(run) + " did not complete" +
                          (message.empty() ? "" : ": " + message) + "\n" + alerts +
                          "`zenbrak3 job log " + printable(id) + "` shows what happened.\n");
    return code;
}

int tell_that_it_goes_on(std::string const& id) {
    std::string const job = printable(id);
    Command_Context::tell("\nThe job goes on. `zenbrak3 job wait " + job +
                          "` waits for it again, `zenbrak3 job cancel " + job + "` ends it.\n");
    return EXIT_INTERRUPTED;
}

/** Follows a run to its end. The agent answers when the run has changed. */
int follow(Command_Context& context, std::string const& id, Wait const& wait) {
    Interruption::install();
    auto const pause = std::chrono::milliseconds(
        std::min<int64_t>(static_cast<int64_t>(wait.interval * 1000), LONGEST_PAUSE_MS));
    bool const shows = !context.json() || wait.progress == Progress_Form::JSON;
    Progress_Printer printer(context.terminal(), wait.progress);
    for (int64_t seen = 0;;) {
        Object run;
        auto const asked = std::chrono::steady_clock::now();
        if (!context.ask("job.watch", Object{{"job", id}, {"seen", seen}, {"pause", pause.count()}},
                         "look at job " + id, run, LIST_JOBS)) {
            context.print(printer.end());
            return context.status() == EXIT_INTERRUPTED ? tell_that_it_goes_on(id)
                                                        : context.status();
        }
        if (is_over(run)) {
            context.print(printer.end());
            return tell_outcome(context, id, run, wait.progress);
        }
        auto const now = std::chrono::steady_clock::now();
        if (shows)
            context.print(printer.next(run, now));
        int64_t const revision = number_of(run, "revision");
        // an agent with too many watchers answers at once
        bool const at_once = revision == seen && now - asked < pause;
        if (Interruption::happened() || (at_once && !Interruption::sleep(pause))) {
            context.print(printer.end());
            return tell_that_it_goes_on(id);
        }
        seen = revision;
    }
}

/** Starts what the params say, and waits for it when that is wanted. */
int start(Command_Context& context, Object const& params, std::string const& doing,
          Wait const& wait) {
    Object started;
    if (!context.ask("job.start", params, doing, started,
                     "`zenbrak3 definitions` lists the definitions, `zenbrak3 pools` the pools."))
        return context.status();
    std::string const id = object_get_str(started, "run_id");
    if (wait.wait && !context.json())
        context.print("Started job " + printable(id) + ".\n");
    if (wait.wait)
        return follow(context, id, wait);
    if (context.json())
        context.print_json(started);
    else
        context.print("Started job " + printable(id) + "; `zenbrak3 job show " + printable(id) +
                      "` shows how far it is.\n");
    return EXIT_OK;
}

/** "2026-11-22 10:00:00 to 2026-11-22 12:00:00, or ..." */
std::string windows_text(Array const& windows) {
    std::string text;
    for (Object const& window : json_spirit::objects_of(windows))
        text += (text.empty() ? "" : ", or ") +
                time_text(static_cast<time_t>(number_of(window, "from"))) + " to " +
                time_text(static_cast<time_t>(number_of(window, "until")));
    return text;
}

/** Finds the sets for a restore to a time. @return false after a failure was printed */
bool find_point(Command_Context& context, std::string const& instance, time_t when, Object& point,
                int& status) {
    std::string const doing = "restore " + instance + " to " + time_text(when);
    if (!context.ask("backup.point",
                     Object{{"instance", instance}, {"time", static_cast<int64_t>(when)}}, doing,
                     point)) {
        status = context.status();
        return false;
    }
    Object backup;
    if (json_spirit::object_get(point, "backup", backup))
        return true;
    std::string const windows = windows_text(array_of(point, "windows"));
    status =
        windows.empty()
            ? context.fail(EXIT_REFUSED,
                           "cannot " + doing + ": no full backup of it has a log backup behind it",
                           "`zenbrak3 backups " + printable(instance) +
                               "` lists its backups, which can be restored as they are.")
            : context.fail(EXIT_REFUSED,
                           "cannot " + doing + ": it can be restored to a time from " + windows);
    return false;
}

/**
 * Says before the start what becomes of a backup that is not full, as far as the agent can tell.
 * @return false, after a failure was printed, if it would fail
 */
bool tell_outlook(Command_Context& context, std::string const& instance, std::string const& pool,
                  std::string const& level) {
    if (level == "full")
        return true;
    Object outlook;
    json_spirit::object_get(
        guide_answer(context, "guide.instance",
                     {{"instance", instance}, {"pool", pool}, {"level", level}}),
        "outlook", outlook); // without one the job checks this itself
    if (std::string const why = object_get_str(outlook, "refusal"); !why.empty()) {
        context.fail(EXIT_REFUSED, "cannot back up the " + level + " of " + instance + ": " + why,
                     object_get_str(outlook, "advice"));
        return false;
    }
    if (std::string const note = object_get_str(outlook, "note"); !note.empty())
        context.tell(printable(note) + "\n");
    return true;
}

} // namespace

int back_up(Command_Context& context, std::string const& instance, std::string const& pool,
            std::string const& level, Job_Wishes const& wishes, Wait const& wait) {
    std::string const doing = "back up " + instance;
    Object found;
    if (!context.ask("instance.show", Object{{"instance", instance}}, doing, found,
                     "`zenbrak3 instances --refresh` looks for instances and lists them."))
        return context.status();
    Object definition;
    std::string error;
    if (!make_backup_definition(found, pool, level, wishes, definition, error))
        return context.fail(EXIT_USAGE, "cannot " + doing + ": " + error);
    if (!tell_outlook(context, instance, pool, level))
        return context.status();
    return start(context, {{"run", definition}, {"keep", !wishes.name.empty()}}, doing, wait);
}

int restore(Command_Context& context, std::string const& backup, std::string const& restore_as,
            Job_Wishes const& wishes, Wait const& wait, Consent const& consent) {
    bool const to_time = wishes.restore_time != 0;
    std::string const doing = to_time
                                  ? "restore " + backup + " to " + time_text(wishes.restore_time)
                                  : "restore backup " + backup;
    int status = EXIT_OK;
    Object found, point;
    if (to_time) {
        if (!find_point(context, backup, wishes.restore_time, point, status))
            return status;
        json_spirit::object_get(point, "backup", found);
    } else if (!context.ask("backup.show", Object{{"backup", backup}}, doing, found,
                            "`zenbrak3 backups` lists the backups.")) {
        return context.status();
    }
    Object target;
    if (!restore_as.empty() &&
        !context.ask("instance.show", Object{{"instance", restore_as}}, doing + " as " + restore_as,
                     target, "`zenbrak3 instances --refresh` looks for instances and lists them."))
        return context.status();
    found["usual_options"] = json_spirit::object_get_any(
        flavour_of(list_of_flavours(context), number_of(found, "series")), "usual_options");
    Object definition;
    std::string error;
    if (!make_restore_definition(found, restore_as.empty() ? nullptr : &target, wishes, definition,
                                 error))
        return context.fail(EXIT_USAGE, "cannot " + doing + ": " + error);
    std::string const name = restore_as.empty() ? object_get_str(found, "instance") : restore_as;
    if (!consents(context, consent,
                  to_time ? restore_to_time_consequences(context, point, name)
                          : restore_consequences(context, found, name, wishes.tables),
                  status))
        return status;
    return start(context, {{"run", definition}, {"keep", !wishes.name.empty()}}, doing, wait);
}

int run_definition_file(Command_Context& context, std::string const& file, Wait const& wait) {
    Object definition;
    if (!read_definition_file(context, file, definition))
        return context.status();
    return start(context, {{"run", definition}}, "run " + file, wait);
}

int start_definition(Command_Context& context, std::string const& definition, Wait const& wait,
                     std::string const& level) {
    Object params{{"definition", definition}};
    if (!level.empty())
        params["level"] = level;
    return start(context, params, "start definition " + definition, wait);
}

int list_jobs(Command_Context& context, Job_Filter const& filter, double interval) {
    Object params;
    json_spirit::insert(params)("definition", json_spirit::Skip_Empty_Helper(filter.definition))(
        "instance", json_spirit::Skip_Empty_Helper(filter.instance))(
        "state", json_spirit::Skip_Empty_Helper(filter.state));
    params["limit"] = rows_to_ask(context, USUAL_JOBS, MOST_JOBS);
    return context.show(interval, [&](std::string& text) {
        Object result;
        Table table({{"JOB", "run_id", context.id_form()},
                     {"TYPE", "type"},
                     {"LEVEL", "level"},
                     {"INSTANCE", "instance"},
                     {"STATE", "state"},
                     {"DONE", "percent", Form::PERCENT},
                     {"SIZE", "processed_size", Form::SIZE},
                     {"STARTED", "start_time", Form::TIME},
                     {"TOOK", "took", Form::DURATION},
                     {"ALERTS", "alerts"},
                     {"DEFINITION", "name"}});
        table.add_extra({{"ENDED", "end_time", Form::TIME},
                         {"MESSAGE", "message"},
                         {"BACKUP SIZE", "set_size", Form::SIZE}});
        if (!choose(context, table) || !context.ask("job.list", params, LISTING_JOBS, result))
            return false;
        Array jobs = array_of(result, "jobs");
        cut_to_usual(context, USUAL_JOBS, jobs);
        if (jobs.empty() && (!is_known(context, "instance", filter.instance, LISTING_JOBS) ||
                             !is_known(context, "definition", filter.definition, LISTING_JOBS)))
            return false;
        for (Object const& run : json_spirit::objects_of(jobs)) {
            Object shown = run;
            if (std::string const time = took(run); !time.empty())
                shown["took"] = number_of(run, "end_time") - number_of(run, "start_time");
            shown["state"] = state_text(run);
            shown.try_emplace("level", json_spirit::object_get_any(run, "subtype"));
            table.add(shown, run);
        }
        text = text_of_list(context, result, "jobs", table, "No jobs.");
        return true;
    });
}

int show_job(Command_Context& context, std::string const& job) {
    Object run;
    if (!context.ask("job.show", Object{{"job", job}}, "show job " + job, run, LIST_JOBS))
        return context.status();
    if (context.json()) {
        context.print_json(run);
        return EXIT_OK;
    }
    context.print(fields_text(known_of(run), run_fields(), {"alert_list", "revision"}));
    std::string const alerts = alerts_text(run);
    if (!alerts.empty())
        context.print("\n" + alerts);
    return EXIT_OK;
}

int show_job_log(Command_Context& context, std::string const& job, bool follow, double interval) {
    if (follow)
        Interruption::install();
    auto const pause = std::chrono::milliseconds(static_cast<int64_t>(interval * 1000));
    int64_t offset = 0;
    std::string all; // for JSON, which is one document
    for (;;) {
        Object part;
        if (!context.ask("job.log", Object{{"job", job}, {"offset", offset}},
                         "read the log of job " + job, part, LIST_JOBS))
            return context.status();
        if (context.json())
            all += object_get_str(part, "text");
        else
            context.print(printable_lines(object_get_str(part, "text")));
        int64_t const next = number_of(part, "next_offset", offset);
        bool finished = false;
        json_spirit::object_get(part, "finished", finished);
        bool const more = next > offset;
        offset = next;
        if (!more && (finished || !follow)) {
            if (context.json())
                context.print_json(Object{{"text", all}, {"finished", finished}});
            return EXIT_OK;
        }
        if (!more && !Interruption::sleep(pause))
            return EXIT_INTERRUPTED;
    }
}

int cancel_job(Command_Context& context, std::string const& job, bool now) {
    std::string const doing = "cancel job " + job;
    Object run;
    if (!context.ask("job.cancel", now ? Object{{"job", job}, {"now", true}} : Object{{"job", job}},
                     doing, run, LIST_JOBS))
        return context.status();
    Interruption::install();
    auto const limit = std::chrono::steady_clock::now() + (now ? LONGEST_END : SOON);
    do {
        if (!context.ask("job.show", Object{{"job", job}}, doing, run, LIST_JOBS))
            return context.status();
    } while (!is_over(run) && std::chrono::steady_clock::now() < limit &&
             Interruption::sleep(FIRST_LOOK));
    if (context.json()) {
        context.print_json(run);
        return EXIT_OK;
    }
    std::string const id = printable(job);
    if (is_over(run))
        context.print("Job " + id + " has ended: " + printable(object_get_str(run, "state")) +
                      ".\n");
    else if (now)
        context.print("The agent is ending the programs of job " + id + "; `zenbrak3 job wait " +
                      id + "` waits for it.\n");
    else
        context.print("Job " + id +
                      " is still running. It ends when the program that it runs has ended, and "
                      "what a finished backup tool has made is kept.\n`zenbrak3 job cancel " +
                      id + " --now` ends that program.\n");
    return EXIT_OK;
}

int change_job(Command_Context& context, std::string const& job, std::string const& action) {
    Object result;
    if (!context.ask("job." + action, Object{{"job", job}}, action + " job " + job, result,
                     LIST_JOBS))
        return context.status();
    if (context.json())
        context.print_json(result);
    else
        context.print("The agent was told to " + action + " job " + printable(job) + ".\n");
    return EXIT_OK;
}

int wait_for_job(Command_Context& context, std::string const& job, Wait const& wait) {
    return follow(context, job, wait);
}
