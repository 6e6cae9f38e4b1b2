#include "agent/catalog/sqlite_catalog.h"

#include "agent/catalog/catalog_query.h"
#include "agent/catalog/catalog_tables.h"

#include "tests/contract/catalog_contract.h"
#include "tests/support/agent_database.h"
#include "tests/support/file_size_limit.h"
#include "tests/support/virtual_clock.h"

#include <filesystem>
#include <thread>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

/** A catalog together with its database. */
struct Own_Catalog {
    Test_Database database{{CATALOG_TABLES}};
    SQLite_Catalog catalog{*database};
};

std::shared_ptr<Catalog_Backend> make_catalog() {
    auto const own = std::make_shared<Own_Catalog>();
    return {own, &own->catalog};
}

INSTANTIATE_TEST_SUITE_P(SQLite, Catalog_Contract, testing::Values(make_catalog));

class SQLite_Catalog_Test : public testing::Test {
protected:
    static constexpr Catalog_Limits LIMITS = {-1, -1};
    static constexpr Catalog_Limits NO_RETRY = {-1, 0};

    Array query(std::string const& view, Object const& keys) {
        Value result = Array();
        EXPECT_TRUE(catalog_.get_view(LIMITS, "gaussdb", view, keys, result));
        return result.get_array();
    }
    std::string uuids(Object const& keys, std::string const& view = "catalogs") {
        std::string text;
        Array const rows = query(view, keys);
        for (Object const& row : json_spirit::objects_of(rows))
            text += (text.empty() ? "" : " ") + json_spirit::object_get_str(row, "uuid");
        return text;
    }
    Object row(std::string const& uuid) {
        Array const rows =
            query("catalogs", {{"uuid", uuid}, {"with_pieces", "1"}, {"with_storages", "1"}});
        return rows.empty() ? Object() : rows[0].get_obj();
    }
    void commit(std::string const& uuid, Object const& extra, std::string const& pool = "pool") {
        Contract_Set set(uuid);
        set.extra = extra;
        set.add_storage({pool, 10});
        ASSERT_TRUE(catalog_.commit(LIMITS, set, false));
    }
    /** What is in the catalog, whatever it is. */
    std::string everything() {
        return json_spirit::to_text(query("catalogs", {{"with_pieces", 1}, {"with_storages", 1}}));
    }
    size_t database_size() {
        return std::filesystem::file_size(database_.path()) +
               std::filesystem::file_size(database_.path() + "-wal");
    }

    Test_Database database_{{CATALOG_TABLES}};
    Virtual_Clock clock_;
    SQLite_Catalog catalog_{*database_, clock_};
};

TEST_F(SQLite_Catalog_Test, reopening_shows_all_that_was_changed) {
    Contract_Set open("open");
    open.add_storage({"pool", 1});
    ASSERT_TRUE(catalog_.initialize(LIMITS, open));
    ASSERT_TRUE(catalog_.add_piece(LIMITS, "open", {Object{{"path", "p"}, {"size", 5}}}));
    commit("a", {{"seq", 3}, {"name", "n"}});
    std::string const before = everything() + json_spirit::to_text(row("open"));
    database_.reopen();
    SQLite_Catalog again(*database_);
    Value all, of_open;
    ASSERT_TRUE(again.get_view(LIMITS, "gaussdb", "catalogs",
                               {{"with_pieces", 1}, {"with_storages", 1}}, all));
    ASSERT_TRUE(again.get_view(LIMITS, "gaussdb", "catalogs",
                               {{"uuid", "open"}, {"with_pieces", 1}, {"with_storages", 1}},
                               of_open));
    EXPECT_EQ(before, json_spirit::to_text(all) + json_spirit::to_text(of_open.get_array().at(0)));
    EXPECT_TRUE(again.complete(LIMITS, open));
}

