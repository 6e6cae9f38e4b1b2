#include "agent/instances/sqlite_instances.h"

#include "tests/contract/instance_contract.h"
#include "tests/support/agent_database.h"
#include "tests/support/fake_upstream_backend.h"

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

/** Instances together with their database and key. */
struct Own_Instances {
    explicit Own_Instances(bool has_server = false)
        : instances(std::make_unique<SQLite_Instances>(*database, key(), has_server)) {}
    Account_Key key(char const* name = "key") const {
        std::string error;
        return *Account_Key::load(database.directory().path(name), error);
    }
    /** As after a restart. */
    void reopen(char const* key_name = "key") {
        instances.reset();
        database.reopen();
        instances = std::make_unique<SQLite_Instances>(*database, key(key_name), false);
    }

    Test_Database database{{INSTANCE_TABLES}};
    std::unique_ptr<SQLite_Instances> instances;
};

std::shared_ptr<Instance_Backend> make_instances() {
    auto const own = std::make_shared<Own_Instances>();
    return {own, own->instances.get()};
}

INSTANTIATE_TEST_SUITE_P(SQLite, Instance_Contract, testing::Values(make_instances));

constexpr char PASSWORD[] = "a password nobody may see";

void put_with_account(SQLite_Instances& instances) {
    ASSERT_TRUE(instances.put({"gaussdb", "a", "uuid", {{"version", 2}}, {}}));
    ASSERT_TRUE(
        instances.save_account("gaussdb", "a", "u", {{"username", "omm"}, {"password", PASSWORD}}));
}

TEST(SQLite_Instances, reopening_shows_all) {
    Own_Instances own;
    put_with_account(*own.instances);
    own.reopen();
    auto const found = own.instances->find("gaussdb", "a");
    ASSERT_TRUE(found);
    EXPECT_EQ("uuid", found->uuid);
    EXPECT_EQ(Value(2), found->options["version"]);
    Object account;
    ASSERT_TRUE(own.instances->get_account("gaussdb", "a", "u", account));
    EXPECT_EQ(PASSWORD, account["password"].get_secure_str().plain());
}

TEST(SQLite_Instances, no_file_shows_a_password) {
    Own_Instances own;
    put_with_account(*own.instances);
    for (char const* const file : {"agent.db", "agent.db-wal"})
        EXPECT_EQ(std::string::npos, own.database.directory().read(file).find(PASSWORD)) << file;
    EXPECT_NE(std::string::npos, own.database.directory().read("agent.db-wal").find("omm"));
}

TEST(SQLite_Instances, with_another_key_a_password_is_none_and_the_log_says_what_to_do) {
    Own_Instances own;
    put_with_account(*own.instances);
    own.reopen("another key");
    Object account = {{"x", 1}};
    EXPECT_FALSE(own.instances->get_account("gaussdb", "a", "u", account));
    EXPECT_EQ((Object{{"x", 1}}), account);
    EXPECT_LOGGED(LM_ERROR, "The password of user u for the gaussdb instance a cannot be read");
    Log_Capture::instance().claim_all(LM_ERROR, "");
    EXPECT_NOT_LOGGED(PASSWORD);
    ASSERT_TRUE(own.instances->save_account("gaussdb", "a", "u", {{"password", "new"}}));
    EXPECT_TRUE(own.instances->get_account("gaussdb", "a", "u", account));
}

TEST(SQLite_Instances, an_account_may_have_an_empty_password_a_secure_one_or_none) {
    Own_Instances own;
    put_with_account(*own.instances);
    Object account;
    ASSERT_TRUE(own.instances->save_account("gaussdb", "a", "u", {{"username", "omm"}}));
    ASSERT_TRUE(own.instances->get_account("gaussdb", "a", "u", account));
    EXPECT_FALSE(account.count("password"));
    ASSERT_TRUE(own.instances->save_account("gaussdb", "a", "u", {{"password", ""}}));
    ASSERT_TRUE(own.instances->get_account("gaussdb", "a", "u", account));
    EXPECT_EQ("", account["password"].get_secure_str().plain());
    ASSERT_TRUE(
        own.instances->save_account("gaussdb", "a", "u", {{"password", secure_string("secure")}}));
    ASSERT_TRUE(own.instances->get_account("gaussdb", "a", "u", account));
    EXPECT_EQ("secure", account["password"].get_secure_str().plain());
}

