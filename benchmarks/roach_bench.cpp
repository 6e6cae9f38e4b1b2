#include "benchmarks/private_root.h"
#include "gaussdb/job/roach_line_handler.h"
#include "gaussdb/job/roach_meta_parser.h"
#include "gaussdb/job/roach_progress_handler.h"
#include "gaussdb/job/roach_source.h"
#include "host/agent/host_services.h"
#include "host/catalog/catalog_backend.h"
#include "host/storage/file_storage_backend.h"
#include "host/storage/pool_info.h"
#include "qmrt/file.h"

#include <ace/Log_Msg.h>

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <unistd.h>

namespace {

constexpr char ROOT[] = "/var/cache/quilmot/zenbrak3/gaussdb";
constexpr size_t META_SIZE = 256 << 20;

/** What a tool prints in a run: mostly plain lines, some progress, a key at the end. */
std::string const& output() {
    static std::string const text = [] {
        std::string lines;
        for (int number = 0; number < 100000; ++number) {
            if (number % 10 == 0)
                lines += "\x1B[1A\x1B[2KN" + std::to_string(number % 8) +
                         " dn_6001_6002 : " + std::to_string(number / 1001) + ".25%\n";
            else
                lines += "[2026-11-21 10:00:00][backup][NODE1][INFO]: sent file base/16384/" +
                         std::to_string(number) + " to the media\n";
        }
        return lines + "Backup key: 20261121_100000\n";
    }();
    return text;
}

/** Calls @a visitor with the lines of output(), each with a NUL behind it as the reader gives it.
 */
template <typename Visitor>
void each_line(Visitor visitor) {
    static std::string text;
    text = output();
    char* line = text.data();
    while (char* const end = static_cast<char*>(
               std::memchr(line, '\n', static_cast<size_t>(text.data() + text.size() - line)))) {
        *end = '\0';
        visitor(line, static_cast<size_t>(end - line));
        line = end + 1;
    }
}

constexpr int64_t LINES = 100001;

void roach_lines_ours(benchmark::State& state) {
    ACE_LOG_MSG->clr_flags(ACE_Log_Msg::STDERR); // lines are made for the log, and dropped there
    std::string key;
    Roach_Progress_Handler progress(8, nullptr, 1);
    Roach_Line_Handler handler(&key, &progress);
    for (auto _ : state)
        each_line([&](char const* line, size_t size) { handler.handle_stdout_line(line, size); });
    state.SetItemsProcessed(state.iterations() * LINES);
}
BENCHMARK(roach_lines_ours)->Unit(benchmark::kMillisecond);

void roach_lines_bare(benchmark::State& state) {
    size_t bytes = 0;
    for (auto _ : state)
        each_line([&](char const*, size_t size) { bytes += size; });
    benchmark::DoNotOptimize(bytes);
    state.SetItemsProcessed(state.iterations() * LINES);
}
BENCHMARK(roach_lines_bare)->Unit(benchmark::kMillisecond);

/** A metadata file of that many backups in a directory of its own. */
std::string metadata(int64_t backups) {
    std::string const directory = std::string(ROOT) + "/bench" + std::to_string(backups);
    std::filesystem::create_directories(directory);
    std::ofstream file(directory + "/backups.ini");
    file << "{\"BackupDetails\":[";
    for (int64_t number = 0; number < backups; ++number)
        file << (number ? "," : "") << "{\"BackupKey\":\"20261121_" << number
             << "\",\"BackupSize\":" << number << "UL,\"PriorBackupKey\":\"\",\"Nodes\":3}";
    file << "]}\n";
    return directory;
}

void roach_has_backup_key(benchmark::State& state) {
    Roach_Meta_Parser parser(metadata(state.range(0)), GAUSSDB_200);
    for (auto _ : state)
        if (!parser.has_backup_key("20261121_0"))
            state.SkipWithError("the key was not found");
}
BENCHMARK(roach_has_backup_key)->Arg(5000)->Arg(10000)->Unit(benchmark::kMillisecond);

// the metadata's way to the pool and back

class Bench_Pool : public Pool_Backend {
public:
    Storage_Result find(std::string const&, Pool_Info& info) override {
        info.uuid = "pool";
        info.url = std::string("file://") + ROOT + "/pool";
        return {};
    }
};

/** Takes every piece. */
class Bench_Catalog : public Catalog_Backend {
public:
    bool initialize(Catalog_Limits const&, Backup_Set const&) override { return true; }
    bool complete(Catalog_Limits const&, Backup_Set const&) override { return true; }
    bool commit(Catalog_Limits const&, Backup_Set const&, bool) override { return true; }
    bool abort(Catalog_Limits const&, std::string const&, json_spirit::Array&) override {
        return true;
    }
    bool add_piece(Catalog_Limits const&, std::string const&, json_spirit::Array const&) override {
        return true;
    }
    bool get_view(Catalog_Limits const&, std::string const&, std::string const&,
                  json_spirit::Object const&, json_spirit::Value&) override {
        return false;
    }
};

Roach_Source roach_source() {
    return {"cluster", "device", "pool",        "set",         COMPR_NONE, 0,       "root",
            0,         0,        Rate_Limits(), GAUSSDB_A_811, true,       "policy"};
}

std::string meta_path(char const* name) {
    return std::string(ROOT) + "/meta/" + name;
}

void set_up_metadata() {
    static bool const done = [] {
        std::filesystem::create_directories(std::string(ROOT) + "/pool");
        Host_Services::instance().storage("file", std::make_shared<File_Storage_Backend>());
        Host_Services::instance().pools(std::make_shared<Bench_Pool>());
        Host_Services::instance().catalog(std::make_shared<Bench_Catalog>());
        (void)roach_source().create_path();
        std::mt19937_64 random(1);
        std::ofstream file(meta_path("backups.ini"), std::ios::binary);
        for (size_t written = 0; written < META_SIZE; written += 8) {
            uint64_t const word = random();
            file.write(reinterpret_cast<char const*>(&word), sizeof word);
        }
        std::ofstream(meta_path("bak_cluster_static_config.common")) << "small";
        return true;
    }();
    static_cast<void>(done);
    sync();
}

void roach_backup_meta(benchmark::State& state) {
    set_up_metadata();
    for (auto _ : state)
        if (!roach_source().backup_meta("1_1"))
            state.SkipWithError("backup_meta failed");
}
BENCHMARK(roach_backup_meta)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

void roach_restore_meta(benchmark::State& state) {
    set_up_metadata();
    for (auto _ : state)
        if (!roach_source().restore_meta("1_1"))
            state.SkipWithError("restore_meta failed");
}
BENCHMARK(roach_restore_meta)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

void roach_cp(benchmark::State& state) {
    set_up_metadata();
    std::string const command =
        "cp " + meta_path("backups.ini") + " " + ROOT + "/copy && sync -f " + ROOT;
    for (auto _ : state)
        if (std::system(command.c_str()) != 0)
            state.SkipWithError("cp failed");
}
BENCHMARK(roach_cp)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(2);

} // namespace

/** In directories of its own: the metadata's places are fixed. */
int main(int count, char** arguments) {
    enter_private_root(arguments);
    benchmark::Initialize(&count, arguments);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
