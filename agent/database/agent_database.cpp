#include "agent/database/agent_database.h"

#include "qmrt/format.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

/** What a program outside of the agent holds the file for at most, milliseconds. */
constexpr int BUSY_TIMEOUT = 10000;
/** A day: what a caller may ask for at most. */
constexpr int MAX_BUSY_SECONDS = 86400;

int pragma(SQLite::Database& database, char const* name) {
    return database.execAndGet(std::string("PRAGMA ") + name).getInt();
}

/** Makes the file if there is none, so that it is never anybody else's to read. */
bool make_private(std::string const& path, std::string& error) {
    int const file = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (file < 0) {
        error = "Cannot open the database " + path + ": " + strerror(errno);
        return false;
    }
    close(file);
    return true;
}

} // namespace

Agent_Database::Agent_Database(std::string path, int flags)
    : path_(std::move(path)), database_(path_, flags, BUSY_TIMEOUT) {}

std::unique_ptr<Agent_Database> Agent_Database::open(std::string const& path,
                                                     std::vector<std::string> const& migrations,
                                                     std::string& error) {
    if (!make_private(path, error))
        return nullptr;
    try {
        std::unique_ptr<Agent_Database> database(new Agent_Database(path, SQLite::OPEN_READWRITE));
        database->migrate(migrations);
        return database;
    } catch (std::exception const& fault) {
        error = string_sprintf("Cannot use the database %s: %s", path.c_str(), fault.what());
        return nullptr;
    }
}

void Agent_Database::migrate(std::vector<std::string> const& migrations) {
    // nothing is written before the file is known to be ours
    int const seen = pragma(database_, "user_version");
    int const known = static_cast<int>(migrations.size());
    bool const is_new =
        database_.execAndGet("SELECT count(*) FROM sqlite_master").getInt() == 0 && seen == 0;
    if (!is_new && pragma(database_, "application_id") != APPLICATION_ID)
        throw std::runtime_error("it is another program's file; move it away");
    if (seen > known)
        throw std::runtime_error(
            string_sprintf("its version is %d and this program knows up to %d; install the "
                           "version of the agent that wrote it, or a newer one",
                           seen, known));
    std::string const damage =
        is_new ? "ok" : database_.execAndGet("PRAGMA quick_check(1)").getString();
    if (damage != "ok")
        throw std::runtime_error("it is damaged (" + damage + "); bring it back from a copy");

    if (database_.execAndGet("PRAGMA journal_mode=WAL").getString() != "wal")
        throw std::runtime_error("its file system cannot share memory between processes");
    // enough for the inner pages of a catalog of millions of sets; a small one takes no more than
    // it has
    database_.exec("PRAGMA synchronous=FULL; PRAGMA foreign_keys=ON; PRAGMA cache_size=-32768;");
    if (seen == known && !is_new)
        return;
    SQLite::Transaction transaction(database_, SQLite::TransactionBehavior::IMMEDIATE);
    for (int next = seen; next < known; ++next)
        database_.exec(migrations[static_cast<size_t>(next)]);
    database_.exec(
        string_sprintf("PRAGMA application_id=%d; PRAGMA user_version=%d;", APPLICATION_ID, known));
    transaction.commit();
    // an older package finds the new version in the head of the file, and leaves this one in place
    database_.exec("PRAGMA wal_checkpoint(TRUNCATE)");
}

std::vector<std::string> Agent_Database::check() {
    std::vector<std::string> complaints;
    bool const done = read("check the database", [&](SQLite::Database& database) {
        SQLite::Statement integrity(database, "PRAGMA integrity_check(20)");
        while (integrity.executeStep())
            if (std::string const line = integrity.getColumn(0).getString(); line != "ok")
                complaints.push_back(line);
        SQLite::Statement references(database, "PRAGMA foreign_key_check");
        while (references.executeStep())
            complaints.push_back("a row of " + references.getColumn(0).getString() +
                                 " refers to one of " + references.getColumn(2).getString() +
                                 " that is not there");
        return true;
    });
    if (!done)
        complaints.push_back("the check could not be made; the log says why");
    return complaints;
}

void Agent_Database::busy_seconds(int seconds) {
    database_.setBusyTimeout(seconds < 0 ? BUSY_TIMEOUT
                                         : std::min(seconds, MAX_BUSY_SECONDS) * 1000);
}

bool Agent_Database::may_pass(std::exception const& fault) {
    auto const* const cause = dynamic_cast<SQLite::Exception const*>(&fault);
    if (!cause)
        return false;
    switch (cause->getErrorCode() & 0xff) { // without what an extended code adds
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_FULL:
    case SQLITE_IOERR:
    case SQLITE_NOMEM:
    case SQLITE_PROTOCOL:
        return true;
    default:
        return false;
    }
}

bool Agent_Database::wait_for_better(char const* purpose, std::string const& fault, bool may_pass,
                                     int64_t start, Database_Patience const& patience) {
    int64_t const end = start + patience.retry_seconds * NS_PER_SECOND;
    int64_t const now = patience.clock->steady_ns();
    if (!may_pass || now >= end) {
        QMRT_LOG(LM_ERROR, "The database could not %s: %s\n", purpose, fault.c_str());
        return false;
    }
    QMRT_LOG(LM_WARNING, "The database could not %s yet: %s\n", purpose, fault.c_str());
    patience.clock->sleep_ns(std::min(NS_PER_SECOND, end - now));
    return true;
}
