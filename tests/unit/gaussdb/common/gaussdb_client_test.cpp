#include "gaussdb/common/gaussdb_client.h"

#include "gaussdb/common/gaussdb_env.h"

#include <gtest/gtest.h>

namespace {

/** Shows what the base holds. */
class Client : public GaussDB_Client {
public:
    using GaussDB_Client::GaussDB_Client;
    bool list_database(std::vector<std::string>&) const override { return true; }
    std::string get_version() const override { return ""; }
    bool test_logon() const override { return true; }
    bool query(char const*, std::vector<std::string>&, bool) const override { return true; }

    std::string text() const {
        return username_ + "/" + password_ + "/" + db_ + "/" + std::to_string(port_) + "/" +
               os_user_ + "/" + host_;
    }
    GaussDB_Env const& env() const { return env_; }
};

TEST(GaussDB_Client, keeps_what_it_is_given) {
    GaussDB_Env env;
    Client const client(env, "user", "word", "db", 65535, "omm", "host");
    EXPECT_EQ("user/word/db/65535/omm/host", client.text());
}

TEST(GaussDB_Client, takes_null_for_an_empty_text) {
    GaussDB_Env env;
    EXPECT_EQ("///0//", Client(env, nullptr, nullptr, nullptr, 0, nullptr, nullptr).text());
}

TEST(GaussDB_Client, sees_later_changes_of_its_environment) {
    GaussDB_Env env;
    Client const client(env, "", "", "", 0, "", "");
    env.set_env("NAME", "later");
    EXPECT_STREQ("later", client.env().get_value("NAME"));
}

} // namespace
