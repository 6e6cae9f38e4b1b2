#include "benchmarks/private_processes.h"
#include "gaussdb/common/gaussdb_100_cluster_handler.h"
#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/gaussdb_cmd_handler.h"
#include "gaussdb/common/gaussdb_ownership.h"
#include "host/process/service_lister.h"
#include "qmrt/path_trust.h"

#include <ace/Log_Msg.h>

#include <benchmark/benchmark.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <shared_mutex>
#include <sys/stat.h>

namespace {

constexpr int CLUSTERS = 3;
constexpr int MATCHING_PER_1000 = 40;

void write(std::string const& path, std::string const& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path) << text;
}

/** A host with so many processes, a part of which belongs to three clusters of the 100 series. */
class Machine {
public:
    explicit Machine(int processes) {
        write("/home/tool/script/config/clusterconfig.xml",
              "<ROOT><CLUSTER><PARAM name=\"clusterName\" value=\"c\"/></CLUSTER></ROOT>\n");
        write("/home/tool/gs_check", "#!/bin/sh\necho gs_check GaussDB_100_1.0.2\n");
        std::filesystem::permissions("/home/tool/gs_check", std::filesystem::perms(0755));
        write("/home/profile", "export PATH=/home/tool:$PATH\n");
        int const matching = processes * MATCHING_PER_1000 / 1000;
        for (int cluster = 0; cluster < CLUSTERS; ++cluster)
            add("/home/app/bin/gaussdb -D /home/data/dn1 -M primary",
                matching / CLUSTERS + (cluster < matching % CLUSTERS), environment(cluster));
        add("/usr/sbin/some-service --with-a-configuration /etc/some-service/service.conf",
            processes - matching, {"PATH=/usr/bin:/bin"});
        // the helpers go on making themselves
        std::vector<Service_Info> services;
        do {
            usleep(10000);
            Service_Lister::list_service("/", services, false, "C");
        } while (static_cast<int>(services.size()) < processes);
    }

    /** The machine of that size; the one of another size is gone then. */
    static Machine const& with(int64_t processes) {
        static std::unique_ptr<Machine> machine;
        static int64_t size = 0;
        if (size != processes) {
            machine.reset();
            machine = std::make_unique<Machine>(static_cast<int>(processes));
            size = processes;
        }
        return *machine;
    }

private:
    static std::vector<std::string> environment(int cluster) {
        std::vector<std::string> result = {"GS_CLUSTER_NAME=c" + std::to_string(cluster),
                                           "MPPDB_ENV_SEPARATE_PATH=/home/profile",
                                           "GPHOME=/home/tool"};
        for (int number = 0; number < 30; ++number)
            result.push_back("VARIABLE_" + std::to_string(number) + "=" + std::string(60, 'x'));
        return result;
    }

    void add(std::string const& title, int count, std::vector<std::string> const& variables) {
        processes_.push_back(std::make_unique<Idle_Processes>(title, count, variables));
    }
    std::vector<std::unique_ptr<Idle_Processes>> processes_;
};

/** Discovery by an agent that has just started: three clusters are new. */
void discovery_first(benchmark::State& state) {
    Machine::with(state.range(0));
    for (auto _ : state) {
        GaussDB_Cluster_Manager manager;
        json_spirit::Array instances;
        if (!manager.get_instances(instances) || instances.size() != CLUSTERS)
            state.SkipWithError("clusters were missed");
    }
}

/** Discovery when all is known. */
void discovery_again(benchmark::State& state) {
    Machine::with(state.range(0));
    GaussDB_Cluster_Manager manager;
    json_spirit::Array instances;
    (void)manager.get_instances(instances);
    for (auto _ : state) {
        instances.clear();
        if (!manager.get_instances(instances) || instances.size() != CLUSTERS)
            state.SkipWithError("clusters were missed");
    }
}

/** The questions that no discovery can do without. */
void discovery_gs_check_alone(benchmark::State& state) {
    Machine::with(5000);
    GaussDB_Env env;
    (void)env.init("/home/profile");
    for (auto _ : state)
        for (int cluster = 0; cluster < CLUSTERS; ++cluster) {
            GaussDB_Version version(GAUSSDB_UNKNOWN, 0, 0, 0);
            if (!get_cluster_version("root", env, version))
                state.SkipWithError("gs_check has failed");
        }
}

/** The system calls that it takes to see every process's command line, and nothing else. */
void discovery_command_lines_alone(benchmark::State& state) {
    Machine::with(5000);
    std::vector<Service_Info> services;
    Service_Lister::list_service("/", services, false, "C");
    int const proc = open("/proc", O_PATH | O_DIRECTORY | O_CLOEXEC);
    for (auto _ : state)
        for (Service_Info const& service : services) {
            char buffer[4096];
            int const file = openat(proc, (std::to_string(service.pid) + "/cmdline").c_str(),
                                    O_RDONLY | O_CLOEXEC);
            benchmark::DoNotOptimize(read(file, buffer, sizeof buffer));
            close(file);
        }
    close(proc);
}

