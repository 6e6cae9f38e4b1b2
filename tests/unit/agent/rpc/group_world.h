#ifndef TESTS_UNIT_AGENT_RPC_GROUP_WORLD_H
#define TESTS_UNIT_AGENT_RPC_GROUP_WORLD_H

#include "agent/rpc/group_link.h"
#include "agent/rpc/group_server.h"
#include "agent/rpc/rpc_server.h"
#include "tests/support/https_server.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <map>

/** A backup server with its group, and members of it, all on the loopback. */
class Group_World {
public:
    static constexpr char KEY[] = "the-groups-key";
    static constexpr char SERVER[] = "server-uuid";
    static constexpr std::chrono::seconds PATIENCE{30};

    struct Member {
        Method_Table methods;
        std::unique_ptr<Group_Link> link;
    };

    Group_World() { restart(); }

    void restart(unsigned short port = 0) {
        Rpc_Server_Options options;
        options.network = true;
        options.address = "127.0.0.1";
        options.port = port;
        options.certificate = Test_Certificates::instance().certificate("good");
        options.private_key = Test_Certificates::instance().key("good");
        options.access_key = secure_string(std::string_view(KEY));
        options.limits.denied = options.limits.denied_most = std::chrono::milliseconds(1);
        server = std::make_unique<Rpc_Server>(methods, routes, options);
        std::string error;
        EXPECT_TRUE(server->start(error)) << error;
    }

    /** What a member needs; it tries again only when the test wants it to. */
    Group_Link_Options options(std::string const& host_uuid) const {
        Group_Link_Options result;
        result.url = "wss://localhost:" + std::to_string(server->port());
        result.access_key = secure_string(std::string_view(KEY));
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
    Group_Server group{methods, SERVER};
    std::unique_ptr<Rpc_Server> server;
    std::map<std::string, std::unique_ptr<Member>> members;
};

#endif
