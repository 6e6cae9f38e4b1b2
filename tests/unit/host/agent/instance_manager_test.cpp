#include "host/agent/instance_manager.h"

#include "host/agent/host_services.h"
#include "host/agent/instance_handler.h"
#include "tests/support/fake_instances.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Object;
using Texts = std::vector<std::string>;

/** Takes one password, and says so in the options. */
class Password_Handler : public Instance_Handler {
public:
    explicit Password_Handler(std::string password = "right")
        : Instance_Handler("gaussdb"), password_(std::move(password)) {}
    int update_options(char const* name, char const* username, char const* password,
                       options_type& options) override {
        options["spoiled"] = true; // stays out when it is refused
        if (password_ != password)
            return -1;
        options.erase("spoiled");
        options["by"] = std::string(name) + "/" + username;
        return 0;
    }

private:
    std::string const password_;
};

class Instance_Manager_Test : public testing::Test {
protected:
    static std::shared_ptr<Instance> make(std::string const& name, Object options = {}) {
        return std::make_shared<Instance>(
            Instance{"gaussdb", name, "uuid", std::move(options), {}});
    }
    static Object account(std::string const& password) {
        return Object{{"username", "omm"}, {"password", password}, {"auth_type", "instance"}};
    }
    void put_with_account(std::string const& uid, std::string const& password) {
        ASSERT_TRUE(manager_->add_instance(make("a", {{"x", 1}})));
        ASSERT_TRUE(manager_->save_account("gaussdb", "a", uid.c_str(), account(password)));
    }

    Fake_Instances instances_;
    Instance_Manager* const manager_ = Instance_Manager::instance();
};

TEST_F(Instance_Manager_Test, states_have_their_values) {
    EXPECT_EQ(-1, Instance_Manager::UNKNOWN);
    EXPECT_EQ(0, Instance_Manager::CLOSED);
    EXPECT_EQ(1, Instance_Manager::CLOSING);
    EXPECT_EQ(2, Instance_Manager::OPENED);
    EXPECT_EQ(3, Instance_Manager::OPENING);
}

TEST_F(Instance_Manager_Test, an_added_instance_is_found) {
    ASSERT_TRUE(manager_->add_instance(make("a", {{"x", 1}})));
    std::shared_ptr<Instance> const found = manager_->find("gaussdb", "a");
    ASSERT_TRUE(found);
    EXPECT_EQ((Object{{"x", 1}}), found->options);
    EXPECT_FALSE(manager_->find("gaussdb", "b"));
    EXPECT_FALSE(manager_->find("other", "a"));
}

TEST_F(Instance_Manager_Test, find_needs_a_type_and_a_name) {
    EXPECT_FALSE(manager_->find(nullptr, "a"));
    EXPECT_CHECK_LOGGED("type is NULL or \"\"");
    EXPECT_FALSE(manager_->find("gaussdb", ""));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_EQ(Texts(), instances_->calls());
}

TEST_F(Instance_Manager_Test, an_instance_without_a_type_or_name_is_not_added) {
    EXPECT_FALSE(manager_->add_instance(nullptr));
    EXPECT_CHECK_LOGGED("instance is NULL");
    EXPECT_FALSE(manager_->add_instance(make("")));
    EXPECT_LOGGED(LM_ERROR,
                  "An instance needs a type and a name, this one has \"gaussdb\" and \"\"");
    auto const nameless = std::make_shared<Instance>(Instance{"", "a", "", {}, {}});
    EXPECT_FALSE(manager_->add_instance(nameless));
    EXPECT_LOGGED(LM_ERROR, "An instance needs a type and a name, this one has \"\" and \"a\"");
    EXPECT_EQ(Texts(), instances_->calls());
}

TEST_F(Instance_Manager_Test, an_account_is_found_by_user) {
    put_with_account("u", "secret");
    std::string username;
    secure_string password;
    Object whole;
    ASSERT_EQ(0, manager_->get_account("gaussdb", "u", "a", username, password, &whole));
    EXPECT_EQ("omm", username);
    EXPECT_EQ("secret", password.plain());
    EXPECT_EQ("instance", json_spirit::object_get_str(whole, "auth_type"));
}

