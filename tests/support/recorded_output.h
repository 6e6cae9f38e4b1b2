#ifndef TESTS_SUPPORT_RECORDED_OUTPUT_H
#define TESTS_SUPPORT_RECORDED_OUTPUT_H

#include <string>
#include <vector>

/** One file below tests/data, without the line that names its source. */
struct Recorded_Output {
    std::string name; ///< "gs_om/opengauss-start.txt"
    std::string text;

    /** All outputs of one tool, by name. Throws when there are none. */
    static std::vector<Recorded_Output> all(std::string const& tool);
    /** One file by its name. Throws when it is not there. */
    static Recorded_Output load(std::string const& name);
    /** The lines of the text, without line breaks. */
    std::vector<std::string> lines() const;
};

#endif
