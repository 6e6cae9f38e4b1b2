#include "benchmarks/bench_directory.h"
#include "host/agent/host_services.h"
#include "host/storage/file_storage_backend.h"
#include "host/storage/mount_fuse.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t MIB = 1024 * 1024;
constexpr size_t GIB = 1024 * MIB;

/** A directory on disk with an empty pool, a place to mount it at, and a plain directory. */
class Place {
public:
    static Place& instance() {
        static Place place;
        return place;
    }

    std::string path(std::string const& name) const { return directory_.path(name); }
    bool mount() {
        fuse_ = std::make_unique<Mount_Fuse>();
        fuse_->read_mode(SYNC_READ);
        fuse_->big_write(true);
        Storage_Access access; // as the jobs do
        access.extra_options[Storage_Access::ACCESS_MODE] = Storage_Access::ACCESS_MODE_D2T;
        access.extra_options[Storage_Access::POOL_URL] = "file://" + path("pool");
        fuse_->access(access);
        return fuse_->mount(("file://" + path("pool") + "/set").c_str(), path("mounted").c_str(),
                            nullptr);
    }
    /** Nothing of the files stays in memory, nor has yet to be written out. */
    void forget() {
        fuse_.reset();
        sync();
        for (auto const& entry : std::filesystem::recursive_directory_iterator(directory_.path())) {
            File_Descriptor const file(open(entry.path().c_str(), O_RDONLY | O_CLOEXEC));
            posix_fadvise(file.get(), 0, 0, POSIX_FADV_DONTNEED);
        }
    }
    void clear() {
        fuse_.reset();
        for (char const* name : {"pool", "plain"}) {
            std::filesystem::remove_all(path(name));
            std::filesystem::create_directory(path(name));
        }
        sync();
    }

private:
    Place() { Host_Services::instance().storage("file", std::make_shared<File_Storage_Backend>()); }

    Bench_Directory directory_;
    std::unique_ptr<Mount_Fuse> fuse_; // unmounts before the directory goes
};

/** What a database writes: several files at once, in blocks of 1 MiB, on disk at the end. */
void each_file(unsigned files, std::function<void(unsigned file)> const& action) {
    std::vector<std::thread> threads;
    for (unsigned file = 0; file < files; ++file)
        threads.emplace_back(action, file);
    for (std::thread& thread : threads)
        thread.join();
}

void write_files(std::string const& directory, unsigned files, bool& good) {
    std::mt19937_64 random(1);
    std::string block(MIB, '\0');
    for (char& byte : block)
        byte = static_cast<char>(random());
    each_file(files, [&](unsigned number) {
        File_Descriptor const file(open((directory + "/" + std::to_string(number)).c_str(),
                                        O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        bool done = static_cast<bool>(file);
        for (size_t written = 0; done && written < GIB / files; written += MIB)
            done = write_all(file.get(), block.data(), block.size()) == 0;
        if (!done || fsync(file.get()) == -1)
            good = false;
    });
}

void read_files(std::string const& directory, unsigned files, bool& good) {
    each_file(files, [&](unsigned number) {
        File_Descriptor const file(
            open((directory + "/" + std::to_string(number)).c_str(), O_RDONLY | O_CLOEXEC));
        std::string block(MIB, '\0');
        size_t total = 0;
        for (ssize_t got = 1; file && got > 0;
             total += static_cast<size_t>(std::max<ssize_t>(got, 0)))
            got = read(file.get(), block.data(), block.size());
        if (total != GIB / files)
            good = false;
    });
}

void measure(benchmark::State& state, bool mounted, bool reading) {
    Place& place = Place::instance();
    auto const files = static_cast<unsigned>(state.range(0));
    std::string const directory = place.path(mounted ? "mounted" : "plain");
    for (auto _ : state) {
        state.PauseTiming();
        place.clear();
        bool good = !mounted || place.mount();
        if (reading) {
            write_files(directory, files, good);
            place.forget();
            good = good && (!mounted || place.mount());
        }
        state.ResumeTiming();
        (reading ? read_files : write_files)(directory, files, good);
        if (!good)
            state.SkipWithError("a file could not be written or read");
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(GIB));
}

void mount_write_ours(benchmark::State& state) {
    measure(state, true, false);
}
void mount_write_plain(benchmark::State& state) {
    measure(state, false, false);
}
void mount_read_ours(benchmark::State& state) {
    measure(state, true, true);
}
void mount_read_plain(benchmark::State& state) {
    measure(state, false, true);
}

#define MOUNT_BENCHMARK(function)                                                                  \
    BENCHMARK(function)->Arg(1)->Arg(4)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime()
MOUNT_BENCHMARK(mount_write_ours);
MOUNT_BENCHMARK(mount_write_plain);
MOUNT_BENCHMARK(mount_read_ours);
MOUNT_BENCHMARK(mount_read_plain);

} // namespace

BENCHMARK_MAIN();
