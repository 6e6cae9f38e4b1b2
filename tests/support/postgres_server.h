#ifndef TESTS_SUPPORT_POSTGRES_SERVER_H
#define TESTS_SUPPORT_POSTGRES_SERVER_H

#include "tests/support/server_child.h"
#include "tests/support/temporary_directory.h"

#include <memory>
#include <string>

/**
 * A real PostgreSQL server in a temporary directory, on a free port of the loopback and on a unix
 * socket in directory(). Runs as the user "postgres" when the test is root's, which PostgreSQL does
 * not serve, and as the test's own user otherwise. Gone with all its data at the end.
 *
 * The superuser "postgres" logs on without a password, every other role by password alone.
 */
class Postgres_Server {
public:
    /**
     * Throws when the server is not there or does not start, with its log. The server has the
     * test's environment.
     * @param program  a link of that path is made to the server's program and the server started
     *                 under this name, for those who look at processes; "" for its own
     */
    explicit Postgres_Server(std::string const& program = "");
    ~Postgres_Server() = default;

    unsigned short port() const { return port_; }
    /** Of the socket (PGHOST) and of "gsql", which is psql: to be put on a PATH. */
    std::string directory() const { return files_.path(); }
    /** The data directory. */
    std::string data() const { return files_.path("data"); }
    /** The operating-system user that the server runs as. */
    std::string const& os_user() const { return os_user_; }
    /** The server's process. */
    pid_t pid() const { return server_->pid(); }

    /** Runs statements as the superuser in the database "postgres"; throws when they fail. */
    void run(std::string const& sql) const;

private:
    void start();
    std::string log() const { return files_.path("log"); }

    std::string bin_;
    std::string program_;
    std::string os_user_;
    Temporary_Directory files_;
    unsigned short port_ = 0;
    std::unique_ptr<Server_Child> server_;
};

#endif
