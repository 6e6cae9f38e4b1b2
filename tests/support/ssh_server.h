#ifndef TESTS_SUPPORT_SSH_SERVER_H
#define TESTS_SUPPORT_SSH_SERVER_H

#include "tests/support/server_child.h"
#include "tests/support/temporary_directory.h"

#include <map>
#include <memory>
#include <string>

/**
 * A real sshd on a free port of the loopback, run as the test's user, with a host key, a
 * configuration and a key for that user alone, all in a temporary directory. Nobody's own ssh
 * configuration, keys or known hosts are read or written, and no startup files of their shell.
 */
class Ssh_Server {
public:
    /**
     * @param env     variables of every session, as a login there would have them
     * @param banner  shown at every log-on, on the client's stderr; "" for none
     * Throws when sshd is not there or does not start, with its log.
     */
    explicit Ssh_Server(std::map<std::string, std::string> const& env = {},
                        std::string const& banner = "");

    unsigned short port() const { return port_; }
    /** The host as an address on a command line. */
    std::string address() const { return "127.0.0.1"; }
    /** Options of ssh and scp that reach this server, by its host key, as the test's user. */
    std::string opts() const { return "-F " + files_.path("ssh_config"); }
    /** The same, as far as an instance's record may have them, with a file of known hosts. */
    std::string plain_opts(std::string const& known_hosts) const {
        return "-o Port=" + std::to_string(port_) + " -o User=" + user_ + " -i " +
               files_.path("user_key") + " -o IdentitiesOnly=yes -o GlobalKnownHostsFile=none" +
               " -o UserKnownHostsFile=" + known_hosts;
    }
    /** The public part of its host key. */
    std::string host_key() const { return files_.path("host_key.pub"); }
    /** The line of known_hosts for it. */
    std::string known_host() const { return files_.read("known_hosts"); }
    /** From now on no key logs in. */
    void close_account() const { files_.write("authorized_keys", ""); }
    /** The user that a session is. */
    std::string const& user() const { return user_; }
    pid_t pid() const { return server_->pid(); }
    /** What sshd has logged. */
    std::string log() const { return files_.read("log"); }

private:
    void make_key(std::string const& name);
    bool start();

    std::string user_;
    Temporary_Directory files_;
    unsigned short port_ = 0;
    std::unique_ptr<Server_Child> server_;
};

#endif
