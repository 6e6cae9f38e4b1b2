// The commands for schedules.
#include "agent/cli/command_line.h"
#include "agent/cli/name_check.h"

namespace {

constexpr char RULES[] =
    "TIMES: [DAYS] [[YEAR-]MONTH-DAY] [HOUR:MINUTE] as systemd has them (\"Sun 02:00\",\n"
    "\"Mon..Fri 22:30\", \"*-*-1 03:00\", \"*:0/15\"), hourly, daily, weekly, monthly, or\n"
    "the five fields of cron (\"30 2 * * sun\"). When several levels are due at one minute,\n"
    "only the one that covers most is made. A time that clocks skip comes when they jump, a\n"
    "time that they show twice comes once; a \"*\" for the hour means whenever they show it.\n"
    "Missed runs are made up for by one run as soon as the agent is back, of the level that\n"
    "covers most, unless --no-catch-up says otherwise. A run that is due while the last one\n"
    "is still running is skipped, with an alert of that run.\n\n";

} // namespace

void Command_Line::add_schedule_wishes(CLI::App& command) {
    struct Level {
        char const* name;
        char const* what;
    };
    for (Level const& level : {Level{"full", "When a full backup is made"},
                               Level{"cumulative", "When a cumulative backup is made"},
                               Level{"incremental", "When an incremental backup is made"},
                               Level{"log", "When the log is backed up, of a flavour that can"}})
        command
            .add_option_function<std::string>(
                std::string("--") + level.name,
                [this, name = level.name](std::string const& at) {
                    schedule_wishes_.times[name] = at;
                },
                level.what)
            ->check(name_check(names::fault_of_line))
            ->type_name("TIMES");
    command
        .add_option("--time-zone", schedule_wishes_.time_zone,
                    "The zone of the times, such as Europe/Berlin; local, the host's, if not said")
        ->check(name_check(names::fault_of_line))
        ->type_name("ZONE");
    command.add_flag_callback(
        "--no-catch-up", [this] { schedule_wishes_.catch_up = false; },
        "Do not make up for runs that were missed");
    command
        .add_option("--compression", wishes_.compression,
                    "none, zstd, lzop or auto, with a level behind a colon; "
                    "the pool's when it is not given")
        ->type_name("METHOD[:LEVEL]");
    command.add_option("--channels", wishes_.channels, "Parallel streams")
        ->type_name("N")
        ->check(whole_number_check(1, 10000));
    add_option_values(command);
}

void Command_Line::add_schedule_changes(CLI::App& schedules) {
    CLI::App* const add = command(
        schedules, "add", "Back up an instance at certain times",
        "  zenbrak3 schedule add prod --pool main --full 'Sun 02:00' --incremental 'Mon..Sat "
        "02:00'\n"
        "  zenbrak3 schedule add orders --pool main --full '0 3 * * 6' --log '*:0/15'\n"
        "  zenbrak3 schedule add prod --name monthly --pool vault --full '*-*-1 04:00'\n"
        "    --time-zone Europe/Berlin --no-catch-up\n",
        [this](Command_Context& context) {
            return add_schedule(context, instance_, schedule_wishes_, wishes_);
        });
    add->footer(std::string(RULES) + add->get_footer());
    add->add_option("INSTANCE", instance_, "The instance to back up")
        ->check(name_check(names::fault_of_label))
        ->required();
    add->add_option("--pool", schedule_wishes_.pool, "Where the backups go: a pool's name or uuid")
        ->check(name_check(names::fault_of_label))
        ->type_name("POOL")
        ->required();
    add->add_option("--name", wishes_.name, "The schedule's name; the instance's if not said")
        ->check(name_check(names::fault_of_title))
        ->type_name("NAME");
    add_schedule_wishes(*add);
    add->add_option(
           "--schema", wishes_.schemas,
           "Only this schema, of a flavour that can; may be repeated, for schemas of one database")
        ->type_name("DATABASE.SCHEMA")
        ->expected(1)
        ->take_all();
    add_uid(*add);
    add->final_callback([this] {
        if (schedule_wishes_.times.empty())
            throw CLI::RequiredError("--full, --cumulative, --incremental or --log");
    });

    CLI::App* const update =
        command(schedules, "update", "Change a schedule, from its next run on",
                "  zenbrak3 schedule update prod --full 'Sat 23:00'\n"
                "  zenbrak3 schedule update prod --incremental none    make no more of these\n"
                "  zenbrak3 schedule update prod --pool vault --rate 200M --catch-up\n",
                [this](Command_Context& context) {
                    return update_schedule(context, schedule_, schedule_wishes_, wishes_);
                });
    update->footer(std::string(RULES) + update->get_footer());
    update->add_option("SCHEDULE", schedule_, "Its name")
        ->check(name_check(names::fault_of_label))
        ->required();
    update->add_option("--pool", schedule_wishes_.pool, "Where the backups go from now on")
        ->check(name_check(names::fault_of_label))
        ->type_name("POOL");
    update->add_option("--name", wishes_.name, "What it is to be called")
        ->check(name_check(names::fault_of_title))
        ->type_name("NAME");
    add_schedule_wishes(*update);
    update
        ->add_flag_callback(
            "--catch-up", [this] { schedule_wishes_.catch_up = true; },
            "Make up for runs that were missed")
        ->excludes("--no-catch-up");
}

void Command_Line::add_schedule_commands() {
    CLI::App* const schedules =
        group("schedule", "Back up instances at certain times, or look at these times");
    CLI::App* const list = command(
        *schedules, "list", "List the schedules and the next five runs of each",
        "  zenbrak3 schedule list\n  zenbrak3 schedule list prod\n",
        [this](Command_Context& context) { return list_schedules(context, instance_, watch_); });
    list->add_option("INSTANCE", instance_, "Those of this instance")
        ->check(name_check(names::fault_of_label));
    add_watch(*list);
    add_list_options(*list);
    add_schedule_changes(*schedules);
    std::vector<CLI::App*> named{
        command(*schedules, "show", "Show a schedule and its next runs",
                "  zenbrak3 schedule show prod\n",
                [this](Command_Context& context) { return show_schedule(context, schedule_); }),
        command(*schedules, "pause", "Start nothing by a schedule until it is resumed",
                "  zenbrak3 schedule pause prod\n",
                [this](Command_Context& context) {
                    return enable_schedule(context, schedule_, false);
                }),
        command(
            *schedules, "resume",
            "Let a paused schedule go on; what was due meanwhile is not made up for",
            "  zenbrak3 schedule resume prod\n",
            [this](Command_Context& context) { return enable_schedule(context, schedule_, true); }),
        command(*schedules, "remove", "Remove a schedule; its backups stay",
                "  zenbrak3 schedule remove prod\n",
                [this](Command_Context& context) { return remove_schedule(context, schedule_); })};
    CLI::App* const run =
        command(*schedules, "run-now", "Make a backup of a schedule at once",
                "  zenbrak3 schedule run-now prod\n"
                "  zenbrak3 schedule run-now prod --level incremental\n",
                [this](Command_Context& context) {
                    return run_schedule(context, schedule_, schedule_level_, wait_);
                });
    run->add_option("--level", schedule_level_,
                    "How much is backed up; if not said, the level that covers most")
        ->check(CLI::IsMember({"full", "incremental", "cumulative", "log"}));
    add_wait(*run);
    named.push_back(run);
    for (CLI::App* const one : named)
        one->add_option("SCHEDULE", schedule_, "Its name")
            ->check(name_check(names::fault_of_label))
            ->required();
}
