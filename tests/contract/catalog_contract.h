#ifndef TESTS_CONTRACT_CATALOG_CONTRACT_H
#define TESTS_CONTRACT_CATALOG_CONTRACT_H

#include "host/catalog/backup_set.h"
#include "host/catalog/catalog_backend.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/log_capture.h"

#include <functional>
#include <gtest/gtest.h>
#include <memory>

/**
 * What every catalog promises; Catalog_Backend's comments say it in words. To run it on one:
 *
 *     INSTANTIATE_TEST_SUITE_P(Mine, Catalog_Contract, testing::Values([] { return ...; }));
 */
using Catalog_Maker = std::function<std::shared_ptr<Catalog_Backend>()>;

/** A set of kind "gaussdb", or another, with fields of its own. */
class Contract_Set : public Backup_Set {
public:
    explicit Contract_Set(std::string const& id, char const* kind = "gaussdb") : Backup_Set(kind) {
        uuid = id;
        resource_uuid = "resource";
    }
    json_spirit::Object dump() const override {
        json_spirit::Object object = Backup_Set::dump();
        for (auto const& [key, value] : extra)
            object[key] = value;
        return object;
    }
    json_spirit::Object extra;
};

class Catalog_Contract : public testing::TestWithParam<Catalog_Maker> {
protected:
    using Array = json_spirit::Array;
    using Object = json_spirit::Object;
    using Value = json_spirit::Value;

    static constexpr Catalog_Limits LIMITS = {-1, -1};

    std::shared_ptr<Catalog_Backend> const catalog_ = GetParam()();

    /** Rows of a query in the form with "rows". */
    Array rows(char const* view, Object query, char const* type = "gaussdb") {
        query["cmode"] = "rb_orm_rows";
        Value result;
        EXPECT_TRUE(catalog_->get_view(LIMITS, type, view, query, result));
        Array found;
        if (result.type() != json_spirit::obj_type ||
            !json_spirit::object_get(result.get_obj(), "rows", found))
            ADD_FAILURE() << "no rows in " << text_of(result);
        return found;
    }
    /** One text under a key of each row, joined by blanks. */
    static std::string column(Array const& found, std::string const& key) {
        std::string text;
        for (Object const& row : json_spirit::objects_of(found))
            text += (text.empty() ? "" : " ") + json_spirit::object_get_str(row, key);
        return text;
    }
    std::string uuids(char const* view, Object const& query) {
        return column(rows(view, query), "uuid");
    }
    /** The one row that names a set, with all that it has. */
    Object row(std::string const& uuid) {
        Array const found =
            rows("catalogs", {{"uuid", uuid}, {"with_storages", "1"}, {"with_pieces", "1"}});
        EXPECT_EQ(1u, found.size());
        return found.empty() ? Object() : found.front().get_obj();
    }
    bool commit(Contract_Set const& set, bool overwrite = false) {
        return catalog_->commit(LIMITS, set, overwrite);
    }
    /** Commits a set of a chain. */
    void commit_link(std::string const& uuid, std::string const& prior,
                     std::string const& incarnation, time_t start) {
        Contract_Set set(uuid);
        set.backup_start_time = start;
        set.extra = {{"backup_key", "key_" + uuid},
                     {"prior_backup_key", prior.empty() ? prior : "key_" + prior},
                     {"incarnation", incarnation}};
        EXPECT_TRUE(commit(set));
    }
    static Object piece(std::string const& path, int size) {
        return Object{{"path", path}, {"size", size}};
    }
    static std::string text_of(Value const& value) { return json_spirit::to_text(value); }
    /** A failure is told by one error line at least. */
    static void expect_error_line() { EXPECT_LOGGED(LM_ERROR, ""); }
};

// the life of a set

