#include "tests/support/postgres_server.h"

#include "host/process/password_file_entry.h"
#include "qmrt/file.h"

#include <csignal>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** Where Debian keeps the server's programs: one directory for each release. */
std::string find_programs() {
    for (auto const& entry : std::filesystem::directory_iterator("/usr/lib/postgresql"))
        if (std::filesystem::exists(entry.path() / "bin/postgres"))
            return entry.path() / "bin";
    throw std::runtime_error("no PostgreSQL server is installed");
}

std::string find_user() {
    Password_File_Entry user;
    if (geteuid() == 0)
        return "postgres";
    if (user.get_by_uid(geteuid()) == -1)
        throw std::runtime_error("the test's user has no name");
    return user.name();
}

} // namespace

Postgres_Server::Postgres_Server(std::string const& program)
    : bin_(find_programs()),
      program_(program.empty() ? bin_ + "/postgres" : program),
      os_user_(find_user()) {
    if (!program.empty())
        std::filesystem::create_symlink(bin_ + "/postgres", program_);
    chmod(files_.path().c_str(), 0755);
    std::filesystem::create_symlink(bin_ + "/psql", files_.path("gsql"));
    std::filesystem::create_directory(data());
    files_.write("log", "");
    if (chown_r(files_.path().c_str(), os_user_.c_str()) == -1)
        throw std::runtime_error("chown for PostgreSQL");
    if (Server_Child::run({bin_ + "/initdb", "--no-sync", "--auth=trust", "--username=postgres",
                           "--encoding=UTF8", "--locale=C", "-D", data()},
                          geteuid() == 0 ? os_user_ : "", log()) != 0)
        throw std::runtime_error("initdb: " + files_.read("log"));
    files_.write("data/pg_hba.conf", "local all postgres trust\n"
                                     "host all postgres 127.0.0.1/32 trust\n"
                                     "local all all scram-sha-256\n"
                                     "host all all 127.0.0.1/32 scram-sha-256\n");
    // a free port may be taken by another meanwhile
    for (int attempts = 5; !server_ && attempts > 0; --attempts)
        start();
    if (!server_)
        throw std::runtime_error("postgres: " + files_.read("log"));
}

void Postgres_Server::start() {
    port_ = Server_Child::free_port();
    auto server = std::make_unique<Server_Child>(
        std::vector<std::string>{program_, "-D", data(), "-p", std::to_string(port_), "-k",
                                 directory(), "-c", "listen_addresses=127.0.0.1", "-c", "fsync=off",
                                 "-c", "shared_buffers=1MB"},
        geteuid() == 0 ? os_user_ : "", log(), SIGINT);
    while (server->running()) {
        if (Server_Child::run({bin_ + "/pg_isready", "-q", "-h", directory(), "-p",
                               std::to_string(port_), "-d", "postgres", "-U", "postgres"},
                              "", log()) == 0) {
            server_ = std::move(server);
            return;
        }
        usleep(10000);
    }
}

void Postgres_Server::run(std::string const& sql) const {
    if (Server_Child::run({bin_ + "/psql", "-h", directory(), "-p", std::to_string(port_), "-U",
                           "postgres", "-d", "postgres", "-v", "ON_ERROR_STOP=1", "-qXc", sql},
                          "", log()) != 0)
        throw std::runtime_error(sql + ": " + files_.read("log"));
}
