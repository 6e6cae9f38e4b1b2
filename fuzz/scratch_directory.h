#ifndef FUZZ_SCRATCH_DIRECTORY_H
#define FUZZ_SCRATCH_DIRECTORY_H

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

/** A directory in memory for the files of one fuzz target; removed when the process ends. */
class Scratch_Directory {
public:
    Scratch_Directory() {
        char name[] = "/dev/shm/zenbrak3-fuzz-XXXXXX";
        if (!mkdtemp(name))
            std::abort();
        path_ = name;
    }
    ~Scratch_Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Scratch_Directory(Scratch_Directory const&) = delete;
    Scratch_Directory& operator=(Scratch_Directory const&) = delete;

    std::string const& path() const { return path_; }
    std::string path(std::string const& name) const { return path_ + "/" + name; }

    /** Writes a file over what was there. @return its path */
    std::string write(std::string const& name, std::string_view content) const {
        std::string const whole = path(name);
        FILE* const file = std::fopen(whole.c_str(), "w");
        if (!file || std::fwrite(content.data(), 1, content.size(), file) != content.size() ||
            std::fclose(file) != 0)
            std::abort();
        return whole;
    }

private:
    std::string path_;
};

#endif