TEST_F(Instance_Manager_Test, an_account_that_is_not_there_changes_nothing) {
    put_with_account("u", "secret");
    std::string username = "before";
    secure_string password("before");
    EXPECT_EQ(-1, manager_->get_account("gaussdb", "v", "a", username, password));
    EXPECT_EQ(-1, manager_->get_account("gaussdb", "u", "b", username, password));
    EXPECT_EQ("before", username);
    EXPECT_EQ("before", password.plain());
}

TEST_F(Instance_Manager_Test, an_account_on_record_without_a_password_is_none) {
    ASSERT_TRUE(manager_->add_instance(make("a")));
    ASSERT_TRUE(instances_->save_account("gaussdb", "a", "u", {{"username", "omm"}}));
    std::string username = "before";
    secure_string password;
    EXPECT_EQ(-1, manager_->get_account("gaussdb", "u", "a", username, password));
    EXPECT_LOGGED(LM_ERROR, "The account of instance a has no user name or no password");
    EXPECT_EQ("before", username);
}

TEST_F(Instance_Manager_Test, accounts_need_type_user_and_name) {
    std::string username;
    secure_string password;
    EXPECT_EQ(-1, manager_->get_account("", "u", "a", username, password));
    EXPECT_CHECK_LOGGED("type is NULL or \"\"");
    EXPECT_EQ(-1, manager_->get_account("gaussdb", nullptr, "a", username, password));
    EXPECT_CHECK_LOGGED("uid is NULL or \"\"");
    EXPECT_EQ(-1, manager_->get_account("gaussdb", "u", "", username, password));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_FALSE(manager_->save_account(nullptr, "a", "u", account("x")));
    EXPECT_CHECK_LOGGED("type is NULL or \"\"");
    EXPECT_FALSE(manager_->save_account("gaussdb", "", "u", account("x")));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_FALSE(manager_->save_account("gaussdb", "a", "", account("x")));
    EXPECT_CHECK_LOGGED("uid is NULL or \"\"");
}

TEST_F(Instance_Manager_Test, an_account_to_save_needs_a_user_and_a_password) {
    ASSERT_TRUE(manager_->add_instance(make("a")));
    for (Object const& unfit :
         {Object{}, Object{{"username", "omm"}}, Object{{"password", "x"}},
          Object{{"username", 5}, {"password", "x"}}, Object{{"username", "x"}, {"password", 5}}}) {
        EXPECT_FALSE(manager_->save_account("gaussdb", "a", "u", unfit));
        EXPECT_LOGGED(LM_ERROR, "An account of instance a needs a user name and a password");
    }
    EXPECT_TRUE(manager_->save_account(
        "gaussdb", "a", "u", Object{{"username", "omm"}, {"password", secure_string("x")}}));
}

TEST_F(Instance_Manager_Test, without_an_instance_service_each_operation_fails_with_a_line) {
    std::string username;
    secure_string password;
    Host_Services::instance().instances(nullptr);
    EXPECT_FALSE(manager_->find("gaussdb", "a"));
    EXPECT_FALSE(manager_->add_instance(make("a")));
    EXPECT_EQ(-1, manager_->get_account("gaussdb", "u", "a", username, password));
    EXPECT_FALSE(manager_->save_account("gaussdb", "a", "u", account("x")));
    EXPECT_FALSE(add_instance(make("a")));
    EXPECT_FALSE(remove_instance(make("a")));
    EXPECT_FALSE(update_instance(make("a"), {}));
    EXPECT_EQ(7u, Log_Capture::instance().claim_all(
                      LM_ERROR, "No instance service is installed for instance a\n"));
}

// options

