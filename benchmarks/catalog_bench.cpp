#include "agent/catalog/catalog_tables.h"
#include "agent/catalog/kept_set.h"
#include "agent/catalog/recorded_set.h"
#include "agent/catalog/sqlite_catalog.h"
#include "benchmarks/bench_directory.h"

#include "json_spirit/access.h"
#include "qmrt/format.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

/**
 * The catalog with a million sets of 2,000 resources: what jobs ask of it, and what a backup
 * writes. ZENBRAK3_BENCH_SETS makes it another number of sets. The size of the file is printed
 * before the figures, and the memory of the process that serves it behind them, to stderr.
 */
namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

constexpr int64_t RESOURCES = 2000;
constexpr int64_t CHAIN = 50; ///< sets of one incarnation: a full one and what builds on it
constexpr Catalog_Limits LIMITS = {-1, -1};
constexpr time_t EPOCH = 1700000000;

std::string uuid_of(char const* what, int64_t number) {
    return string_sprintf("%.8s-0000-4000-8000-%012lld", what, static_cast<long long>(number));
}

/** Set @a number of a resource, from 0, as an executor fills it. */
Recorded_Set make_set(int64_t resource, int64_t number) {
    std::string const uuid = uuid_of("b5e70000", resource * 1000000 + number);
    int64_t const full = number - number % CHAIN;
    auto const key = [&](int64_t of) {
        return string_sprintf("%lld_key_%lld", static_cast<long long>(resource),
                              static_cast<long long>(of));
    };
    std::string const folder = uuid_of("40570000", resource) + "/roach/" + key(number);
    Array const pieces = {Object{{"path", folder + "/backups.ini.zst"}, {"size", 40960}},
                          Object{{"path", folder + "/cluster_static_config"}, {"size", 12345}}};
    return {"gaussdb",
            {{"uuid", uuid},
             {"name", "nightly backup of resource " + std::to_string(resource)},
             {"definition_uuid", uuid_of("def00000", resource)},
             {"job_act_id", uuid},
             {"uid", uuid_of("05e40000", 1)},
             {"host_uuid", uuid_of("40570000", resource)},
             {"host", "database-host-" + std::to_string(resource)},
             {"resource_uuid", uuid_of("4e500000", resource)},
             {"minor_resource_id", uuid_of("31000000", resource)},
             {"resource_label", "gaussdb physical backup"},
             {"agent", "gaussdb"},
             {"type", number == full ? "full" : "incremental"},
             {"incarnation", uuid_of("b5e70000", resource * 1000000 + full)},
             {"timeline", uuid_of("11e00000", resource * 1000000 + full / 250)},
             {"backup_id", key(number)},
             {"backup_start_time", EPOCH + number * 3600},
             {"backup_end_time", EPOCH + number * 3600 + 900},
             {"source_size", 123456789012},
             {"backup_set_size", 123456789012},
             {"pool_uuid", uuid_of("b0010000", resource % 4)},
             {"instance", "instance_" + std::to_string(resource)},
             {"database_version", "GaussDB Kernel V500R002C10 build 1a2b3c4d"},
             {"seq", number + 1},
             {"meta_destination", "/var/cache/roach/metadata/" + key(number)},
             {"backup_key", key(number)},
             {"prior_backup_key", number == full ? "" : key(number - 1)},
             {"compression", "zstd"},
             {"nodes", 3},
             {"series", 1},
             {"storages", Array{Object{{"pool_uuid", uuid_of("b0010000", resource % 4)},
                                       {"size", 41234567890}}}},
             {"pieces", pieces}}};
}

/** The catalog in a directory of its own, filled once. */
class Place {
public:
    static Place& instance() {
        static Place place;
        return place;
    }
    ~Place() {
        std::fprintf(stderr, "after all queries: memory %s\n", memory().c_str());
        catalog.reset();
        database_.reset();
    }
    int64_t sets_of_resource() const { return sets_ / RESOURCES; }
    int64_t random_resource() {
        return std::uniform_int_distribution<int64_t>(0, RESOURCES - 1)(random_);
    }
    int64_t random_set() {
        return std::uniform_int_distribution<int64_t>(0, sets_of_resource() - 1)(random_);
    }

    std::unique_ptr<SQLite_Catalog> catalog;

private:
    Place() {
        if (char const* const sets = std::getenv("ZENBRAK3_BENCH_SETS"))
            sets_ = std::max<int64_t>(std::atoll(sets), RESOURCES);
        open();
        database_.reset();
        fill_in_child();
        open();
        catalog = std::make_unique<SQLite_Catalog>(*database_);
        std::fprintf(
            stderr, "%lld sets, the file has %.0f MiB, memory %s\n", static_cast<long long>(sets_),
            static_cast<double>(std::filesystem::file_size(file())) / (1 << 20), memory().c_str());
    }
    std::string file() const { return directory_.path("agent.db"); }
    void open() {
        std::string error;
        database_ = Agent_Database::open(file(), {CATALOG_TABLES}, error);
        if (!database_) {
            std::fprintf(stderr, "%s\n", error.c_str());
            std::abort();
        }
    }
    /** All in one transaction, and the indexes after the rows, which takes minutes and not hours.
     */
    void fill() const {
        SQLite::Database database(file(), SQLite::OPEN_READWRITE);
        database.exec("PRAGMA synchronous=OFF; PRAGMA cache_size=-400000;");
        std::vector<std::pair<std::string, std::string>> indexes;
        {
            SQLite::Statement list(database, "SELECT name, sql FROM sqlite_master WHERE "
                                             "type = 'index' AND sql LIKE 'CREATE INDEX%'");
            while (list.executeStep())
                indexes.emplace_back(list.getColumn(0).getString(), list.getColumn(1).getString());
        }
        SQLite::Transaction transaction(database);
        for (auto const& index : indexes)
            database.exec("DROP INDEX " + index.first);
        std::string error;
        for (int64_t number = 0; number < sets_of_resource(); ++number)
            for (int64_t resource = 0; resource < RESOURCES; ++resource)
                Kept_Set::make(make_set(resource, number), error)->insert(database, false);
        for (auto const& index : indexes)
            database.exec(index.second);
        transaction.commit();
    }
    /** So that its memory is not that of the process which serves. */
    void fill_in_child() const {
        pid_t const child = fork();
        if (child == 0) {
            fill();
            _exit(0);
        }
        int status = 0;
        if (child == -1 || waitpid(child, &status, 0) != child || status != 0) {
            std::fprintf(stderr, "the catalog could not be filled\n");
            std::abort();
        }
    }
    static std::string memory() {
        std::ifstream status("/proc/self/status");
        std::string text;
        for (std::string line; std::getline(status, line);)
            if (line.starts_with("VmHWM:") || line.starts_with("VmRSS:") ||
                line.starts_with("RssAnon:"))
                text += (text.empty() ? "" : ", ") + line;
        std::ranges::replace(text, '\t', ' ');
        return text;
    }

