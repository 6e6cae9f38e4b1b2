#ifndef TESTS_SUPPORT_PROGRAM_RUN_H
#define TESTS_SUPPORT_PROGRAM_RUN_H

#include "qmrt/file.h"

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

/**
 * A program as the test's child, with its output in the test's hands. Its environment is what the
 * test says and nothing else. Ended with this object.
 */
class Program_Run {
public:
    struct Setting {
        std::map<std::string, std::string> env{};
        std::string input{};        ///< what it reads from stdin, when that is no terminal
        unsigned short columns = 0; ///< above 0: stdin and stdout are a terminal of that width
        char const* stdout_path = nullptr; ///< a file in place of a pipe
    };

    /** @param args  the program's path first */
    Program_Run(std::vector<std::string> const& args, Setting const& setting);
    ~Program_Run();
    Program_Run(Program_Run const&) = delete;
    Program_Run& operator=(Program_Run const&) = delete;

    pid_t pid() const { return pid_; }
    /** Reads until its stdout, or its stderr, has the text. @return false when it ended without */
    bool await(std::string const& text);
    /** Types on its terminal. */
    void type(std::string const& text);
    /** True while what is typed on its terminal shows there. */
    bool echoes() const;
    /** Reads all, then waits. @return its exit status; minus the number of a signal */
    int wait();

    /** What it printed so far. A terminal's line breaks are "\n" here. */
    std::string out() const;
    std::string const& err() const { return err_; }

private:
    bool read_some();

    pid_t pid_ = -1;
    File_Descriptor stdout_;   ///< the terminal's other side, when there is one
    File_Descriptor terminal_; ///< the program's side, kept so that its settings can be looked at
    File_Descriptor stderr_;
    std::string out_;
    std::string err_;
};

#endif
