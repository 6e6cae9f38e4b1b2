#include "agent/service/ssh_host_key.h"

#include "host/process/password_file_entry.h"
#include "host/process/process_options.h"
#include "host/process/subprocess.h"
#include "qmrt/file.h"
#include "qmrt/guarded_file.h"
#include "qmrt/names.h"
#include "qmrt/path.h"
#include "qmrt/scoped_deleter.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// what is ours comes before the caller's options: of an option given twice ssh takes the first
constexpr char NO_LOGIN[] = "ssh -o BatchMode=yes -o PreferredAuthentications=none "
                            "-o ControlMaster=no -o ControlPath=none -o UpdateHostKeys=no "
                            "-o ConnectTimeout=10 ";
constexpr uint64_t MAX_KNOWN_HOSTS = 16 * 1024 * 1024;
constexpr char const* STATES[] = {"known", "unknown", "changed", "unreachable"};

/** All that a program prints, whatever it ends with. */
std::string output_of(std::string const& command) {
    constexpr int LINE_SIZE = 16384;
    ACE_Process_Options options(true, LINE_SIZE, 16384, 512, 128);
    std::string output;
    if (!set_process_env(options, "LC_ALL", "C") ||
        !set_command_line(options, "%s", command.c_str()))
        return "";
    options.handle_inheritance(0);
    (void)subprocess::spawn_output(options, output, true);
    return output;
}

bool has(std::string const& text, char const* part) {
    return text.find(part) != std::string::npos;
}

Ssh_Host_Key::State state_of(std::string const& address, std::string const& options) {
    std::string const said = output_of(std::string(NO_LOGIN) + "-o StrictHostKeyChecking=yes " +
                                       options + " " + address + " true");
    if (has(said, "REMOTE HOST IDENTIFICATION HAS CHANGED"))
        return Ssh_Host_Key::CHANGED;
    if (has(said, "Host key verification failed"))
        return Ssh_Host_Key::UNKNOWN;
    return has(said, "Permission denied") || said.empty() ? Ssh_Host_Key::KNOWN
                                                          : Ssh_Host_Key::UNREACHABLE;
}

/** Lets ssh itself write the key down, so that name and algorithm are those of its next login. */
bool fetch(std::string const& address, std::string const& options, Ssh_Host_Key& key) {
    char directory[] = "/tmp/zenbrak3-host-key-XXXXXX";
    if (!mkdtemp(directory))
        return false;
    Scoped_Deleter const remove([&] { rm_rf(directory); });
    std::string const file = std::string(directory) + "/key";
    output_of(std::string(NO_LOGIN) + "-o StrictHostKeyChecking=accept-new -o HashKnownHosts=no " +
              "-o GlobalKnownHostsFile=none -o UserKnownHostsFile=" + file + " " + options + " " +
              address + " true");
    if (read_guarded(file.c_str(), key.line, {.max_size = MAX_KNOWN_HOSTS}) == -1)
        return false;
    // "256 SHA256:... HOST (ED25519)"
    std::istringstream words(output_of("ssh-keygen -l -f " + file));
    std::string bits, host;
    words >> bits >> key.fingerprint >> host >> key.type;
    if (key.type.size() > 2)
        key.type = key.type.substr(1, key.type.size() - 2);
    return key.fingerprint.starts_with("SHA256:") && key.line.ends_with('\n');
}

/** The file to which ssh itself would add the key; "" if that is unknown. */
std::string known_hosts(std::string const& address, std::string const& options) {
    std::istringstream lines(output_of("ssh -G " + options + " " + address));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name, file;
        if (!(words >> name >> file) || name != "userknownhostsfile")
            continue;
        Password_File_Entry user;
        if (file.starts_with("~/") && user.get_by_uid(geteuid()) == 0)
            file = user.home() + file.substr(1);
        return file.starts_with('/') && file != "/dev/null" ? file : "";
    }
    return "";
}

/** Adds a line to the end, behind a line break if that is missing. */
bool append(std::string const& path, std::string const& line) {
    std::string before;
    if (read_guarded(path.c_str(), before, {.max_size = MAX_KNOWN_HOSTS}) == -1 && errno != ENOENT)
        return false;
    std::string const text = (before.empty() || before.ends_with('\n') ? "" : "\n") + line;
    std::error_code ignored;
    std::filesystem::path const directory = std::filesystem::path(path).parent_path();
    if (!std::filesystem::exists(directory, ignored) && mkdir(directory.c_str(), 0700) == -1)
        return false;
    File_Descriptor const file(
        open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0600));
    return file && write_all(file.get(), text.data(), text.size()) == 0 && fsync(file.get()) == 0;
}

} // namespace

json_spirit::Object Ssh_Host_Key::dump() const {
    return {{"state", STATES[state]}, {"type", type}, {"fingerprint", fingerprint}};
}

Ssh_Host_Key find_ssh_host_key(std::string const& address, std::string const& options) {
    Ssh_Host_Key key;
    key.state = state_of(address, options);
    if (key.state == Ssh_Host_Key::UNKNOWN && !fetch(address, options, key))
        key.state = Ssh_Host_Key::UNREACHABLE;
    return key;
}

bool trust_ssh_host_key(std::string const& address, std::string const& options,
                        Ssh_Host_Key const& key, std::string const& fingerprint,
                        std::string& error) {
    if (key.state != Ssh_Host_Key::UNKNOWN || key.fingerprint != fingerprint) {
        error = "the host key of " + address + " is " + key.fingerprint + ", and not " +
                names::shown(fingerprint) + "; nothing was changed";
        return false;
    }
    std::string const file = known_hosts(address, options);
    if (!file.empty() && append(file, key.line))
        return true;
    error = "cannot add the host key of " + address + " to '" + file +
            "': " + (file.empty() ? "no file is configured" : std::strerror(errno));
    return false;
}
