#ifndef TESTS_CONTRACT_INSTANCE_CONTRACT_H
#define TESTS_CONTRACT_INSTANCE_CONTRACT_H

#include "host/agent/instance_backend.h"
#include "tests/support/log_capture.h"

#include <functional>
#include <gtest/gtest.h>

/**
 * What every record of instances promises; Instance_Backend's comments say it in words. To run it:
 *
 *     INSTANTIATE_TEST_SUITE_P(Mine, Instance_Contract, testing::Values([] { return ...; }));
 */
using Instance_Backend_Maker = std::function<std::shared_ptr<Instance_Backend>()>;

class Instance_Contract : public testing::TestWithParam<Instance_Backend_Maker> {
protected:
    using Object = json_spirit::Object;
    using Value = json_spirit::Value;

    std::shared_ptr<Instance_Backend> const instances_ = GetParam()();

    static Instance make(std::string const& name, Object options = {}) {
        return {"gaussdb", name, "uuid of " + name, std::move(options), {}};
    }
    static Object account(std::string const& user, std::string const& password) {
        return Object{{"username", user}, {"password", password}, {"auth_type", "instance"}};
    }
    /** The password on record; "none" when there is no account. */
    std::string password_of(std::string const& name, std::string const& uid) {
        Object found;
        if (!instances_->get_account("gaussdb", name, uid, found))
            return "none";
        EXPECT_EQ(json_spirit::secure_str_type, found["password"].type());
        secure_string password;
        json_spirit::object_get(found, "password", password);
        return password.plain();
    }
};

TEST_P(Instance_Contract, find_is_by_type_and_name) {
    Instance other = make("a");
    other.type = "another";
    other.uuid = "other uuid";
    ASSERT_TRUE(instances_->put(make("a", {{"version", 2}})));
    ASSERT_TRUE(instances_->put(other));
    std::shared_ptr<Instance> const found = instances_->find("gaussdb", "a");
    ASSERT_TRUE(found);
    EXPECT_EQ("gaussdb", found->type);
    EXPECT_EQ("a", found->name);
    EXPECT_EQ("uuid of a", found->uuid);
    EXPECT_EQ((Object{{"version", 2}}), found->options);
    EXPECT_EQ("other uuid", instances_->find("another", "a")->uuid);
    EXPECT_FALSE(instances_->find("gaussdb", "A"));
    EXPECT_FALSE(instances_->find("gaussdb", "a "));
}

TEST_P(Instance_Contract, find_gives_a_copy) {
    ASSERT_TRUE(instances_->put(make("a", {{"x", 1}})));
    instances_->find("gaussdb", "a")->options["x"] = 2;
    EXPECT_EQ((Object{{"x", 1}}), instances_->find("gaussdb", "a")->options);
}

TEST_P(Instance_Contract, put_replaces_and_keeps_the_accounts) {
    ASSERT_TRUE(instances_->put(make("a", {{"x", 1}, {"y", 1}})));
    ASSERT_TRUE(instances_->save_account("gaussdb", "a", "u", account("omm", "secret")));
    Instance changed = make("a", {{"x", 2}});
    changed.uuid = "new";
    changed.logon_options["v"] = account("stray", "stray");
    ASSERT_TRUE(instances_->put(changed));
    EXPECT_EQ((Object{{"x", 2}}), instances_->find("gaussdb", "a")->options);
    EXPECT_EQ("new", instances_->find("gaussdb", "a")->uuid);
    EXPECT_EQ("secret", password_of("a", "u"));
    EXPECT_EQ("none", password_of("a", "v"));
}

TEST_P(Instance_Contract, names_may_hold_any_text) {
    std::string const name = "x'; drop table instances; --\n\xc3\xa9";
    ASSERT_TRUE(instances_->put(make(name)));
    ASSERT_TRUE(instances_->save_account("gaussdb", name, name, account(name, name)));
    EXPECT_EQ(name, instances_->find("gaussdb", name)->name);
    EXPECT_EQ(name, password_of(name, name));
}

