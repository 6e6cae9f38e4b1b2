#include "agent/service/instance_condition.h"

#include "agent/service/instance_probe.h"
#include "host/http/http_method.h"
#include "tests/support/fake_instances.h"
#include "tests/support/fake_upstream_backend.h"
#include "tests/support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

constexpr char OWN[] = "own-host";
constexpr char RESOURCES[] = "/d2/r/v2/resources";

class Nothing_Found : public Instance_Handler {
public:
    Nothing_Found() : Instance_Handler("gaussdb") {}
    int probe_instances(instances_type&) override { return 0; }
};

class Instance_Condition_Test : public testing::Test {
protected:
    Instance_Condition_Test() { hosts_are({}); }

    void hosts_are(std::vector<std::string> const& hosts) {
        Array instances;
        for (std::string const& host : hosts)
            instances.emplace_back(Object{{"host_uuid", host}});
        Array rows;
        if (!instances.empty())
            rows.emplace_back(Object{{"form", "single"}, {"instances", instances}});
        server_->serve(HTTP_METHOD_GET, RESOURCES, rest_answer(200, Object{{"rows", rows}}));
    }
    void put(std::string const& name, std::string const& uuid) {
        Instance instance;
        instance.type = "gaussdb";
        instance.name = name;
        instance.uuid = uuid;
        ASSERT_TRUE(record_->put(instance));
    }
    Start_Answer ask(std::string const& instance = "c1") {
        Stored_Definition definition;
        definition.instance = instance;
        return condition_.may_start(definition);
    }

    Fake_Instances record_;
    Scoped_Fake_Upstream server_;
    Instance_Probe probe_{std::make_shared<Nothing_Found>()};
    Instance_Condition condition_{probe_, OWN};
};

TEST_F(Instance_Condition_Test, the_first_search_is_waited_for_with_a_limit) {
    put("c1", "u1");
    EXPECT_EQ(Start_Answer::WAIT, ask().kind);
    EXPECT_EQ("the first search for instances", ask().text);
    EXPECT_EQ(Instance_Condition::LONGEST_WAIT, ask().limit);
    EXPECT_EQ(Start_Answer::START, ask("").kind) << "the module's own matter";
    probe_.probe();
    EXPECT_EQ(Start_Answer::START, ask().kind);
    EXPECT_TRUE(server_->rest_calls().empty());
}

TEST_F(Instance_Condition_Test, finds_the_uuid_of_what_is_on_record) {
    std::string uuid, error;
    EXPECT_TRUE(condition_.find("c2", uuid, error)) << "nobody has searched for it";
    EXPECT_EQ("", uuid);
    put("c1", "u1");
    EXPECT_TRUE(condition_.find("c1", uuid, error));
    EXPECT_EQ("u1", uuid);
    probe_.probe();
    EXPECT_TRUE(condition_.find("c1", uuid, error));
    EXPECT_FALSE(condition_.find("c2", uuid, error));
    EXPECT_EQ("", uuid);
    EXPECT_THAT(error, testing::HasSubstr("instance \"c2\" is not on record; search for it"));
    hosts_are({OWN});
    EXPECT_FALSE(condition_.find("c2", uuid, error)) << "removed here";
    hosts_are({"other"});
    EXPECT_TRUE(condition_.find("c2", uuid, error));
    EXPECT_EQ(Instance_Probe::uuid_of("gaussdb", "c2"), uuid);
    server_->serve(HTTP_METHOD_GET, RESOURCES, rest_answer(503, {}));
    EXPECT_FALSE(condition_.find("c2", uuid, error));
    EXPECT_THAT(error, testing::HasSubstr("could not be asked"));
}

TEST_F(Instance_Condition_Test, an_instance_of_another_host_is_that_hosts_to_run) {
    probe_.probe();
    hosts_are({"other"});
    EXPECT_EQ(Start_Answer::SKIP, ask().kind);
    EXPECT_EQ("It was not this host's to run", ask().text);
    EXPECT_THAT(server_->rest_calls().at(0).query,
                testing::HasSubstr("instance_uuid=" + Instance_Probe::uuid_of("gaussdb", "c1")));
}

TEST_F(Instance_Condition_Test, an_instance_of_no_host_fails_the_run) {
    probe_.probe();
    EXPECT_EQ(Start_Answer::FAIL, ask().kind);
    EXPECT_THAT(ask().text, testing::StartsWith("instance \"c1\" is not known on any host"));
    hosts_are({OWN}); // what the server remembers of this host, it has no longer
    EXPECT_EQ(Start_Answer::FAIL, ask().kind);
}

TEST_F(Instance_Condition_Test, a_group_that_cannot_be_asked_fails_the_run) {
    probe_.probe();
    server_->reachable(false);
    EXPECT_EQ(Start_Answer::FAIL, ask().kind);
    EXPECT_THAT(ask().text, testing::HasSubstr("the backup server could not be asked"));
    EXPECT_THAT(condition_.fault_of_skip("c1"),
                testing::HasSubstr("the backup server could not be asked"));
    for (int asked = 0; asked < 3; ++asked)
        EXPECT_LOGGED(LM_ERROR, "the server cannot be reached");
}

TEST_F(Instance_Condition_Test, a_skip_is_right_only_if_another_host_has_the_instance) {
    put("c1", "u1");
    hosts_are({OWN});
    EXPECT_THAT(condition_.fault_of_skip("c1"), testing::HasSubstr("no host has run the job"));
    hosts_are({OWN, "other"});
    EXPECT_EQ("", condition_.fault_of_skip("c1"));
    EXPECT_THAT(server_->rest_calls().at(0).query, testing::HasSubstr("instance_uuid=u1"));
    EXPECT_EQ("", condition_.fault_of_skip(""));
}

TEST_F(Instance_Condition_Test, an_answer_of_another_shape_names_no_host) {
    probe_.probe();
    for (Value const& answer :
         {Value("text"), Value(Array()), Value(Object{{"rows", 1}}),
          Value(Object{{"rows", Array{1, Object{{"instances", Object()}}}}}),
          Value(Object{{"rows", Array{Object{{"instances", Array{1, Object()}}}}}})}) {
        server_->serve(HTTP_METHOD_GET, RESOURCES, rest_answer(200, answer));
        EXPECT_EQ(Start_Answer::FAIL, ask().kind);
    }
}

} // namespace
