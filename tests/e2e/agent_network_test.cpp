// Agents on the network: a group of two, and clients that mean no good.
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/agent_process.h"
#include "tests/support/server_child.h"

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::HasSubstr;

namespace {

std::string text(Object const& object, char const* key) {
    return json_spirit::object_get_str(object, key);
}

std::string remote_settings(unsigned short port, std::string const& role) {
    return "[remote]\nenabled = true\nport = " + std::to_string(port) + "\n[group]\nrole = '" +
           role + "'\n";
}

/** A backup server, and the settings by which an agent is a member of its group. */
class Backup_Server {
public:
    Backup_Server() : agent_(ZENBRAK3_TEST_MODULE, remote_settings(port_, "backupd")) {}
    Agent_Process& agent() { return agent_; }
    std::string certificate() const { return agent_.data_dir() + "/tls/agent.crt"; }
    std::string key() const { return agent_.data_dir() + "/access.key"; }
    unsigned short port() const { return port_; }
    /** Adds a member, whose key is in the file that the settings name. */
    std::string member_settings(std::string const& name) {
        std::string const key =
            text(agent_.ask("member.add", {{"name", name}, {"all_pools", true}}), "key");
        std::string const path = agent_.directory().write(name + ".key", key + "\n");
        chmod(path.c_str(), 0600);
        return "[remote]\nenabled = false\n[group]\nrole = 'member'\nbackupd_url = "
               "'wss://localhost:" +
               std::to_string(port_) + "'\nbackupd_ca = '" + certificate() +
               "'\nbackupd_key_file = '" + path + "'\n";
    }

private:
    unsigned short const port_ = Server_Child::free_port();
    Agent_Process agent_;
};

/** Asks again until a condition holds; false after half a minute. */
template <typename Condition>
bool wait_for(Condition condition) {
    for (int attempt = 0; attempt < 600; ++attempt) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

class Agent_Group_Test : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server_.agent().start());
        member_ =
            std::make_unique<Agent_Process>(ZENBRAK3_TEST_MODULE, server_.member_settings("first"));
        ASSERT_TRUE(member_->start());
        member_uuid_ = text(member_->ask("agent.info"), "uuid");
        ASSERT_TRUE(wait_for([&] { return is_connected(); }));
    }
    /** Whether the server has a connection of the member. */
    bool is_connected() {
        Array const members = server_.agent().ask("member.list").at("members").get_array();
        return members.at(0).get_obj().at("connected").get_bool();
    }
    Object wait_for_end(Agent_Process& agent, std::string const& run) {
        Object row;
        EXPECT_TRUE(wait_for([&] {
            row = agent.ask("job.show", {{"job", run}});
            return text(row, "state") == "completed" || text(row, "state") == "error";
        }));
        return row;
    }
    static Object backup() {
        return {{"name", "b"},
                {"type", "backup"},
                {"subtype", "full"},
                {"target", Object{{"pool", "main"}}},
                {"source",
                 Object{{"id", "r"}, {"name", "n"}, {"objects", 3}, {"size", 1000}, {"pause", 1}}}};
    }

    Backup_Server server_;
    std::unique_ptr<Agent_Process> member_;
    std::string member_uuid_;
};

TEST_F(Agent_Group_Test, a_member_comes_back_as_the_host_that_its_key_is_for) {
    Object const member = server_.agent().ask("member.list").at("members").get_array()[0].get_obj();
    EXPECT_EQ(member_uuid_, text(member, "host_uuid"));
    member_->kill();
    EXPECT_TRUE(wait_for([&] { return !is_connected(); }));
    ASSERT_TRUE(member_->start());
    EXPECT_TRUE(wait_for([&] { return is_connected(); }));
}

TEST_F(Agent_Group_Test, the_server_calls_no_methods_of_a_member_and_a_member_few_of_the_server) {
    for (char const* method : {"agent.info", "job.start", "gaussdb.roach_source"}) {
        Agent_Process::Reply const reply = server_.agent().call(
            "group.forward", {{"host_uuid", member_uuid_}, {"method", method}, {"key", ""}});
        EXPECT_EQ(-32005, reply.code) << method;
    }
    EXPECT_EQ(-32005, member_->call("pool.create", {{"name", "x"}, {"url", "file:///tmp"}}).code);
    EXPECT_EQ(-32005, member_->call("backup.remove", {{"backup", "x"}}).code);
}

