#include "tests/support/ssh_server.h"

#include "host/process/password_file_entry.h"

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

Ssh_Server::Ssh_Server(std::map<std::string, std::string> const& env, std::string const& banner) {
    Password_File_Entry entry;
    if (entry.get_by_uid(geteuid()) == -1)
        throw std::runtime_error("the test's user has no name");
    user_ = entry.name();
    // compiled into root's sshd, and made by the service that a container does not start
    if (geteuid() == 0)
        mkdir("/run/sshd", 0755);
    make_key("host_key");
    make_key("user_key");
    files_.write("authorized_keys", files_.read("user_key.pub"));
    files_.write("banner", banner);
    std::string config = "ListenAddress 127.0.0.1\nHostKey " + files_.path("host_key") +
                         "\nAuthorizedKeysFile " + files_.path("authorized_keys") +
                         "\nPidFile none\nUsePAM no\nPasswordAuthentication no\n"
                         // the directory is below /tmp, which everybody may write to
                         "StrictModes no\nPermitRootLogin prohibit-password\n"
                         "Subsystem sftp internal-sftp\n";
    if (!banner.empty())
        config += "Banner " + files_.path("banner") + "\n";
    // A shell that sshd starts reads the startup files of its home, and those of a person may do
    // anything: one of them once waited a minute for a lock that a killed session had left.
    mkdir(files_.path("home").c_str(), 0700);
    // the first line of SetEnv is the only one that counts
    config += "SetEnv \"HOME=" + files_.path("home") + "\"";
    for (auto const& [name, value] : env)
        config += " \"" + name + "=" + value + "\"";
    config += "\n";
    files_.write("sshd_config", config);
    for (int attempts = 5; attempts > 0; --attempts)
        if (start())
            return;
    throw std::runtime_error("sshd: " + log());
}

void Ssh_Server::make_key(std::string const& name) {
    if (Server_Child::run(
            {"/usr/bin/ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", files_.path(name)}, "",
            files_.path("log")) != 0)
        throw std::runtime_error("ssh-keygen: " + log());
}

bool Ssh_Server::start() {
    port_ = Server_Child::free_port();
    std::string const port = std::to_string(port_);
    files_.write("known_hosts", "[127.0.0.1]:" + port + " " + files_.read("host_key.pub"));
    files_.write("ssh_config", "Port " + port + "\nUser " + user_ + "\nIdentityFile " +
                                   files_.path("user_key") +
                                   "\nIdentitiesOnly yes\nIdentityAgent none\nBatchMode yes\n"
                                   "StrictHostKeyChecking yes\nUserKnownHostsFile " +
                                   files_.path("known_hosts") +
                                   "\nGlobalKnownHostsFile none\nConnectTimeout 4\n");
    server_ = std::make_unique<Server_Child>(
        std::vector<std::string>{"/usr/sbin/sshd", "-D", "-e", "-f", files_.path("sshd_config"),
                                 "-p", port},
        "", files_.path("log"), SIGTERM);
    while (server_->running()) {
        if (Server_Child::accepts(port_))
            return true;
        usleep(10000);
    }
    return false;
}
