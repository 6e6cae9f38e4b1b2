#include "json_spirit/access.h"
#include "tests/unit/agent/rpc/group_world.h"

#include <atomic>
#include <future>
#include <thread>

using json_spirit::Object;
using json_spirit::Value;
using namespace std::chrono_literals;

namespace {

/** A member that is not connected by the world but by the test, and fails on its way. */
class Group_Test : public testing::Test {
protected:
    /** Starts a link that cannot connect, and waits until it has said why. */
    void expect_failure(Group_Link_Options const& options, std::string const& why) {
        Method_Table methods;
        Group_Link link(methods, options);
        std::string error;
        ASSERT_TRUE(link.start(error)) << error;
        auto const end = std::chrono::steady_clock::now() + Group_World::PATIENCE;
        while (!Log_Capture::instance().contains("No connection to the backup server") &&
               std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        EXPECT_LOGGED(LM_WARNING, why);
        EXPECT_FALSE(link.connected());
        JSON_RPC_Reply reply;
        EXPECT_FALSE(link.call("m", Object(), {}, reply));
        EXPECT_EQ(JSON_RPC_UNREACHABLE, reply.code);
        link.stop();
        Log_Capture::instance().clear();
    }
    void await_member(std::string const& uuid, bool connected) {
        auto const is = [&] {
            for (Group_Member const& one : world_.group.members())
                if (one.host_uuid == uuid)
                    return one.connected == connected;
            return false;
        };
        auto const end = std::chrono::steady_clock::now() + Group_World::PATIENCE;
        while (!is() && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        EXPECT_TRUE(is());
    }

    Group_World world_;
    JSON_RPC_Reply reply_;
};

} // namespace

TEST_F(Group_Test, members_are_known_while_they_are_there_and_after) {
    EXPECT_EQ(0u, world_.group.members().size());
    world_.member("h1");
    auto const members = world_.group.members();
    ASSERT_EQ(1u, members.size());
    EXPECT_EQ("h1", members[0].host_uuid);
    EXPECT_EQ("name of h1", members[0].name);
    EXPECT_EQ("agent", members[0].component);
    EXPECT_EQ("1.0", members[0].version);
    EXPECT_TRUE(members[0].connected);
    EXPECT_LT(0, members[0].last_seen);
    world_.member("h1").link->stop();
    await_member("h1", false);
    EXPECT_LT(0, world_.group.members()[0].last_seen);
}

TEST_F(Group_Test, what_comes_down_is_for_a_run_and_what_comes_up_from_the_member) {
    auto const who = [](Method_Call const& call, Value& result, Method_Fault&) {
        result = call.caller.text();
        return true;
    };
    world_.methods.add("who", who);
    world_.member("h1").methods.add("who", who);
    Group_Link& link = *world_.member("h2").link;
    EXPECT_TRUE(link.forward("h1", "who", Object(), reply_)) << reply_.message;
    EXPECT_EQ(Value("run r1 (host h2)"), reply_.result);
    EXPECT_TRUE(link.call("who", Object(), {}, reply_));
    EXPECT_EQ(Value("member 'h2' (host h2)"), reply_.result);
    EXPECT_TRUE(link.forward(Group_World::SERVER, "who", Object(), reply_)) << reply_.message;
    EXPECT_EQ(Value("run r1 (host h2)"), reply_.result) << "the server serves what is for itself";
    EXPECT_TRUE(world_.group.forward(Group_World::SERVER, "who", Object(), reply_));
    EXPECT_EQ(Value("run r1 (host local)"), reply_.result);
    EXPECT_TRUE(link.forward("h2", "who", Object(), reply_) ||
                reply_.code == JSON_RPC_METHOD_NOT_FOUND)
        << "a member reaches itself";
}

TEST_F(Group_Test, a_member_that_goes_while_it_is_asked_is_unreachable_at_once) {
    std::promise<void> asked;
    std::promise<void> opened;
    auto& member = world_.member("h1");
    member.methods.add(
        "wait", [&, gate = opened.get_future().share()](Method_Call const&, Value&, Method_Fault&) {
            asked.set_value();
            gate.wait();
            return true;
        });
    auto& other = world_.member("h2");
    auto answer = std::async(std::launch::async,
                             [&] { return other.link->forward("h1", "wait", Object(), reply_); });
    asked.get_future().wait();
    member.link->stop();
    EXPECT_FALSE(answer.get());
    EXPECT_EQ(JSON_RPC_UNREACHABLE, reply_.code);
    opened.set_value();
    EXPECT_FALSE(other.link->forward("h1", "wait", Object(), reply_));
    EXPECT_EQ(JSON_RPC_UNREACHABLE, reply_.code);
    EXPECT_NE(std::string::npos, reply_.message.find("h1"));
}

TEST_F(Group_Test, agents_that_ask_each_other_in_turn_do_not_use_up_the_servers_threads) {
    constexpr int CALLS = 12; // more than the server has threads
    auto& member = world_.member("h1");
    world_.methods.add("leaf", [](Method_Call const&, Value& result, Method_Fault&) {
        result = "leaf";
        return true;
    });
    member.methods.add("back", [&](Method_Call const&, Value& result, Method_Fault& fault) {
        JSON_RPC_Reply reply;
        bool const done = member.link->call("leaf", Object(), {}, reply);
        result = reply.result;
        fault.message = reply.message;
        return done;
    });
    auto& other = world_.member("h2");
    std::vector<std::future<bool>> answers;
    std::atomic<int> right = 0;
    for (int i = 0; i < CALLS; ++i)
        answers.push_back(std::async(std::launch::async, [&] {
            JSON_RPC_Reply reply;
            bool const done = other.link->forward("h1", "back", Object(), reply);
            right += reply.result == Value("leaf");
            return done;
        }));
    for (auto& answer : answers)
        EXPECT_TRUE(answer.get());
    EXPECT_EQ(CALLS, right);
}

TEST_F(Group_Test, a_host_that_comes_again_takes_the_place_of_its_old_connection) {
    auto& first = world_.member("h1");
    Method_Table methods;
    methods.gate([](Method_Call const&, Method_Fault&) { return true; });
    methods.add("which", [](Method_Call const&, Value& result, Method_Fault&) {
        result = "second";
        return true;
    });
    Group_Link second(methods, world_.options("h1"));
    std::string error;
    ASSERT_TRUE(second.start(error)) << error;
    ASSERT_TRUE(second.await(true, Group_World::PATIENCE));
    EXPECT_TRUE(first.link->await(false, Group_World::PATIENCE));
    EXPECT_LOGGED(LM_WARNING, "the connection broke");
    EXPECT_TRUE(world_.group.forward("h1", "which", Object(), reply_)) << reply_.message;
    EXPECT_EQ(Value("second"), reply_.result);
    EXPECT_EQ(1u, world_.group.members().size());
}

TEST_F(Group_Test, the_connection_is_made_again_when_the_server_comes_back) {
    auto options = world_.options("h1");
    options.reconnect = options.reconnect_most = 10ms;
    options.wait = Group_World::PATIENCE;
    Method_Table methods;
    Group_Link link(methods, options);
    std::string error;
    ASSERT_TRUE(link.start(error)) << error;
    ASSERT_TRUE(link.await(true, Group_World::PATIENCE));
    world_.methods.add("m", [](Method_Call const&, Value& result, Method_Fault&) {
        result = 1;
        return true;
    });
    unsigned short const port = world_.server->port();
    world_.server->stop();
    ASSERT_TRUE(link.await(false, Group_World::PATIENCE));
    world_.restart(port);
    EXPECT_TRUE(link.call("m", Object(), {}, reply_)) << reply_.message << " (the call waited)";
    link.stop();
    EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_WARNING, "No connection"));
}