TEST_F(SQLite_Catalog_Test, values_are_equal_in_type_and_over_both_64_bit_ranges) {
    commit("low", {{"seq", INT64_MIN}, {"other", INT64_MIN}});
    commit("high", {{"seq", UINT64_MAX}, {"other", UINT64_MAX}});
    commit("next", {{"seq", UINT64_MAX - 1}, {"other", UINT64_MAX - 1}});
    commit("text", {{"seq", "1"}, {"other", "1"}});
    commit("real", {{"seq", 1.0}, {"other", 1.0}});
    commit("bool", {{"seq", true}, {"other", true}});
    commit("word", {{"seq", "true"}, {"other", "true"}});
    for (char const* const key : {"seq", "other"}) {
        EXPECT_EQ("low", uuids({{key, INT64_MIN}}));
        EXPECT_EQ("high", uuids({{key, UINT64_MAX}}));
        EXPECT_EQ("next", uuids({{key, UINT64_MAX - 1}}));
        EXPECT_EQ("", uuids({{key, 1}}));
        EXPECT_EQ("text", uuids({{key, "1"}}));
        EXPECT_EQ("real", uuids({{key, 1.0}}));
        EXPECT_EQ("bool", uuids({{key, true}}));
        EXPECT_EQ("word", uuids({{key, "true"}}));
        EXPECT_EQ("", uuids({{key, "18446744073709551615"}}));
        EXPECT_EQ("low real text word next high bool", uuids({{"sort", key}}));
    }
}

TEST_F(SQLite_Catalog_Test, a_key_with_and_one_without_a_column_sort_alike) {
    int number = 0;
    for (Value const& value : {Value(), Value(5), Value("x"), Value(-1.5), Value(UINT64_MAX),
                               Value(false), Value(Array{Value(1)}), Value(""), Value(5)})
        commit("s" + std::to_string(number++), {{"seq", value}, {"other", value}});
    EXPECT_EQ(uuids({{"sort", "seq"}}), uuids({{"sort", "other"}}));
    EXPECT_TRUE(uuids({{"sort", "seq"}}).starts_with("s0 s3 s1 s8 "));
    EXPECT_EQ("s3", uuids({{"sort", "seq"}, {"NN_seq", ""}, {"limit", 1}}));
    EXPECT_EQ("s3", uuids({{"sort", "other"}, {"NN_seq", ""}, {"limit", 1}}));
}

TEST_F(SQLite_Catalog_Test, sets_are_found_by_a_table_that_they_list) {
    auto const record = [](char const* uuid, char const* parent, char const* type,
                           char const* name) {
        return Object{{"uuid", uuid}, {"parent_uuid", parent}, {"type", type}, {"name", name}};
    };
    commit("a", {{"tables",
                  Array{record("d", "", "database", "sales"), record("s", "d", "schema", "public"),
                        record("t", "s", "table", "orders")}}});
    commit("b", {{"tables",
                  Array{record("d", "", "database", "shop"), record("s", "d", "schema", "orders"),
                        record("t", "s", "table", "items")}}});
    commit("c", {});
    auto const holding = [&](Array const& path) { return uuids({{"holds_table", path}}); };
    EXPECT_EQ("a", holding({"orders"})) << "a schema is not a table";
    EXPECT_EQ("a", holding({"orders", "public"}));
    EXPECT_EQ("a", holding({"orders", "public", "sales"}));
    EXPECT_EQ("", holding({"orders", "public", "shop"}));
    EXPECT_EQ("", holding({"orders", "sales"})) << "of another level";
    EXPECT_EQ("b", holding({"items", "orders"}));
    EXPECT_EQ("", holding({"%"}));
    EXPECT_EQ(1u, query("catalogs", {{"uuid", "a"}})[0].get_obj().count("tables"));
    EXPECT_EQ(0u, query("catalogs", {{"uuid", "a"}, {"without_tables", "1"}})[0].get_obj().count(
                      "tables"));
}

TEST_F(SQLite_Catalog_Test, equal_sets_come_as_they_were_made) {
    commit("b", {{"seq", 1}});
    commit("a", {{"seq", 1}});
    EXPECT_EQ("b a", uuids({{"sort", "seq"}}));
    EXPECT_EQ("a b", uuids({{"sort", "seq"}, {"order", "desc"}}));
    EXPECT_EQ("a", uuids({{"sort", "seq"}, {"order", "desc"}, {"limit", 1}}));
}

