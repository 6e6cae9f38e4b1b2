#include "host/catalog/catalog_operator.h"

#include "host/agent/host_services.h"
#include "json_spirit/access.h"
#include "tests/support/fake_catalog.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using Texts = std::vector<std::string>;

class Named_Set : public Backup_Set {
public:
    explicit Named_Set(std::string const& id) : Backup_Set("gaussdb") { uuid = id; }
};

class Catalog_Operator_Test : public testing::Test {
protected:
    Fake_Catalog catalog_;
    Named_Set set_{"a"};
    Catalog_Operator operator_{-1, 60};
};

TEST_F(Catalog_Operator_Test, each_operation_reaches_the_catalog) {
    Array pieces = {Object{{"path", "x"}}};
    Value result;
    EXPECT_TRUE(operator_.initialize(set_));
    EXPECT_TRUE(operator_.add_piece("a", pieces));
    EXPECT_TRUE(operator_.complete(set_));
    Named_Set second("b");
    EXPECT_TRUE(operator_.commit(second, true));
    Named_Set third("c");
    EXPECT_TRUE(operator_.initialize(third));
    EXPECT_TRUE(operator_.abort("c", pieces));
    EXPECT_TRUE(pieces.empty());
    EXPECT_TRUE(operator_.get_view("gaussdb", "catalogs", {{"uuid", "a"}}, result));
    EXPECT_EQ((Texts{"initialize a", "add_piece a", "complete a", "commit b", "initialize c",
                     "abort c", "get_view catalogs"}),
              catalog_->calls());
}

TEST_F(Catalog_Operator_Test, hands_its_limits_on) {
    operator_.initialize(set_);
    EXPECT_EQ(-1, catalog_->limits().timeout);
    EXPECT_EQ(60, catalog_->limits().max_seconds_retry);
}

TEST_F(Catalog_Operator_Test, a_failure_of_the_catalog_is_a_failure) {
    Array pieces;
    Value result;
    for (char const* operation :
         {"initialize", "complete", "commit", "abort", "add_piece", "get_view"})
        catalog_->fail(operation);
    EXPECT_FALSE(operator_.initialize(set_));
    EXPECT_FALSE(operator_.complete(set_));
    EXPECT_FALSE(operator_.commit(set_, true));
    EXPECT_FALSE(operator_.abort("a", pieces));
    EXPECT_FALSE(operator_.add_piece("a", pieces));
    EXPECT_FALSE(operator_.get_view("gaussdb", "catalogs", {}, result));
    EXPECT_FALSE(operator_.get_first_view("gaussdb", "catalogs", {}, result));
    EXPECT_EQ(7u, Log_Capture::instance().claim_all(LM_ERROR, "The catalog fails to"));
}

TEST_F(Catalog_Operator_Test, without_a_catalog_each_operation_fails_with_a_line_of_its_own) {
    Host_Services::instance().catalog(nullptr);
    Array pieces;
    Value result;
    EXPECT_FALSE(operator_.initialize(set_));
    EXPECT_LOGGED(LM_ERROR, "No catalog is installed to open a backup set in\n");
    EXPECT_FALSE(operator_.complete(set_));
    EXPECT_LOGGED(LM_ERROR, "No catalog is installed to complete a backup set in\n");
    EXPECT_FALSE(operator_.commit(set_, true));
    EXPECT_LOGGED(LM_ERROR, "No catalog is installed to commit a backup set to\n");
    EXPECT_FALSE(operator_.abort("a", pieces));
    EXPECT_LOGGED(LM_ERROR, "No catalog is installed to drop a backup set from\n");
    EXPECT_FALSE(operator_.add_piece("a", pieces));
    EXPECT_LOGGED(LM_ERROR, "No catalog is installed to add pieces to\n");
    EXPECT_FALSE(operator_.get_view("gaussdb", "catalogs", {}, result));
    EXPECT_FALSE(operator_.get_first_view("gaussdb", "catalogs", {}, result));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, "No catalog is installed to query"));
}

TEST_F(Catalog_Operator_Test, a_query_needs_a_type_and_a_view) {
    Value result = "before";
    EXPECT_FALSE(operator_.get_view(nullptr, "catalogs", {}, result));
    EXPECT_CHECK_LOGGED("type is NULL or \"\"");
    EXPECT_FALSE(operator_.get_view("gaussdb", "", {}, result));
    EXPECT_CHECK_LOGGED("view is NULL or \"\"");
    EXPECT_FALSE(operator_.get_first_view("gaussdb", nullptr, {}, result));
    EXPECT_CHECK_LOGGED("view is NULL or \"\"");
    EXPECT_EQ(Value("before"), result);
    EXPECT_EQ(Texts(), catalog_->calls());
}

TEST_F(Catalog_Operator_Test, the_first_view_is_one_row_as_it_is) {
    catalog_->add_row({{"uuid", "a"}, {"seq", 1}});
    catalog_->add_row({{"uuid", "b"}, {"seq", 2}});
    Value result;
    ASSERT_TRUE(operator_.get_first_view(
        "gaussdb", "catalogs", {{"sort", "seq"}, {"order", "desc"}, {"limit", 5}}, result));
    ASSERT_EQ(json_spirit::obj_type, result.type());
    EXPECT_EQ("b", json_spirit::object_get_str(result.get_obj(), "uuid"));
    EXPECT_EQ(Value(1), catalog_->queries()[0]["limit"]);
}

TEST_F(Catalog_Operator_Test, the_first_view_has_no_cmode_even_when_asked_for) {
    catalog_->add_row({{"uuid", "a"}});
    Value result;
    ASSERT_TRUE(
        operator_.get_first_view("gaussdb", "catalogs", {{"cmode", "rb_orm_rows"}}, result));
    EXPECT_EQ("a", json_spirit::object_get_str(result.get_obj(), "uuid"));
}

TEST_F(Catalog_Operator_Test, no_first_row_is_a_success_with_null) {
    Value result = "before";
    EXPECT_TRUE(operator_.get_first_view("gaussdb", "catalogs", {}, result));
    EXPECT_TRUE(result.is_null());
}

TEST_F(Catalog_Operator_Test, a_failed_first_view_leaves_the_result_alone) {
    Value result = "before";
    catalog_->fail("get_view");
    EXPECT_FALSE(operator_.get_first_view("gaussdb", "catalogs", {}, result));
    EXPECT_LOGGED(LM_ERROR, "The catalog fails to get_view");
    EXPECT_EQ(Value("before"), result);
}

/** A catalog whose answers are no arrays. */
class Odd_Catalog : public Fake_Catalog_Backend {
public:
    bool get_view(Catalog_Limits const&, std::string const&, std::string const&, Object const&,
                  Value& result) override {
        result = Object{{"rows", Array{}}};
        return true;
    }
};

TEST_F(Catalog_Operator_Test, an_answer_without_rows_is_a_failure) {
    Host_Services::instance().catalog(std::make_shared<Odd_Catalog>());
    Value result = "before";
    EXPECT_FALSE(operator_.get_first_view("gaussdb", "catalogs", {}, result));
    EXPECT_LOGGED(LM_ERROR, "The catalog gave no rows for view catalogs\n");
    EXPECT_EQ(Value("before"), result);
}

} // namespace