TEST_P(Catalog_Contract, an_open_set_is_seen_only_by_a_query_that_names_it) {
    Contract_Set set("a");
    set.extra = {{"backup_key", "key"}};
    ASSERT_TRUE(catalog_->initialize(LIMITS, set));
    EXPECT_EQ("", uuids("catalogs", {}));
    EXPECT_EQ("", uuids("catalogs", {{"resource_uuid", "resource"}}));
    EXPECT_EQ("", uuids("restore", {{"resource_uuid", "resource"}, {"backup_key", "key"}}));
    EXPECT_EQ("a", uuids("catalogs", {{"uuid", "a"}}));
}

TEST_P(Catalog_Contract, complete_shows_the_set_as_it_is_then) {
    Contract_Set set("a");
    ASSERT_TRUE(catalog_->initialize(LIMITS, set));
    set.backup_end_time = 77;
    set.extra = {{"seq", 4}};
    ASSERT_TRUE(catalog_->complete(LIMITS, set));
    Array const found = rows("catalogs", {{"resource_uuid", "resource"}});
    ASSERT_EQ(1u, found.size());
    EXPECT_EQ(Value(77), json_spirit::object_get_any(found[0].get_obj(), "backup_end_time"));
    EXPECT_EQ(Value(4), json_spirit::object_get_any(found[0].get_obj(), "seq"));
}

TEST_P(Catalog_Contract, a_set_is_opened_once) {
    ASSERT_TRUE(catalog_->initialize(LIMITS, Contract_Set("a")));
    EXPECT_FALSE(catalog_->initialize(LIMITS, Contract_Set("a")));
    expect_error_line();
    ASSERT_TRUE(catalog_->complete(LIMITS, Contract_Set("a")));
    EXPECT_FALSE(catalog_->initialize(LIMITS, Contract_Set("a")));
    expect_error_line();
    EXPECT_EQ("a", uuids("catalogs", {}));
}

TEST_P(Catalog_Contract, a_set_without_a_uuid_is_refused) {
    EXPECT_FALSE(catalog_->initialize(LIMITS, Contract_Set("")));
    expect_error_line();
    EXPECT_FALSE(commit(Contract_Set("")));
    expect_error_line();
}

TEST_P(Catalog_Contract, only_an_open_set_can_be_completed) {
    EXPECT_FALSE(catalog_->complete(LIMITS, Contract_Set("a")));
    expect_error_line();
    ASSERT_TRUE(commit(Contract_Set("b")));
    EXPECT_FALSE(catalog_->complete(LIMITS, Contract_Set("b")));
    expect_error_line();
}

TEST_P(Catalog_Contract, abort_drops_an_open_set_and_gives_its_pieces) {
    ASSERT_TRUE(catalog_->initialize(LIMITS, Contract_Set("a")));
    ASSERT_TRUE(catalog_->add_piece(LIMITS, "a", {piece("x", 3)}));
    Array pieces;
    ASSERT_TRUE(catalog_->abort(LIMITS, "a", pieces));
    EXPECT_EQ("x", column(pieces, "path"));
    EXPECT_EQ("", uuids("catalogs", {{"uuid", "a"}}));
    EXPECT_TRUE(catalog_->initialize(LIMITS, Contract_Set("a")));
}

TEST_P(Catalog_Contract, abort_leaves_a_complete_set_alone) {
    ASSERT_TRUE(commit(Contract_Set("a")));
    Array pieces;
    EXPECT_FALSE(catalog_->abort(LIMITS, "a", pieces));
    expect_error_line();
    EXPECT_FALSE(catalog_->abort(LIMITS, "unknown", pieces));
    expect_error_line();
    EXPECT_EQ("a", uuids("catalogs", {}));
}

TEST_P(Catalog_Contract, commit_writes_a_complete_set_at_once) {
    Contract_Set set("a");
    set.add_piece("x", 0);
    set.add_storage({"pool", 9});
    ASSERT_TRUE(commit(set));
    Object const found = row("a");
    EXPECT_EQ("x", column(found.at("pieces").get_array(), "path"));
    EXPECT_EQ("pool", column(found.at("storages").get_array(), "pool_uuid"));
    EXPECT_EQ("a", uuids("catalogs", {{"resource_uuid", "resource"}}));
}

