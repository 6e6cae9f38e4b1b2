#ifndef TESTS_SUPPORT_SCRIPTED_TOOLS_H
#define TESTS_SUPPORT_SCRIPTED_TOOLS_H

#include "tests/support/temporary_directory.h"

#include <map>
#include <string>
#include <vector>

/** One call of a scripted tool, as the tool saw it. */
struct Tool_Call {
    /** Arguments, the tool's name first. */
    std::vector<std::string> args;
    std::map<std::string, std::string> env;
    std::string input; ///< what the script read from stdin
    unsigned uid;
    unsigned gid;
    std::vector<unsigned> groups;
    std::string directory;

    /** The arguments as text, each in brackets, so that a message shows where one ends. */
    std::string text() const;
};

/**
 * A directory of scripted tools for a test, to be put on a PATH. What the tools can be told is in
 * scripted_tool.cpp. Any operating-system user may run them.
 *
 *     Scripted_Tools tools;
 *     tools.script("gs_om", "out cluster_state : Normal\nexit 0");
 *     ...
 *     EXPECT_EQ((std::vector<std::string>{"gs_om", "-t", "status"}), tools.call("gs_om").args);
 */
class Scripted_Tools {
public:
    Scripted_Tools();

    /** Makes or replaces a tool. Parts for successive calls are divided by lines "---". */
    void script(std::string const& tool, std::string const& text);
    /** Makes a tool that prints the lines of a text, as they are, and exits. */
    void prints(std::string const& tool, std::string const& output, int status = 0);
    /** Lets a tool that stands at its step "wait" go on. */
    void go(std::string const& tool);

    /** How often a tool has been called. */
    size_t calls(std::string const& tool) const;
    /** A call by its number from 1. Throws std::out_of_range when there was none. */
    Tool_Call call(std::string const& tool, size_t number = 1) const;

    /** The directory of the tools. */
    std::string path() const { return directory_.path(); }
    std::string path(std::string const& name) const { return directory_.path(name); }

private:
    Temporary_Directory directory_;
};

#endif