TEST_F(SQLite_Catalog_Test, what_is_asked_for_by_key_is_missing_only_as_null) {
    commit("with", {{"timeline", "t"}, {"extra", 1}});
    commit("without", {});
    EXPECT_EQ("without", uuids({{"timeline", Value()}}));
    EXPECT_EQ("without", uuids({{"extra", Value()}}));
    EXPECT_EQ("", uuids({{"timeline", ""}}));
}

TEST_F(SQLite_Catalog_Test, bytes_that_are_no_text_stay_in_paths_and_are_found_in_rows) {
    Contract_Set set("a");
    set.resource_uuid = "broken \xff byte";
    set.add_piece("file \xfe", 1);
    set.add_piece(std::string("nul \0 inside", 12), 2);
    ASSERT_TRUE(catalog_.initialize(LIMITS, set));
    ASSERT_TRUE(catalog_.complete(LIMITS, set));
    EXPECT_EQ("a", uuids({{"resource_uuid", "broken \xff byte"}}));
    Array const pieces = row("a").at("pieces").get_array();
    ASSERT_EQ(2u, pieces.size());
    EXPECT_EQ("file \xfe", json_spirit::object_get_str(pieces[0].get_obj(), "path"));
    EXPECT_EQ(std::string("nul \0 inside", 12),
              json_spirit::object_get_str(pieces[1].get_obj(), "path"));
}

TEST_F(SQLite_Catalog_Test, sets_that_cannot_be_kept_are_refused_and_change_nothing) {
    Contract_Set nested("a");
    Value deep = 1;
    for (int depth = 0; depth < json_spirit::MAX_DEPTH; ++depth)
        deep = Array{deep};
    nested.extra = {{"deep", deep}};
    EXPECT_FALSE(catalog_.initialize(LIMITS, nested));
    EXPECT_LOGGED(LM_ERROR, "cannot open set \"a\"");
    Contract_Set pathless("b");
    pathless.add_piece("", 1);
    EXPECT_FALSE(catalog_.commit(LIMITS, pathless, true));
    EXPECT_LOGGED(LM_ERROR, "it has a piece without a path");
    Value result = 7;
    EXPECT_FALSE(catalog_.get_view(LIMITS, "gaussdb", "catalogs", {{"name", deep}}, result));
    EXPECT_LOGGED(LM_ERROR, "could not answer a query");
    EXPECT_EQ(Value(7), result);
    EXPECT_EQ("[]", everything());
}

TEST_F(SQLite_Catalog_Test, depends_gives_texts_alone_whether_from_the_index_or_from_the_rows) {
    commit("a", {{"timeline", "true"}, {"backup_id", "late"}, {"backup_start_time", 2}});
    commit("b", {{"timeline", "true"}, {"backup_id", "early"}, {"backup_start_time", 1}});
    commit("c", {{"timeline", "true"}, {"backup_id", 7}});
    commit("d", {{"timeline", "true"}, {"backup_id", ""}});
    commit("e", {{"timeline", "true"}});
    commit("f", {{"timeline", true}, {"backup_id", "of another"}});
    ASSERT_TRUE(catalog_.initialize(LIMITS, [] {
        Contract_Set open("open");
        open.extra = {{"timeline", "true"}, {"backup_id", "open"}};
        return open;
    }()));
    Array const expected = {Value("early"), Value("late")};
    EXPECT_EQ(Value(expected),
              Value(query("depends", {{"resource_uuid", "resource"}, {"timeline", "true"}})));
    EXPECT_EQ(Value(expected), Value(query("depends", {{"timeline", "true"}, {"host", ""}})));
    EXPECT_EQ(Value(Array{Value("of another")}), Value(query("depends", {{"timeline", true}})));
}

