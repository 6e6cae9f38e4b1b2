#include "tests/contract/instance_contract.h"
#include "tests/support/fake_instances.h"

namespace {

INSTANTIATE_TEST_SUITE_P(Fake, Instance_Contract,
                         testing::Values([] { return std::make_shared<Fake_Instance_Backend>(); }));

TEST(Fake_Instances, an_operation_that_is_to_fail_fails_and_changes_nothing) {
    Fake_Instance_Backend instances;
    instances.fail("put");
    EXPECT_FALSE(instances.put({"gaussdb", "a", "", {}, {}}));
    EXPECT_LOGGED(LM_ERROR, "fails to put");
    instances.fail("put", false);
    EXPECT_FALSE(instances.find("gaussdb", "a"));
    EXPECT_EQ((std::vector<std::string>{"put a", "find a"}), instances.calls());
}

} // namespace
