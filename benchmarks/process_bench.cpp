#include "host/process/process_options.h"
#include "host/process/text_process_handler.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr unsigned OUT_AND_ERR = ACE_Process_Ex::REDIRECT_STDOUT | ACE_Process_Ex::REDIRECT_STDERR;

/** So many lines of 80 bytes are 1 GiB. */
constexpr int64_t LINES = (int64_t{1} << 30) / 80;

/** The circumstances of a start, for one benchmark. */
class Circumstances {
public:
    Circumstances(rlim_t descriptors, size_t heap) {
        getrlimit(RLIMIT_NOFILE, &before_);
        rlimit limit = before_;
        limit.rlim_cur = std::min(descriptors, before_.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
        heap_ = std::make_unique_for_overwrite<char[]>(heap + 1);
        for (size_t at = 0; at < heap; at += 4096)
            heap_[at] = 1;
        benchmark::DoNotOptimize(heap_.get());
    }
    ~Circumstances() { setrlimit(RLIMIT_NOFILE, &before_); }
    Circumstances(Circumstances const&) = delete;
    Circumstances& operator=(Circumstances const&) = delete;

private:
    rlimit before_;
    std::unique_ptr<char[]> heap_;
};

void process_spawn_ours(benchmark::State& state, rlim_t descriptors, size_t heap) {
    Circumstances const circumstances(descriptors, heap);
    for (auto _ : state) {
        ACE_Process_Options options(true, 1024, 16384, 512, 128);
        options.handle_inheritance(0);
        Text_Process_Handler handler;
        if (!set_command_line(options, "/bin/true") || handler.call(OUT_AND_ERR, options) != 0)
            state.SkipWithError("/bin/true has failed");
    }
}

void process_spawn_posix(benchmark::State& state, rlim_t descriptors, size_t heap) {
    Circumstances const circumstances(descriptors, heap);
    char program[] = "/bin/true";
    char* const arguments[] = {program, nullptr};
    for (auto _ : state) {
        pid_t pid;
        int status = -1;
        if (posix_spawn(&pid, program, nullptr, nullptr, arguments, environ) != 0 ||
            waitpid(pid, &status, 0) != pid || status != 0)
            state.SkipWithError("/bin/true has failed");
    }
}

void register_spawn_benchmarks() {
    constexpr size_t HEAP = 200 * 1024 * 1024;
    struct {
        char const* name;
        rlim_t descriptors;
        size_t heap;
    } const cases[] = {{"1024", 1024, 0},
                       {"hard", RLIM_INFINITY, 0},
                       {"1024_heap_200_mib", 1024, HEAP},
                       {"hard_heap_200_mib", RLIM_INFINITY, HEAP}};
    for (auto const& one : cases) {
        benchmark::RegisterBenchmark((std::string("process_spawn_ours/") + one.name).c_str(),
                                     process_spawn_ours, one.descriptors, one.heap)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark((std::string("process_spawn_posix/") + one.name).c_str(),
                                     process_spawn_posix, one.descriptors, one.heap)
            ->Unit(benchmark::kMicrosecond);
    }
}

class Line_Counter : public Text_Process_Handler {
public:
    int handle_stdout_line(char const* line, size_t length) override {
        benchmark::DoNotOptimize(line);
        bytes += length + 1;
        ++lines;
        return 0;
    }
    int64_t lines = 0;
    size_t bytes = 0;
};

void process_lines_ours(benchmark::State& state) {
    for (auto _ : state) {
        ACE_Process_Options options(true, 1024, 16384, 512, 128);
        options.handle_inheritance(0);
        Line_Counter handler;
        if (!set_command_line(options, "%s %ld", LINE_WRITER, static_cast<long>(LINES)) ||
            handler.call(OUT_AND_ERR, options) != 0 || handler.lines != LINES)
            state.SkipWithError("lines were lost");
    }
    state.SetItemsProcessed(state.iterations() * LINES);
}
BENCHMARK(process_lines_ours)->Unit(benchmark::kMillisecond);

void process_lines_getline(benchmark::State& state) {
    for (auto _ : state) {
        ACE_Process_Options options(true, 1024, 16384, 512, 128);
        options.handle_inheritance(0);
        ACE_Process_Ex process(ACE_Process_Ex::REDIRECT_STDOUT, "line_writer");
        if (!set_command_line(options, "%s %ld", LINE_WRITER, static_cast<long>(LINES)) ||
            process.spawn(options) == -1) {
            state.SkipWithError("line_writer was not started");
            return;
        }
        FILE* const file = fdopen(dup(process.stdout_handle()), "r");
        char* line = nullptr;
        size_t size = 0;
        int64_t lines = 0;
        while (getline(&line, &size, file) > 0) {
            benchmark::DoNotOptimize(line);
            ++lines;
        }
        std::free(line);
        std::fclose(file);
        if (!process.wait() || lines != LINES)
            state.SkipWithError("lines were lost");
    }
    state.SetItemsProcessed(state.iterations() * LINES);
}
BENCHMARK(process_lines_getline)->Unit(benchmark::kMillisecond);

} // namespace

int main(int count, char** arguments) {
    register_spawn_benchmarks();
    benchmark::Initialize(&count, arguments);
    if (benchmark::ReportUnrecognizedArguments(count, arguments))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
