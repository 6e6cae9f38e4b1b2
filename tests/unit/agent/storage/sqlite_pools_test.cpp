#include "agent/storage/sqlite_pools.h"

#include "agent/storage/pool_path.h"

#include "tests/support/agent_database.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class SQLite_Pools_Test : public testing::Test {
protected:
    /** A directory for a pool, and its URL. */
    std::string directory(std::string const& name) {
        std::filesystem::create_directories(database_.directory().path(name));
        return url(name);
    }
    std::string url(std::string const& name) const {
        return url_of_pool_path(database_.directory().path(name));
    }
    Storage_Result create(Pool_Settings const& settings) {
        record_ = Pool_Record();
        return pools_.create(settings, record_);
    }
    /** The creation must be refused with those words, and leave the record as it is. */
    void expect_refused(Pool_Settings const& settings, std::string const& words) {
        std::string const before = names();
        Storage_Result const result = create(settings);
        EXPECT_FALSE(result);
        EXPECT_NE(std::string::npos, result.text().find(words)) << result.text();
        EXPECT_EQ("", record_.uuid);
        EXPECT_EQ(before, names());
    }
    std::string names() {
        std::vector<Pool_Record> records;
        EXPECT_TRUE(pools_.list(records));
        std::string text;
        for (Pool_Record const& record : records)
            text += record.name + " ";
        return text;
    }
    static Pool_Settings settings(std::string const& name, std::string const& pool_url) {
        Pool_Settings made;
        made.name = name;
        made.url = pool_url;
        return made;
    }

    Test_Database database_{{POOL_TABLES}};
    std::vector<Resource_Usage> usage_;
    bool usage_known_ = true;
    SQLite_Pools pools_{*database_, [this](std::string const&, std::vector<Resource_Usage>& usage) {
                            usage = usage_;
                            return usage_known_;
                        }};
    Pool_Record record_;
};

TEST_F(SQLite_Pools_Test, a_new_pool_is_closed_to_others) {
    std::string const made = directory("p");
    std::string const path = database_.directory().path("p");
    ASSERT_EQ(0, chmod(path.c_str(), 0775));
    ASSERT_TRUE(create(settings("p", made)));
    struct stat status;
    ASSERT_EQ(0, stat(path.c_str(), &status));
    EXPECT_EQ(0711u, status.st_mode & 07777);
    ASSERT_EQ(0, chmod(path.c_str(), 02770));
    Pool_Settings wanted;
    wanted.separate = true;
    ASSERT_TRUE(pools_.update("p", wanted, record_));
    ASSERT_EQ(0, stat(path.c_str(), &status));
    EXPECT_EQ(0711u, status.st_mode & 07777);
}

TEST_F(SQLite_Pools_Test, a_directory_that_is_used_or_can_be_replaced_is_no_pool) {
    database_.directory().write("used/notes.txt", "x");
    expect_refused(settings("a", url("used")), "has something else in it, notes.txt");
    database_.directory().write("again/6f9619ff-8b86-4011-b42d-00c04fc964ff/x", "x");
    EXPECT_TRUE(create(settings("b", url("again"))));
    std::string const open = directory("open/pool");
    ASSERT_EQ(0, chmod(database_.directory().path("open").c_str(), 0777));
    expect_refused(settings("c", open), "could be replaced by other users");
    if (geteuid() != 0)
        return; // only root can give files away
    ASSERT_EQ(0, chmod(database_.directory().path("open").c_str(), 0755));
    ASSERT_EQ(0, chown(database_.directory().path("open").c_str(), 12345, 0));
    expect_refused(settings("c", open), "could be replaced by the user #12345");
    struct stat status;
    ASSERT_EQ(0, stat(database_.directory().path("used").c_str(), &status));
    EXPECT_NE(0711u, status.st_mode & 07777);
}

