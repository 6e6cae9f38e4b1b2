// A query of the XBSA library for one object among the sets of 1,000 backups with 200 objects each,
// in a session that has asked before, and the first one of a session; against a look at the times
// of the 1,000 folders, which any answer needs that is not older than the question.
#include "benchmarks/private_root.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/xbsa_client.h"

#include <benchmark/benchmark.h>
#include <boost/algorithm/string/replace.hpp>
#include <csignal>
#include <cstdio>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace json_spirit;

constexpr int SETS = 1000;
constexpr int OBJECTS = 200;
constexpr char POLICIES[] = "/var/cache/quilmot/zenbrak3/gaussdb";
constexpr char FIRST_KEY[] = "KEY0000";

std::string key_of(int set) {
    std::string const digits = std::to_string(10000 + set);
    return "KEY" + digits.substr(1);
}

/** A pool with that many sets, and an agent without TLS. */
class Place {
public:
    static Place& instance() {
        static Place place;
        return place;
    }
    ~Place() { kill(agent_, SIGTERM); }
    std::filesystem::path sets() const { return files_.path("pool/cluster/xbsa"); }

private:
    Place() {
        Array uuids;
        for (int set = 0; set < SETS; ++set)
            uuids.emplace_back(key_of(set));
        std::filesystem::create_directory(files_.path("pool"));
        files_.write(
            "agent.json",
            to_text(Object_Maker()("world", 1)("key", "key")("sets", std::move(uuids))(
                "pool", Object_Maker()("uuid", "pool")("url", "file://" + files_.path("pool")))));
        std::string directory = files_.path(), program = ZENBRAK3_XBSA_AGENT;
        char* arguments[] = {program.data(), directory.data(), nullptr};
        posix_spawn(&agent_, program.c_str(), nullptr, nullptr, arguments, environ);
        while (!files_.exists("port"))
            usleep(1000);
        write_policy("writer", FIRST_KEY);
        write_policy("reader", "");
        if (!make_first_set())
            std::abort();
        for (int set = 1; set < SETS; ++set)
            copy_set(key_of(set));
        // a backup a day
        for (int set = 0; set < SETS; ++set)
            std::filesystem::last_write_time(sets() / key_of(set),
                                             std::filesystem::file_time_type::clock::now() -
                                                 std::chrono::hours(24 * (SETS - set)));
    }
    void write_policy(std::string const& name, std::string const& set) const {
        std::filesystem::create_directories(POLICIES);
        std::ofstream(std::string(POLICIES) + "/" + name)
            << to_text(Object_Maker()("access_key", "key")("backupd_host", "127.0.0.1")(
                   "backupd_port", std::stoi(files_.read("port")))("backupd_ssl", false)(
                   "cluster_id", "cluster")("pool_uuid", "pool")("uuid", set)(
                   "compression", "none")("compression_level", 0));
    }
    static bool make_first_set() {
        long handle = 0;
        bool good =
            xbsa::open(handle, "writer") == BSA_RC_SUCCESS && BSABeginTxn(handle) == BSA_RC_SUCCESS;
        for (int number = 0; good && number < OBJECTS; ++number) {
            BSA_ObjectDescriptor object =
                xbsa::object(std::string("/") + FIRST_KEY + "/dn_6001/" + std::to_string(number));
            good = xbsa::put_object(handle, object, "x") == BSA_RC_SUCCESS;
        }
        good = good && BSAEndTxn(handle, BSA_Vote_COMMIT) == BSA_RC_SUCCESS;
        BSATerminate(handle);
        return good;
    }
    void copy_set(std::string const& key) const {
        std::filesystem::path const first = sets() / FIRST_KEY;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(first)) {
            std::string name = std::filesystem::relative(entry.path(), first);
            boost::replace_all(name, FIRST_KEY, key);
            std::filesystem::path const copy = sets() / key / name;
            std::filesystem::create_directories(copy.parent_path());
            if (!entry.is_regular_file())
                continue;
            std::ifstream from(entry.path());
            std::string text((std::istreambuf_iterator<char>(from)), {});
            boost::replace_all(text, FIRST_KEY, key);
            std::ofstream(copy) << text;
        }
    }

    Temporary_Directory files_;
    pid_t agent_ = -1;
};

bool query(long handle, int set, int number) {
    std::string const path =
        "/" + key_of(set % SETS) + "/dn_6001/" + std::to_string(number % OBJECTS);
    std::vector<std::string> const found = xbsa::find(handle, xbsa::pattern(path));
    if (found == std::vector<std::string>{path})
        return true;
    std::fprintf(stderr, "%s: %s\n", path.c_str(), found.empty() ? "none" : found[0].c_str());
    return false;
}

/** @param step  from the set of one query to that of the next */
void ask(benchmark::State& state, int step) {
    Place::instance();
    long handle = 0;
    if (xbsa::open(handle, "reader") != BSA_RC_SUCCESS || !query(handle, 0, 0))
        state.SkipWithError(xbsa::last_error().c_str());
    int number = 0;
    for (auto _ : state) {
        ++number;
        if (!query(handle, number * step, number))
            state.SkipWithError(xbsa::last_error().c_str());
    }
    BSATerminate(handle);
}

void xbsa_query(benchmark::State& state) {
    ask(state, 0);
}

void xbsa_query_of_other_sets(benchmark::State& state) {
    ask(state, 7);
}

void xbsa_first_query(benchmark::State& state) {
    Place::instance();
    for (auto _ : state) {
        long handle = 0;
        if (xbsa::open(handle, "reader") != BSA_RC_SUCCESS || !query(handle, 0, 0))
            state.SkipWithError(xbsa::last_error().c_str());
        BSATerminate(handle);
    }
}

void xbsa_times_of_folders(benchmark::State& state) {
    std::filesystem::path const sets = Place::instance().sets();
    for (auto _ : state)
        for (auto const& set : std::filesystem::directory_iterator(sets)) {
            struct stat status;
            benchmark::DoNotOptimize(lstat(set.path().c_str(), &status));
        }
}

BENCHMARK(xbsa_query)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(xbsa_query_of_other_sets)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(xbsa_first_query)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(xbsa_times_of_folders)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int count, char** arguments) {
    enter_private_root(arguments);
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