TEST_P(Catalog_Contract, commit_replaces_a_complete_set_only_when_told_to) {
    Contract_Set set("a");
    ASSERT_TRUE(commit(set));
    set.name = "second";
    EXPECT_FALSE(commit(set, false));
    expect_error_line();
    EXPECT_EQ("", json_spirit::object_get_str(row("a"), "name"));
    EXPECT_TRUE(commit(set, true));
    EXPECT_EQ("second", json_spirit::object_get_str(row("a"), "name"));
}

TEST_P(Catalog_Contract, commit_does_not_take_an_open_set_over) {
    ASSERT_TRUE(catalog_->initialize(LIMITS, Contract_Set("a")));
    EXPECT_FALSE(commit(Contract_Set("a"), true));
    expect_error_line();
    EXPECT_TRUE(catalog_->complete(LIMITS, Contract_Set("a")));
}

TEST_P(Catalog_Contract, keeps_every_field_exactly) {
    Contract_Set set("a");
    set.name = "O'Neill \"x\"; drop table sets; -- \xc3\xa9";
    set.source_size = UINT64_MAX;
    set.extra = {{"seq", INT64_MIN}, {"tables", Array{Object{{"name", "t"}}}}, {"flag", true}};
    ASSERT_TRUE(commit(set));
    Object const found = row("a");
    EXPECT_EQ(set.name, json_spirit::object_get_str(found, "name"));
    EXPECT_EQ(Value(UINT64_MAX), json_spirit::object_get_any(found, "source_size"));
    EXPECT_EQ(Value(INT64_MIN), json_spirit::object_get_any(found, "seq"));
    EXPECT_EQ(set.extra["tables"], json_spirit::object_get_any(found, "tables"));
    EXPECT_EQ(Value(true), json_spirit::object_get_any(found, "flag"));
}

// pieces

TEST_P(Catalog_Contract, pieces_are_added_to_open_and_complete_sets) {
    ASSERT_TRUE(catalog_->initialize(LIMITS, Contract_Set("a")));
    EXPECT_TRUE(catalog_->add_piece(LIMITS, "a", {piece("x", 1), piece("y", 2)}));
    ASSERT_TRUE(catalog_->complete(LIMITS, Contract_Set("a")));
    EXPECT_TRUE(catalog_->add_piece(LIMITS, "a", {piece("z", 3)}));
    EXPECT_EQ("x y z", column(row("a").at("pieces").get_array(), "path"));
}

TEST_P(Catalog_Contract, a_later_piece_of_the_same_path_replaces_the_earlier) {
    ASSERT_TRUE(catalog_->initialize(LIMITS, Contract_Set("a")));
    ASSERT_TRUE(catalog_->add_piece(LIMITS, "a", {piece("x", 1)}));
    ASSERT_TRUE(catalog_->add_piece(LIMITS, "a", {piece("x", 5)}));
    Array const pieces = row("a").at("pieces").get_array();
    ASSERT_EQ(1u, pieces.size());
    EXPECT_EQ(Value(5), json_spirit::object_get_any(pieces[0].get_obj(), "size"));
}

TEST_P(Catalog_Contract, complete_keeps_added_pieces_and_their_sizes) {
    Contract_Set set("a");
    ASSERT_TRUE(catalog_->initialize(LIMITS, set));
    ASSERT_TRUE(catalog_->add_piece(LIMITS, "a", {piece("x", 7)}));
    set.add_piece("x", 0);
    set.add_piece("own", 2);
    ASSERT_TRUE(catalog_->complete(LIMITS, set));
    Array const pieces = row("a").at("pieces").get_array();
    ASSERT_EQ("x own", column(pieces, "path"));
    EXPECT_EQ(Value(7), json_spirit::object_get_any(pieces[0].get_obj(), "size"));
}

