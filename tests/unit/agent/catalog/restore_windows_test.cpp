#include "agent/catalog/restore_windows.h"

#include "json_spirit/access.h"
#include "qmrt/posix_time.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;

class Restore_Windows_Test : public testing::Test {
protected:
    Object& add(std::string const& uuid, std::string const& type) {
        rows_.emplace_back(Object{{"uuid", uuid},
                                  {"type", type},
                                  {"timeline", "t-1"},
                                  {"incarnation", "full"},
                                  {"pool_uuid", "pool-1"},
                                  {"backup_id", "id of " + uuid}});
        return rows_.back().get_obj();
    }
    Object& base(std::string const& uuid, std::string const& type, time_t begin, time_t end) {
        Object& row = add(uuid, type);
        row["platform_begin_time"] = std::string(POSIX_Time_To_ISO8601(begin));
        row["platform_end_time"] = std::string(POSIX_Time_To_ISO8601(end));
        row["begin_time"] = 7; // what nobody is to take for a time
        row["end_time"] = 8;
        return row;
    }
    Object& log(std::string const& uuid, int64_t begin, int64_t end) {
        Object& row = add(uuid, "log");
        row["begin_time"] = begin;
        row["end_time"] = end;
        return row;
    }
    /** A full backup that ends at 100, and log from 90 to 200, and from 200 to 300. */
    void usual() {
        base("full", "full", 50, 100);
        log("log1", 90, 200);
        log("log2", 200, 300);
    }
    std::string windows() const {
        std::string text;
        for (Restore_Window const& window : restore_windows(rows_))
            text += (text.empty() ? "" : " ") + std::to_string(window.from) + "-" +
                    std::to_string(window.until);
        return text;
    }
    /** The sets for a time, and the one whose key is used. */
    std::string sets(time_t time) const {
        Restore_Point point;
        if (!find_restore_point(rows_, time, point))
            return "none";
        std::string text;
        for (Object const& set : point.sets)
            text += json_spirit::object_get_str(set, "uuid") + " ";
        return text + "by " + json_spirit::object_get_str(point.set, "uuid");
    }

    Array rows_;
};

TEST_F(Restore_Windows_Test, a_base_with_log_behind_it_makes_a_window) {
    usual();
    EXPECT_EQ("100-300", windows());
    EXPECT_EQ("full log1 by log1", sets(100));
    EXPECT_EQ("full log1 by log1", sets(200));
    EXPECT_EQ("full log1 log2 by log2", sets(201));
    EXPECT_EQ("full log1 log2 by log2", sets(300));
    EXPECT_EQ("none", sets(99));
    EXPECT_EQ("none", sets(301));
    EXPECT_EQ("none", sets(0));
}

TEST_F(Restore_Windows_Test, nothing_makes_no_window) {
    EXPECT_EQ("", windows());
    EXPECT_EQ("none", sets(100));
    base("full", "full", 50, 100);
    EXPECT_EQ("", windows()) << "the backup itself can be restored, and no time";
    EXPECT_EQ("none", sets(100));
    rows_.clear();
    log("log1", 90, 200);
    EXPECT_EQ("", windows());
    EXPECT_EQ("none", sets(150));
}

TEST_F(Restore_Windows_Test, the_order_of_rows_does_not_matter) {
    log("log2", 200, 300);
    log("log1", 90, 200);
    base("full", "full", 50, 100);
    EXPECT_EQ("100-300", windows());
    EXPECT_EQ("full log1 log2 by log2", sets(250));
}

TEST_F(Restore_Windows_Test, a_gap_in_the_log_ends_a_window) {
    base("full", "full", 50, 100);
    log("log1", 90, 200);
    log("log3", 202, 300);
    EXPECT_EQ("100-200", windows());
    EXPECT_EQ("none", sets(250));
    log("log2", 201, 202);
    EXPECT_EQ("100-300", windows()) << "a second between two is none that was missed";
}

TEST_F(Restore_Windows_Test, log_that_begins_behind_the_base_makes_none) {
    base("full", "full", 50, 100);
    log("log1", 102, 200);
    EXPECT_EQ("", windows());
}

TEST_F(Restore_Windows_Test, log_from_before_the_base_is_not_read) {
    usual();
    log("log0", 10, 90);
    EXPECT_EQ("full log1 by log1", sets(150));
}

TEST_F(Restore_Windows_Test, a_differential_saves_log_and_needs_its_full_one) {
    usual();
    base("diff", "incremental", 210, 220);
    EXPECT_EQ("full log1 by log1", sets(150));
    EXPECT_EQ("full diff log2 by log2", sets(250));
    rows_.erase(rows_.begin());
    EXPECT_EQ("", windows()) << "the differential one is of no use alone";
    EXPECT_EQ("none", sets(250));
}

TEST_F(Restore_Windows_Test, a_later_full_one_of_the_timeline_goes_on) {
    usual();
    base("full2", "full", 310, 320)["incarnation"] = "full2";
    log("log3", 300, 400)["incarnation"] = "full2";
    EXPECT_EQ("100-400", windows());
    EXPECT_EQ("full log1 log2 log3 by log3", sets(310)) << "before the end of the new one";
    EXPECT_EQ("full2 log3 by log3", sets(330));
}

TEST_F(Restore_Windows_Test, another_timeline_or_pool_has_windows_of_its_own) {
    usual();
    for (char const* const key : {"timeline", "pool_uuid"}) {
        rows_.resize(3);
        base("other", "full", 500, 600)[key] = "other";
        log("log3", 300, 700);
        EXPECT_EQ("100-700", windows()) << "it has no log of its own";
        EXPECT_EQ("full log1 log2 log3 by log3", sets(650));
        rows_.pop_back();
        log("other log", 600, 700)[key] = "other";
        EXPECT_EQ("100-300 600-700", windows());
        EXPECT_EQ("none", sets(400));
        EXPECT_EQ("other other log by other log", sets(650));
    }
}

TEST_F(Restore_Windows_Test, sets_that_the_platform_does_not_know_do_not_count) {
    usual();
    rows_[2].get_obj()["backup_id"] = "";
    EXPECT_EQ("100-200", windows());
    rows_[1].get_obj().erase("timeline");
    EXPECT_EQ("", windows());
    rows_.emplace_back("no object");
    EXPECT_EQ("", windows());
}

TEST_F(Restore_Windows_Test, the_platforms_own_text_says_when) {
    Object row{{"type", "full"},
               {"begin_time", 5},
               {"end_time", 6},
               {"platform_begin_time", "1970-01-01T08:00:10+0800"},
               {"platform_end_time", "1970-01-01T08:00:20+0800"}};
    EXPECT_EQ(10, times_of_set(row).begin);
    EXPECT_EQ(20, times_of_set(row).end);
    row["platform_end_time"] = "soon";
    EXPECT_EQ(0, times_of_set(row).end);
}

TEST_F(Restore_Windows_Test, only_of_a_log_the_numbers_count) {
    Object row{{"type", "log"}, {"begin_time", 5}, {"end_time", 6}};
    EXPECT_EQ(5, times_of_set(row).begin);
    EXPECT_EQ(6, times_of_set(row).end);
    row["type"] = "incremental";
    EXPECT_EQ(0, times_of_set(row).end);
    row["type"] = "log";
    row["end_time"] = INT64_MAX;
    EXPECT_EQ(0, times_of_set(row).end) << "a file of the database's user says so";
    row["end_time"] = -1;
    EXPECT_EQ(0, times_of_set(row).end);
}

} // namespace