TEST_F(SQLite_Pools_Test, a_pool_is_found_by_what_it_was_made_with) {
    Pool_Settings wanted = settings("my pool", directory("a b"));
    wanted.compression = "zstd";
    wanted.compression_level = 19;
    wanted.limit = INT64_MAX;
    ASSERT_TRUE(create(wanted));
    database_.reopen();
    SQLite_Pools again(*database_, nullptr);
    Pool_Info info;
    ASSERT_TRUE(again.find(record_.uuid, info));
    EXPECT_EQ("my pool", info.name);
    EXPECT_EQ(url("a b"), info.url);
    EXPECT_EQ(COMPR_ZSTD, info.compression_method);
    EXPECT_EQ(19, info.compression_level);
    EXPECT_FALSE(info.read_only);
    Pool_Record found;
    for (std::string const& pool : {record_.uuid, std::string("my pool")}) {
        ASSERT_TRUE(again.find_record(pool, found));
        EXPECT_EQ(uint64_t{INT64_MAX}, found.limit);
    }
    ASSERT_TRUE(again.find_by_path(database_.directory().path("a b"), found));
    EXPECT_EQ(record_.uuid, found.uuid);
}

TEST_F(SQLite_Pools_Test, what_is_not_on_record_is_not_found) {
    Pool_Info info;
    Pool_Record record;
    EXPECT_EQ(Storage_Result::NOT_FOUND, pools_.find("x", info).code());
    EXPECT_EQ(Storage_Result::NOT_FOUND,
              pools_.find_record("'; drop table pool; --", record).code());
    EXPECT_EQ(Storage_Result::NOT_FOUND, pools_.find_by_path("/", record).code());
    EXPECT_EQ(Storage_Result::NOT_FOUND, pools_.update("x", {}, record).code());
    EXPECT_EQ(Storage_Result::NOT_FOUND, pools_.remove("x").code());
    ASSERT_TRUE(create(settings("a", directory("a"))));
    EXPECT_EQ(Storage_Result::NOT_FOUND, pools_.find("a", info).code()) << "by uuid alone";
}

TEST_F(SQLite_Pools_Test, names_are_unique_single_lines_that_are_no_uuids) {
    ASSERT_TRUE(create(settings("a", directory("a"))));
    expect_refused(settings("a", directory("b")), "there is a pool a already");
    for (std::string const& name : {std::string(), std::string("x\ny"), std::string("\xff"),
                                    std::string(256, 'n'), std::string("x\0y", 3)})
        expect_refused(settings(name, directory("b")), "invalid pool name");
    expect_refused(settings(record_.uuid.empty() ? "00000000-0000-0000-0000-000000000001" : "",
                            directory("b")),
                   "looks like an id");
    expect_refused({}, "needs a name and a URL");
}

TEST_F(SQLite_Pools_Test, the_place_is_a_directory_that_is_there_and_can_be_written) {
    database_.directory().write("file", "x");
    expect_refused(settings("a", "http://host/a"), "only file:// URLs");
    expect_refused(settings("a", "a"), "invalid URL");
    expect_refused(settings("a", url("missing")), "No such file or directory");
    expect_refused(settings("a", url("file")), "is no directory");
    expect_refused(settings("a", "file:///"), "the root directory");
    expect_refused(settings("a", "file:///proc"), "cannot be written");
    Pool_Settings archive = settings("a", "file:///proc/sys");
    archive.read_only = true;
    EXPECT_TRUE(create(archive)) << "nothing is written to a pool that is read-only";
    ASSERT_TRUE(create(settings("b", directory("b"))));
    EXPECT_TRUE(std::filesystem::is_empty(database_.directory().path("b")));
}

