#include "agent/rpc/unix_client.h"

#include "tests/support/temporary_directory.h"

#include <functional>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using json_spirit::Object;
using json_spirit::Value;
using namespace std::chrono_literals;

namespace {

constexpr auto PATIENCE = 30s;

/** A server that does with its one connection what the test says. */
class One_Shot_Server {
public:
    One_Shot_Server(std::string const& path, std::function<void(int)> serve)
        : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(0,
                  ::bind(listener_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address));
        EXPECT_EQ(0, ::listen(listener_.get(), 1));
        thread_ = std::thread([this, serve = std::move(serve)] {
            File_Descriptor const one(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            serve(one.get());
        });
    }
    ~One_Shot_Server() { thread_.join(); }

private:
    File_Descriptor listener_;
    std::thread thread_;
};

std::string receive_line(int fd) {
    std::string line;
    for (char c = 0; ::read(fd, &c, 1) == 1 && c != '\n';)
        line += c;
    return line;
}

void send(int fd, std::string const& text) {
    EXPECT_EQ(0, write_all(fd, text.data(), text.size()));
}

class Unix_Client_Test : public testing::Test {
protected:
    bool call(std::chrono::milliseconds timeout = PATIENCE) {
        return client_.call("m", Object{{"a", 1}}, timeout, reply_);
    }
    void connect() {
        std::string error;
        ASSERT_TRUE(client_.connect(path_, error)) << error;
    }

    Temporary_Directory files_;
    std::string const path_ = files_.path("s");
    Unix_Client client_;
    JSON_RPC_Reply reply_;
};

} // namespace

TEST_F(Unix_Client_Test, a_request_is_one_line_and_the_result_comes_back) {
    std::string seen;
    One_Shot_Server server(path_, [&seen](int fd) {
        seen = receive_line(fd);
        send(fd, "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":[2]}\n");
    });
    connect();
    EXPECT_TRUE(call()) << reply_.message;
    EXPECT_EQ(Value(json_spirit::Array{2}), reply_.result);
    EXPECT_EQ(R"({"id":1,"jsonrpc":"2.0","method":"m","params":{"a":1}})", seen);
}

TEST_F(Unix_Client_Test, a_reply_in_pieces_is_put_together) {
    One_Shot_Server server(path_, [](int fd) {
        receive_line(fd);
        for (char const c : std::string("{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":\"\xC3\xA4\"}\n"))
            send(fd, std::string(1, c));
    });
    connect();
    EXPECT_TRUE(call()) << reply_.message;
    EXPECT_EQ(Value("\xC3\xA4"), reply_.result);
}

TEST_F(Unix_Client_Test, an_error_comes_back_whole) {
    One_Shot_Server server(path_, [](int fd) {
        receive_line(fd);
        send(fd, "{\"jsonrpc\":\"2.0\",\"id\":1,\"error\":{\"code\":-32004,\"message\":\"x\","
                 "\"data\":[1]}}\n");
    });
    connect();
    EXPECT_FALSE(call());
    EXPECT_EQ(-32004, reply_.code);
    EXPECT_EQ("x", reply_.message);
    EXPECT_EQ(Value(json_spirit::Array{1}), reply_.data);
}

TEST_F(Unix_Client_Test, what_is_not_the_reply_is_passed_over) {
    One_Shot_Server server(path_, [](int fd) {
        receive_line(fd);
        send(fd, "{\"jsonrpc\":\"2.0\",\"id\":77,\"result\":1}\nnot json\n\n"
                 "{\"jsonrpc\":\"2.0\",\"method\":\"note\"}\n"
                 "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":2}\n");
    });
    connect();
    EXPECT_TRUE(call()) << reply_.message;
    EXPECT_EQ(Value(2), reply_.result);
}

TEST_F(Unix_Client_Test, a_late_reply_is_not_taken_for_the_next_one) {
    One_Shot_Server server(path_, [](int fd) {
        receive_line(fd);
        receive_line(fd);
        send(fd, "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":\"first\"}\n"
                 "{\"jsonrpc\":\"2.0\",\"id\":2,\"result\":\"second\"}\n");
    });
    connect();
    EXPECT_FALSE(call(1ms));
    EXPECT_EQ(JSON_RPC_TIMEOUT, reply_.code);
    EXPECT_NE("", reply_.message);
    EXPECT_TRUE(call()) << reply_.message;
    EXPECT_EQ(Value("second"), reply_.result);
}

TEST_F(Unix_Client_Test, no_agent_is_an_error_that_says_what_to_do) {
    std::string error;
    EXPECT_FALSE(client_.connect(path_, error));
    EXPECT_NE(std::string::npos, error.find("start the agent")) << error;
    EXPECT_FALSE(client_.connect("", error));
    EXPECT_FALSE(client_.connect(std::string(300, 'x'), error));
    EXPECT_NE(std::string::npos, error.find("too long")) << error;
    EXPECT_FALSE(client_.connected());
    EXPECT_FALSE(call());
    EXPECT_EQ(JSON_RPC_UNREACHABLE, reply_.code);
}

TEST_F(Unix_Client_Test, a_server_that_goes_before_it_answers_is_unreachable) {
    One_Shot_Server server(path_, [](int fd) {
        receive_line(fd);
        send(fd, "{\"jsonrpc\":\"2.0\",\"id\":1,\"res");
    });
    connect();
    EXPECT_FALSE(call());
    EXPECT_EQ(JSON_RPC_UNREACHABLE, reply_.code);
    EXPECT_NE("", reply_.message);
    EXPECT_FALSE(client_.connected());
}

TEST_F(Unix_Client_Test, what_a_server_said_before_it_closed_is_told) {
    One_Shot_Server server(path_, [](int fd) {
        send(fd, "{\"jsonrpc\":\"2.0\",\"id\":null,\"error\":{\"code\":-32600,"
                 "\"message\":\"too large\"}}\n");
        char one = 0;
        EXPECT_EQ(1, ::read(fd, &one, 1));
    });
    connect();
    EXPECT_FALSE(client_.call("m", std::string(5'000'000, 'x'), PATIENCE, reply_));
    EXPECT_EQ(-32600, reply_.code);
    EXPECT_EQ("too large", reply_.message);
}

TEST_F(Unix_Client_Test, params_nested_too_deeply_are_not_sent) {
    Value params = 1;
    for (int i = 0; i < 200; ++i)
        params = json_spirit::Array{params};
    One_Shot_Server server(path_, [](int fd) { EXPECT_EQ("", receive_line(fd)); });
    connect();
    EXPECT_FALSE(client_.call("m", params, PATIENCE, reply_));
    EXPECT_EQ(JSON_RPC_INVALID_PARAMS, reply_.code);
    client_.close();
}