TEST_F(SQLite_Catalog_Test, a_chain_has_all_of_its_incarnation_that_came_before) {
    commit("full", {{"backup_key", "k1"}, {"incarnation", "i"}, {"backup_start_time", 10}});
    commit("first of no key",
           {{"backup_key", ""}, {"incarnation", "i"}, {"backup_start_time", 11}});
    commit("second of no key", {{"incarnation", "i"}, {"backup_start_time", 12}});
    commit("of no time",
           {{"backup_key", "k0"}, {"incarnation", "i"}, {"backup_start_time", Value()}});
    commit("middle", {{"backup_key", "k2"},
                      {"prior_backup_key", "k3"},
                      {"incarnation", "i"},
                      {"backup_start_time", 20}});
    commit("later, but built on", {{"backup_key", "k3"},
                                   {"prior_backup_key", "elsewhere"},
                                   {"incarnation", "i"},
                                   {"backup_start_time", 30}});
    commit("other", {{"backup_key", "elsewhere"}, {"incarnation", "j"}, {"backup_start_time", 5}});
    commit("later", {{"backup_key", "k4"}, {"incarnation", "i"}, {"backup_start_time", 40}});
    Object query = {{"resource_uuid", "resource"}, {"backup_key", "k2"}, {"sort", "uuid"}};
    EXPECT_EQ("first of no key full later, but built on middle of no time other second of no key",
              uuids(query, "restore"));
    query["limit"] = 2;
    EXPECT_EQ("first of no key full", uuids(query, "restore"));
}

TEST_F(SQLite_Catalog_Test, of_two_sets_of_one_key_the_later_is_restored) {
    commit("first", {{"backup_key", "k"}, {"incarnation", "i"}});
    commit("second", {{"backup_key", "k"}, {"incarnation", "i"}});
    EXPECT_EQ("second", uuids({{"resource_uuid", "resource"}, {"backup_key", "k"}}, "restore"));
}

TEST_F(SQLite_Catalog_Test, a_restore_overtakes_the_sets_before_it) {
    commit("early", {{"backup_end_time", 10}});
    commit("running", {{"backup_end_time", 0}});
    commit("late", {{"backup_end_time", 20}});
    commit("theirs", {{"backup_end_time", 5}, {"resource_uuid", "other"}});
    ASSERT_TRUE(catalog_.mark_restored("resource", 15));
    ASSERT_TRUE(catalog_.mark_restored("resource", 12)); // of two restores the later counts
    EXPECT_EQ("late theirs", uuids({{"check_restored", true}}));
    EXPECT_EQ("early running late theirs", uuids({{"check_restored", false}}));
    ASSERT_TRUE(catalog_.mark_restored("resource", 20));
    EXPECT_EQ("theirs", uuids({{"check_restored", true}}));
}

TEST_F(SQLite_Catalog_Test, sets_that_were_open_when_the_agent_died_are_dropped_with_what_is_left) {
    Contract_Set set("open");
    set.host_uuid = "this host";
    set.add_storage({"pool", 1});
    set.add_storage({"second", 1});
    set.add_piece("own", 1);
    ASSERT_TRUE(catalog_.initialize(LIMITS, set));
    ASSERT_TRUE(catalog_.add_piece(LIMITS, "open", {Object{{"path", "added"}}}));
    Contract_Set other("other host's");
    other.host_uuid = "another host";
    ASSERT_TRUE(catalog_.initialize(LIMITS, other));
    Contract_Set later("later");
    later.host_uuid = "this host";
    later.backup_start_time = 100;
    ASSERT_TRUE(catalog_.initialize(LIMITS, later));
    commit("complete", {});
    std::vector<Dropped_Set> dropped;
    ASSERT_TRUE(catalog_.abort_open_sets("this host", 100, dropped));
    ASSERT_EQ(1u, dropped.size());
    EXPECT_EQ("open", dropped[0].uuid);
    EXPECT_EQ("gaussdb", dropped[0].kind);
    EXPECT_EQ((std::vector<std::string>{"pool", "second"}), dropped[0].pool_uuids);
    EXPECT_EQ((std::vector<std::string>{"own", "added"}), dropped[0].piece_paths);
    EXPECT_TRUE(row("open").empty());
    EXPECT_FALSE(row("other host's").empty());
    EXPECT_FALSE(row("later").empty());
    EXPECT_EQ("complete", uuids({}));
    ASSERT_TRUE(catalog_.abort_open_sets("this host", 100, dropped));
    EXPECT_TRUE(dropped.empty());
    EXPECT_TRUE(database_->check().empty());
}

