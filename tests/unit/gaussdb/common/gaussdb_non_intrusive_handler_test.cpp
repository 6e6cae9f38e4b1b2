#include "gaussdb/common/gaussdb_non_intrusive_handler.h"

#include "gaussdb/common/gaussdb_non_intrusive_client.h"
#include "json_spirit/access.h"
#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace {

using testing::ElementsAre;

constexpr GaussDB_Version DWS(GAUSSDB_DWS, 8, 2, 1);
constexpr GaussDB_Version OPENGAUSS(GAUSSDB_FOR_OPENGAUSS, 505, 1, 0);

std::string const DWS_PREFIX =
    "source /etc/profile; test -f $BIGDATA_HOME/mppdb/.mppdbgs_profile && source "
    "$BIGDATA_HOME/mppdb/.mppdbgs_profile; ";
std::string const OPENGAUSS_PREFIX = "test -f ~/gauss_env_file && source ~/gauss_env_file; ";
std::string const COORDINATOR = "gs_guc check -Z coordinator -I all -c \"port\"";
std::string const DATANODE = "gs_guc check -Z datanode -I all -c \"port\"";

class Non_Intrusive_Handler_Test : public testing::Test {
protected:
    /** Gives a handler this record and initialises it. */
    static bool init(GaussDB_Non_Intrusive_Handler& handler, json_spirit::Object const& record) {
        GaussDB_Cluster_Info info;
        info.name = "c1";
        info.extend_attrs = record;
        handler.info(info);
        return handler.init("ignored");
    }
    static json_spirit::Object at(char const* address) {
        return json_spirit::Object_Maker()("address", address);
    }
    std::string last_ssh_command() { return last_ssh_args().back(); }
    std::vector<std::string> last_ssh_args() {
        return host_.tools.call("ssh", host_.tools.calls("ssh")).args;
    }

    Product_Directories host_;
};

TEST_F(Non_Intrusive_Handler_Test, it_has_neither_user_nor_environment) {
    GaussDB_Non_Intrusive_Handler const handler(DWS);
    EXPECT_EQ("", handler.user());
    EXPECT_TRUE(handler.env().get_env().empty());
    EXPECT_TRUE(handler.get_gaussdb_version() == DWS);
}

TEST_F(Non_Intrusive_Handler_Test, dws_asks_the_coordinators_port_and_places_the_link) {
    host_.tools.prints("ssh", "port='25308'");
    GaussDB_Non_Intrusive_Handler handler(DWS);
    ASSERT_TRUE(init(handler, at("10.0.0.1")));
    EXPECT_THAT(host_.tools.call("ssh").args,
                ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.1", DWS_PREFIX + COORDINATOR));
    EXPECT_EQ(1u, host_.tools.calls("ssh"));
    EXPECT_EQ("/opt/quilmot/zenbrak3/lib/libxbsa64.so", host_.link_target(host_.SYSTEM_LINK));
}

TEST_F(Non_Intrusive_Handler_Test, opengauss_asks_the_coordinators_port_and_places_no_link) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(OPENGAUSS);
    ASSERT_TRUE(init(handler, at("10.0.0.1")));
    EXPECT_THAT(
        host_.tools.call("ssh").args,
        ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.1", OPENGAUSS_PREFIX + COORDINATOR));
    EXPECT_EQ(1u, host_.tools.calls("ssh"));
    EXPECT_FALSE(host_.exists(host_.SYSTEM_LINK));
}

TEST_F(Non_Intrusive_Handler_Test, opengauss_of_data_nodes_alone_logs_nothing) {
    host_.tools.script("ssh", "out There is no instance.\n---\nout port='40000'");
    GaussDB_Non_Intrusive_Handler handler(OPENGAUSS);
    ASSERT_TRUE(init(handler, at("10.0.0.1")));
    EXPECT_EQ(OPENGAUSS_PREFIX + DATANODE, host_.tools.call("ssh", 2).args.back());
    host_.tools.prints("ssh", "t");
    std::vector<std::string> rows;
    handler.create_client("", "", "db1")->query("select 1", rows, true);
    EXPECT_EQ(OPENGAUSS_PREFIX + "gsql -d db1 -p 40000 -t -c \"select 1\"", last_ssh_command());
}

TEST_F(Non_Intrusive_Handler_Test, a_port_that_nobody_tells_is_no_failure) {
    host_.tools.script("ssh", "exit 255");
    GaussDB_Non_Intrusive_Handler opengauss(OPENGAUSS);
    EXPECT_TRUE(init(opengauss, at("10.0.0.1")));
    EXPECT_EQ(2u, host_.tools.calls("ssh"));
    EXPECT_LOGGED(LM_ERROR, "Failed to get listening port from address 10.0.0.1\n");
    GaussDB_Non_Intrusive_Handler dws(DWS);
    EXPECT_TRUE(init(dws, at("10.0.0.2")));
    EXPECT_EQ(3u, host_.tools.calls("ssh")) << "DWS does not ask its data nodes";
    EXPECT_LOGGED(LM_ERROR, "Failed to get listening port from address 10.0.0.2\n");
    Log_Capture::instance().claim_all(LM_WARNING, "status 255");

    host_.tools.prints("ssh", "t");
    std::vector<std::string> rows;
    EXPECT_TRUE(dws.create_client("", "", "")->query("select 1", rows, true));
    EXPECT_EQ(DWS_PREFIX + "gsql -d postgres -p 0 -t -c \"select 1\"", last_ssh_command());
}

TEST_F(Non_Intrusive_Handler_Test, the_records_texts_replace_the_defaults) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(DWS);
    ASSERT_TRUE(
        init(handler, json_spirit::Object_Maker()("address", "cn1.example")(
                          "source_commands", "source ~/env; ")("ssh_options", "-o Port=2222")));
    EXPECT_THAT(host_.tools.call("ssh").args, ElementsAre("ssh", "-o", "Port=2222", "cn1.example",
                                                          "source ~/env; " + COORDINATOR));
}