TEST_F(Instance_Manager_Test, the_handler_completes_the_options_by_an_account_it_takes) {
    put_with_account("u", "wrong");
    ASSERT_TRUE(manager_->save_account("gaussdb", "a", "v", account("right")));
    Password_Handler handler;
    std::shared_ptr<Instance> const instance = manager_->find("gaussdb", "a");
    EXPECT_EQ(0, manager_->update_instance_options(instance, &handler));
    EXPECT_EQ((Object{{"x", 1}, {"by", "a/omm"}}), instance->options);
    EXPECT_EQ(instance->options, manager_->find("gaussdb", "a")->options);
}

TEST_F(Instance_Manager_Test, options_stay_when_no_account_is_taken) {
    put_with_account("u", "wrong");
    Password_Handler handler;
    std::shared_ptr<Instance> const instance = manager_->find("gaussdb", "a");
    EXPECT_EQ(-1, manager_->update_instance_options(instance, &handler));
    EXPECT_EQ((Object{{"x", 1}}), instance->options);
    EXPECT_EQ((Object{{"x", 1}}), manager_->find("gaussdb", "a")->options);
}

TEST_F(Instance_Manager_Test, without_an_account_there_is_nothing_to_complete) {
    ASSERT_TRUE(manager_->add_instance(make("a")));
    Password_Handler handler;
    EXPECT_EQ(0, manager_->update_instance_options(manager_->find("gaussdb", "a"), &handler));
    EXPECT_TRUE(manager_->find("gaussdb", "a")->options.empty());
}

TEST_F(Instance_Manager_Test, options_of_an_unknown_instance_are_not_completed) {
    Password_Handler handler;
    EXPECT_EQ(-1, manager_->update_instance_options(make("a"), &handler));
    EXPECT_EQ(-1, manager_->update_instance_options(nullptr, &handler));
    EXPECT_CHECK_LOGGED("instance is NULL");
    EXPECT_EQ(-1, manager_->update_instance_options(make("a"), nullptr));
    EXPECT_CHECK_LOGGED("handler is NULL");
}

TEST_F(Instance_Manager_Test, options_that_cannot_be_recorded_are_a_failure) {
    put_with_account("u", "right");
    Password_Handler handler;
    instances_->fail("put");
    EXPECT_EQ(-1, manager_->update_instance_options(manager_->find("gaussdb", "a"), &handler));
    EXPECT_LOGGED(LM_ERROR, "fails to put");
}

// handlers

TEST_F(Instance_Manager_Test, a_handler_is_found_by_its_type_until_it_is_removed) {
    auto const handler = std::make_shared<Password_Handler>();
    EXPECT_FALSE(manager_->get_handler("gaussdb"));
    manager_->add_handler(handler);
    EXPECT_EQ(handler, manager_->get_handler("gaussdb"));
    EXPECT_FALSE(manager_->get_handler("other"));
    std::shared_ptr<Instance_Handler> const held = manager_->get_handler("gaussdb");
    manager_->remove_handler("gaussdb");
    manager_->remove_handler("gaussdb");
    EXPECT_FALSE(manager_->get_handler("gaussdb"));
    EXPECT_EQ("gaussdb", held->type());
}

TEST_F(Instance_Manager_Test, a_second_handler_of_a_type_takes_the_place_of_the_first) {
    auto const first = std::make_shared<Password_Handler>();
    auto const second = std::make_shared<Password_Handler>();
    manager_->add_handler(first);
    manager_->add_handler(second);
    EXPECT_EQ(second, manager_->get_handler("gaussdb"));
    EXPECT_EQ(1, first.use_count());
    manager_->add_handler(nullptr);
    EXPECT_CHECK_LOGGED("handler is NULL");
    manager_->remove_handler("gaussdb");
}

