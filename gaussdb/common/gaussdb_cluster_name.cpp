#include "gaussdb/common/gaussdb_cluster_name.h"

#include "qmrt/log.h"

#include <algorithm>
#include <climits>
#include <string_view>

namespace {

bool is_control(unsigned char letter) {
    return letter < ' ' || letter == 0x7f;
}

} // namespace

bool is_cluster_file_name(std::string const& name) {
    constexpr size_t LONGEST_ENDING = 16;
    constexpr std::string_view UNFIT = "/ '\"\\";
    if (!name.empty() && name != "." && name != ".." && name.size() + LONGEST_ENDING <= NAME_MAX &&
        name.find_first_of(UNFIT) == std::string::npos &&
        std::none_of(name.begin(), name.end(), is_control))
        return true;

    std::string shown = name.substr(0, NAME_MAX);
    std::replace_if(shown.begin(), shown.end(), is_control, '?');
    QMRT_LOG(LM_ERROR, "'%s' cannot be a cluster's name, since files are named after it\n",
             shown.c_str());
    return false;
}
