#include "benchmarks/bench_directory.h"
#include "host/agent/host_services.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/file_storage_backend.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t MIB = 1024 * 1024;
constexpr size_t GIB = 1024 * MIB;
constexpr size_t SMALL = 16 * MIB;

/** A directory on disk with a source of 1 GiB, one of 16 MiB, and an empty pool. */
class Place {
public:
    static Place& instance() {
        static Place place;
        return place;
    }

    std::string path(std::string const& name) const { return directory_.path(name); }
    std::string url() const { return "file://" + path("pool"); }
    /** Before each run: nothing is left of the one before, nor has yet to be written out. */
    void clear() const {
        std::filesystem::remove_all(path("pool"));
        std::filesystem::create_directory(path("pool"));
        sync();
    }

private:
    Place() {
        write("large", GIB);
        write("small", SMALL);
        Host_Services::instance().storage("file", std::make_shared<File_Storage_Backend>());
    }
    /** Records as a table has them, which pack to about a third. */
    void write(std::string const& name, size_t size) const {
        std::mt19937 random(1);
        std::ofstream file(path(name), std::ios::binary);
        std::string block;
        for (size_t written = 0; written < size; written += block.size()) {
            block.clear();
            while (block.size() < MIB)
                block += std::to_string(random()) + "|customer|" + std::to_string(random() % 1000) +
                         "|open\n";
            block.resize(MIB);
            file << block;
        }
    }
    Bench_Directory directory_;
};

bool put(std::string const& source, Compression_Method method, unsigned channels = 1) {
    Client_IO_Base::Options options;
    options.compression_method = method;
    options.compression_level = 3;
    options.channels = channels;
    Client_IO_Ex io;
    return io.connect(Place::instance().url().c_str(), options) &&
           io.put_file(source.c_str(), "o", true, O_CLOEXEC, 0x2000);
}

void time_it(benchmark::State& state, std::function<bool()> const& action) {
    for (auto _ : state) {
        state.PauseTiming();
        Place::instance().clear();
        state.ResumeTiming();
        if (!action())
            state.SkipWithError("the transfer has failed");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(GIB));
}

bool run(std::string const& command) {
    return std::system(command.c_str()) == 0;
}

void storage_put_ours(benchmark::State& state) {
    time_it(state, [] { return put(Place::instance().path("large"), COMPR_NONE); });
}
void storage_put_cp(benchmark::State& state) {
    Place const& place = Place::instance();
    time_it(state, [&] { return run("cp " + place.path("large") + " " + place.path("pool/o")); });
}
void storage_put_cp_sync(benchmark::State& state) {
    Place const& place = Place::instance();
    std::string const to = place.path("pool/o");
    time_it(state, [&] { return run("cp " + place.path("large") + " " + to + " && sync " + to); });
}
void storage_zstd_ours(benchmark::State& state) {
    time_it(state, [] { return put(Place::instance().path("large"), COMPR_ZSTD); });
}
void storage_zstd_two_channels(benchmark::State& state) {
    time_it(state, [] { return put(Place::instance().path("large"), COMPR_ZSTD, 2); });
}
void storage_zstd_tool(benchmark::State& state) {
    Place const& place = Place::instance();
    time_it(state, [&] {
        return run("zstd -q -3 -T1 " + place.path("large") + " -o " + place.path("pool/o.zst"));
    });
}
void storage_lzop_ours(benchmark::State& state) {
    time_it(state, [] { return put(Place::instance().path("large"), COMPR_LZOP); });
}
void storage_lzop_tool(benchmark::State& state) {
    Place const& place = Place::instance();
    time_it(state, [&] {
        return run("lzop -q -3 " + place.path("large") + " -o " + place.path("pool/o.lzo"));
    });
}

/** The peak memory of a process that does one put, told as if KiB were milliseconds. */
void memory_of_put(benchmark::State& state, char const* source, Compression_Method method) {
    Place const& place = Place::instance();
    for (auto _ : state) {
        place.clear();
        pid_t const child = fork();
        if (child == 0)
            _exit(put(place.path(source), method, 2) ? 0 : 1);
        int status = 0;
        rusage usage{};
        if (wait4(child, &status, 0, &usage) != child || status != 0)
            state.SkipWithError("the transfer has failed");
        state.SetIterationTime(static_cast<double>(usage.ru_maxrss) / 1000);
    }
}
void storage_memory_large(benchmark::State& state) {
    memory_of_put(state, "large", COMPR_ZSTD);
}
void storage_memory_small(benchmark::State& state) {
    memory_of_put(state, "small", COMPR_ZSTD);
}

BENCHMARK(storage_put_ours)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(storage_put_cp)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(storage_put_cp_sync)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(storage_zstd_ours)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(storage_zstd_two_channels)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(storage_zstd_tool)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(storage_lzop_ours)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(storage_lzop_tool)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(storage_memory_large)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();
BENCHMARK(storage_memory_small)->Unit(benchmark::kMillisecond)->Iterations(1)->UseManualTime();

} // namespace

BENCHMARK_MAIN();
