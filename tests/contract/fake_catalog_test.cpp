#include "tests/contract/catalog_contract.h"
#include "tests/support/fake_catalog.h"

#include "host/agent/host_services.h"
#include "host/catalog/catalog_operator.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Fake, Catalog_Contract,
                         testing::Values([] { return std::make_shared<Fake_Catalog_Backend>(); }));

TEST(Fake_Catalog, check_restored_leaves_out_what_a_restore_has_overtaken) {
    Fake_Catalog_Backend catalog;
    catalog.add_row({{"uuid", "a"}, {"resource_uuid", "r"}, {"backup_end_time", 10}});
    catalog.add_row({{"uuid", "b"}, {"resource_uuid", "r"}, {"backup_end_time", 20}});
    catalog.restored("r", 10);
    json_spirit::Value result;
    ASSERT_TRUE(
        catalog.get_view({-1, -1}, "gaussdb", "catalogs", {{"check_restored", true}}, result));
    ASSERT_EQ(1u, result.get_array().size());
    EXPECT_EQ("b", json_spirit::object_get_str(result.get_array()[0].get_obj(), "uuid"));
}

TEST(Fake_Catalog, an_operation_that_is_to_fail_fails_and_changes_nothing) {
    Fake_Catalog catalog;
    Contract_Set set("a");
    catalog->fail("complete");
    ASSERT_TRUE(Catalog_Operator(-1, -1).initialize(set));
    EXPECT_FALSE(Catalog_Operator(-1, -1).complete(set));
    EXPECT_LOGGED(LM_ERROR, "The catalog fails to complete");
    EXPECT_TRUE(catalog->is_open("a"));
    catalog->fail("complete", false);
    EXPECT_TRUE(Catalog_Operator(-1, -1).complete(set));
    EXPECT_FALSE(catalog->is_open("a"));
    EXPECT_EQ((std::vector<std::string>{"initialize a", "complete a", "complete a"}),
              catalog->calls());
}

TEST(Fake_Catalog, is_the_installed_one_while_it_lives) {
    {
        Fake_Catalog const catalog;
        EXPECT_EQ(catalog.operator->(), Host_Services::instance().catalog().get());
    }
    EXPECT_EQ(nullptr, Host_Services::instance().catalog());
}

} // namespace
