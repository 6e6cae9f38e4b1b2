#include "gaussdb/job/set_notes.h"

#include "gaussdb/job/set_directory.h"
#include "qmrt/file.h"
#include "qmrt/log.h"
#include "qmrt/names.h"
#include "qmrt/path.h"

#include <cerrno>
#include <unistd.h>

namespace {

constexpr char NOTES[] = "/var/opt/quilmot/zenbrak3/gaussdb/sets";
constexpr mode_t DIRECTORY_MODE = 0755;
constexpr mode_t FILE_MODE = 0600;

} // namespace

Set_Notes::Set_Notes(std::string const& resource_id, std::string user)
    : path_(Path_Conf(NOTES, true, resource_id.c_str(), DIRECTORY_MODE).c_str()),
      user_(std::move(user)) {
    remove_left();
}

Set_Notes::~Set_Notes() {
    if (!path_.empty())
        unlink(path_.c_str());
}

void Set_Notes::remove_left() const {
    // absent after every run that came to its end
    (void)read_each_line(path_.c_str(), [&](std::string_view line) {
        std::string const directory(line);
        if (names::fault_of_bare_path(directory).empty() &&
            Set_Directory(directory, user_).discard())
            QMRT_LOG(LM_INFO, "Removed %s, which a run that was cut off has left\n",
                     directory.c_str());
        return true;
    });
}

bool Set_Notes::add(std::string const& directory) {
    text_ += directory + "\n";
    if (write_file_atomically(path_.c_str(), text_, FILE_MODE) == 0)
        return true;
    QMRT_LOG(LM_ERROR, "Failed to note %s in %s, errno=%d, %m\n", directory.c_str(), path_.c_str(),
             errno);
    return false;
}