TEST_F(Group_Test, a_wrong_key_is_said_and_never_logged) {
    auto options = world_.options("h1");
    options.access_key = secure_string(std::string_view("wrong-key"));
    expect_failure(options, "it refuses the access key");
    EXPECT_EQ(0u, world_.group.members().size());
}

TEST_F(Group_Test, a_server_that_cannot_prove_who_it_is_gets_no_key) {
    auto options = world_.options("h1");
    options.ca_file = Test_Certificates::instance().certificate("other_ca");
    expect_failure(options, "no TLS handshake");
    options = world_.options("h1");
    options.url = "wss://[::ffff:127.0.0.1]:" + std::to_string(world_.server->port());
    expect_failure(options, "no TLS handshake");
    EXPECT_EQ(0u, world_.group.members().size());
}

TEST_F(Group_Test, a_server_that_is_not_there_is_said) {
    auto options = world_.options("h1");
    world_.server->stop();
    expect_failure(options, "cannot connect");
    options.url = "wss://no.such.host.invalid";
    expect_failure(options, "cannot find its address");
}

TEST_F(Group_Test, an_agent_that_says_it_is_someone_else_is_refused) {
    expect_failure(world_.options(Group_World::SERVER), "it refuses this agent");
    world_.rules.refused = "h1";
    expect_failure(world_.options("h1"), "it refuses this agent, not h1");
    EXPECT_EQ(0u, world_.group.members().size());
}

TEST_F(Group_Test, only_a_members_key_joins) {
    auto options = world_.options("h1");
    options.access_key = secure_string(std::string_view(Group_World::KEY));
    expect_failure(options, "with its own key");
    EXPECT_EQ(0u, world_.group.members().size());
}

