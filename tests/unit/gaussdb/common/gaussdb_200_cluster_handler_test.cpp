#include "gaussdb/common/gaussdb_200_cluster_handler.h"

#include "gaussdb/common/gaussdb_gsql_client.h"
#include "host/process/password_file_entry.h"
#include "qmrt/file.h"
#include "qmrt/path.h"
#include "tests/support/cluster_xml.h"
#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"
#include "tests/support/scripted_interpreters.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace {

using testing::ElementsAre;

constexpr GaussDB_Version VERSION_6(GAUSSDB_200, 6, 0, 0);

class Handler_200_Test : public testing::Test {
protected:
    Handler_200_Test() {
        user_.get("nobody");
        env_.set_env("PATH", std::getenv("PATH"));
        env_.set_env("GAUSSHOME", "/home/omm/app");
        env_.set_env("GPHOME", "/home/omm/tool");
        host_.write(live_, "live");
        std::filesystem::create_directories("/home/omm/app/lib");
        chown_r("/home/omm", "nobody");
    }

    /** Lets the interpreter's next runs print this XML. */
    void generates(std::string const& xml) {
        host_.write("/home/generated.xml", xml);
        std::string const step = "run cat /home/generated.xml";
        host_.tools.script("python", step);
        host_.tools.script("python3", step);
    }
    static Xml_Params device(std::string const& name, Xml_Params more = {}) {
        more.insert(more.begin(), {"name", name});
        return more;
    }
    static Xml_Params cluster() { return {{"clusterName", "c1"}, {"nodeNames", "host1,host2"}}; }

    /** The environment and arguments of the gsql that a client of the handler starts. */
    Tool_Call gsql_call(GaussDB_Cluster_Handler const& handler) {
        host_.tools.prints("gsql", "t");
        std::vector<std::string> rows;
        EXPECT_TRUE(
            handler.create_client("sys", nullptr, "ignored")->query("select 1", rows, true));
        return host_.tools.call("gsql", host_.tools.calls("gsql"));
    }

    Product_Directories host_;
    Scripted_Interpreters interpreters_{host_.tools};
    Password_File_Entry user_;
    GaussDB_Env env_;
    std::string const live_ = "/home/omm/app/bin/cluster_static_config";
    std::string const saved_ = std::string(host_.CACHE) + "c1";
    std::string const conf_ = std::string(host_.XML) + "c1";
    std::string const link_ = "/home/omm/app/lib/libsimsearch/libxbsa64.so";
};

