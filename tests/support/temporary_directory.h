#ifndef TESTS_SUPPORT_TEMPORARY_DIRECTORY_H
#define TESTS_SUPPORT_TEMPORARY_DIRECTORY_H

#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>

/** A directory of a test's own, removed with all that is in it at the end. */
class Temporary_Directory {
public:
    Temporary_Directory() {
        std::string name = std::filesystem::temp_directory_path() / "zenbrak3-test-XXXXXX";
        if (!mkdtemp(name.data()))
            throw std::runtime_error("mkdtemp " + name);
        path_ = name;
    }
    ~Temporary_Directory() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Temporary_Directory(Temporary_Directory const&) = delete;
    Temporary_Directory& operator=(Temporary_Directory const&) = delete;

    std::string path() const { return path_; }
    std::string path(std::string const& name) const { return path_ + "/" + name; }

    /** Writes a file, with the directories above it, and returns its path. */
    std::string write(std::string const& name, std::string_view content) const {
        std::filesystem::create_directories(std::filesystem::path(path(name)).parent_path());
        std::ofstream(path(name), std::ios::binary) << content;
        return path(name);
    }
    /** The content of a file; "" when it is not there. */
    std::string read(std::string const& name) const {
        std::ifstream file(path(name), std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(file)), {});
    }
    bool exists(std::string const& name) const {
        return std::filesystem::exists(std::filesystem::symlink_status(path(name)));
    }

private:
    std::string path_;
};

#endif
