#include "host/agent/instance_handler.h"

#include <gtest/gtest.h>

namespace {

class State_Handler : public Instance_Handler {
public:
    State_Handler() : Instance_Handler("local") {}
    std::string& get_state(char const* name, std::string& state) override {
        return state = std::string("state of ") + name;
    }
};

TEST(Instance_Handler, without_overrides_there_is_nothing_to_find_and_no_way_in) {
    Instance_Handler handler("gaussdb");
    Instance_Handler::instances_type instances;
    Instance_Handler::options_type options = {{"x", 1}};
    std::string state;
    EXPECT_EQ("gaussdb", handler.type());
    EXPECT_EQ(0, handler.init(0, nullptr));
    EXPECT_EQ(0, handler.probe_instances(instances));
    EXPECT_TRUE(instances.empty());
    EXPECT_EQ(&state, &handler.get_state("a", state));
    EXPECT_EQ("error", state);
    EXPECT_EQ(-1, handler.logon("a", "user", "password", nullptr));
    EXPECT_EQ(0, handler.logoff("a"));
    EXPECT_EQ(0, handler.update_options("a", "user", "password", options));
    EXPECT_EQ((Instance_Handler::options_type{{"x", 1}}), options);
    EXPECT_EQ(0, handler.fini());
}

TEST(Instance_Handler, get_states_asks_for_each_name) {
    State_Handler handler;
    Instance_Handler::states_type states = {{"a", ""}, {"b", "before"}};
    EXPECT_EQ(0, handler.get_states(states));
    EXPECT_EQ((Instance_Handler::states_type{{"a", "state of a"}, {"b", "state of b"}}), states);
}

} // namespace
