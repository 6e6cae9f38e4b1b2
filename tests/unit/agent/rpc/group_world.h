#ifndef TESTS_UNIT_AGENT_RPC_GROUP_WORLD_H
#define TESTS_UNIT_AGENT_RPC_GROUP_WORLD_H

#include "agent/rpc/group_link.h"
#include "agent/rpc/group_server.h"
#include "agent/rpc/rpc_server.h"
#include "host/agent/host_manager.h"
#include "tests/support/https_server.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <map>

/** Lets everybody do everything, unless told otherwise, and keeps what it was told. */
class Test_Rules : public Group_Rules {
public:
    bool admit(Rpc_Caller const&, std::string const& host_uuid, std::string& why) override {
        why = "not " + host_uuid;
        return host_uuid != refused;
    }
    void joined(std::string const& host_uuid, json_spirit::Array const& runs) override {
        std::lock_guard const guard(mutex);
        told.push_back("joined " + host_uuid + " " + std::to_string(runs.size()));
    }
    void left(std::string const& host_uuid) override {
        std::lock_guard const guard(mutex);
        told.push_back("left " + host_uuid);
    }
    std::shared_ptr<Run_Scope const> run_of(Forward const& forward, std::string& why) override {
        std::string const host =
            forward.from.is(Rpc_Caller::LOCAL) ? "local" : forward.from.host_uuid;
        why = "no run of " + host;
        if (forward.method == refused)
            return nullptr;
        return std::make_shared<Run_Scope>(Run_Scope{"r1", true, host, "c1", "c1", "p"});
    }

    std::string refused;
    std::mutex mutex;
    std::vector<std::string> told;
};

/** A backup server with its group, and members of it, all on the loopback. */
class Group_World {
public:
    static constexpr char KEY[] = "the-administrators-key";
    static constexpr char SERVER[] = "server-uuid";
    static constexpr std::chrono::seconds PATIENCE{30};

    struct Member {
        Method_Table methods;
        std::unique_ptr<Group_Link> link;
    };

    Group_World() {
        methods.gate([](Method_Call const&, Method_Fault&) { return true; });
        // a forward needs a run; what comes back says for which
        Host_Manager::instance()->access_key("the key of a run");
        restart();
    }
    ~Group_World() { Host_Manager::instance()->access_key(secure_string()); }

    void restart(unsigned short port = 0) {
        Rpc_Server_Options options;
        options.network = true;
        options.address = "127.0.0.1";
        options.port = port;
        options.certificate = Test_Certificates::instance().certificate("good");
        options.private_key = Test_Certificates::instance().key("good");
        options.access_key = secure_string(std::string_view(KEY));
        options.known_keys = [](Key_Digest const& key) -> Rpc_Caller {
            for (char const* name :
                 {"h1", "h2", "tested", "host-1", "host-2", "host-3", SERVER, "a\nb"})
                if (key_digest(key_of(name)) == key)
                    return {Rpc_Caller::MEMBER, name, {}, nullptr};
            return {};
        };
        options.limits.denied = options.limits.denied_most = std::chrono::milliseconds(1);
        server = std::make_unique<Rpc_Server>(methods, routes, options);
        std::string error;
        EXPECT_TRUE(server->start(error)) << error;
    }

    static std::string key_of(std::string const& host_uuid) { return "key-of-" + host_uuid; }

    /** What a member needs; it tries again only when the test wants it to. */
    Group_Link_Options options(std::string const& host_uuid) const {
        Group_Link_Options result;
        result.url = "wss://localhost:" + std::to_string(server->port());
        result.access_key = secure_string(std::string_view(key_of(host_uuid)));
        result.ca_file = Test_Certificates::instance().certificate("ca");
        result.host_uuid = host_uuid;
        result.name = "name of " + host_uuid;
        result.component = "agent";
        result.version = "1.0";
        result.reconnect = result.reconnect_most = std::chrono::hours(1);
        result.wait = std::chrono::milliseconds(0);
        return result;
    }

    /** The member of that uuid, connected. */
    Member& member(std::string const& host_uuid) {
        std::unique_ptr<Member>& found = members[host_uuid];
        if (!found) {
            found = std::make_unique<Member>();
            found->methods.gate([](Method_Call const&, Method_Fault&) { return true; });
            found->link = std::make_unique<Group_Link>(found->methods, options(host_uuid));
            std::string error;
            EXPECT_TRUE(found->link->start(error)) << error;
            EXPECT_TRUE(found->link->await(true, PATIENCE));
        }
        return *found;
    }

    /** The server goes, and all members have noticed and said so. */
    void cut_off() {
        server->stop();
        for (auto const& [uuid, one] : members)
            EXPECT_TRUE(one->link->await(false, PATIENCE));
        EXPECT_EQ(members.size(),
                  Log_Capture::instance().claim_all(LM_WARNING, "No connection to the backup"));
    }

    Method_Table methods{4, 512};
    Rest_Routes routes;
    Test_Rules rules;
    Group_Server group{methods, rules, SERVER};
    std::unique_ptr<Rpc_Server> server;
    std::map<std::string, std::unique_ptr<Member>> members;
};

#endif
