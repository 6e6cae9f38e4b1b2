#include "gaussdb/common/zengine_config.h"

#include "qmrt/guarded_file.h"
#include "qmrt/natoi.h"
#include "qmrt/regex.h"

#include <string>
#include <string_view>

namespace {

constexpr uint64_t MAX_CONFIG = 1024 * 1024;

boost::regex const RE_LSNR_PORT("\\s*LSNR_PORT\\s*=\\s*(.*)$", boost::regex::icase);

} // namespace

uint16_t read_lsnr_port(char const* path) {
    std::string text;
    read_guarded_lines(path, {.max_size = MAX_CONFIG}, [&](std::string_view line) {
        qmrt::svmatch groups;
        bool const found = qmrt::regex_match(line, groups, RE_LSNR_PORT);
        if (found)
            text = groups[1];
        return !found;
    });
    return natoi<uint16_t>(text);
}
