// The command line's part about instances.
#include "agent/cli/command_line.h"
#include "agent/cli/name_check.h"

void Command_Line::add_instance_commands() {
    CLI::App* const list = command(
        app_, "instances", "List the instances",
        "  zenbrak3 instances\n  zenbrak3 instances --refresh --watch 10\n",
        [this](Command_Context& context) { return list_instances(context, refresh_, watch_); });
    list->add_flag("--refresh", refresh_, "Look for new ones, and ask each for its state");
    add_watch(*list);
    add_list_options(*list);

    CLI::App* const instances = group("instance", "Show, add, change or remove one instance");
    CLI::App* const show =
        command(*instances, "show", "Show an instance with its options and accounts",
                "  zenbrak3 instance show prod\n",
                [this](Command_Context& context) { return show_instance(context, instance_); });
    CLI::App* const save =
        command(*instances, "save", "Put an instance on record, or change its options",
                "  zenbrak3 instance save dws1 -o version=4 -o edition=8.2.1 -o address=10.0.0.1\n",
                [this](Command_Context& context) {
                    return save_instance(context, instance_, wishes_.options);
                });
    add_option_values(*save);
    add_declared_instances(*instances);
    CLI::App* const remove =
        command(*instances, "remove", "Forget an instance and its accounts",
                "  zenbrak3 instance remove dws1\n", [this](Command_Context& context) {
                    return remove_instance(context, instance_, consent_);
                });
    add_consent(*remove);

    CLI::App* const databases = command(
        app_, "databases", "List the databases of an instance", "  zenbrak3 databases prod\n",
        [this](Command_Context& context) { return list_databases(context, instance_, uid_); });
    CLI::App* const schemas =
        command(app_, "schemas", "List the schemas of a database",
                "  zenbrak3 schemas prod sales\n", [this](Command_Context& context) {
                    return list_schemas(context, instance_, database_, uid_);
                });
    CLI::App* const account =
        command(app_, "account", "Save the account with which an instance is logged on to",
                "  zenbrak3 account prod backup_admin\n"
                "  zenbrak3 account prod backup_admin < password-file\n",
                [this](Command_Context& context) {
                    return save_account(context, instance_, username_, uid_);
                });
    for (CLI::App* const one : {show, save, remove, databases, schemas, account})
        one->add_option("INSTANCE", instance_, "The instance's name")
            ->check(name_check(names::fault_of_label))
            ->required();
    schemas->add_option("DATABASE", database_, "The database's name")
        ->check(name_check(names::fault_of_database))
        ->required();
    account
        ->add_option("USER", username_,
                     "The database's user. The password is asked for, or read from stdin")
        ->check(name_check(names::fault_of_account))
        ->required();
    for (CLI::App* const one : {databases, schemas, account})
        add_uid(*one);
    add_list_options(*databases);
    add_list_options(*schemas);
}

/** Clusters without an agent, which are reached by ssh. */
void Command_Line::add_declared_instances(CLI::App& instances) {
    CLI::App* const add = command(
        instances, "add", "Add a DWS or openGauss cluster that is reached by ssh",
        "  zenbrak3 instance add dws1    asks for the rest\n"
        "  zenbrak3 instance add dws1 --address omm@10.0.0.1 --meta-path /gauss/meta "
        "--backup-port 9500 --host-key SHA256:...\n",
        [this](Command_Context& context) { return add_instance(context, instance_, declared_); });
    CLI::App* const change = command(
        instances, "change", "Change how a cluster is reached by ssh",
        "  zenbrak3 instance change dws1 --address omm@10.0.0.2\n"
        "  zenbrak3 instance change dws1 --host-key SHA256:...    after an installation anew\n",
        [this](Command_Context& context) {
            return change_instance(context, instance_, declared_);
        });
    for (CLI::App* const one : {add, change}) {
        one->add_option("INSTANCE", instance_, "The instance's name")
            ->check(name_check(names::fault_of_label))
            ->required();
        one->add_option("--address", declared_.address, "Where ssh logs in: HOST or ACCOUNT@HOST")
            ->check(name_check(names::fault_of_ssh_address))
            ->type_name("ADDRESS");
        one->add_option("--meta-path", declared_.meta_path,
                        "The backup tool's metadata directory on the nodes")
            ->check(name_check(names::fault_of_bare_path))
            ->type_name("PATH");
        one->add_option("--backup-port", declared_.backup_port,
                        "Port of the backup tool's master on the node")
            ->check(whole_number_check(1, 65535))
            ->type_name("PORT");
        one->add_option("--source-commands", declared_.source_commands,
                        "Shell text that brings a login into the database's environment, in place "
                        "of the flavour's own")
            ->check(name_check(names::fault_of_remote_commands))
            ->type_name("COMMANDS");
        one->add_option(
               "--ssh-options", declared_.ssh_options,
               "Options of ssh: -4, -6, -C, -q, -i FILE, -o NAME=VALUE; unless given, those "
               "by which a node that disappears is noticed within a minute")
            ->check(name_check(names::fault_of_ssh_options))
            ->type_name("OPTIONS");
        one->add_option("--host-key", declared_.host_key,
                        "Accept the node's host key, if it is unknown and has this fingerprint")
            ->type_name("FINGERPRINT");
    }
    add->add_option("--uid", declared_.uid, "Act as this user in place of the agent's default")
        ->check(name_check(names::fault_of_id))
        ->type_name("UUID");
}
