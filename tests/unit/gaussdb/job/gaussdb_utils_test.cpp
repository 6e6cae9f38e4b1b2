#include "gaussdb/job/gaussdb_utils.h"

#include "gaussdb/common/gaussdb_client.h"
#include "gaussdb/common/gaussdb_env.h"
#include "host/http/http_method.h"
#include "host/process/ace_process_ex.h"
#include "host/storage/mount_fuse.h"
#include "host/storage/pool_info.h"
#include "json_spirit/access.h"
#include "tests/support/child_options.h"
#include "tests/support/fake_instances.h"
#include "tests/support/fake_upstream_backend.h"
#include "tests/support/log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

TEST(parse_instance_entry, the_instance_is_the_second_segment) {
    std::string instance;
    EXPECT_TRUE(parse_instance_entry("gaussdb/cluster1", instance));
    EXPECT_EQ("cluster1", instance);
    EXPECT_TRUE(parse_instance_entry("gaussdb/cluster2/schema/db/s", instance));
    EXPECT_EQ("cluster2", instance);
    EXPECT_TRUE(parse_instance_entry("gaussdb/a%2fb", instance));
    EXPECT_EQ("a/b", instance);
}

TEST(parse_instance_entry, other_texts_are_no_entry) {
    std::string instance = "old";
    for (char const* entry : {"gaussdb", "mysql/x", "", "/gaussdb/x"}) {
        EXPECT_FALSE(parse_instance_entry(entry, instance)) << entry;
        EXPECT_LOGGED(LM_WARNING,
                      "Failed to parse gaussdb source:\"" + std::string(entry) + "\"\n");
    }
    EXPECT_EQ("old", instance);
}

TEST(to_byte, numbers_with_units) {
    int64_t bytes = 0;
    auto const read = [&](char const* text) { return to_byte(text, bytes) ? bytes : -1; };
    EXPECT_EQ(10, read("10 B"));
    EXPECT_EQ(2, read("2 bytes"));
    EXPECT_EQ(2, read("2 bananas")); // every word with a B
    EXPECT_EQ(10240, read("10KB"));
    EXPECT_EQ(10240, read("10 kb"));
    EXPECT_EQ(1048576, read("1 MB"));
    EXPECT_EQ(1610612736, read("1.5 GB"));
    EXPECT_EQ(1099511627776, read("1 TBytes"));
    EXPECT_EQ(1125899906842624, read("1 PB"));
    EXPECT_EQ(1, read("1.9 B"));
    EXPECT_EQ(-2, read("-2 B"));
    EXPECT_EQ(1024, read("  1 KB and more"));
}

TEST(to_byte, what_is_no_size_changes_nothing) {
    int64_t bytes = 7;
    for (char const* text : {"10", "", "GB", "1 K", "1 EB", "1 K B", "x 1 GB", "1e300 GB",
                             "9223372036854775808 B", "nan B", "10 "})
        EXPECT_FALSE(to_byte(text, bytes)) << text;
    EXPECT_EQ(7, bytes);
}

