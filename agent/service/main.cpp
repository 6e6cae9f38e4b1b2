// The service zenbrak3-agent: reads its configuration, runs in the foreground, and ends on SIGTERM.
#include "agent/service/agent_config.h"
#include "agent/service/agent_log.h"
#include "agent/service/agent_service.h"
#include "qmrt/log.h"

#include <CLI/CLI.hpp>
#include <signal.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

constexpr char DEFAULT_CONFIG[] = "/etc/zenbrak3/agent.toml";

/** What the command line says. */
struct Arguments {
    std::string config = DEFAULT_CONFIG;
    bool config_given = false;
    bool check_config = false;
    bool print_config = false;
};

void print_config(Agent_Config const& config) {
    std::string table;
    for (Agent_Config::Key const& key : config.keys_and_values()) {
        size_t const dot = key.name.find('.');
        if (table != key.name.substr(0, dot)) {
            std::printf("%s[%s]\n", table.empty() ? "" : "\n", key.name.substr(0, dot).c_str());
            table = key.name.substr(0, dot);
        }
        std::printf("%s = %s\n", key.name.substr(dot + 1).c_str(), key.value.c_str());
    }
}

/** The signals that the main thread waits for; every other thread has them blocked, too. */
sigset_t waited_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (int const signal : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, signal);
    return signals;
}

void reload(Agent_Service& service, Arguments const& arguments, Agent_Config& config) {
    sd_notify(0, "RELOADING=1");
    Agent_Config fresh;
    std::string error;
    if (!fresh.read(arguments.config, arguments.config_given, error)) {
        QMRT_LOG(LM_ERROR, "The configuration stays as it was: %s\n", error.c_str());
    } else {
        for (std::string const& key : fresh.restart_needed(config))
            QMRT_LOG(LM_WARNING, "\"%s\" has changed; that counts from the next start on\n",
                     key.c_str());
        agent_log_level(fresh.log_level);
        service.reload(fresh);
        config = fresh;
        QMRT_LOG(LM_INFO, "The configuration was read again\n");
    }
    sd_notify(0, "READY=1");
}

int serve(Arguments const& arguments, Agent_Config config) {
    sigset_t const signals = waited_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    open_agent_log(config.log, config.log_level);
    std::string error;
    std::unique_ptr<Agent_Service> const service = Agent_Service::start(config, error);
    if (!service) {
        QMRT_LOG(LM_ERROR, "%s\n", error.c_str());
        return 1;
    }
    sd_notifyf(0, "READY=1\nSTATUS=Serving on %s", config.socket.c_str());
    for (int received = 0; received != SIGTERM && received != SIGINT;) {
        if (sigwait(&signals, &received) != 0)
            continue;
        if (received == SIGHUP)
            reload(*service, arguments, config);
    }
    sd_notify(0, "STOPPING=1\nSTATUS=Waiting for running jobs to end");
    QMRT_LOG(LM_INFO, "The agent ends\n");
    if (!service->stop())
        _exit(0); // without the destructors of what a job still works with
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    CLI::App app("Backup agent for GaussDB. Runs in the foreground until SIGTERM; reads its "
                 "configuration again on SIGHUP.");
    app.footer(
        "Examples:\n"
        "  zenbrak3-agent                              serve, with /etc/zenbrak3/agent.toml\n"
        "  zenbrak3-agent --config my.toml --check-config\n"
        "See zenbrak3-agent(8), and zenbrak3(1) for the command that talks to it.");
    CLI::Option const* const config_option =
        app.add_option("--config", arguments.config, "the configuration file")
            ->capture_default_str();
    app.add_flag("--check-config", arguments.check_config,
                 "say whether the configuration is good, and end");
    app.add_flag("--print-config", arguments.print_config,
                 "print every key with its value, and end");
    bool database_version = false;
    app.add_flag("--database-version", database_version,
                 "print the version of the database that this agent writes, and end");
    app.set_version_flag("--version", "zenbrak3-agent " ZENBRAK3_VERSION);
    try {
        app.parse(argc, argv);
    } catch (CLI::ParseError const& fault) {
        return app.exit(fault) == 0 ? 0 : 2;
    }
    if (database_version) {
        std::printf("%d\n", Agent_Service::database_version());
        return 0;
    }
    arguments.config_given = config_option->count() > 0;
    Agent_Config config;
    std::string error;
    if (!config.read(arguments.config, arguments.config_given, error)) {
        std::fprintf(stderr, "zenbrak3-agent: %s\n", error.c_str());
        return 2;
    }
    if (arguments.print_config)
        print_config(config);
    if (arguments.print_config || arguments.check_config)
        return 0;
    return serve(arguments, config);
}