TEST_F(Handler_200_Test, init_generates_parses_saves_and_links) {
    generates(cluster_xml(cluster(), {device("host1", {{"cooPortBase", "8000"}})}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    ASSERT_TRUE(handler.init("c1"));

    EXPECT_THAT(host_.tools.call("python").args,
                ElementsAre("/usr/bin/python", "/opt/quilmot/zenbrak3/bin/probe_gaussdb_config",
                            "-u", "nobody", "-c", live_, "-o", "-", "-p", "/home/omm/tool/script"));
    EXPECT_EQ(1u, host_.tools.calls("python"));
    EXPECT_EQ(conf_, handler.conf());
    EXPECT_EQ("c1", handler.info().name);
    EXPECT_EQ("host1,host2", handler.info().nodes);
    EXPECT_EQ(GaussDB_Cluster_Handler::TYPE_HA, handler.type());

    EXPECT_EQ("live", host_.read(saved_));
    EXPECT_EQ(0640u, host_.mode(saved_));
    struct stat saved;
    ASSERT_EQ(0, stat(saved_.c_str(), &saved));
    EXPECT_EQ(user_.uid(), saved.st_uid) << "as whom it is read when the live file is gone";
    EXPECT_EQ(0755u, host_.mode(host_.CACHE));
    EXPECT_EQ(0755u, host_.mode(host_.XML));
    EXPECT_EQ("/opt/quilmot/zenbrak3/lib/libxbsa64.so", host_.link_target(link_));
    std::string const directory = dirname_string(link_);
    EXPECT_EQ(0750u, host_.mode(directory));
    struct stat status;
    ASSERT_EQ(0, stat(directory.c_str(), &status));
    EXPECT_EQ(user_.uid(), status.st_uid);
}

TEST_F(Handler_200_Test, from_8_1_1_on_the_interpreter_is_python3) {
    generates(cluster_xml(cluster(), {}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", GAUSSDB_A_811);
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_EQ(1u, host_.tools.calls("python3"));
    EXPECT_EQ(0u, host_.tools.calls("python"));
}

TEST_F(Handler_200_Test, before_8_1_1_it_is_python) {
    generates(cluster_xml(cluster(), {}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", GaussDB_Version(GAUSSDB_200, 8, 1, 0));
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_EQ(1u, host_.tools.calls("python"));
    EXPECT_EQ(0u, host_.tools.calls("python3"));
}

TEST_F(Handler_200_Test, init_wants_a_name_and_is_done_once) {
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_FALSE(handler.init(nullptr));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_TRUE(handler.init(nullptr)) << "the flag is no statement of success";
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_EQ(0u, host_.tools.calls("python"));

    GaussDB_200_Cluster_Handler other(env_, "nobody", VERSION_6);
    EXPECT_FALSE(other.init(""));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
}

TEST_F(Handler_200_Test, the_saved_copy_serves_when_the_live_file_is_gone) {
    std::filesystem::remove(live_);
    host_.write(saved_, "saved");
    generates(cluster_xml(cluster(), {device("host1")}));
    host_.tools.script("python", "exit 1\n---\nrun cat /home/generated.xml");
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_EQ(live_, host_.tools.call("python", 1).args.at(5));
    EXPECT_EQ(saved_, host_.tools.call("python", 2).args.at(5));
    EXPECT_EQ("saved", host_.read(saved_)) << "nothing to copy over it";
    EXPECT_EQ(1u, handler.nodes());
    Log_Capture::instance().claim_all(LM_WARNING, "status 1");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
}

TEST_F(Handler_200_Test, a_live_file_that_cannot_be_read_by_the_tool_is_still_saved) {
    generates(cluster_xml(cluster(), {}));
    host_.tools.script("python", "exit 1\n---\nrun cat /home/generated.xml");
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_EQ("live", host_.read(saved_));
    Log_Capture::instance().claim_all(LM_WARNING, "status 1");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
}

TEST_F(Handler_200_Test, what_the_clusters_user_cannot_read_is_not_saved) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can act as another user";
    generates(cluster_xml(cluster(), {}));
    // as a hard link to a file of root's would be
    ASSERT_EQ(0, chown(live_.c_str(), 0, 0));
    ASSERT_EQ(0, chmod(live_.c_str(), 0600));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_FALSE(host_.exists(saved_));
    EXPECT_LOGGED(LM_DEBUG, "Failed to save " + live_ + " as " + saved_ + ", errno=13");
}

TEST_F(Handler_200_Test, neither_file_is_a_failure_told_once_each_and_repeated_never) {
    host_.tools.script("python", "exit 2");
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_FALSE(handler.init("c1"));
    EXPECT_EQ(2u, host_.tools.calls("python"));
    EXPECT_EQ(
        2u, Log_Capture::instance().claim_all(LM_ERROR, "Failed to generate GaussDB xml config\n"));
    Log_Capture::instance().claim_all(LM_WARNING, "status 2");
    EXPECT_FALSE(host_.exists(saved_));
    EXPECT_FALSE(host_.exists(link_));
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_EQ(2u, host_.tools.calls("python"));
}

TEST_F(Handler_200_Test, without_gphome_nothing_is_run) {
    env_.set_env("GPHOME", "");
    host_.tools.script("python", "exit 0");
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_FALSE(handler.init("c1"));
    EXPECT_CHECK_LOGGED("gp_home is NULL or \"\"");
    EXPECT_CHECK_LOGGED("gp_home is NULL or \"\"");
    EXPECT_EQ(0u, host_.tools.calls("python"));
}

TEST_F(Handler_200_Test, without_gausshome_nothing_is_made_at_the_root) {
    env_.set_env("GAUSSHOME", "");
    generates(cluster_xml(cluster(), {}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_FALSE(handler.init("c1"));
    EXPECT_CHECK_LOGGED("gauss_home is NULL or \"\"");
    EXPECT_EQ(saved_, host_.tools.call("python").args.at(5));
    EXPECT_FALSE(host_.exists("/lib/libsimsearch"));
}

TEST_F(Handler_200_Test, nothing_is_made_where_the_clusters_user_could_not) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can act as another user";
    generates(cluster_xml(cluster(), {device("host1")}));
    std::filesystem::create_directory("/home/roots");
    std::filesystem::remove("/home/omm/app/lib");
    std::filesystem::create_symlink("/home/roots", "/home/omm/app/lib");
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_FALSE(handler.init("c1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to mkdir /home/omm/app/lib/libsimsearch, errno=13");
    EXPECT_FALSE(host_.exists("/home/roots/libsimsearch"));
}

TEST_F(Handler_200_Test, xml_that_is_cut_is_a_failure) {
    std::string const xml = cluster_xml(cluster(), {device("host1")});
    generates(xml.substr(0, xml.size() / 2));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_FALSE(handler.init("c1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse XML " + conf_);
    EXPECT_EQ(0u, handler.nodes());
    EXPECT_FALSE(host_.exists(saved_)) << "what cannot be read is not worth saving";
    EXPECT_FALSE(host_.exists(link_));
}

TEST_F(Handler_200_Test, a_name_that_leads_out_of_its_directory_changes_nothing) {
    host_.tools.script("python", "exit 0");
    for (char const* name :
         {"../../../../../home/omm/app/bin/cluster_static_config", "..", "a/b", "it's", "\"c1\""}) {
        GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
        EXPECT_FALSE(handler.init(name));
        EXPECT_LOGGED(LM_ERROR, "cannot be a cluster's name");
    }
    EXPECT_EQ(0u, host_.tools.calls("python"));
    EXPECT_EQ("live", host_.read(live_));
    EXPECT_FALSE(host_.exists("/var/opt/quilmot/zenbrak3"));
    EXPECT_FALSE(host_.exists("/var/cache/quilmot/zenbrak3"));
}

TEST_F(Handler_200_Test, a_name_with_dots_inside_names_its_own_files) {
    generates(cluster_xml(cluster(), {}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_TRUE(handler.init("v8..1"));
    EXPECT_TRUE(host_.exists(std::string(host_.XML) + "v8..1"));
    EXPECT_EQ("live", host_.read(std::string(host_.CACHE) + "v8..1"));
}

TEST_F(Handler_200_Test, a_local_coordinator_is_reached_locally) {
    generates(cluster_xml(
        cluster(), {device("host0", {{"cooPortBase", "7000"}, {"cooListenIp1", "10.0.0.1"}}),
                    device("host1", {{"cooPortBase", "8000"}, {"cooListenIp1", "10.0.0.2"}})}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    ASSERT_TRUE(handler.init("c1"));
    Tool_Call const call = gsql_call(handler);
    EXPECT_THAT(call.args, ElementsAre("gsql", "-t", "-c", "select 1"));
    EXPECT_EQ("8000", call.env.at("PGPORT"));
    EXPECT_EQ("postgres", call.env.at("PGDATABASE")) << "whatever database was asked for";
    EXPECT_EQ("sys", call.env.at("PGUSER"));
    EXPECT_EQ(user_.uid(), call.uid);
}

TEST_F(Handler_200_Test, without_a_local_coordinator_the_first_with_port_and_address_serves) {
    generates(cluster_xml(
        cluster(), {device("host0", {{"cooPortBase", "7000"}}),
                    device("host1", {{"dataNum", "1"}, {"dataPortBase", "40000"}}),
                    device("host2", {{"cooListenIp1", "10.0.0.2"}}),
                    device("host3", {{"cooPortBase", "7003"}, {"cooListenIp1", "10.0.0.3"}}),
                    device("host4", {{"cooPortBase", "7004"}, {"cooListenIp1", "10.0.0.4"}})}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    ASSERT_TRUE(handler.init("c1"));
    Tool_Call call = gsql_call(handler);
    EXPECT_THAT(call.args, ElementsAre("gsql", "-h", "10.0.0.3", "-t", "-c", "select 1"));
    EXPECT_EQ("7003", call.env.at("PGPORT"));

    // the data node is this machine's own
    host_.tools.script("gsql", "exit 2\n---\nexit 0");
    size_t const before = host_.tools.calls("gsql");
    EXPECT_TRUE(before > 0);
    std::filesystem::remove(host_.tools.path("calls/gsql.count"));
    EXPECT_TRUE(handler.test_logon("sys", ""));
    call = host_.tools.call("gsql", 2);
    EXPECT_THAT(call.args, ElementsAre("gsql", "-t", "-c", "\\q"));
    EXPECT_EQ("40000", call.env.at("PGPORT"));
    EXPECT_LOGGED(LM_WARNING, "Cannot login coordinator, login data node\n");
    Log_Capture::instance().claim_all(LM_WARNING, "status 2");
}

TEST_F(Handler_200_Test, a_host_that_is_not_among_the_devices) {
    generates(cluster_xml(cluster(), {device("host7", {{"cooPortBase", "7007"},
                                                       {"cooListenIp1", "10.0.0.7"},
                                                       {"dataNum", "2"},
                                                       {"dataPortBase", "40000"}})}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    ASSERT_TRUE(handler.init("c1"));
    EXPECT_FALSE(handler.is_first_device());
    Tool_Call const call = gsql_call(handler);
    EXPECT_EQ("7007", call.env.at("PGPORT"));
    EXPECT_EQ("10.0.0.7", call.args.at(2));
}

TEST_F(Handler_200_Test, without_any_coordinator_clients_go_to_the_data_node) {
    generates(
        cluster_xml(cluster(), {device("host1", {{"dataNum", "1"}, {"dataPortBase", "40000"}})}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    ASSERT_TRUE(handler.init("c1"));
    Tool_Call const call = gsql_call(handler);
    EXPECT_EQ("40000", call.env.at("PGPORT"));
    EXPECT_THAT(call.args, ElementsAre("gsql", "-t", "-c", "select 1"));
}

TEST_F(Handler_200_Test, a_data_port_without_data_nodes_is_none) {
    generates(
        cluster_xml(cluster(), {device("host1", {{"dataNum", "0"}, {"dataPortBase", "40000"}})}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    ASSERT_TRUE(handler.init("c1"));
    EXPECT_EQ("0", gsql_call(handler).env.at("PGPORT"));
}

class Handler_200_Logon_Test : public Handler_200_Test {
protected:
    Handler_200_Logon_Test() : handler_(env_, "nobody", VERSION_6) {
        generates(cluster_xml(cluster(), {device("host1", {{"cooPortBase", "8000"},
                                                           {"dataNum", "1"},
                                                           {"dataPortBase", "40000"}})}));
        EXPECT_TRUE(handler_.init("c1"));
    }
    std::string port(size_t call) { return host_.tools.call("gsql", call).env.at("PGPORT"); }

    GaussDB_200_Cluster_Handler handler_;
};

TEST_F(Handler_200_Logon_Test, the_coordinator_is_tried_first) {
    host_.tools.script("gsql", "line\nexit 0");
    EXPECT_TRUE(handler_.test_logon("sys", "secret"));
    EXPECT_EQ(1u, host_.tools.calls("gsql"));
    EXPECT_EQ("8000", port(1));
    EXPECT_EQ("secret\n", host_.tools.call("gsql").input);
}

TEST_F(Handler_200_Logon_Test, then_the_data_node_where_all_clients_go_from_then_on) {
    host_.tools.script("gsql", "exit 2\n---\nexit 0");
    EXPECT_TRUE(handler_.test_logon("sys", ""));
    EXPECT_LOGGED(LM_WARNING, "Cannot login coordinator, login data node\n");
    Log_Capture::instance().claim_all(LM_WARNING, "status 2");
    EXPECT_EQ("8000", port(1));
    EXPECT_EQ("40000", port(2));
    std::vector<std::string> rows;
    EXPECT_TRUE(handler_.create_client("sys", "", "")->query("select 1", rows, true));
    EXPECT_EQ("40000", port(3));
    // the next logon begins with the coordinator again
    EXPECT_TRUE(handler_.test_logon("sys", ""));
    EXPECT_EQ("8000", port(4));
}

TEST_F(Handler_200_Logon_Test, when_both_fail_clients_go_to_the_coordinator) {
    host_.tools.script("gsql", "exit 2\n---\nexit 2\n---\nexit 0");
    EXPECT_FALSE(handler_.test_logon("sys", ""));
    Log_Capture::instance().claim_all(LM_WARNING, "status 2");
    EXPECT_NOT_LOGGED("Cannot login coordinator");
    std::vector<std::string> rows;
    EXPECT_TRUE(handler_.create_client("sys", "", "")->query("select 1", rows, true));
    EXPECT_EQ("8000", port(3));
}

TEST_F(Handler_200_Test, a_library_in_the_links_place_is_a_failure) {
    generates(cluster_xml(cluster(), {}));
    host_.write(link_, "a library");
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_FALSE(handler.init("c1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to link /opt/quilmot/zenbrak3/lib/libxbsa64.so to " + link_ +
                                ", errno=17, File exists\n");
    EXPECT_EQ("a library", host_.read(link_));
}

TEST_F(Handler_200_Test, the_link_is_made_when_the_installation_is_back) {
    std::filesystem::remove_all("/home/omm/app");
    host_.write(saved_, "saved");
    generates(cluster_xml(cluster(), {}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_LOGGED(LM_WARNING, "not made, /home/omm/app does not exist\n");
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_FALSE(host_.exists("/home/omm/app"));
    std::filesystem::create_directory("/home/omm/app");
    ASSERT_EQ(0, chown_r("/home/omm/app", "nobody"));
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_EQ("/opt/quilmot/zenbrak3/lib/libxbsa64.so", host_.link_target(link_));
    EXPECT_EQ(1u, host_.tools.calls("python")) << "nothing else is done again";
}

TEST_F(Handler_200_Test, a_way_to_another_users_installation_changes_nothing_there) {
    std::string const theirs = "/home/theirs/lib/libsimsearch";
    std::filesystem::create_directories(theirs);
    ASSERT_EQ(0, chown_r("/home/theirs", "daemon"));
    std::filesystem::remove("/home/omm/app/lib");
    std::filesystem::create_symlink("/home/theirs/lib", "/home/omm/app/lib");
    generates(cluster_xml(cluster(), {}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_FALSE(handler.init("c1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to link /opt/quilmot/zenbrak3/lib/libxbsa64.so to " + link_ +
                                ", errno=13, Permission denied\n");
    struct stat status;
    ASSERT_EQ(0, stat(theirs.c_str(), &status));
    EXPECT_EQ(1u, status.st_uid);
    EXPECT_TRUE(std::filesystem::is_empty(theirs));
}

TEST_F(Handler_200_Test, a_link_that_points_elsewhere_is_left) {
    generates(cluster_xml(cluster(), {}));
    std::filesystem::create_directories(dirname_string(link_));
    std::filesystem::create_symlink("/elsewhere.so", link_);
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_EQ("/elsewhere.so", host_.link_target(link_));
}

TEST_F(Handler_200_Test, a_live_file_that_is_a_link_is_not_saved) {
    std::filesystem::remove(live_);
    host_.write("/home/elsewhere", "not the cluster's");
    std::filesystem::create_symlink("/home/elsewhere", live_);
    generates(cluster_xml(cluster(), {}));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    EXPECT_TRUE(handler.init("c1"));
    EXPECT_FALSE(host_.exists(saved_));
}

TEST_F(Handler_200_Test, ten_thousand_devices) {
    std::vector<Xml_Params> devices;
    for (int number = 0; number < 9999; ++number)
        devices.push_back(device("other" + std::to_string(number)));
    devices.push_back(device("host1", {{"cooPortBase", "8000"}}));
    generates(cluster_xml(cluster(), devices));
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    ASSERT_TRUE(handler.init("c1"));
    EXPECT_EQ(10000u, handler.nodes());
    EXPECT_EQ("8000", gsql_call(handler).env.at("PGPORT"));
}

TEST_F(Handler_200_Test, of_two_threads_one_runs_init_and_the_other_waits_for_it) {
    generates(cluster_xml(cluster(), {device("host1")}));
    host_.tools.script("python", "wait\nrun cat /home/generated.xml");
    GaussDB_200_Cluster_Handler handler(env_, "nobody", VERSION_6);
    std::atomic<int> done = 0;
    auto const run = [&] {
        EXPECT_TRUE(handler.init("c1"));
        EXPECT_EQ(1u, handler.nodes()) << "not before it is ready";
        ++done;
    };
    std::thread one(run);
    std::thread other(run);
    while (host_.tools.calls("python") == 0)
        std::this_thread::yield();
    EXPECT_EQ(0, done);
    EXPECT_EQ(0u, handler.nodes()) << "and nobody who asks meanwhile has to wait";
    host_.tools.go("python");
    one.join();
    other.join();
    EXPECT_EQ(1u, host_.tools.calls("python"));
}

TEST_F(Handler_200_Test, without_memory_there_is_no_client) {
    GaussDB_200_Cluster_Handler const handler(env_, "nobody", VERSION_6);
    Failing_New const guard(sizeof(GaussDB_Gsql_Client));
    EXPECT_EQ(nullptr, handler.create_client("sys", "", ""));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ("", handler.get_database_version());
}

} // namespace