    int64_t sets_ = 1000000;
    Bench_Directory directory_;
    std::unique_ptr<Agent_Database> database_;
    std::mt19937 random_{1};
};

void ask(benchmark::State& state, char const* view, Object query) {
    Value result;
    query["cmode"] = "rb_orm_rows";
    if (!Place::instance().catalog->get_view(LIMITS, "gaussdb", view, query, result) ||
        (result.type() == json_spirit::obj_type
             ? json_spirit::object_get_any(result.get_obj(), "rows").get_array()
             : result.get_array())
            .empty())
        state.SkipWithError("no rows");
}

std::string resource() {
    return uuid_of("4e500000", Place::instance().random_resource());
}

void catalog_get_prior_backup(benchmark::State& state) {
    for (auto _ : state) {
        int64_t const number = Place::instance().random_resource();
        ask(state, "catalogs",
            {{"resource_uuid", uuid_of("4e500000", number)},
             {"pool_uuid", uuid_of("b0010000", number % 4)},
             {"sort", "backup_end_time"},
             {"order", "desc"},
             {"limit", 1}});
    }
}

void catalog_get_prior_full_backup(benchmark::State& state) {
    for (auto _ : state) {
        int64_t const number = Place::instance().random_resource();
        ask(state, "catalogs",
            {{"resource_uuid", uuid_of("4e500000", number)},
             {"pool_uuid", uuid_of("b0010000", number % 4)},
             {"type", "full"},
             {"exclude_schema", true},
             {"check_restored", true},
             {"NN_backup_end_time", ""},
             {"sort", "backup_end_time"},
             {"order", "desc"},
             {"limit", 1}});
    }
}

void catalog_get_seq(benchmark::State& state) {
    for (auto _ : state)
        ask(state, "catalogs",
            {{"resource_uuid", resource()}, {"sort", "seq"}, {"order", "desc"}, {"limit", 1}});
}

void catalog_get_storage_size(benchmark::State& state) {
    Place& place = Place::instance();
    for (auto _ : state)
        ask(state, "catalogs",
            {{"uuid", uuid_of("b5e70000", place.random_resource() * 1000000 + place.random_set())},
             {"with_storages", "1"},
             {"with_pieces", "1"}});
}

void catalog_restore_chain(benchmark::State& state) {
    Place& place = Place::instance();
    for (auto _ : state) {
        int64_t const number = place.random_resource();
        ask(state, "restore",
            {{"resource_uuid", uuid_of("4e500000", number)},
             {"backup_key", string_sprintf("%lld_key_%lld", static_cast<long long>(number),
                                           static_cast<long long>(place.random_set()))},
             {"sort", "backup_start_time"},
             {"order", "desc"}});
    }
}

void catalog_depends(benchmark::State& state) {
    Place& place = Place::instance();
    for (auto _ : state) {
        int64_t const number = place.random_resource();
        int64_t const set = place.random_set();
        int64_t const full = set - set % CHAIN;
        ask(state, "depends",
            {{"resource_uuid", uuid_of("4e500000", number)},
             {"timeline", uuid_of("11e00000", number * 1000000 + full / 250)}});
    }
}

void catalog_newest_of_all(benchmark::State& state) {
    for (auto _ : state)
        ask(state, "catalogs", {{"sort", "backup_start_time"}, {"order", "desc"}, {"limit", 20}});
}

void catalog_initialize_and_complete(benchmark::State& state) {
    static int64_t number = 500000;
    Place& place = Place::instance();
    for (auto _ : state) {
        Recorded_Set const set = make_set(place.random_resource(), ++number);
        if (!place.catalog->initialize(LIMITS, set) || !place.catalog->complete(LIMITS, set))
            state.SkipWithError("could not write");
    }
}

BENCHMARK(catalog_get_prior_backup)->Unit(benchmark::kMillisecond);
BENCHMARK(catalog_get_prior_full_backup)->Unit(benchmark::kMillisecond);
BENCHMARK(catalog_get_seq)->Unit(benchmark::kMillisecond);
BENCHMARK(catalog_get_storage_size)->Unit(benchmark::kMillisecond);
BENCHMARK(catalog_restore_chain)->Unit(benchmark::kMillisecond);
BENCHMARK(catalog_depends)->Unit(benchmark::kMillisecond);
BENCHMARK(catalog_newest_of_all)->Unit(benchmark::kMillisecond);
BENCHMARK(catalog_initialize_and_complete)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