TEST_F(SQLite_Catalog_Test, one_open_set_of_a_host_is_dropped) {
    for (char const* const uuid : {"one", "two"}) {
        Contract_Set set(uuid);
        set.host_uuid = "this host";
        ASSERT_TRUE(catalog_.initialize(LIMITS, set));
    }
    commit("complete", {{"host_uuid", "this host"}});
    time_t const any = std::numeric_limits<time_t>::max();
    std::vector<Dropped_Set> dropped;
    ASSERT_TRUE(catalog_.abort_open_sets("another host", any, dropped, "one"));
    ASSERT_TRUE(catalog_.abort_open_sets("this host", any, dropped, "complete"));
    EXPECT_TRUE(dropped.empty());
    ASSERT_TRUE(catalog_.abort_open_sets("this host", any, dropped, "one"));
    ASSERT_EQ(1u, dropped.size());
    EXPECT_EQ("one", dropped[0].uuid);
    EXPECT_TRUE(row("one").empty());
    EXPECT_FALSE(row("two").empty());
    EXPECT_EQ("complete", uuids({}));
}

TEST_F(SQLite_Catalog_Test, who_clears_up_is_told_what_an_aborted_set_had) {
    std::vector<Dropped_Set> told;
    catalog_.on_abort([&](Dropped_Set const& set) { told.push_back(set); });
    Contract_Set set("open");
    set.resource_uuid = "resource";
    set.add_storage({"pool", 1});
    ASSERT_TRUE(catalog_.initialize(LIMITS, set));
    ASSERT_TRUE(catalog_.add_piece(LIMITS, "open", {Object{{"path", "added"}}}));
    Array pieces;
    EXPECT_FALSE(catalog_.abort(LIMITS, "another", pieces));
    EXPECT_LOGGED(LM_ERROR, "The catalog has no open set \"another\"");
    EXPECT_TRUE(told.empty());
    ASSERT_TRUE(catalog_.abort(LIMITS, "open", pieces));
    ASSERT_EQ(1u, told.size());
    EXPECT_EQ("open", told[0].uuid);
    EXPECT_EQ("resource", told[0].resource_uuid);
    EXPECT_EQ(std::vector<std::string>{"pool"}, told[0].pool_uuids);
    EXPECT_EQ(std::vector<std::string>{"added"}, told[0].piece_paths);
    EXPECT_EQ(1u, pieces.size());
}

TEST_F(SQLite_Catalog_Test, uuids_are_found_by_their_beginning) {
    for (char const* const uuid : {"ab1", "ab2", "abc", "b", "a%"})
        commit(uuid, {});
    auto const found = [&](std::string const& beginning, size_t limit = 10) {
        std::vector<std::string> result;
        EXPECT_TRUE(catalog_.find_uuids(beginning, limit, result));
        return result;
    };
    using Texts = std::vector<std::string>;
    EXPECT_EQ((Texts{"ab1", "ab2", "abc"}), found("ab"));
    EXPECT_EQ((Texts{"ab1", "ab2"}), found("ab", 2));
    EXPECT_EQ(Texts{"a%"}, found("a%"));
    EXPECT_EQ(Texts{"b"}, found("b"));
    EXPECT_EQ(Texts{}, found("ab1x"));
    EXPECT_EQ(5u, found("").size());
}

TEST_F(SQLite_Catalog_Test, knows_what_resources_have_in_a_pool) {
    Contract_Set set("a");
    set.add_storage({"pool", 100});
    set.add_storage({"archive", 7, true});
    ASSERT_TRUE(catalog_.initialize(LIMITS, set));
    commit("b", {{"resource_uuid", "other"}});
    commit("c", {{"resource_uuid", "other"}});
    std::vector<Resource_Usage> usage;
    ASSERT_TRUE(catalog_.pool_usage("pool", usage));
    ASSERT_EQ(2u, usage.size());
    EXPECT_EQ("other", usage[0].resource_uuid);
    EXPECT_EQ(20u, usage[0].size);
    EXPECT_EQ(2u, usage[0].sets);
    EXPECT_EQ("resource", usage[1].resource_uuid);
    EXPECT_EQ(100u, usage[1].size);
    ASSERT_TRUE(catalog_.pool_usage("third", usage));
    EXPECT_TRUE(usage.empty());
}

