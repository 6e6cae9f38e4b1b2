#include "host/job/execute_script.h"

#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "qmrt/file.h"
#include "qmrt/log.h"
#include "qmrt/scoped_deleter.h"

#include <ace/Lib_Find.h>
#include <ace/Log_Msg_Callback.h>
#include <ace/Process.h>

#include <boost/algorithm/string/replace.hpp>
#include <climits>
#include <cstdlib>
#include <unistd.h>

namespace {

/** Writes @a script to a new file; @a path gets its name, also when the writing fails. */
bool write_script(std::string const& script, std::string& path) {
    char directory[PATH_MAX];
    if (ACE::get_temp_dir(directory, sizeof directory) == -1)
        return false;
    std::string name = std::string(directory) + "zenbrak3-script-XXXXXX";
    File_Descriptor const file(mkostemp(name.data(), O_CLOEXEC));
    if (!file)
        return false;
    path = name;
    return write_all(file.get(), script.data(), script.size()) == 0;
}

/** The shell's command line; the runner takes it apart as a shell would. */
std::string command_line(std::string const& path, bool strict) {
    std::string const quoted = "'" + boost::replace_all_copy(path, "'", "'\\''") + "'";
    return std::string("/bin/sh ") + (strict ? "-e " : "") + quoted;
}

} // namespace

bool execute_script(std::string const& script, bool strict,
                    std::shared_ptr<ACE_Log_Msg_Callback> log_callback) {
    if (script.empty())
        return true;
    if (script.find('\0') != std::string::npos) {
        QMRT_LOG(LM_ERROR, "A job's script has a NUL in it and cannot be run\n");
        return false;
    }
    std::string path;
    Scoped_Deleter const cleanup([&] {
        if (!path.empty())
            unlink(path.c_str());
    });
    if (!write_script(script, path)) {
        QMRT_LOG(LM_ERROR, "Failed to write a job's script to a file, errno=%d, %m\n", errno);
        return false;
    }
    ACE_Process_Options options(true, 1024 + PATH_MAX, 16384, 512, 128);
    options.handle_inheritance(0);
    // each says itself what went wrong
    return set_process_env(options, "LC_ALL", "C") &&
           set_command_line(options, "%s", command_line(path, strict).c_str()) &&
           subprocess::call_unlimited(options, std::move(log_callback)) == 0;
}
