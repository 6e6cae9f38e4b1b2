#include "host/rpc/websocket_options.h"

#include <gtest/gtest.h>
#include <thread>

namespace {

TEST(WebSocket_Options, hold_what_was_set_and_begin_with_the_server_of_this_host) {
    WebSocket_Options& options = *WebSocket_Options::instance();
    EXPECT_EQ("localhost", options.host());
    EXPECT_EQ(60305, options.port());
    EXPECT_TRUE(options.ssl());
    options.set("server.example", 50305, false);
    EXPECT_EQ("server.example", WebSocket_Options::instance()->host());
    EXPECT_EQ(50305, WebSocket_Options::instance()->port());
    EXPECT_FALSE(WebSocket_Options::instance()->ssl());
    options.set("localhost", 60305, true);
}

TEST(WebSocket_Options, may_be_read_while_they_are_set) {
    WebSocket_Options& options = *WebSocket_Options::instance();
    std::thread setter([&] {
        for (int round = 0; round < 1000; ++round)
            options.set(round % 2 ? std::string(40, 'a') : std::string(40, 'b'), 1, true);
    });
    for (int round = 0; round < 1000; ++round) {
        std::string const host = options.host();
        EXPECT_TRUE(host == "localhost" || host == std::string(40, 'a') ||
                    host == std::string(40, 'b'));
    }
    setter.join();
    options.set("localhost", 60305, true);
}

} // namespace
