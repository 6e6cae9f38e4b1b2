#ifndef BENCHMARKS_BENCH_DIRECTORY_H
#define BENCHMARKS_BENCH_DIRECTORY_H

#include <cstdlib>
#include <filesystem>
#include <string>

/**
 * Directory of one benchmark, on disk: below $ZENBRAK3_BENCH_DIRECTORY, or /var/tmp unless set.
 * Removed recursively in the destructor.
 */
class Bench_Directory {
public:
    Bench_Directory() {
        char const* const directory = std::getenv("ZENBRAK3_BENCH_DIRECTORY");
        path_ = std::string(directory ? directory : "/var/tmp") + "/zenbrak3-bench-XXXXXX";
        if (!mkdtemp(path_.data()))
            std::abort();
    }
    ~Bench_Directory() { std::filesystem::remove_all(path_); }
    Bench_Directory(Bench_Directory const&) = delete;
    Bench_Directory& operator=(Bench_Directory const&) = delete;

    std::string const& path() const { return path_; }
    std::string path(std::string const& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

#endif
