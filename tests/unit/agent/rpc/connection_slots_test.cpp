#include "agent/rpc/connection_slots.h"

#include "agent/rpc/peer_user.h"
#include "tests/support/log_capture.h"

#include <boost/asio/io_context.hpp>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

using boost::asio::ip::tcp;

namespace {

using Slots = std::vector<std::shared_ptr<Connection_Slots::Slot>>;

class Connection_Slots_Test : public testing::Test {
protected:
    Connection_Slots_Test() {
        limits_.connections = 4;
        limits_.connections_per_address = 3;
        limits_.readers = 4;
        limits_.connections_of_reader = 2;
        limits_.strangers = 4;
        limits_.strangers_of_origin = 2;
    }
    ~Connection_Slots_Test() override {
        Log_Capture::instance().claim_all(LM_WARNING, "Refused a connection");
    }

    Rpc_Limits limits_;
    std::shared_ptr<Connection_Slots> slots_;
    void make() { slots_ = std::make_shared<Connection_Slots>(limits_); }
};

} // namespace

TEST_F(Connection_Slots_Test, a_full_room_takes_nothing_from_the_others) {
    make();
    Slots taken;
    for (std::string const user : {"1001", "1001", "1002", "1002"})
        taken.push_back(slots_->take_stranger(user, true));
    EXPECT_EQ(nullptr, slots_->take_stranger("1003", true)) << "all of this host";
    for (std::string const address : {"10.0.0.1", "10.0.0.1", "10.0.0.2", "10.0.0.2"})
        taken.push_back(slots_->take_stranger(address, false));
    EXPECT_EQ(nullptr, slots_->take_stranger("10.0.0.3", false)) << "all of the network";
    for (uid_t const uid : {1001, 1001, 1002, 1002})
        taken.push_back(slots_->take_reader(uid));
    EXPECT_EQ(nullptr, slots_->take_reader(1003)) << "all readers";
    for (int i = 0; i < 4; ++i)
        taken.push_back(slots_->take_local());
    EXPECT_EQ(nullptr, slots_->take_local());
    for (auto const& one : taken)
        EXPECT_NE(nullptr, one);
    EXPECT_EQ(16u, slots_->taken());
    taken.clear();
    EXPECT_EQ(0u, slots_->taken());
    EXPECT_NE(nullptr, slots_->take_stranger("1003", true));
}

TEST_F(Connection_Slots_Test, one_origin_has_a_share_only) {
    make();
    Slots taken{slots_->take_stranger("1001", true), slots_->take_stranger("1001", true)};
    EXPECT_EQ(nullptr, slots_->take_stranger("1001", true));
    taken.push_back(slots_->take_reader(1001));
    taken.push_back(slots_->take_reader(1001));
    EXPECT_NE(nullptr, taken.back());
    EXPECT_EQ(nullptr, slots_->take_reader(1001));
    EXPECT_NE(nullptr, slots_->take_stranger("1002", true));
    EXPECT_NE(nullptr, slots_->take_stranger("1001", false)) << "an address of that text";
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_WARNING, "Refused a connection from user"));
}

TEST_F(Connection_Slots_Test, the_key_opens_another_room) {
    make();
    Slots keyed;
    for (int i = 0; i < 3; ++i) {
        keyed.push_back(slots_->take_stranger("1001", true));
        EXPECT_TRUE(keyed.back()->show_key());
        EXPECT_TRUE(keyed.back()->show_key()) << "again";
    }
    auto const fourth = slots_->take_stranger("1001", true);
    EXPECT_FALSE(fourth->show_key());
    EXPECT_EQ(4u, slots_->taken());
    keyed.pop_back();
    EXPECT_TRUE(fourth->show_key());
    EXPECT_EQ(3u, slots_->taken());
}

TEST(user_of_peer, is_the_user_of_a_process_on_this_host) {
    boost::asio::io_context context;
    for (char const* const listened : {"127.0.0.1", "::"}) {
        tcp::acceptor acceptor(context, {boost::asio::ip::make_address(listened), 0});
        tcp::socket client(context);
        client.connect(
            {boost::asio::ip::make_address("127.0.0.1"), acceptor.local_endpoint().port()});
        tcp::socket const server = acceptor.accept();
        auto const user = user_of_peer(server);
        ASSERT_TRUE(user) << listened;
        EXPECT_EQ(getuid(), *user);
    }
}