TEST_F(Group_Test, a_host_tells_its_runs_when_it_joins_and_is_lost_when_it_goes) {
    auto options = world_.options("h1");
    options.runs = [] { return json_spirit::Array{Object{{"run_id", "r"}}, Object()}; };
    {
        Method_Table methods;
        Group_Link link(methods, options);
        std::string error;
        ASSERT_TRUE(link.start(error)) << error;
        ASSERT_TRUE(link.await(true, Group_World::PATIENCE));
        link.stop();
        await_member("h1", false);
    }
    std::lock_guard const guard(world_.rules.mutex);
    EXPECT_EQ((std::vector<std::string>{"joined h1 2", "left h1"}), world_.rules.told);
}

TEST_F(Group_Test, a_forward_that_the_rules_refuse_reaches_nobody) {
    world_.rules.refused = "m";
    std::atomic<int> calls = 0;
    auto const count = [&](Method_Call const&, Value&, Method_Fault&) { return ++calls > 0; };
    world_.member("h1").methods.add("m", count);
    world_.methods.add("m", count);
    for (char const* host : {"h1", Group_World::SERVER}) {
        EXPECT_FALSE(world_.member("h2").link->forward(host, "m", Object(), reply_));
        EXPECT_EQ(AGENT_RPC_REFUSED, reply_.code);
        EXPECT_EQ("no run of h2", reply_.message);
        EXPECT_FALSE(world_.group.forward(host, "m", Object(), reply_));
        EXPECT_EQ(AGENT_RPC_REFUSED, reply_.code);
    }
    EXPECT_EQ(0, calls);
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_WARNING, "Forwarded no call of 'm'"));
}

TEST_F(Group_Test, a_forwarded_call_works_for_its_run_on_the_other_host) {
    std::string key = "none";
    world_.member("h1").methods.add("key", [&](Method_Call const&, Value&, Method_Fault&) {
        key = Host_Manager::instance()->access_key().plain();
        return true;
    });
    Host_Manager::instance()->access_key("key of r1");
    EXPECT_TRUE(world_.member("h2").link->forward("h1", "key", Object(), reply_)) << reply_.message;
    EXPECT_EQ("key of r1", key);
    EXPECT_TRUE(world_.group.forward("h1", "key", Object(), reply_)) << reply_.message;
    EXPECT_EQ("key of r1", key);
    EXPECT_EQ("key of r1", Host_Manager::instance()->access_key().plain());
}

TEST_F(Group_Test, options_that_cannot_work_are_errors) {
    Method_Table methods;
    auto const refused = [&](auto change) {
        Group_Link_Options options = world_.options("h1");
        change(options);
        std::string error;
        bool const started = Group_Link(methods, options).start(error);
        EXPECT_FALSE(started);
        EXPECT_NE("", error);
    };
    for (char const* url : {"", "localhost", "ws://localhost", "https://localhost", "wss://",
                            "wss://localhost/path", "wss://u:p@localhost"})
        refused([url](auto& options) { options.url = url; });
    refused([](auto& options) { options.ca_file = "/no/such/file"; });
    refused([](auto& options) { options.access_key.clear(); });
    refused([](auto& options) { options.host_uuid.clear(); });
}

TEST_F(Group_Test, group_methods_refuse_what_they_cannot_use) {
    for (Value const& params :
         {Value(Object()), Value(Object{{"host_uuid", 1}}), Value(json_spirit::Array()), Value()}) {
        EXPECT_FALSE(
            world_.methods.call("group.forward", params, Rpc_Caller::local(), 10s, reply_));
        EXPECT_EQ(JSON_RPC_INVALID_PARAMS, reply_.code);
        EXPECT_FALSE(world_.methods.call("group.join", params, Rpc_Caller::local(), 10s, reply_));
        EXPECT_EQ(JSON_RPC_INVALID_PARAMS, reply_.code);
    }
    EXPECT_FALSE(world_.methods.call("group.join", Object{{"host_uuid", "h1"}}, Rpc_Caller::local(),
                                     10s, reply_));
    EXPECT_EQ(AGENT_RPC_REFUSED, reply_.code) << "without a connection of its own";
    EXPECT_LOGGED(LM_WARNING, "Refused nobody as host h1");
}

TEST_F(Group_Test, stop_ends_those_who_wait) {
    auto options = world_.options("h1");
    options.wait = 1h;
    world_.server->stop();
    Method_Table methods;
    Group_Link link(methods, options);
    std::string error;
    ASSERT_TRUE(link.start(error)) << error;
    auto answer =
        std::async(std::launch::async, [&] { return link.call("m", Object(), {}, reply_); });
    while (!Log_Capture::instance().contains("No connection"))
        std::this_thread::yield();
    link.stop();
    link.stop();
    EXPECT_FALSE(answer.get());
    EXPECT_EQ(JSON_RPC_UNREACHABLE, reply_.code);
    EXPECT_LOGGED(LM_WARNING, "No connection");
}