TEST_P(Catalog_Contract, added_pieces_make_the_first_storage_grow) {
    Contract_Set set("a");
    set.add_storage({"pool", 100});
    set.add_storage({"other", 5});
    ASSERT_TRUE(catalog_->initialize(LIMITS, set));
    Object compressed = piece("y", 20);
    compressed["storage_size"] = 3;
    ASSERT_TRUE(catalog_->add_piece(LIMITS, "a", {piece("x", 10), compressed}));
    Array const storages = row("a").at("storages").get_array();
    ASSERT_EQ(2u, storages.size());
    EXPECT_EQ(Value(113), json_spirit::object_get_any(storages[0].get_obj(), "size"));
    EXPECT_EQ(Value(5), json_spirit::object_get_any(storages[1].get_obj(), "size"));
}

TEST_P(Catalog_Contract, what_is_no_piece_refuses_all_of_them) {
    ASSERT_TRUE(catalog_->initialize(LIMITS, Contract_Set("a")));
    Array const faults = {Value("x"), Value(), Object{{"size", 1}}, piece("", 1)};
    for (Value const& fault : faults) {
        EXPECT_FALSE(catalog_->add_piece(LIMITS, "a", {piece("good", 1), fault})) << text_of(fault);
        expect_error_line();
    }
    EXPECT_FALSE(catalog_->add_piece(LIMITS, "unknown", {piece("good", 1)}));
    expect_error_line();
    EXPECT_EQ("", column(row("a").at("pieces").get_array(), "path"));
}

// view "catalogs"

TEST_P(Catalog_Contract, sets_of_another_kind_are_not_seen) {
    ASSERT_TRUE(commit(Contract_Set("a", "another")));
    EXPECT_EQ("", uuids("catalogs", {}));
    EXPECT_EQ("a", column(rows("catalogs", {}, "another"), "uuid"));
}

TEST_P(Catalog_Contract, equal_values_choose) {
    Contract_Set full("a");
    full.type = "full";
    Contract_Set log("b");
    log.type = "log";
    log.resource_uuid = "other";
    log.extra = {{"timeline", "t"}};
    ASSERT_TRUE(commit(full) && commit(log));
    EXPECT_EQ("a", uuids("catalogs", {{"type", "full"}}));
    EXPECT_EQ("b", uuids("catalogs", {{"resource_uuid", "other"}, {"type", "log"}}));
    EXPECT_EQ("", uuids("catalogs", {{"resource_uuid", "other"}, {"type", "full"}}));
    EXPECT_EQ("b", uuids("catalogs", {{"timeline", "t"}}));
}

TEST_P(Catalog_Contract, a_set_is_in_each_pool_that_stores_it) {
    Contract_Set set("a");
    set.add_storage({"pool", 1});
    set.add_storage({"archive", 1, true});
    ASSERT_TRUE(commit(set) && commit(Contract_Set("b")));
    EXPECT_EQ("a", uuids("catalogs", {{"pool_uuid", "pool"}}));
    EXPECT_EQ("a", uuids("catalogs", {{"pool_uuid", "archive"}}));
    EXPECT_EQ("", uuids("catalogs", {{"pool_uuid", "third"}}));
}

TEST_P(Catalog_Contract, schema_sets_can_be_left_out) {
    Contract_Set schema("a");
    schema.extra = {{"granularity", "schema"}};
    ASSERT_TRUE(commit(schema) && commit(Contract_Set("b")));
    EXPECT_EQ("b", uuids("catalogs", {{"exclude_schema", true}}));
    EXPECT_EQ("a", uuids("catalogs", {{"granularity", "schema"}}));
    EXPECT_EQ("a b", uuids("catalogs", {{"exclude_schema", false}, {"sort", "uuid"}}));
}

