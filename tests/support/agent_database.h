#ifndef TESTS_SUPPORT_AGENT_DATABASE_H
#define TESTS_SUPPORT_AGENT_DATABASE_H

#include "agent/database/agent_database.h"

#include "tests/support/temporary_directory.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

/** A database of the agent in a directory of its own, with the tables that a test needs. */
class Test_Database {
public:
    explicit Test_Database(std::vector<std::string> tables) : tables_(std::move(tables)) {
        reopen();
    }

    /** As after a restart of the agent. Nobody may use the old one. */
    void reopen() {
        database_.reset();
        std::string error;
        database_ = Agent_Database::open(path(), tables_, error);
        if (!database_)
            throw std::runtime_error(error);
    }
    Agent_Database& operator*() { return *database_; }
    Agent_Database* operator->() { return database_.get(); }
    std::string path() const { return directory_.path("agent.db"); }
    Temporary_Directory const& directory() const { return directory_; }

private:
    Temporary_Directory directory_;
    std::vector<std::string> tables_;
    std::unique_ptr<Agent_Database> database_;
};

#endif