TEST_F(Non_Intrusive_Handler_Test, empty_source_commands_mean_no_prefix) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(DWS);
    ASSERT_TRUE(
        init(handler, json_spirit::Object_Maker()("address", "10.0.0.1")("source_commands", "")));
    EXPECT_EQ(COORDINATOR, last_ssh_command());
}

TEST_F(Non_Intrusive_Handler_Test, setters_before_init) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(OPENGAUSS);
    handler.source_cmd("source ~/set; ");
    handler.ssh_opts("-4");
    ASSERT_TRUE(init(handler, at("10.0.0.1")));
    EXPECT_THAT(last_ssh_args(),
                ElementsAre("ssh", "-4", "10.0.0.1", "source ~/set; " + COORDINATOR));
}

TEST_F(Non_Intrusive_Handler_Test, without_an_address_no_ssh_is_tried) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(DWS);
    for (json_spirit::Object const& record : {json_spirit::Object(), at("")}) {
        EXPECT_FALSE(init(handler, record));
        EXPECT_LOGGED(LM_ERROR, "Failed to get GaussDB cluster ip address.\n");
    }
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
    EXPECT_FALSE(host_.exists(host_.SYSTEM_LINK));
}

TEST_F(Non_Intrusive_Handler_Test, an_address_that_ssh_would_take_for_more_is_refused) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(OPENGAUSS);
    for (char const* address : {"-oProxyCommand=touch /tmp/x", "-p", "a -oProxyCommand=x", "a\tb",
                                "a'b", "a\"b", "a\\", " a"}) {
        EXPECT_FALSE(init(handler, at(address))) << address;
        EXPECT_LOGGED(LM_ERROR, "Invalid address '" + std::string(address) + "', nothing is run\n");
    }
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Non_Intrusive_Handler_Test, a_record_that_is_not_accepted_any_more_runs_nothing) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(DWS);
    for (auto const& [key, text] : {std::pair{"ssh_options", "-o ProxyCommand=id"},
                                    {"ssh_options", "-o StrictHostKeyChecking=no"},
                                    {"ssh_options", "-p 22"},
                                    {"ssh_options", "-F/tmp/config"},
                                    {"source_commands", "x' ; id '"},
                                    {"address", "-p"},
                                    {"address", "n1;id"},
                                    {"meta_path", "/x;id"}}) {
        json_spirit::Object record{{"address", "10.0.0.1"}};
        record[key] = text;
        EXPECT_FALSE(init(handler, record)) << text;
        if (text != std::string("-p")) {
            EXPECT_LOGGED(LM_ERROR, "Invalid record of instance c1: " + std::string(key) + " '" +
                                        text + "' ");
        }
    }
    EXPECT_LOGGED(LM_ERROR, "Invalid address '-p', nothing is run\n");
    std::string status;
    bool balanced = false;
    EXPECT_FALSE(handler.get_status(status, balanced));
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
    EXPECT_FALSE(host_.exists(host_.SYSTEM_LINK));
}

TEST_F(Non_Intrusive_Handler_Test, without_an_address_no_status_is_asked) {
    GaussDB_Non_Intrusive_Handler const handler(DWS);
    std::string status;
    bool balanced = false;
    EXPECT_FALSE(handler.get_status(status, balanced));
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Non_Intrusive_Handler_Test, a_member_of_the_wrong_type_throws_and_changes_nothing) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(DWS);
    ASSERT_TRUE(init(handler, at("10.0.0.1")));
    EXPECT_THROW(
        init(handler, json_spirit::Object_Maker()("address", "10.0.0.2")("source_commands", 1)),
        json_spirit::Error);
    EXPECT_THROW(init(handler, json_spirit::Object_Maker()("address", "10.0.0.2")(
                                   "source_commands", "other ")("ssh_options", true)),
                 json_spirit::Error);
    EXPECT_EQ(1u, host_.tools.calls("ssh"));
    std::string status;
    bool balanced = false;
    handler.get_status(status, balanced);
    EXPECT_THAT(last_ssh_args(), ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.1",
                                             DWS_PREFIX + "gs_om -t status"));
}

