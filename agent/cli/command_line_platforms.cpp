// The commands for management platforms.
#include "agent/cli/command_line.h"
#include "agent/cli/name_check.h"

void Command_Line::add_platform_login(CLI::App& command) {
    command.add_option("PLATFORM", platform_.endpoint, "Where its REST interface is")
        ->type_name("HOST[:PORT]")
        ->check(name_check(names::fault_of_line))
        ->required();
    command
        .add_option("--user", platform_.username,
                    "The platform's user. The password is asked for, or read from stdin")
        ->check(name_check(names::fault_of_account))
        ->type_name("USER")
        ->required();
    command.add_flag("--no-tls", platform_.no_tls,
                     "Do without TLS: password and answers can be read and changed on the way");
}

void Command_Line::add_platform_commands() {
    CLI::App* const platforms =
        group("platform", "List the instances of a TPOPS platform, and add them");
    CLI::App* const list =
        command(*platforms, "list", "List the instances that a platform offers",
                "  zenbrak3 platform list tpops.example --user backup\n"
                "  zenbrak3 platform list tpops.example:8002 --user backup < password-file\n",
                [this](Command_Context& context) { return list_platform(context, platform_); });
    add_platform_login(*list);
    add_list_options(*list);

    CLI::App* const add = command(
        *platforms, "add", "Put instances of a platform on record",
        "  zenbrak3 platform add tpops.example orders stock --user backup --xbsa-host 10.0.0.5 "
        "--xbsa-port 9000\n"
        "  zenbrak3 platform add tpops.example --all --user backup --xbsa-host 10.0.0.5 "
        "--xbsa-port 9000\n",
        [this](Command_Context& context) {
            return add_from_platform(context, platform_, addition_);
        });
    add_platform_login(*add);
    CLI::Option* const some =
        add->add_option("INSTANCE", addition_.names, "Names of instances, as the platform has them")
            ->check(name_check(names::fault_of_instance));
    CLI::Option* const all =
        add->add_flag("--all", addition_.all, "All that are not on record yet");
    some->excludes(all);
    add->add_option("--xbsa-host", addition_.xbsa_host,
                    "Host of the backUpAgent, as its command line has it")
        ->check(name_check(names::fault_of_host))
        ->type_name("HOST")
        ->required();
    add->add_option("--xbsa-port", addition_.xbsa_port, "Its port")
        ->check(whole_number_check(1, 65535))
        ->type_name("PORT")
        ->required();
    add->add_flag("--no-xbsa-tls", addition_.no_xbsa_tls, "It listens without TLS");
    add->add_option("--uid", addition_.uid, "Act as this user in place of the agent's default")
        ->check(name_check(names::fault_of_id))
        ->type_name("UUID");
    add->final_callback([this] {
        if (addition_.names.empty() && !addition_.all)
            throw CLI::RequiredError("INSTANCE or --all");
    });

    CLI::App* const change =
        command(*platforms, "change", "Change how an instance and its platform are reached",
                "  zenbrak3 platform change orders --platform tpops2.example:8002\n"
                "  zenbrak3 platform change orders --xbsa-host 10.0.0.6 --no-xbsa-tls\n",
                [this](Command_Context& context) {
                    return change_platform(context, instance_, platform_change_);
                });
    change->add_option("INSTANCE", instance_, "The instance's name")
        ->check(name_check(names::fault_of_label))
        ->required();
    change->add_option("--platform", platform_change_.endpoint, "Where its platform is")
        ->check(name_check(names::fault_of_line))
        ->type_name("HOST[:PORT]");
    CLI::Option* const tls =
        change->add_flag("--tls", platform_change_.tls, "Reach the platform over TLS");
    change->add_flag("--no-tls", platform_change_.no_tls, "Reach the platform without TLS")
        ->excludes(tls);
    change
        ->add_option("--xbsa-host", platform_change_.xbsa_host,
                     "Host of the backUpAgent, as its command line has it")
        ->check(name_check(names::fault_of_host))
        ->type_name("HOST");
    change->add_option("--xbsa-port", platform_change_.xbsa_port, "Its port")
        ->check(whole_number_check(1, 65535))
        ->type_name("PORT");
    CLI::Option* const xbsa_tls = change->add_flag("--xbsa-tls", platform_change_.xbsa_tls,
                                                   "The backUpAgent listens with TLS");
    change
        ->add_flag("--no-xbsa-tls", platform_change_.no_xbsa_tls,
                   "The backUpAgent listens without TLS")
        ->excludes(xbsa_tls);
}