TEST(random_port, is_free) {
    uint16_t const port = random_port();
    EXPECT_NE(0, port);
    int const socket_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    EXPECT_EQ(0, bind(socket_fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    close(socket_fd);
}

TEST(random_port, without_a_descriptor_is_0) {
    rlimit before;
    getrlimit(RLIMIT_NOFILE, &before);
    rlimit none = before;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
    uint16_t const port = random_port();
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(0, port);
}

TEST(set_fuse_for_dedup, hands_on_what_the_mount_offers) {
    Mount_Fuse fuse;
    Client_IO_Base::Options options;
    options.compression_method = COMPR_ZSTD;
    EXPECT_TRUE(set_fuse_for_dedup(fuse, options, Pool_Info()));
    options.encryption = ENCRYPTION_AES_256;
    EXPECT_FALSE(set_fuse_for_dedup(fuse, options, Pool_Info()));
}

// the backup server's answer about a cluster

class Cluster_Hosts_Test : public testing::Test {
protected:
    void SetUp() override { instances_->put({"gaussdb", "c1", "uuid/1", {}, {}}); }
    void serve(int status, Value const& body) {
        upstream_->serve(HTTP_METHOD_GET, "/d2/r/v2/resources", rest_answer(status, body));
    }
    static Object row(Value const& form, Value const& instances) {
        return Object{{"form", form}, {"instances", instances}};
    }
    static Object host(char const* uuid) { return Object{{"host_uuid", uuid}}; }

    Fake_Instances instances_;
    Scoped_Fake_Upstream upstream_;
    Texts hosts_;
};

TEST_F(Cluster_Hosts_Test, the_hosts_of_every_row_with_a_form) {
    serve(200, Object{{"rows", Array{row("cluster", Array{host("h1"), 5, host("h2")}),
                                     row("", Array{host("no")}), Object{{"form", "x"}},
                                     Object{{"instances", Array{host("no")}}}, 7,
                                     row("single", Array{host("h3")})}}});
    EXPECT_TRUE(get_cluster_host_uuids("c1", hosts_));
    EXPECT_THAT(hosts_, ElementsAre("h1", "h2", "h3"));
    EXPECT_EQ("feature=backup&instance_uuid=uuid%2f1&scope=instances",
              upstream_->rest_calls().front().query);
}

TEST_F(Cluster_Hosts_Test, no_rows_and_no_instances_are_no_hosts) {
    serve(200, Object{{"rows", Array{}}});
    EXPECT_FALSE(get_cluster_host_uuids("c1", hosts_));
    serve(200, Object{{"rows", Array{row("x", Array{}), row("y", 5)}}});
    EXPECT_FALSE(get_cluster_host_uuids("c1", hosts_));
    EXPECT_THAT(hosts_, ElementsAre());
}

TEST_F(Cluster_Hosts_Test, an_answer_of_another_kind_is_told) {
    for (Value const& body :
         {Value(Array{}), Value(Object{}), Value(Object{{"rows", 5}}),
          Value(Object{{"rows", Array{row("x", Array{Object{{"host_uuid", 5}}})}}})}) {
        serve(200, body);
        EXPECT_FALSE(get_cluster_host_uuids("c1", hosts_));
        EXPECT_LOGGED(LM_ERROR, "Failed to get cluster info of c1, ");
    }
}

TEST_F(Cluster_Hosts_Test, a_server_that_refuses_or_cannot_be_reached) {
    serve(500, Object{});
    EXPECT_FALSE(get_cluster_host_uuids("c1", hosts_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get cluster info of c1\n");
    upstream_->reachable(false);
    EXPECT_FALSE(get_cluster_host_uuids("c1", hosts_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get cluster info of c1\n");
    Log_Capture::instance().claim_all(LM_ERROR, "/d2/r/v2/resources");
}

TEST_F(Cluster_Hosts_Test, an_instance_that_is_not_on_record) {
    EXPECT_FALSE(get_cluster_host_uuids("c2", hosts_));
    EXPECT_LOGGED(LM_ERROR,
                  "Failed to invoke get_cluster_host_uuids, can't find gaussdb instance.\n");
    for (char const* nothing : {static_cast<char const*>(nullptr), ""}) {
        EXPECT_FALSE(get_cluster_host_uuids(nothing, hosts_));
        EXPECT_CHECK_LOGGED_AT(LM_ERROR, "instance is NULL or \"\"");
    }
}

// accounts

TEST(get_instance_config, the_users_account_and_the_clusters_user) {
    Fake_Instances instances;
    instances->put({"gaussdb", "c1", "u1", Object{{"user", "omm"}}, {}});
    instances->save_account("gaussdb", "c1", "uid",
                            Object{{"username", "backup"}, {"password", "secret"}});
    std::string username;
    std::string user;
    secure_string password;
    EXPECT_TRUE(get_instance_config("c1", "uid", username, password, &user));
    EXPECT_EQ("backup", username);
    EXPECT_EQ("secret", password);
    EXPECT_EQ("omm", user);
    EXPECT_TRUE(get_instance_config("c1", "uid", username, password, nullptr));
}

TEST(get_instance_config, without_instance_or_account) {
    Fake_Instances instances;
    instances->put({"gaussdb", "c1", "u1", {}, {}});
    std::string username;
    secure_string password;
    for (char const* name : {"c1", "c2"}) {
        EXPECT_FALSE(get_instance_config(name, "uid", username, password, nullptr));
        EXPECT_LOGGED(LM_ERROR, std::string("Failed to get instance info of ") + name + "\n");
    }
    EXPECT_FALSE(get_instance_config("", "uid", username, password, nullptr));
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "instance is NULL or \"\"");
    EXPECT_FALSE(get_instance_config("c1", nullptr, username, password, nullptr));
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "uid is NULL or \"\"");
}

TEST(get_manual_instance_info, required_and_optional_attributes) {
    std::string meta, address, source = "old", ssh = "old";
    uint16_t port = 0;
    Object attributes{{"address", "10.0.0.1"}, {"meta_path", "/meta"}, {"backup_port", 8000}};
    EXPECT_TRUE(get_manual_instance_info(attributes, meta, port, address, source, ssh));
    EXPECT_EQ("10.0.0.1 /meta 8000 old old",
              address + " " + meta + " " + std::to_string(port) + " " + source + " " + ssh);
    attributes["source_commands"] = Value("");
    attributes["ssh_options"] = Value("-p 22");
    EXPECT_TRUE(get_manual_instance_info(attributes, meta, port, address, source, ssh));
    EXPECT_EQ("", source);
    EXPECT_EQ("-p 22", ssh);
}

TEST(get_manual_instance_info, a_missing_or_wrong_attribute_is_told) {
    Object const whole{{"address", "a"}, {"meta_path", "/m"}, {"backup_port", 1}};
    std::string meta, address, source, ssh;
    uint16_t port = 0;
    for (char const* key : {"address", "meta_path", "backup_port"}) {
        Object attributes = whole;
        attributes.erase(key);
        EXPECT_FALSE(get_manual_instance_info(attributes, meta, port, address, source, ssh));
        EXPECT_LOGGED(LM_ERROR, "Failed to get DWS instance info, ");
    }
    for (auto const& [key, value] :
         Object{{"backup_port", 70000}, {"address", 5}, {"ssh_options", 5}}) {
        Object attributes = whole;
        attributes[key] = value;
        EXPECT_FALSE(get_manual_instance_info(attributes, meta, port, address, source, ssh));
        EXPECT_LOGGED(LM_ERROR, "Failed to get DWS instance info, ");
    }
}

// services, found among this machine's processes

class Service_Process {
public:
    explicit Service_Process(std::string const& arguments) {
        Child_Options options("out ready cat args " + arguments);
        EXPECT_NE(-1, process_.spawn(options));
        char ready[6];
        EXPECT_EQ(6, read(process_.stdout_handle(), ready, sizeof ready));
    }
    ~Service_Process() {
        process_.close_stdin();
        process_.wait();
    }

private:
    ACE_Process_Ex process_{ACE_Process_Ex::REDIRECT_STDIN | ACE_Process_Ex::REDIRECT_STDOUT,
                            "service"};
};

class Services_Test : public testing::Test {
protected:
    std::string user_ = "old";
    std::string ip_;
    uint16_t port_ = 7;
};

TEST_F(Services_Test, no_roach_client) {
    EXPECT_FALSE(get_roach_client_info(user_, port_));
    EXPECT_EQ("", user_);
    EXPECT_EQ(0, port_);
}

TEST_F(Services_Test, the_first_roach_client_with_a_port) {
    Service_Process const without("roach_client -x");
    Service_Process const with("roach_client -p 10.0.0.1:8000 -x");
    EXPECT_TRUE(get_roach_client_info(user_, port_));
    EXPECT_EQ(8000, port_);
    EXPECT_EQ("root", user_);
}

TEST_F(Services_Test, a_roach_client_with_a_plain_port) {
    Service_Process const service("roach_client -p 65535");
    EXPECT_TRUE(get_roach_client_info(user_, port_));
    EXPECT_EQ(65535, port_);
}

TEST_F(Services_Test, a_port_beyond_the_range_is_told) {
    Service_Process const service("roach_client -p 65536");
    EXPECT_FALSE(get_roach_client_info(user_, port_));
    EXPECT_LOGGED(LM_ERROR, "Failed to convert string 65536 to port number.\n");
}

TEST_F(Services_Test, a_backup_agent_with_a_quoted_host) {
    Service_Process const service("backUpAgent \"host = '10.0.0.1'\" port=8001");
    EXPECT_TRUE(get_backup_agent_info(ip_, user_, port_));
    EXPECT_EQ("'10.0.0.1'", ip_);
    EXPECT_EQ(8001, port_);
    EXPECT_EQ("root", user_);
}

TEST_F(Services_Test, a_backup_agent_without_a_port_leaves_its_host) {
    Service_Process const service("backUpAgent host=10.0.0.2");
    EXPECT_FALSE(get_backup_agent_info(ip_, user_, port_));
    EXPECT_EQ("10.0.0.2", ip_);
    EXPECT_EQ("old", user_);
}

TEST_F(Services_Test, a_backup_agent_with_a_port_beyond_the_range) {
    Service_Process const service("backUpAgent host=h port=99999");
    EXPECT_FALSE(get_backup_agent_info(ip_, user_, port_));
    EXPECT_LOGGED(LM_ERROR, "Failed to convert string 99999 to port number.\n");
    EXPECT_FALSE(check_backup_agent_info("h", 65535, true, user_));
    EXPECT_LOGGED(LM_ERROR, "Failed to convert string 99999 to port number.\n");
}

TEST_F(Services_Test, a_backup_agent_with_these_settings) {
    Service_Process const service("backUpAgent host=h port=8001");
    EXPECT_TRUE(check_backup_agent_info("h", 8001, true, user_));
    EXPECT_EQ("root", user_);
    EXPECT_FALSE(check_backup_agent_info("h", 8001, false, user_));
    EXPECT_FALSE(check_backup_agent_info("h", 8002, true, user_));
    EXPECT_FALSE(check_backup_agent_info("g", 8001, true, user_));
}

TEST_F(Services_Test, a_backup_agent_without_ssl_makes_those_behind_it_plain) {
    Service_Process const plain("backUpAgent host=h port=8001 ssl=0");
    Service_Process const encrypted("backUpAgent host=h port=8001 ssl=true");
    EXPECT_TRUE(check_backup_agent_info("h", 8001, false, user_));
    EXPECT_FALSE(check_backup_agent_info("h", 8001, true, user_));
}

TEST_F(Services_Test, a_backup_agent_with_ssl_before_one_without) {
    Service_Process const encrypted("backUpAgent host=h port=8001 ssl=true");
    Service_Process const plain("backUpAgent host=h port=8001 ssl=false");
    EXPECT_TRUE(check_backup_agent_info("h", 8001, true, user_));
    EXPECT_TRUE(check_backup_agent_info("h", 8001, false, user_));
}

// statements

class Recording_Client : public GaussDB_Client {
public:
    Recording_Client() : GaussDB_Client(no_env(), "", "", "", 0, "", "") {}
    bool list_database(Texts&) const override { return false; }
    std::string get_version() const override { return ""; }
    bool test_logon() const override { return false; }
    bool query(char const* cmd, Texts& result, bool log) const override {
        EXPECT_TRUE(log);
        statement = cmd;
        result.insert(result.end(), rows.begin(), rows.end());
        return ok;
    }

    mutable std::string statement;
    Texts rows;
    bool ok = true;

private:
    static GaussDB_Env const& no_env() {
        static GaussDB_Env const env;
        return env;
    }
};

class Statements_Test : public testing::Test {
protected:
    Recording_Client client_;
    Texts rows_;
    GaussDB_Version const old_{GAUSSDB_DWS, 8, 1, 3};
    GaussDB_Version const new_{GAUSSDB_DWS, 8, 2, 1};
};

TEST_F(Statements_Test, the_number_of_hosts) {
    client_.rows = {"3", "x"};
    EXPECT_EQ(3u, get_database_nodes_number(&client_));
    EXPECT_EQ(
        R"(select count(distinct(node_host)) from pgxc_node where node_host!='"'localhost'"')",
        client_.statement);
}

TEST_F(Statements_Test, no_number_of_hosts) {
    EXPECT_EQ(0u, get_database_nodes_number(&client_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get nodes number.\n");
    client_.rows = {"3"};
    client_.ok = false;
    EXPECT_EQ(0u, get_database_nodes_number(&client_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get nodes number.\n");
    client_.rows = {"99999999999"};
    client_.ok = true;
    EXPECT_EQ(0u, get_database_nodes_number(&client_));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse nodes number result: 99999999999\n");
}

TEST_F(Statements_Test, the_hosts) {
    client_.rows = {"h1", "h2"};
    EXPECT_TRUE(get_database_addresses(&client_, rows_));
    EXPECT_THAT(rows_, ElementsAre("h1", "h2"));
    EXPECT_EQ(R"(select distinct(node_host) from pgxc_node where node_host!='"'localhost'"')",
              client_.statement);
    client_.ok = false;
    EXPECT_FALSE(get_database_addresses(&client_, rows_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get database addresses.\n");
}

TEST_F(Statements_Test, the_schemas) {
    EXPECT_TRUE(get_schemas(&client_, false, new_, rows_));
    EXPECT_EQ("select nspname from pg_namespace", client_.statement);
    EXPECT_TRUE(get_schemas(&client_, true, new_, rows_));
    EXPECT_EQ("select nspname from pg_namespace where nspowner != 10", client_.statement);
    EXPECT_TRUE(get_schemas(&client_, true, old_, rows_));
    EXPECT_EQ(R"(select nspname from pg_namespace where (oid >= 16384 or oid = 2200) and )"
              R"(nspname not in ('"'scheduler'"', '"'pmk'"'))",
              client_.statement);
    client_.ok = false;
    EXPECT_FALSE(get_schemas(&client_, true, old_, rows_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get database schemas.\n");
}

TEST_F(Statements_Test, the_tables_of_a_schema) {
    EXPECT_TRUE(get_tables(&client_, "s1", rows_));
    EXPECT_EQ(R"(select tablename from pg_tables where schemaname='"'s1'"')", client_.statement);
    client_.ok = false;
    EXPECT_FALSE(get_tables(&client_, "s1", rows_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get tables of schema s1\n");
}

TEST_F(Statements_Test, without_a_client) {
    EXPECT_EQ(0u, get_database_nodes_number(nullptr));
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "client is NULL");
    EXPECT_FALSE(get_database_addresses(nullptr, rows_));
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "client is NULL");
    EXPECT_FALSE(get_schemas(nullptr, false, new_, rows_));
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "client is NULL");
    EXPECT_FALSE(get_tables(nullptr, "s", rows_));
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "client is NULL");
}

} // namespace