TEST_F(SQLite_Catalog_Test, an_object_is_named_by_a_piece_of_a_complete_set_in_its_pool) {
    Contract_Set set("a");
    set.add_storage({"pool", 1});
    set.add_piece("host/roach/x.mtf", 0);
    set.extra = {{"uri", "resource/dir/"}};
    set.add_piece("data.dat", 0);
    set.add_piece("folder", 0);
    ASSERT_TRUE(catalog_.initialize(LIMITS, set));
    auto const named = [&](std::string const& object, std::string const& pool = "pool") {
        bool result = false;
        EXPECT_TRUE(catalog_.names_object(pool, object, result));
        return result;
    };
    EXPECT_FALSE(named("host/roach/x.mtf")) << "the set is not complete";
    ASSERT_TRUE(catalog_.complete(LIMITS, set));
    for (char const* const object :
         {"host/roach/x.mtf", "host/roach/x.mtf.zst", "resource/dir/data.dat",
          "resource/dir/data.dat.lzo", "resource/dir/folder/deep/file", "folder/file", "data.dat"})
        EXPECT_TRUE(named(object)) << object;
    for (char const* const object :
         {"x.mtf", "host/roach", "roach/x.mtf", "resource/data.dat", "other/dir/data.dat",
          "resource/dir/data.dat2", "resource/dir/folder2", "", "host/roach/x.mtf.gz"})
        EXPECT_FALSE(named(object)) << object;
    EXPECT_FALSE(named("data.dat", "archive"));
}

TEST_F(SQLite_Catalog_Test, a_full_disk_fails_with_an_error_line_and_changes_nothing) {
    Contract_Set set("open");
    ASSERT_TRUE(catalog_.initialize(LIMITS, set));
    std::string const before = everything() + json_spirit::to_text(row("open"));
    {
        File_Size_Limit const full(std::filesystem::file_size(database_.path() + "-wal"));
        EXPECT_FALSE(catalog_.initialize(NO_RETRY, Contract_Set("a")));
        EXPECT_LOGGED(LM_ERROR, "The database could not open a backup set");
        EXPECT_FALSE(catalog_.complete(NO_RETRY, set));
        EXPECT_LOGGED(LM_ERROR, "The database could not complete a backup set");
        EXPECT_FALSE(catalog_.add_piece(NO_RETRY, "open", {Object{{"path", "p"}}}));
        EXPECT_LOGGED(LM_ERROR, "The database could not add pieces");
        Array pieces;
        EXPECT_FALSE(catalog_.abort(NO_RETRY, "open", pieces));
        EXPECT_LOGGED(LM_ERROR, "The database could not abort a backup set");
        EXPECT_EQ(before, everything() + json_spirit::to_text(row("open")));
    }
    EXPECT_TRUE(catalog_.complete(NO_RETRY, set));
    EXPECT_TRUE(database_->check().empty());
}

TEST_F(SQLite_Catalog_Test, a_disk_that_has_room_again_in_time_is_no_failure) {
    ASSERT_TRUE(catalog_.initialize(LIMITS, Contract_Set("open")));
    File_Size_Limit full(std::filesystem::file_size(database_.path() + "-wal"));
    clock_.on_sleep([&](int64_t until) {
        if (until >= 5 * NS_PER_SECOND)
            full.lift();
    });
    EXPECT_TRUE(catalog_.complete({-1, 10}, Contract_Set("open")));
    EXPECT_EQ(5u, Log_Capture::instance().claim_all(
                      LM_WARNING, "The database could not complete a backup set yet"));
    EXPECT_EQ("open", uuids({}));
}

TEST_F(SQLite_Catalog_Test, a_disk_that_stays_full_is_tried_for_as_long_as_was_said) {
    ASSERT_TRUE(catalog_.initialize(LIMITS, Contract_Set("open")));
    File_Size_Limit const full(std::filesystem::file_size(database_.path() + "-wal"));
    EXPECT_FALSE(catalog_.complete({-1, 7}, Contract_Set("open")));
    EXPECT_EQ(7.0, clock_.seconds());
    EXPECT_FALSE(catalog_.complete({-1, -1}, Contract_Set("open")));
    EXPECT_EQ(7.0 + SQLite_Catalog::DEFAULT_RETRY, clock_.seconds());
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, "could not complete a backup set"));
    Log_Capture::instance().claim_all(LM_WARNING, "could not complete a backup set yet");
}

