#include "agent/database/agent_database.h"

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/stat.h>

namespace {

std::vector<std::string> const FIRST = {"CREATE TABLE fruit(name TEXT PRIMARY KEY) STRICT;"};
std::vector<std::string> const SECOND = {FIRST[0], "ALTER TABLE fruit ADD COLUMN colour TEXT;"};

std::string bytes_of(std::string const& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

class Agent_Database_Test : public testing::Test {
protected:
    std::unique_ptr<Agent_Database> open(std::vector<std::string> const& migrations = FIRST) {
        error_.clear();
        return Agent_Database::open(path_, migrations, error_);
    }
    static bool add(Agent_Database& database, char const* fruit) {
        return database.change("add a fruit", [&](SQLite::Database& sql) {
            SQLite::Statement insert(sql, "INSERT INTO fruit(name) VALUES(?)");
            insert.bind(1, fruit);
            return insert.exec() == 1;
        });
    }
    static int count(Agent_Database& database) {
        int rows = -1;
        database.read("count fruit", [&](SQLite::Database& sql) {
            rows = sql.execAndGet("SELECT count(*) FROM fruit").getInt();
            return true;
        });
        return rows;
    }
    /** The file must be refused with those words, and not be touched. */
    void expect_refused(std::vector<std::string> const& migrations, char const* words) {
        std::string const before = bytes_of(path_);
        EXPECT_FALSE(open(migrations));
        EXPECT_NE(std::string::npos, error_.find(words)) << error_;
        EXPECT_NE(std::string::npos, error_.find(path_)) << error_;
        EXPECT_EQ(before, bytes_of(path_));
    }

    Temporary_Directory directory_;
    std::string path_ = directory_.path() + "/agent.db";
    std::string error_;
};

TEST_F(Agent_Database_Test, keeps_what_was_changed_and_belongs_to_its_user_alone) {
    auto database = open();
    ASSERT_TRUE(database) << error_;
    EXPECT_TRUE(add(*database, "plum"));
    database.reset();
    struct stat status;
    ASSERT_EQ(0, stat(path_.c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 0777u);
    database = open();
    ASSERT_TRUE(database) << error_;
    EXPECT_EQ(1, count(*database));
}

TEST_F(Agent_Database_Test, a_change_that_says_no_or_throws_changes_nothing) {
    auto const database = open();
    ASSERT_TRUE(database) << error_;
    EXPECT_FALSE(database->change("say no", [](SQLite::Database& sql) {
        sql.exec("INSERT INTO fruit(name) VALUES('pear')");
        return false;
    }));
    EXPECT_FALSE(database->change("add twice", [](SQLite::Database& sql) {
        sql.exec("INSERT INTO fruit(name) VALUES('pear')");
        sql.exec("INSERT INTO fruit(name) VALUES('pear')");
        return true;
    }));
    EXPECT_LOGGED(LM_ERROR, "The database could not add twice");
    EXPECT_EQ(0, count(*database));
    EXPECT_TRUE(add(*database, "pear"));
}

TEST_F(Agent_Database_Test, migrations_that_are_new_are_applied_and_keep_the_rows) {
    ASSERT_TRUE(add(*open(), "plum"));
    auto const database = open(SECOND);
    ASSERT_TRUE(database) << error_;
    EXPECT_EQ(1, count(*database));
    EXPECT_TRUE(database->read("read the colours", [](SQLite::Database& sql) {
        return sql.execAndGet("SELECT colour FROM fruit").isNull();
    }));
}

TEST_F(Agent_Database_Test, the_version_is_in_the_head_of_the_file_at_once) {
    auto const version = [this] {
        std::ifstream file(path_, std::ios::binary);
        file.seekg(63);
        return file.get();
    };
    {
        auto const database = open();
        ASSERT_TRUE(database) << error_;
        EXPECT_EQ(1, version());
    }
    auto const database = open(SECOND);
    ASSERT_TRUE(database) << error_;
    EXPECT_EQ(2, version());
}

TEST_F(Agent_Database_Test, a_migration_that_fails_leaves_the_version_before) {
    ASSERT_TRUE(add(*open(), "plum"));
    EXPECT_FALSE(open({FIRST[0], "CREATE TABLE stone(size INTEGER);", "no sql at all"}));
    EXPECT_NE("", error_);
    auto const database = open();
    ASSERT_TRUE(database) << error_;
    EXPECT_EQ(1, count(*database));
}

TEST_F(Agent_Database_Test, a_newer_version_is_refused) {
    ASSERT_TRUE(add(*open(SECOND), "plum"));
    expect_refused(FIRST, "its version is 2 and this program knows up to 1");
}

TEST_F(Agent_Database_Test, another_programs_file_is_refused) {
    {
        SQLite::Database other(path_, SQLite::OPEN_READWRITE | SQLite::OPEN_CREATE);
        other.exec("CREATE TABLE theirs(x)");
    }
    expect_refused(FIRST, "another program's file");
}

TEST_F(Agent_Database_Test, what_is_no_database_is_refused) {
    std::ofstream(path_) << std::string(5000, 'x');
    expect_refused(FIRST, "not a database");
}

TEST_F(Agent_Database_Test, a_damaged_file_is_refused) {
    {
        auto const database = open();
        for (int fruit = 0; fruit < 2000; ++fruit)
            ASSERT_TRUE(database->change("fill", [fruit](SQLite::Database& sql) {
                SQLite::Statement insert(sql, "INSERT INTO fruit(name) VALUES(?)");
                insert.bind(1, "a rather long name of a fruit, number " + std::to_string(fruit));
                return insert.exec() == 1;
            }));
    }
    {
        std::fstream file(path_, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(3 * 4096);
        file << std::string(4096 * 3, '\xff');
    }
    expect_refused(FIRST, path_.c_str());
}

TEST_F(Agent_Database_Test, a_directory_and_a_link_in_its_place_are_refused) {
    ASSERT_EQ(0, symlink("/etc/passwd", path_.c_str()));
    EXPECT_FALSE(open());
    EXPECT_NE(std::string::npos, error_.find("Cannot open the database")) << error_;
    ASSERT_EQ(0, unlink(path_.c_str()));
    ASSERT_EQ(0, mkdir(path_.c_str(), 0700));
    EXPECT_FALSE(open());
}

TEST_F(Agent_Database_Test, check_tells_of_rows_that_refer_to_nothing) {
    auto const database = open({"CREATE TABLE tree(id INTEGER PRIMARY KEY);"
                                "CREATE TABLE fruit(tree INTEGER REFERENCES tree(id));"});
    ASSERT_TRUE(database) << error_;
    EXPECT_TRUE(database->check().empty());
    {
        SQLite::Database other(path_, SQLite::OPEN_READWRITE);
        other.exec("INSERT INTO fruit(tree) VALUES(7)");
    }
    ASSERT_EQ(1u, database->check().size());
    EXPECT_NE(std::string::npos, database->check()[0].find("a row of fruit"));
}

} // namespace