TEST_F(Agent_Group_Test, a_members_backup_is_in_the_servers_catalog_and_pool) {
    server_.agent().ask("pool.create",
                        {{"name", "main"}, {"url", "file://" + server_.agent().pool_dir()}});
    std::string const run = text(member_->ask("job.start", {{"run", backup()}}), "run_id");
    EXPECT_EQ("completed", text(wait_for_end(*member_, run), "state"));
    for (Agent_Process* agent : {member_.get(), &server_.agent()}) {
        Object const shown = agent->ask("backup.show", {{"backup", run}});
        EXPECT_EQ(member_uuid_, text(shown, "host_uuid"));
        EXPECT_EQ(3u, shown.at("pieces").get_array().size());
    }
}

TEST_F(Agent_Group_Test, a_member_checks_the_servers_pools) {
    auto const checked = [&](char const* pool) {
        Agent_Process::Reply const reply = member_->call("agent.check", {{"pool", pool}});
        return reply ? json_spirit::to_text(reply.result) : reply.message;
    };
    Object const pool = {{"name", "main"}, {"url", "file://" + server_.agent().pool_dir()}};
    EXPECT_THAT(checked("main"), HasSubstr("pool main does not exist"));
    EXPECT_THAT(checked(""), HasSubstr("zenbrak3 pool create"));
    server_.agent().ask("pool.create", pool);
    EXPECT_THAT(checked("main"), HasSubstr(R"("state":"ok","subject":"pool main")"));
    server_.agent().kill();
    EXPECT_TRUE(wait_for([&] {
        return checked("main").find("the backup server was not asked") != std::string::npos;
    }));
}

TEST_F(Agent_Group_Test, what_a_killed_member_left_open_is_dropped_when_it_is_back) {
    server_.agent().ask("pool.create",
                        {{"name", "main"}, {"url", "file://" + server_.agent().pool_dir()}});
    Object endless = backup();
    endless["source"].get_obj()["objects"] = 1000000;
    std::string const run = text(member_->ask("job.start", {{"run", endless}}), "run_id");
    EXPECT_TRUE(wait_for([&] { return !std::filesystem::is_empty(server_.agent().pool_dir()); }));
    // a set is told from those of the new life by the second in which it began
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    member_->kill();
    ASSERT_TRUE(member_->start());
    EXPECT_TRUE(wait_for([&] {
        return server_.agent().call("backup.show", {{"backup", run}}).code == -32004;
    }));
}

TEST_F(Agent_Group_Test, a_wrong_key_joins_nothing) {
    Agent_Process stranger(ZENBRAK3_TEST_MODULE, server_.member_settings("second"));
    server_.agent().directory().write("second.key", "0123456789abcdef0123456789");
    ASSERT_TRUE(stranger.start());
    EXPECT_TRUE(wait_for([&] {
        return server_.agent().log().find("127.0.0.1") != std::string::npos;
    })) << server_.agent().log();
    EXPECT_EQ(-32001, stranger.call("pool.list").code);
}

TEST_F(Agent_Group_Test, a_member_that_was_removed_is_out_at_once) {
    server_.agent().ask("member.remove", {{"member", "first"}});
    EXPECT_TRUE(wait_for([&] { return member_->call("pool.list").code == -32001; }));
    EXPECT_TRUE(server_.agent().ask("member.list").at("members").get_array().empty());
}

TEST(Agent_Attack_Test, hostile_clients_are_answered_or_closed_and_others_are_served) {
    Backup_Server server;
    ASSERT_TRUE(server.agent().start());
    std::string const command = std::string("python3 " ZENBRAK3_ATTACK) + " --socket " +
                                server.agent().socket() + " --port " +
                                std::to_string(server.port()) + " --key " + server.key() +
                                " --ca " + server.certificate() + " --seconds 15 --seed 7 > " +
                                server.agent().directory().path("out") + " 2>&1";
    EXPECT_EQ(0, std::system(command.c_str())) << server.agent().directory().read("out");
    EXPECT_TRUE(server.agent().call("agent.info"));
    EXPECT_EQ(0, server.agent().stop()) << server.agent().log();
}

} // namespace