TEST_F(SQLite_Catalog_Test, a_file_that_another_program_holds_is_waited_for) {
    SQLite::Database other(database_.path(), SQLite::OPEN_READWRITE);
    other.exec("BEGIN IMMEDIATE");
    clock_.on_sleep([&](int64_t until) {
        if (until >= 2 * NS_PER_SECOND)
            other.exec("ROLLBACK");
    });
    EXPECT_TRUE(catalog_.commit({0, 3}, Contract_Set("a"), false));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_WARNING, "database is locked"));
}

TEST_F(SQLite_Catalog_Test, what_is_wrong_with_a_call_is_not_tried_again) {
    EXPECT_FALSE(catalog_.complete({-1, 100}, Contract_Set("nobody's")));
    EXPECT_LOGGED(LM_ERROR, "The catalog has no open set \"nobody's\"");
    EXPECT_EQ(0u, clock_.sleeps());
}

TEST_F(SQLite_Catalog_Test, two_threads_write_and_read_at_once) {
    auto const work = [&](std::string const& name) {
        for (int number = 0; number < 50; ++number) {
            std::string const uuid = name + std::to_string(number);
            Contract_Set set(uuid);
            set.resource_uuid = name;
            EXPECT_TRUE(catalog_.initialize(LIMITS, set));
            EXPECT_TRUE(catalog_.add_piece(LIMITS, uuid, {Object{{"path", uuid}}}));
            set.extra = {{"seq", number}};
            EXPECT_TRUE(catalog_.complete(LIMITS, set));
            EXPECT_EQ(
                uuid,
                uuids({{"resource_uuid", name}, {"sort", "seq"}, {"order", "desc"}, {"limit", 1}}));
        }
    };
    std::thread other(work, "b");
    work("a");
    other.join();
    EXPECT_EQ(100u, query("catalogs", {}).size());
}

TEST_F(SQLite_Catalog_Test, what_jobs_ask_is_answered_from_an_index_without_sorting) {
    auto const plan = [&](Object const& keys, bool backup_ids = false) {
        Catalog_Query const asked("gaussdb", keys);
        std::string const select = backup_ids ? asked.backup_ids_sql() : asked.sql();
        std::string text;
        database_->read("explain", [&](SQLite::Database& sql) {
            SQLite::Statement statement(sql, "EXPLAIN QUERY PLAN " + select);
            for (size_t index = 0; index < asked.values().size(); ++index)
                bind(statement, static_cast<int>(index + 1), asked.values()[index]);
            while (statement.executeStep())
                text += statement.getColumn(3).getString() + "\n";
            return true;
        });
        return text;
    };
    Object const latest = {{"resource_uuid", "r"},
                           {"pool_uuid", "p"},
                           {"sort", "backup_end_time"},
                           {"order", "desc"},
                           {"limit", 1}};
    std::pair<Object, char const*> const cases[] = {
        {latest, "backup_set_resource_end"},
        {{{"resource_uuid", "r"}, {"sort", "seq"}, {"order", "desc"}}, "backup_set_resource_seq"},
        {{{"resource_uuid", "r"}, {"backup_key", "k"}, {"order", "desc"}},
         "backup_set_resource_key"},
        {{{"uuid", "u"}}, "sqlite_autoindex_backup_set_1"},
        {{{"sort", "backup_start_time"}, {"order", "desc"}}, "backup_set_start"},
        {{{"instance", "i"}, {"sort", "backup_start_time"}}, "backup_set_instance"}};
    for (auto const& [keys, index] : cases) {
        std::string const text = plan(keys);
        EXPECT_NE(std::string::npos, text.find(index)) << text;
        EXPECT_EQ(std::string::npos, text.find("TEMP B-TREE")) << text;
    }
    EXPECT_NE(std::string::npos, plan({{"resource_uuid", "r"}, {"incarnation", "i"}})
                                     .find("backup_set_resource_incarnation"));
    std::string const depends = plan({{"resource_uuid", "r"}, {"timeline", "t"}}, true);
    EXPECT_NE(std::string::npos, depends.find("COVERING INDEX backup_set_resource_timeline"))
        << depends;
}

} // namespace