TEST_F(Instance_Manager_Test, words_for_states_are_understood) {
    using Manager = Instance_Manager;
    for (char const* text : {"running", "Normal", "Degraded", "Redistributing", "OPEN"})
        EXPECT_EQ(Manager::OPENED, Manager::state_from_text(text)) << text;
    for (char const* text : {"Starting", "opening"})
        EXPECT_EQ(Manager::OPENING, Manager::state_from_text(text)) << text;
    for (char const* text : {"Stopping", "closing"})
        EXPECT_EQ(Manager::CLOSING, Manager::state_from_text(text)) << text;
    for (char const* text : {"error", "Unavailable", "stopped", "closed"})
        EXPECT_EQ(Manager::CLOSED, Manager::state_from_text(text)) << text;
    for (char const* text : {"", "Norma", "Normal ", "Unknown"})
        EXPECT_EQ(Manager::UNKNOWN, Manager::state_from_text(text)) << text;
}

// with the backup server

TEST_F(Instance_Manager_Test, add_instance_records_and_tells) {
    EXPECT_TRUE(add_instance(make("a", {{"x", 1}})));
    EXPECT_EQ((Texts{"find a", "put a", "tell_server added a"}), instances_->calls());
    EXPECT_EQ((Object{{"x", 1}}), instances_->told("a")->options);
    EXPECT_TRUE(manager_->find("gaussdb", "a"));
}

TEST_F(Instance_Manager_Test, an_instance_that_the_server_was_not_told_of_is_not_recorded) {
    instances_->fail("tell_server");
    EXPECT_FALSE(add_instance(make("a")));
    EXPECT_LOGGED(LM_ERROR, "fails to tell_server");
    EXPECT_FALSE(manager_->find("gaussdb", "a"));
}

TEST_F(Instance_Manager_Test, an_older_record_comes_back_when_the_server_was_not_told) {
    ASSERT_TRUE(manager_->add_instance(make("a", {{"x", "old"}})));
    instances_->fail("tell_server");
    EXPECT_FALSE(add_instance(make("a", {{"x", "new"}})));
    EXPECT_LOGGED(LM_ERROR, "fails to tell_server");
    EXPECT_EQ((Object{{"x", "old"}}), manager_->find("gaussdb", "a")->options);
}

TEST_F(Instance_Manager_Test, an_instance_that_cannot_be_recorded_is_not_told) {
    instances_->fail("put");
    EXPECT_FALSE(add_instance(make("a")));
    EXPECT_LOGGED(LM_ERROR, "fails to put");
    EXPECT_FALSE(instances_->told("a"));
}

TEST_F(Instance_Manager_Test, remove_instance_tells_and_forgets) {
    put_with_account("u", "secret");
    EXPECT_TRUE(remove_instance(make("a")));
    EXPECT_EQ("tell_server removed a", instances_->calls()[2]);
    EXPECT_FALSE(manager_->find("gaussdb", "a"));
}

TEST_F(Instance_Manager_Test, an_instance_stays_when_the_server_was_not_told_of_its_end) {
    put_with_account("u", "secret");
    instances_->fail("tell_server");
    EXPECT_FALSE(remove_instance(make("a")));
    EXPECT_LOGGED(LM_ERROR, "fails to tell_server");
    EXPECT_TRUE(manager_->find("gaussdb", "a"));
}

TEST_F(Instance_Manager_Test, what_is_not_there_cannot_be_removed) {
    EXPECT_FALSE(remove_instance(make("a")));
    EXPECT_LOGGED(LM_ERROR, "There is no gaussdb instance a to remove");
    EXPECT_FALSE(remove_instance(nullptr));
    EXPECT_CHECK_LOGGED("instance is NULL");
}

TEST_F(Instance_Manager_Test, update_instance_tells_the_new_options_only) {
    ASSERT_TRUE(manager_->add_instance(make("a", {{"x", "recorded"}})));
    EXPECT_TRUE(update_instance(make("a", {{"x", "older"}}), {{"x", "new"}}));
    EXPECT_EQ((Object{{"x", "new"}}), instances_->told("a")->options);
    EXPECT_EQ((Object{{"x", "recorded"}}), manager_->find("gaussdb", "a")->options);
    EXPECT_FALSE(update_instance(nullptr, {}));
    EXPECT_CHECK_LOGGED("instance is NULL");
}

} // namespace
