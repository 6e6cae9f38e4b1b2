#include "gaussdb/common/gaussdb_t_single_handler.h"

#include "gaussdb/common/gaussdb_zsql_client.h"
#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pwd.h>
#include <sys/socket.h>

namespace {

using testing::ElementsAre;

class T_Single_Handler_Test : public testing::Test {
protected:
    T_Single_Handler_Test() {
        env_.set_env("PATH", std::getenv("PATH"));
        env_.set_env("GSDB_HOME", "/opt/db");
        env_.set_env("GSDB_DATA", "/opt/data");
        env_.set_env("LSNR_PORT", "1611");
    }

    Product_Directories host_;
    GaussDB_Env env_;
};

TEST_F(T_Single_Handler_Test, all_that_is_known_comes_from_the_environment) {
    GaussDB_T_Single_Handler handler(env_, "nobody");
    ASSERT_TRUE(handler.init("zengine_1611"));
    EXPECT_EQ(GaussDB_Cluster_Handler::TYPE_SINGLE, handler.type());
    EXPECT_TRUE(handler.get_gaussdb_version() == GaussDB_Version(GAUSSDB_T, 0, 0, 0));
    EXPECT_EQ("zengine_1611", handler.info().name);
    EXPECT_EQ("host1", handler.info().nodes);
    EXPECT_EQ("/opt/db", handler.info().app_path);
    EXPECT_EQ(0u, handler.nodes());
    EXPECT_EQ("", handler.conf());
    EXPECT_TRUE(handler.init("other"));
    EXPECT_EQ("zengine_1611", handler.info().name);
}

TEST_F(T_Single_Handler_Test, without_a_data_directory) {
    env_.set_env("GSDB_DATA", "");
    GaussDB_T_Single_Handler handler(env_, "nobody");
    EXPECT_FALSE(handler.init("zengine_1611"));
    EXPECT_LOGGED(LM_ERROR, "Failed to get GSDB_DATA or LSNR_PORT\n");
    EXPECT_TRUE(handler.init("zengine_1611"));
}

TEST_F(T_Single_Handler_Test, without_a_port) {
    for (char const* port : {"", "0", "none"}) {
        env_.set_env("LSNR_PORT", port);
        GaussDB_T_Single_Handler handler(env_, "nobody");
        EXPECT_FALSE(handler.init("zengine_1611")) << port;
        EXPECT_LOGGED(LM_ERROR, "Failed to get GSDB_DATA or LSNR_PORT\n");
    }
}

TEST_F(T_Single_Handler_Test, status_is_whether_somebody_listens) {
    int const server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    ASSERT_EQ(0, bind(server, reinterpret_cast<sockaddr*>(&address), size));
    ASSERT_EQ(0, getsockname(server, reinterpret_cast<sockaddr*>(&address), &size));
    env_.set_env("LSNR_PORT", std::to_string(ntohs(address.sin_port)));
    GaussDB_T_Single_Handler handler(env_, "nobody");
    ASSERT_TRUE(handler.init("zengine_1"));

    for (bool const before : {false, true}) {
        std::string status;
        bool balanced = before;
        EXPECT_TRUE(handler.get_status(status, balanced));
        EXPECT_EQ("error", status) << "bound, and nobody listens";
        EXPECT_EQ(before, balanced);
    }
    ASSERT_EQ(0, listen(server, 1));
    for (bool const before : {false, true}) {
        std::string status;
        bool balanced = before;
        EXPECT_TRUE(handler.get_status(status, balanced));
        EXPECT_EQ("running", status);
        EXPECT_EQ(before, balanced);
    }
    close(server);
}

TEST_F(T_Single_Handler_Test, clients_are_zsql_on_the_data_directory) {
    std::string const rows = "out NAME\nout ----\nout db1\nout 1 rows fetched.\n";
    host_.tools.script("zsql", "line\n" + rows + "---\n" + rows);
    GaussDB_T_Single_Handler handler(env_, "nobody");
    ASSERT_TRUE(handler.init("zengine_1611"));
    EXPECT_TRUE(handler.test_logon("sys", "secret"));
    EXPECT_THAT(host_.tools.call("zsql", 1).args,
                ElementsAre("zsql", "sys@127.0.0.1:1611", "-q", "-D", "/opt/data", "-c",
                            "select instance_name from dv_instance"));
    EXPECT_EQ("secret\n", host_.tools.call("zsql", 1).input);
    EXPECT_EQ("db1", handler.get_database_version());
    EXPECT_THAT(
        host_.tools.call("zsql", 2).args,
        ElementsAre("zsql", "/", "as", "sysdba", "-D", "/opt/data", "-q", "-c", "select version"));
    EXPECT_EQ(getpwnam("nobody")->pw_uid, host_.tools.call("zsql", 2).uid);
}

TEST_F(T_Single_Handler_Test, without_memory_there_is_no_client) {
    GaussDB_T_Single_Handler const handler(env_, "nobody");
    Failing_New const guard(sizeof(GaussDB_Zsql_Client));
    EXPECT_EQ(nullptr, handler.create_client("sys", "", ""));
    EXPECT_EQ(ENOMEM, errno);
}

} // namespace