/** By size, so that each machine is made once. */
void register_discovery_benchmarks() {
    using benchmark::RegisterBenchmark;
    for (int const processes : {1250, 2500, 5000}) {
        RegisterBenchmark("discovery_first", discovery_first)
            ->Arg(processes)
            ->Unit(benchmark::kMillisecond);
        RegisterBenchmark("discovery_again", discovery_again)
            ->Arg(processes)
            ->Unit(benchmark::kMillisecond);
    }
    RegisterBenchmark("discovery_gs_check_alone", discovery_gs_check_alone)
        ->Unit(benchmark::kMillisecond);
    RegisterBenchmark("discovery_command_lines_alone", discovery_command_lines_alone)
        ->Unit(benchmark::kMillisecond);
}

constexpr int REGISTERED = 100;

std::string registered_name(int number) {
    return "cluster_" + std::to_string(number % REGISTERED);
}

void registry_get_cluster(benchmark::State& state) {
    GaussDB_Cluster_Manager& manager = *GaussDB_Cluster_Manager::instance();
    std::string const name = registered_name(state.thread_index() * 7);
    for (auto _ : state)
        benchmark::DoNotOptimize(manager.get_cluster(name.c_str()));
}
BENCHMARK(registry_get_cluster)->ThreadRange(1, 8)->UseRealTime();

void registry_cluster_exists(benchmark::State& state) {
    GaussDB_Cluster_Manager& manager = *GaussDB_Cluster_Manager::instance();
    std::string const name = registered_name(state.thread_index() * 7);
    for (auto _ : state)
        benchmark::DoNotOptimize(manager.cluster_exists(name.c_str()));
}
BENCHMARK(registry_cluster_exists)->ThreadRange(1, 8)->UseRealTime();

/** The peer: a map of shared pointers behind one mutex. */
void registry_plain_map(benchmark::State& state) {
    static std::mutex mutex;
    static std::map<std::string, std::shared_ptr<int>> const map = [] {
        std::map<std::string, std::shared_ptr<int>> filled;
        for (int number = 0; number < REGISTERED; ++number)
            filled.emplace(registered_name(number), std::make_shared<int>(number));
        return filled;
    }();
    std::string const name = registered_name(state.thread_index() * 7);
    for (auto _ : state) {
        std::shared_ptr<int> found;
        {
            std::lock_guard const guard(mutex);
            found = map.find(name.c_str())->second;
        }
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(registry_plain_map)->ThreadRange(1, 8)->UseRealTime();

/** What each discovery and each job asks of a cluster: whether its user owns its tools. */
GaussDB_Env environment_of_tools() {
    write("/home/tool/gs_om", "#!/bin/sh\n");
    GaussDB_Env env;
    env.set_env("PATH", "/home/tool:/usr/bin:/bin");
    env.set_env("LD_LIBRARY_PATH", "/home/tool/lib");
    env.set_env("GPHOME", "/home/tool");
    return env;
}

void ownership_tools(benchmark::State& state) {
    GaussDB_Env const env = environment_of_tools();
    std::string reason;
    for (auto _ : state)
        if (!owns_tools(env, 1, reason))
            state.SkipWithError(reason.c_str());
}
BENCHMARK(ownership_tools);

void ownership_path(benchmark::State& state) {
    write("/home/tool/script/config/file", "x");
    std::string reason;
    for (auto _ : state)
        if (!is_trusted_path("/home/tool/script/config/file", 1, PATH_MUST_EXIST, reason))
            state.SkipWithError(reason.c_str());
}
BENCHMARK(ownership_path);

/** The peer: the status of each directory on the way, by its whole path. */
void ownership_status_alone(benchmark::State& state) {
    write("/home/tool/script/config/file", "x");
    struct stat status;
    for (auto _ : state)
        for (char const* path : {"/", "/home", "/home/tool", "/home/tool/script",
                                 "/home/tool/script/config", "/home/tool/script/config/file"})
            benchmark::DoNotOptimize(lstat(path, &status));
}
BENCHMARK(ownership_status_alone);

} // namespace

int main(int count, char** arguments) {
    enter_private_root(arguments);
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR);
    for (int number = 0; number < REGISTERED; ++number)
        (void)GaussDB_Cluster_Manager::instance()->add_cluster(
            registered_name(number).c_str(),
            new GaussDB_100_Cluster_Handler(GaussDB_Env(), "root",
                                            GaussDB_Version(GAUSSDB_100, 1, 0, 2)));
    register_discovery_benchmarks();
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    GaussDB_Cluster_Manager_fini();
    return 0;
}
