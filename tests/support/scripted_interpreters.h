#ifndef TESTS_SUPPORT_SCRIPTED_INTERPRETERS_H
#define TESTS_SUPPORT_SCRIPTED_INTERPRETERS_H

#include "tests/support/scripted_tools.h"

#include <filesystem>
#include <string>

/**
 * Puts the scripted tools "python" and "python3" into the place of the system's own, which the
 * product calls by fixed paths. For test programs with a private root alone.
 */
class Scripted_Interpreters {
public:
    explicit Scripted_Interpreters(Scripted_Tools const& tools) {
        for (char const* name : NAMES) {
            move(path(name), path(name) + ".kept");
            std::filesystem::create_symlink(tools.path(name), path(name));
        }
    }
    ~Scripted_Interpreters() {
        for (char const* name : NAMES) {
            std::error_code ignored;
            std::filesystem::remove(path(name), ignored);
            move(path(name) + ".kept", path(name));
        }
    }
    Scripted_Interpreters(Scripted_Interpreters const&) = delete;
    Scripted_Interpreters& operator=(Scripted_Interpreters const&) = delete;

private:
    static constexpr char const* NAMES[] = {"python", "python2", "python3"};

    static std::string path(std::string const& name) { return "/usr/bin/" + name; }
    static void move(std::string const& from, std::string const& to) {
        if (std::filesystem::exists(std::filesystem::symlink_status(from)))
            std::filesystem::rename(from, to);
    }
};

#endif