TEST_F(Non_Intrusive_Handler_Test, init_runs_again_with_the_record_as_it_is_then) {
    host_.tools.script("ssh", "out port=8000\n---\nout port=9000\n---\nout t");
    GaussDB_Non_Intrusive_Handler handler(OPENGAUSS);
    ASSERT_TRUE(init(handler, at("10.0.0.1")));
    ASSERT_TRUE(init(handler, at("10.0.0.2")));
    EXPECT_EQ("10.0.0.2", host_.tools.call("ssh", 2).args.at(3));
    std::vector<std::string> rows;
    EXPECT_TRUE(handler.create_client("", "", "")->query("select 1", rows, true));
    EXPECT_THAT(last_ssh_args(),
                ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.2",
                            OPENGAUSS_PREFIX + "gsql -d postgres -p 9000 -t -c \"select 1\""));
}

TEST_F(Non_Intrusive_Handler_Test, the_clients_own_prefix_is_replaced) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(DWS);
    ASSERT_TRUE(init(handler, at("10.0.0.1")));
    std::vector<std::string> rows;
    EXPECT_TRUE(handler.create_client("user", "secret", "")->query("select 1", rows, true));
    EXPECT_EQ(DWS_PREFIX + "gsql -d postgres -p 8000 -t -c \"select 1\"", last_ssh_command());
}

TEST_F(Non_Intrusive_Handler_Test, status_is_asked_on_the_node) {
    host_.tools.script("ssh",
                       "out port=8000\n---\nout cluster_state   : Normal\nout balanced : No");
    GaussDB_Non_Intrusive_Handler handler(OPENGAUSS);
    ASSERT_TRUE(init(handler, at("10.0.0.1")));
    std::string status;
    bool balanced = true;
    EXPECT_TRUE(handler.get_status(status, balanced));
    EXPECT_EQ("Normal", status);
    EXPECT_FALSE(balanced);
    EXPECT_THAT(last_ssh_args(), ElementsAre("ssh", "-o", "ConnectTimeout=4", "10.0.0.1",
                                             OPENGAUSS_PREFIX + "gs_om -t status"));
}

TEST_F(Non_Intrusive_Handler_Test, logon_is_true_without_a_connection) {
    GaussDB_Non_Intrusive_Handler handler(DWS);
    EXPECT_TRUE(handler.test_logon("user", "secret"));
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Non_Intrusive_Handler_Test, dws_without_its_link_is_a_failure_before_any_ssh) {
    host_.tools.prints("ssh", "port=8000");
    host_.write(host_.SYSTEM_LINK, "a library");
    GaussDB_Non_Intrusive_Handler handler(DWS);
    EXPECT_FALSE(init(handler, at("10.0.0.1")));
    EXPECT_LOGGED(LM_ERROR, "Failed to link /opt/quilmot/zenbrak3/lib/libxbsa64.so to "
                            "/usr/openv/lib/libxbsa64.so, errno=17, File exists\n");
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Non_Intrusive_Handler_Test, dws_without_its_links_directory_is_a_failure) {
    Read_Only_Mount const guard("/usr/openv");
    GaussDB_Non_Intrusive_Handler handler(DWS);
    EXPECT_FALSE(init(handler, at("10.0.0.1")));
    EXPECT_LOGGED(LM_ERROR, "Failed to mkdir /usr/openv/lib, errno=30, ");
}

TEST_F(Non_Intrusive_Handler_Test, a_command_longer_than_a_command_line_runs_nothing) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(OPENGAUSS);
    handler.source_cmd(std::string(2000, 'x').c_str());
    EXPECT_TRUE(init(handler, at("10.0.0.1")));
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
    EXPECT_LOGGED(LM_ERROR, "Failed to get listening port from address 10.0.0.1\n");
    EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_ERROR, ""));
}

TEST_F(Non_Intrusive_Handler_Test, a_modified_record_beside_running_queries) {
    host_.tools.prints("ssh", "port=8000");
    GaussDB_Non_Intrusive_Handler handler(OPENGAUSS);
    ASSERT_TRUE(init(handler, at("10.0.0.1")));
    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done) {
            EXPECT_NE(nullptr, handler.create_client("", "", ""));
            EXPECT_EQ(1u, handler.info().extend_attrs.size());
        }
    });
    for (int round = 0; round < 5; ++round)
        EXPECT_TRUE(init(handler, at(round % 2 ? "10.0.0.1" : "10.0.0.2")));
    done = true;
    reader.join();
}

TEST_F(Non_Intrusive_Handler_Test, without_memory_there_is_no_client) {
    GaussDB_Non_Intrusive_Handler const handler(DWS);
    Failing_New const guard(sizeof(GaussDB_Non_Intrusive_Client));
    EXPECT_EQ(nullptr, handler.create_client("", "", ""));
    EXPECT_EQ(ENOMEM, errno);
}

} // namespace