TEST_P(Instance_Contract, list_gives_one_type_in_the_order_of_names) {
    Instance other = make("z");
    other.type = "another";
    ASSERT_TRUE(instances_->put(make("b")) && instances_->put(make("a")) && instances_->put(other));
    std::string names;
    for (auto const& instance : instances_->list("gaussdb"))
        names += instance->name;
    EXPECT_EQ("ab", names);
    EXPECT_TRUE(instances_->list("third").empty());
}

TEST_P(Instance_Contract, erase_forgets_the_instance_and_its_accounts) {
    ASSERT_TRUE(instances_->put(make("a")) && instances_->put(make("b")));
    ASSERT_TRUE(instances_->save_account("gaussdb", "a", "u", account("omm", "secret")));
    ASSERT_TRUE(instances_->save_account("gaussdb", "b", "u", account("omm", "other")));
    ASSERT_TRUE(instances_->erase("gaussdb", "a"));
    EXPECT_FALSE(instances_->find("gaussdb", "a"));
    EXPECT_EQ("none", password_of("a", "u"));
    EXPECT_EQ("other", password_of("b", "u"));
    ASSERT_TRUE(instances_->put(make("a")));
    EXPECT_EQ("none", password_of("a", "u"));
}

TEST_P(Instance_Contract, erase_of_what_is_not_there_fails) {
    EXPECT_FALSE(instances_->erase("gaussdb", "a"));
    EXPECT_LOGGED(LM_ERROR, "");
}

TEST_P(Instance_Contract, each_user_has_an_account_of_an_instance) {
    ASSERT_TRUE(instances_->put(make("a")));
    ASSERT_TRUE(instances_->save_account("gaussdb", "a", "u", account("omm", "one")));
    ASSERT_TRUE(instances_->save_account("gaussdb", "a", "v", account("omm", "two")));
    EXPECT_EQ("one", password_of("a", "u"));
    EXPECT_EQ("two", password_of("a", "v"));
    ASSERT_TRUE(instances_->save_account("gaussdb", "a", "u", account("omm", "three")));
    EXPECT_EQ("three", password_of("a", "u"));
    EXPECT_EQ("two", password_of("a", "v"));
}

TEST_P(Instance_Contract, an_account_comes_back_whole) {
    ASSERT_TRUE(instances_->put(make("a")));
    Object given = account("omm", "one");
    given["extra"] = 5;
    ASSERT_TRUE(instances_->save_account("gaussdb", "a", "u", given));
    Object found;
    ASSERT_TRUE(instances_->get_account("gaussdb", "a", "u", found));
    EXPECT_EQ("omm", json_spirit::object_get_str(found, "username"));
    EXPECT_EQ("instance", json_spirit::object_get_str(found, "auth_type"));
    EXPECT_EQ(Value(5), found["extra"]);
}

TEST_P(Instance_Contract, find_shows_accounts_without_their_passwords) {
    ASSERT_TRUE(instances_->put(make("a")));
    ASSERT_TRUE(instances_->save_account("gaussdb", "a", "u", account("omm", "secret")));
    std::shared_ptr<Instance> const found = instances_->find("gaussdb", "a");
    ASSERT_EQ(1u, found->logon_options.count("u"));
    Object const shown = found->logon_options["u"].get_obj();
    EXPECT_EQ("omm", json_spirit::object_get_str(shown, "username"));
    EXPECT_FALSE(shown.count("password"));
    EXPECT_EQ(found->logon_options, instances_->list("gaussdb")[0]->logon_options);
}

TEST_P(Instance_Contract, an_account_needs_its_instance) {
    EXPECT_FALSE(instances_->save_account("gaussdb", "a", "u", account("omm", "secret")));
    EXPECT_LOGGED(LM_ERROR, "");
    EXPECT_EQ("none", password_of("a", "u"));
}

TEST_P(Instance_Contract, get_account_leaves_the_object_alone_when_there_is_none) {
    ASSERT_TRUE(instances_->put(make("a")));
    Object before = {{"x", 1}};
    EXPECT_FALSE(instances_->get_account("gaussdb", "a", "u", before));
    EXPECT_EQ((Object{{"x", 1}}), before);
}

#endif