TEST_P(Catalog_Contract, NN_wants_a_value) {
    Contract_Set ended("a");
    ended.backup_end_time = 5;
    ASSERT_TRUE(commit(ended) && commit(Contract_Set("b")));
    EXPECT_EQ("a", uuids("catalogs", {{"NN_backup_end_time", ""}}));
    EXPECT_EQ("", uuids("catalogs", {{"NN_name", ""}}));
    EXPECT_EQ("", uuids("catalogs", {{"NN_unheard_of", ""}}));
}

TEST_P(Catalog_Contract, check_restored_takes_all_where_nothing_was_restored) {
    ASSERT_TRUE(commit(Contract_Set("a")));
    EXPECT_EQ("a", uuids("catalogs", {{"check_restored", true}}));
}

TEST_P(Catalog_Contract, rows_are_sorted_by_value_and_limited) {
    for (int seq : {9, 10, 2}) {
        Contract_Set set("s" + std::to_string(seq));
        set.extra = {{"seq", seq}};
        ASSERT_TRUE(commit(set));
    }
    EXPECT_EQ("s2 s9 s10", uuids("catalogs", {{"sort", "seq"}}));
    EXPECT_EQ("s10 s9 s2", uuids("catalogs", {{"sort", "seq"}, {"order", "desc"}}));
    EXPECT_EQ("s10", uuids("catalogs", {{"sort", "seq"}, {"order", "desc"}, {"limit", 1}}));
    EXPECT_EQ("", uuids("catalogs", {{"limit", 0}}));
    EXPECT_EQ("s2 s9 s10", uuids("catalogs", {{"sort", "seq"}, {"limit", 50}}));
}

TEST_P(Catalog_Contract, a_row_without_the_key_to_sort_by_is_lowest) {
    Contract_Set set("with");
    set.extra = {{"seq", -5}};
    ASSERT_TRUE(commit(set) && commit(Contract_Set("without")));
    EXPECT_EQ("without with", uuids("catalogs", {{"sort", "seq"}}));
}

TEST_P(Catalog_Contract, hostile_texts_in_a_query_are_only_texts) {
    ASSERT_TRUE(commit(Contract_Set("a")));
    std::string const hostile = "uuid'; drop table sets; --";
    EXPECT_EQ("", uuids("catalogs", {{"resource_uuid", hostile}}));
    EXPECT_EQ("", uuids("catalogs", {{hostile, "x"}}));
    EXPECT_EQ("a", uuids("catalogs", {{"sort", hostile}, {"order", hostile}}));
    EXPECT_EQ("a", uuids("catalogs", {}));
}

TEST_P(Catalog_Contract, storages_and_pieces_are_in_the_rows_only_when_asked_for) {
    ASSERT_TRUE(commit(Contract_Set("a")));
    Object const bare = rows("catalogs", {})[0].get_obj();
    EXPECT_FALSE(bare.count("storages"));
    EXPECT_FALSE(bare.count("pieces"));
    Object const full = row("a");
    EXPECT_TRUE(full.count("storages"));
    EXPECT_TRUE(full.count("pieces"));
}

TEST_P(Catalog_Contract, without_cmode_the_result_is_the_array) {
    ASSERT_TRUE(commit(Contract_Set("a")));
    Value result;
    ASSERT_TRUE(catalog_->get_view(LIMITS, "gaussdb", "catalogs", {}, result));
    ASSERT_EQ(json_spirit::array_type, result.type());
    EXPECT_EQ("a", column(result.get_array(), "uuid"));
}

TEST_P(Catalog_Contract, a_query_that_cannot_be_answered_changes_nothing) {
    Value result = "before";
    EXPECT_FALSE(catalog_->get_view(LIMITS, "gaussdb", "no_such_view", {}, result));
    expect_error_line();
    EXPECT_FALSE(catalog_->get_view(LIMITS, "gaussdb", "catalogs", {{"limit", -1}}, result));
    expect_error_line();
    EXPECT_FALSE(catalog_->get_view(LIMITS, "gaussdb", "catalogs", {{"limit", "many"}}, result));
    expect_error_line();
    EXPECT_EQ(Value("before"), result);
}