TEST_F(SQLite_Pools_Test, no_pool_is_within_another_whatever_links_lead_there) {
    ASSERT_TRUE(create(settings("a", directory("x/a"))));
    directory("x/a/inner");
    directory("x/ab");
    expect_refused(settings("b", url("x/a")), "that of pool a");
    expect_refused(settings("b", url("x/a/inner")), "that of pool a");
    expect_refused(settings("b", url("x")), "that of pool a");
    std::filesystem::create_directory_symlink(database_.directory().path("x"),
                                              database_.directory().path("link"));
    expect_refused(settings("b", url("link/a/inner")), "that of pool a");
    expect_refused(settings("b", url("link")), "that of pool a");
    EXPECT_TRUE(create(settings("b", url("x/ab"))));
}

TEST_F(SQLite_Pools_Test, compressions_levels_and_limits_are_checked) {
    Pool_Settings wanted = settings("a", directory("a"));
    wanted.compression = "gzip";
    expect_refused(wanted, "there is no compression gzip");
    wanted.compression = "lzop";
    wanted.compression_level = 10;
    expect_refused(wanted, "0 to 9");
    wanted.compression_level = -1;
    expect_refused(wanted, "out of range");
    wanted.compression_level = int64_t{1} << 40;
    expect_refused(wanted, "out of range");
    wanted.compression_level = 9;
    wanted.limit = -1;
    expect_refused(wanted, "number of bytes");
    wanted.limit = 0;
    EXPECT_TRUE(create(wanted));
}

TEST_F(SQLite_Pools_Test, an_update_changes_what_it_names) {
    Pool_Settings wanted = settings("a", directory("a"));
    wanted.compression = "zstd";
    wanted.compression_level = 5;
    ASSERT_TRUE(create(wanted));
    Pool_Settings change;
    change.limit = 100;
    change.name = "renamed";
    Pool_Record changed;
    ASSERT_TRUE(pools_.update("a", change, changed));
    EXPECT_EQ(record_.uuid, changed.uuid);
    EXPECT_EQ(100u, changed.limit);
    EXPECT_EQ(5, changed.compression_level);
    change = {};
    change.compression = "none";
    change.url = directory("moved");
    ASSERT_TRUE(pools_.update(record_.uuid, change, changed));
    EXPECT_EQ(0, changed.compression_level);
    EXPECT_EQ(database_.directory().path("moved"), changed.path);
    EXPECT_EQ("renamed ", names());
}

TEST_F(SQLite_Pools_Test, an_update_that_cannot_be_changes_nothing) {
    ASSERT_TRUE(create(settings("a", directory("a"))));
    ASSERT_TRUE(create(settings("b", directory("b"))));
    Pool_Settings change;
    change.limit = 7;
    change.url = url("a");
    Pool_Record changed;
    EXPECT_EQ(Storage_Result::EXISTS, pools_.update("b", change, changed).code());
    ASSERT_TRUE(pools_.find_record("b", changed));
    EXPECT_EQ(0u, changed.limit);
}

TEST_F(SQLite_Pools_Test, a_pool_whose_directory_is_away_can_still_be_changed) {
    ASSERT_TRUE(create(settings("a", directory("a"))));
    std::filesystem::remove(database_.directory().path("a"));
    Pool_Settings change;
    change.limit = 7;
    Pool_Record changed;
    EXPECT_TRUE(pools_.update("a", change, changed));
    change.url = url("also missing");
    EXPECT_FALSE(pools_.update("a", change, changed));
}

TEST_F(SQLite_Pools_Test, a_pool_with_sets_cannot_be_removed) {
    ASSERT_TRUE(create(settings("a", directory("a"))));
    usage_ = {{"r", 10, 2}, {"s", 5, 1}};
    Storage_Result const result = pools_.remove("a");
    EXPECT_EQ("pool a has 3 backup sets; remove them first", result.text());
    usage_known_ = false;
    EXPECT_EQ(Storage_Result::UNREACHABLE, pools_.remove("a").code());
    usage_known_ = true;
    usage_.clear();
    EXPECT_TRUE(pools_.remove("a"));
    EXPECT_EQ("", names());
    EXPECT_TRUE(std::filesystem::exists(database_.directory().path("a")));
}

} // namespace
