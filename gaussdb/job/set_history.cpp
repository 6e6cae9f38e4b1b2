#include "gaussdb/job/set_history.h"

#include "qmrt/file.h"
#include "qmrt/log.h"
#include "qmrt/path.h"

#include <cerrno>
#include <sstream>

namespace {

constexpr char HISTORY[] = "/var/opt/quilmot/zenbrak3/gaussdb/history";
constexpr mode_t HISTORY_DIRECTORY_MODE = 0755;
constexpr mode_t HISTORY_FILE_MODE = 0600;
constexpr size_t MAX_HISTORY = 4096;

} // namespace

Set_History::Set_History(std::string const& resource_id)
    : path_(Path_Conf(HISTORY, true, resource_id.c_str(), HISTORY_DIRECTORY_MODE).c_str()) {
    std::string text;
    // absent before the first backup
    (void)read_file(path_.c_str(), text, MAX_HISTORY);
    std::istringstream lines(text);
    std::getline(lines, full_);
    std::getline(lines, last_);
}

std::string Set_History::base_of(Job_Definition_Subtype subtype) const {
    switch (subtype) {
    case JOB_DEFINITION_SUBTYPE_INCREMENTAL:
        return last_;
    case JOB_DEFINITION_SUBTYPE_CUMULATIVE:
        return full_;
    default:
        return "";
    }
}

bool Set_History::add(Job_Definition_Subtype subtype, std::string const& uuid) {
    std::string const full = subtype == JOB_DEFINITION_SUBTYPE_FULL ? uuid : full_;
    if (write_file_atomically(path_.c_str(), full + "\n" + uuid + "\n", HISTORY_FILE_MODE) == 0)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to note the backup set %s in %s, errno=%d, %m\n", uuid.c_str(),
             path_.c_str(), errno);
    return false;
}