// view "restore"

TEST_P(Catalog_Contract, restore_gives_the_set_and_what_it_builds_on) {
    commit_link("full", "", "i", 10);
    commit_link("first", "full", "i", 20);
    commit_link("second", "first", "i", 30);
    commit_link("third", "second", "i", 40);
    commit_link("other", "", "j", 15);
    EXPECT_EQ("second first full", uuids("restore", {{"resource_uuid", "resource"},
                                                     {"backup_key", "key_second"},
                                                     {"sort", "backup_start_time"},
                                                     {"order", "desc"}}));
}

TEST_P(Catalog_Contract, restore_gives_the_incarnation_also_where_no_key_leads_there) {
    commit_link("full", "", "i", 10);
    commit_link("first", "full", "i", 20);
    commit_link("second", "full", "i", 30);
    EXPECT_EQ("second first full", uuids("restore", {{"resource_uuid", "resource"},
                                                     {"backup_key", "key_second"},
                                                     {"sort", "backup_start_time"},
                                                     {"order", "desc"}}));
}

TEST_P(Catalog_Contract, restore_follows_keys_out_of_the_incarnation_and_around_a_circle) {
    commit_link("old", "new", "i", 10);
    commit_link("new", "old", "", 20);
    EXPECT_EQ("new old", uuids("restore", {{"resource_uuid", "resource"},
                                           {"backup_key", "key_new"},
                                           {"sort", "backup_start_time"},
                                           {"order", "desc"}}));
}

TEST_P(Catalog_Contract, restore_stays_with_the_resource) {
    commit_link("a", "", "i", 10);
    EXPECT_EQ("", uuids("restore", {{"resource_uuid", "another"}, {"backup_key", "key_a"}}));
    EXPECT_EQ("", uuids("restore", {{"resource_uuid", "resource"}, {"backup_key", "unknown"}}));
}

TEST_P(Catalog_Contract, rows_of_restore_always_have_their_storages) {
    Contract_Set set("a");
    set.add_storage({"pool", 1});
    set.add_piece("x", 1);
    set.extra = {{"backup_key", "k"}};
    ASSERT_TRUE(commit(set));
    Object const query = {{"resource_uuid", "resource"}, {"backup_key", "k"}};
    Object const bare = rows("restore", query)[0].get_obj();
    EXPECT_EQ("pool", column(bare.at("storages").get_array(), "pool_uuid"));
    EXPECT_FALSE(bare.count("pieces"));
    Object with_pieces = query;
    with_pieces["with_pieces"] = "1";
    EXPECT_TRUE(rows("restore", with_pieces)[0].get_obj().count("pieces"));
}

// view "depends"

TEST_P(Catalog_Contract, depends_gives_backup_ids_the_oldest_first) {
    auto const commit_with = [&](std::string const& uuid, std::string const& backup_id,
                                 std::string const& timeline, time_t start) {
        Contract_Set set(uuid);
        set.backup_start_time = start;
        set.extra = {{"backup_id", backup_id}, {"timeline", timeline}};
        EXPECT_TRUE(commit(set));
    };
    commit_with("a", "late", "t", 30);
    commit_with("b", "early", "t", 10);
    commit_with("c", "", "t", 20);
    commit_with("d", "elsewhere", "u", 5);
    Value result;
    ASSERT_TRUE(catalog_->get_view(LIMITS, "gaussdb", "depends",
                                   {{"resource_uuid", "resource"}, {"timeline", "t"}}, result));
    EXPECT_EQ(Value(Array{Value("early"), Value("late")}), result);
    ASSERT_TRUE(catalog_->get_view(LIMITS, "gaussdb", "depends",
                                   {{"resource_uuid", "resource"}, {"timeline", "v"}}, result));
    EXPECT_EQ(Value(Array{}), result);
}

#endif