TEST(SQLite_Instances, options_nested_too_deeply_are_refused_and_change_nothing) {
    Own_Instances own;
    put_with_account(*own.instances);
    Value deep = 1;
    for (int depth = 0; depth < 200; ++depth)
        deep = Array{deep};
    EXPECT_FALSE(own.instances->put({"gaussdb", "a", "new", {{"deep", deep}}, {}}));
    EXPECT_LOGGED(LM_ERROR, "The database could not record an instance");
    EXPECT_FALSE(own.instances->save_account("gaussdb", "a", "v", {{"deep", deep}}));
    EXPECT_LOGGED(LM_ERROR, "The database could not record an account");
    EXPECT_EQ("uuid", own.instances->find("gaussdb", "a")->uuid);
    EXPECT_EQ(1u, own.instances->find("gaussdb", "a")->logon_options.size());
}

TEST(SQLite_Instances, list_all_gives_every_type) {
    Own_Instances own;
    ASSERT_TRUE(own.instances->put({"gaussdb", "b", "", {}, {}}));
    ASSERT_TRUE(own.instances->put({"another", "z", "", {}, {}}));
    ASSERT_TRUE(own.instances->put({"gaussdb", "a", "", {}, {}}));
    std::string names;
    for (auto const& instance : own.instances->list_all())
        names += instance->type + "/" + instance->name + " ";
    EXPECT_EQ("another/z gaussdb/a gaussdb/b ", names);
}

TEST(SQLite_Instances, without_a_server_there_is_nobody_to_tell) {
    Own_Instances own;
    Scoped_Fake_Upstream upstream;
    EXPECT_TRUE(own.instances->tell_server(Instance_Backend::ADDED, {"gaussdb", "a", "", {}, {}}));
    EXPECT_TRUE(upstream->notifications().empty());
}

TEST(SQLite_Instances, the_server_is_told_what_changed_and_never_a_password) {
    Own_Instances own(true);
    put_with_account(*own.instances);
    Scoped_Fake_Upstream upstream;
    auto const instance = own.instances->find("gaussdb", "a");
    instance->logon_options["v"] = Object{{"username", "x"}, {"password", PASSWORD}};
    ASSERT_TRUE(own.instances->tell_server(Instance_Backend::UPDATED, *instance));
    ASSERT_TRUE(own.instances->tell_server(Instance_Backend::REMOVED, *instance));
    auto const told = upstream->notifications();
    ASSERT_EQ(2u, told.size());
    EXPECT_EQ("backupd.instance.notify", told[0].first);
    Object const updated = {{"type", "gaussdb"},
                            {"name", "a"},
                            {"uuid", "uuid"},
                            {"change", "updated"},
                            {"options", Object{{"version", 2}}},
                            {"accounts", Array{Object{{"user_uuid", "u"}, {"name", "omm"}},
                                               Object{{"user_uuid", "v"}, {"name", "x"}}}}};
    EXPECT_EQ(Value(updated), told[0].second);
    Object const removed = {
        {"type", "gaussdb"}, {"name", "a"}, {"uuid", "uuid"}, {"change", "removed"}};
    EXPECT_EQ(Value(removed), told[1].second);
}

TEST(SQLite_Instances, a_server_that_cannot_be_told_is_a_failure) {
    Own_Instances own(true);
    Instance const instance = {"gaussdb", "a", "", {}, {}};
    EXPECT_FALSE(own.instances->tell_server(Instance_Backend::ADDED, instance));
    EXPECT_LOGGED(LM_ERROR, "cannot be told of the gaussdb instance a: it has not been set up");
    Scoped_Fake_Upstream upstream;
    upstream->reachable(false);
    EXPECT_FALSE(own.instances->tell_server(Instance_Backend::ADDED, instance));
    EXPECT_LOGGED(LM_ERROR, "cannot be told of the gaussdb instance a: ");
}

} // namespace
