// A query of the XBSA library for one object among the sets of 1,000 backups with 200 objects each,
// in a session that has asked before, and the first one of a session; against a look at the times
// of the 1,000 folders, which any answer needs that is not older than the question.
#include "benchmarks/bench_server.h"
#include "benchmarks/private_root.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/xbsa_client.h"

#include <benchmark/benchmark.h>
#include <boost/algorithm/string/replace.hpp>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace json_spirit;

constexpr int SETS = 1000;
constexpr int OBJECTS = 200;
constexpr char POLICIES[] = "/var/cache/quilmot/zenbrak3/gaussdb";
/** Where the library looks for what its agent is known by. */
constexpr char CERTIFICATE[] = "/var/opt/quilmot/zenbrak3/agent/backupd.crt";
constexpr char FIRST_KEY[] = "KEY0000";

std::string key_of(int set) {
    std::string const digits = std::to_string(10000 + set);
    return "KEY" + digits.substr(1);
}

/** A pool with that many sets, and the agent's own catalog of them behind its port. */
class Place {
public:
    static Place& instance() {
        static Place place;
        return place;
    }
    std::filesystem::path sets() const { return files_.path("pool/cluster/xbsa"); }

private:
    Place() {
        std::filesystem::create_directory(files_.path("pool"));
        std::filesystem::create_directories(std::filesystem::path(CERTIFICATE).parent_path());
        std::filesystem::copy_file(agent_.certificate, CERTIFICATE,
                                   std::filesystem::copy_options::overwrite_existing);
        write_policy("writer", FIRST_KEY);
        write_policy("reader", "");
        make_first_set();
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
        std::ofstream(std::string(POLICIES) + "/" + name) << to_text(
            Object_Maker()("access_key", "key")("backupd_host", "127.0.0.1")(
                "backupd_port", agent_.port)("backupd_ssl", true)("cluster_id", "cluster")(
                "pool_uuid", "pool")("uuid", set)("compression", "none")("compression_level", 0));
    }
    static void make_first_set() {
        auto const check = [](int status) {
            if (status != BSA_RC_SUCCESS)
                throw std::runtime_error("the first set cannot be made: " + xbsa::last_error());
        };
        long handle = 0;
        check(xbsa::open(handle, "writer"));
        check(BSABeginTxn(handle));
        for (int number = 0; number < OBJECTS; ++number) {
            BSA_ObjectDescriptor object =
                xbsa::object(std::string("/") + FIRST_KEY + "/dn_6001/" + std::to_string(number));
            check(xbsa::put_object(handle, object, "x"));
        }
        check(BSAEndTxn(handle, BSA_Vote_COMMIT));
        BSATerminate(handle);
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
    std::string const database_ = files_.path("agent.db");
    std::string const pool_ = files_.path("pool");
    std::string const count_ = std::to_string(SETS);
    Bench_Server agent_{{CATALOG_SERVER, database_.c_str(), pool_.c_str(), count_.c_str()}};
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
