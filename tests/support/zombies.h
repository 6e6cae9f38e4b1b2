#ifndef TESTS_SUPPORT_ZOMBIES_H
#define TESTS_SUPPORT_ZOMBIES_H

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

/**
 * The children of this process, whichever thread started them, as the kernel's process table has
 * them: "pid (program) state".
 */
inline std::vector<std::string> children_in_proc() {
    std::vector<std::string> children;
    std::error_code ignored;
    for (auto const& entry : std::filesystem::directory_iterator("/proc", ignored)) {
        std::ifstream file(entry.path() / "stat");
        std::string stat;
        std::getline(file, stat);
        size_t const name_end = stat.rfind(')');
        if (name_end == std::string::npos)
            continue;
        std::istringstream rest(stat.substr(name_end + 1));
        std::string state;
        int parent = -1;
        rest >> state >> parent;
        if (parent == getpid())
            children.push_back(stat.substr(0, name_end + 1) + " " + state);
    }
    return children;
}

/** Those of them that have ended and were not waited for. */
inline std::vector<std::string> zombies_in_proc() {
    std::vector<std::string> zombies;
    for (std::string const& child : children_in_proc())
        if (child.back() == 'Z')
            zombies.push_back(child);
    return zombies;
}

#endif
