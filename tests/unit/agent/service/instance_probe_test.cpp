#include "agent/service/instance_probe.h"

#include "tests/support/fake_instances.h"
#include "tests/support/log_capture.h"

#include <atomic>
#include <gtest/gtest.h>
#include <semaphore>

namespace {

/** Finds what it is told to find. */
class Finder : public Instance_Handler {
public:
    Finder() : Instance_Handler("gaussdb") {}
    int probe_instances(instances_type& instances) override {
        given = instances;
        for (std::string const& name : found) {
            auto const added = instances.emplace(name, std::make_shared<Instance>());
            if (added.second) {
                added.first->second->type = "gaussdb";
                added.first->second->name = name;
                added.first->second->options = {{"edition", "8.1.1"}};
            }
        }
        looks.release();
        return result;
    }
    instances_type given;
    std::vector<std::string> found;
    int result = 0;
    std::counting_semaphore<> looks{0};
};

class Instance_Probe_Test : public testing::Test {
protected:
    std::shared_ptr<Finder> finder_ = std::make_shared<Finder>();
    Fake_Instances instances_;
    Instance_Probe probe_{finder_};
};

TEST_F(Instance_Probe_Test, what_is_new_goes_on_record_with_a_uuid_that_every_host_gives_it) {
    finder_->found = {"a"};
    EXPECT_TRUE(probe_.probe());
    auto const found = instances_->find("gaussdb", "a");
    ASSERT_TRUE(found);
    EXPECT_EQ(Instance_Probe::uuid_of("gaussdb", "a"), found->uuid);
    EXPECT_EQ(36u, found->uuid.size());
    EXPECT_NE(found->uuid, Instance_Probe::uuid_of("gaussdb", "b"));
    EXPECT_TRUE(instances_->told("a"));
}

TEST_F(Instance_Probe_Test, what_is_on_record_is_handed_in_and_stays_as_it_is) {
    Instance known;
    known.type = "gaussdb";
    known.name = "a";
    known.uuid = "its own";
    known.options = {{"edition", "505.1.0"}};
    ASSERT_TRUE(instances_->put(known));
    finder_->found = {"a"};
    EXPECT_TRUE(probe_.probe());
    EXPECT_EQ(1u, finder_->given.count("a"));
    EXPECT_EQ("its own", instances_->find("gaussdb", "a")->uuid);
    EXPECT_EQ(known.options, instances_->find("gaussdb", "a")->options);
    EXPECT_FALSE(instances_->told("a"));
    finder_->found = {};
    EXPECT_TRUE(probe_.probe());
    EXPECT_TRUE(instances_->find("gaussdb", "a"));
}

TEST_F(Instance_Probe_Test, a_list_that_cannot_be_read_replaces_no_record) {
    Instance known;
    known.type = "gaussdb";
    known.name = "a";
    known.options = {{"user", "omm"}};
    ASSERT_TRUE(instances_->put(known));
    finder_->found = {"a"};
    instances_->fail("list");
    EXPECT_TRUE(probe_.probe());
    EXPECT_EQ(known.options, instances_->find("gaussdb", "a")->options);
    EXPECT_LOGGED(LM_ERROR, "");
}

TEST_F(Instance_Probe_Test, one_that_cannot_be_recorded_is_told) {
    finder_->found = {"a"};
    finder_->result = -1;
    instances_->fail("put");
    EXPECT_FALSE(probe_.probe());
    EXPECT_LOGGED(LM_ERROR, "Not all instances of gaussdb could be looked for");
    EXPECT_LOGGED(LM_ERROR, "");
}

TEST_F(Instance_Probe_Test, says_when_the_first_search_is_over) {
    std::vector<bool> told;
    probe_.on_searched([&] { told.push_back(probe_.has_searched()); });
    EXPECT_FALSE(probe_.has_searched());
    finder_->result = -1;
    probe_.probe();
    EXPECT_LOGGED(LM_ERROR, "Not all instances of gaussdb could be looked for");
    EXPECT_TRUE(probe_.has_searched());
    probe_.probe();
    EXPECT_LOGGED(LM_ERROR, "Not all instances of gaussdb could be looked for");
    EXPECT_EQ((std::vector<bool>{true, true}), told);
    EXPECT_TRUE(Instance_Probe(nullptr).has_searched());
}

TEST_F(Instance_Probe_Test, looks_at_once_and_again_when_the_interval_is_over) {
    probe_.start(0);
    finder_->looks.acquire();
    probe_.interval(1);
    finder_->looks.acquire();
    probe_.stop();
}

TEST_F(Instance_Probe_Test, without_a_module_there_is_nothing_to_find) {
    Instance_Probe none(nullptr);
    EXPECT_TRUE(none.probe());
    none.start(0);
    none.stop();
}

} // namespace
