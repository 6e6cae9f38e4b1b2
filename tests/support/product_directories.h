#ifndef TESTS_SUPPORT_PRODUCT_DIRECTORIES_H
#define TESTS_SUPPORT_PRODUCT_DIRECTORIES_H

#include "host/agent/host_manager.h"
#include "tests/support/scoped_env.h"
#include "tests/support/scripted_tools.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>

/**
 * The directories that the module writes to, empty at the beginning and at the end, with tools on
 * the agent's PATH and "host1" as the host's name. For test programs with a private root alone.
 */
class Product_Directories {
public:
    static constexpr char XML[] = "/var/opt/quilmot/zenbrak3/agent/gaussdb/";
    static constexpr char CACHE[] = "/var/cache/quilmot/zenbrak3/gaussdb/";
    static constexpr char SYSTEM_LINK[] = "/usr/openv/lib/libxbsa64.so";

    Product_Directories() : host_name_(Host_Manager::instance()->name()) {
        if (!std::filesystem::exists("/opt/quilmot"))
            throw std::runtime_error("to be run by tests/support/private_root");
        Host_Manager::instance()->name("host1");
        clear();
    }
    ~Product_Directories() {
        Host_Manager::instance()->name(host_name_);
        clear();
    }

    Scripted_Tools tools;

    static void write(std::string const& path, std::string const& text) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }
    static std::string read(std::string const& path) {
        std::ifstream file(path, std::ios::binary);
        return std::string((std::istreambuf_iterator<char>(file)), {});
    }
    static bool exists(std::string const& path) {
        return std::filesystem::exists(std::filesystem::symlink_status(path));
    }
    /** Where a link points; "" for what is none. */
    static std::string link_target(std::string const& path) {
        std::error_code none;
        return std::filesystem::read_symlink(path, none).string();
    }
    /** Permission bits; 0 when there is nothing. */
    static unsigned mode(std::string const& path) {
        struct stat status;
        return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777u : 0;
    }

private:
    static void clear() {
        for (char const* directory :
             {"/home", "/opt/quilmot", "/var/opt/quilmot", "/var/cache/quilmot", "/usr/openv"})
            for (auto const& entry : std::filesystem::directory_iterator(directory))
                std::filesystem::remove_all(entry.path());
    }

    std::string host_name_;
    Scoped_Env path_{"PATH", (tools.path() + ":" + std::getenv("PATH")).c_str()};
    Scoped_Env bin_path_{"GAUSSDB_BIN_PATH", nullptr};
    Scoped_Env lib_path_{"GAUSSDB_LD_LIBRARY_PATH", nullptr};
    Scoped_Env profile_{"GAUSSDB_MPPDBGS_PROFILE", nullptr};
};

/** A mount of the private root that nobody can write to until the end of the scope. */
class Read_Only_Mount {
public:
    explicit Read_Only_Mount(char const* path) : path_(path) {
        if (mount(nullptr, path, nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == -1)
            throw std::runtime_error(std::string("remount ") + path);
    }
    ~Read_Only_Mount() { mount(nullptr, path_, nullptr, MS_REMOUNT, nullptr); }
    Read_Only_Mount(Read_Only_Mount const&) = delete;
    Read_Only_Mount& operator=(Read_Only_Mount const&) = delete;

private:
    char const* path_;
};

#endif
