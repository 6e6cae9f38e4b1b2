#ifndef AGENT_DATABASE_AGENT_DATABASE_H
#define AGENT_DATABASE_AGENT_DATABASE_H

#include "host/storage/storage_clock.h"
#include "qmrt/log.h"

#include <SQLiteCpp/SQLiteCpp.h>

#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/** How long work goes on that fails for a cause that may pass: a busy file, a full disk. */
struct Database_Patience {
    /** For so many seconds work that failed is done again, once a second; 0: never. */
    int retry_seconds = 0;
    /** How many seconds another program may hold the file; -1 leaves the usual 10. */
    int busy_seconds = -1;
    Storage_Clock* clock = &Storage_Clock::system(); ///< by which is waited
};

/**
 * The agent's one SQLite file: catalog, instances, accounts, pools, definitions and runs.
 *
 * It is in WAL mode with foreign keys on and synchronous=FULL, so that a change that succeeded is
 * still there after a power cut. There is one connection, and one thread at a time uses it; every
 * operation may be called on any thread, but not from within another one's work.
 *
 * The file's application_id says that it is ours, and its user_version how many migrations it has
 * seen.
 */
class Agent_Database {
public:
    /** "zb3a": the application_id of our files. */
    static constexpr int APPLICATION_ID = 0x7a623361;

    /**
     * Opens the file, or makes it with mode 0600, and applies the migrations that it has not seen,
     * all or none.
     * @param migrations  SQL scripts, the oldest first; only ever added to
     * @param error       when null is returned: what is wrong with the file and what to do. A file
     *                    that is damaged, of a newer version or not ours is left as it is.
     */
    static std::unique_ptr<Agent_Database>
    open(std::string const& path, std::vector<std::string> const& migrations, std::string& error);

    /**
     * Reads: calls @a work(SQLite::Database&), which returns bool.
     * @param purpose   for the error line: "list the pools"
     * @param patience  with it, @a work may be called again after it threw; others have their turn
     *                  in between, and a warning line tells of it
     * @return what @a work returns; false, with an error line, when it throws
     */
    template <typename Work>
    [[nodiscard]] bool read(char const* purpose, Work work, Database_Patience const& patience = {});

    /**
     * The same in one transaction: true commits, false and an exception leave everything as it was.
     * True is returned only when the change is on stable storage.
     */
    template <typename Work>
    [[nodiscard]] bool change(char const* purpose, Work work,
                              Database_Patience const& patience = {});

    /** @return what SQLite's integrity and foreign key checks complain of, a line each */
    std::vector<std::string> check();

    std::string const& path() const { return path_; }

private:
    Agent_Database(std::string path, int flags);
    void migrate(std::vector<std::string> const& migrations);
    /** How one attempt ended. */
    enum class Outcome { DONE, FAILED, AGAIN };
    template <typename Work>
    Outcome attempt(Work& work, Database_Patience const& patience, std::string& fault);
    /** Logs the fault. @return true, after a wait, when the work is worth doing again */
    [[nodiscard]] static bool wait_for_better(char const* purpose, std::string const& fault,
                                              bool may_pass, int64_t start,
                                              Database_Patience const& patience);
    [[nodiscard]] static bool may_pass(std::exception const& fault);
    void busy_seconds(int seconds);

    std::string const path_;
    std::mutex mutex_;
    SQLite::Database database_;
};

template <typename Work>
Agent_Database::Outcome Agent_Database::attempt(Work& work, Database_Patience const& patience,
                                                std::string& fault) {
    std::lock_guard const guard(mutex_);
    try {
        busy_seconds(patience.busy_seconds);
        return work(database_) ? Outcome::DONE : Outcome::FAILED;
    } catch (std::exception const& exception) {
        fault = exception.what();
        return may_pass(exception) ? Outcome::AGAIN : Outcome::FAILED;
    }
}

template <typename Work>
bool Agent_Database::read(char const* purpose, Work work, Database_Patience const& patience) {
    int64_t const start = patience.clock->steady_ns();
    for (;;) {
        std::string fault;
        Outcome const outcome = attempt(work, patience, fault);
        if (outcome == Outcome::DONE)
            return true;
        if (fault.empty() ||
            !wait_for_better(purpose, fault, outcome == Outcome::AGAIN, start, patience))
            return false;
    }
}

template <typename Work>
bool Agent_Database::change(char const* purpose, Work work, Database_Patience const& patience) {
    auto const in_transaction = [&work](SQLite::Database& database) {
        SQLite::Transaction transaction(database, SQLite::TransactionBehavior::IMMEDIATE);
        if (!work(database))
            return false;
        transaction.commit();
        return true;
    };
    return read(purpose, in_transaction, patience);
}

#endif
