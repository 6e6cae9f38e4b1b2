#include "gaussdb/instance_handler/gaussdb_instance_handler.h"

#include "gaussdb/common/gaussdb_env.h"
#include "gaussdb/common/gaussdb_non_intrusive_handler.h"
#include "gaussdb/common/gaussdb_tpops_handler.h"
#include "host/agent/credential.h"
#include "tests/support/cluster_xml.h"
#include "tests/support/database_process.h"
#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"
#include "tests/support/no_more_descriptors.h"
#include "tests/support/product_directories.h"
#include "tests/support/scripted_cluster.h"
#include "tests/unit/gaussdb/tpops_platform.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using json_spirit::Object;
using testing::ElementsAre;

class Instance_Handler_Test : public testing::Test {
protected:
    Instance_Handler_Test() : manager_(*GaussDB_Cluster_Manager::instance()) {}
    ~Instance_Handler_Test() override { GaussDB_Cluster_Manager::close_instance(); }

    /** Puts an instance on record, as the agent hands it over. */
    std::shared_ptr<Instance> record(std::string const& name, Object const& options) {
        auto const instance = std::make_shared<Instance>();
        instance->type = "gaussdb";
        instance->name = name;
        instance->options = options;
        instances_.emplace(name, instance);
        return instance;
    }
    void probe() { EXPECT_EQ(0, handler_.probe_instances(instances_)); }

    /** A cluster that discovery finds, or finds again, with this record in place of its own. */
    void discovers(char const* name, Object attributes) {
        attributes["manual"] = true;
        GaussDB_Cluster_Info info;
        info.name = name;
        info.extend_attrs = attributes;
        Scripted_Cluster::enter(name)->info(info);
    }
    /** What a stopped cluster of the 100 series has left behind. */
    void write_down_100(std::string const& name) {
        host_.write("/home/tool/script/config/clusterconfig.xml",
                    cluster_xml({{"clusterName", name}, {"ServiceType", "SingleService"}},
                                {{{"name", "host1"}}}));
        GaussDB_Env env;
        env.set_env("GPHOME", "/home/tool");
        ASSERT_TRUE(manager_.dump_env(name, env));
    }
    static Object with(Object object, std::string const& key, json_spirit::Value const& value) {
        object[key] = value;
        return object;
    }
    static Object offline_100() {
        return {{"user", "nobody"}, {"version", GAUSSDB_100}, {"edition", "1.0.2"}};
    }
    static Object dws() {
        return {{"address", "10.0.0.1"}, {"version", GAUSSDB_DWS}, {"edition", "8.2.1"}};
    }

    Product_Directories host_;
    GaussDB_Cluster_Manager& manager_;
    GaussDB_Instance_Handler handler_;
    Instance_Handler::instances_type instances_;
};

TEST_F(Instance_Handler_Test, its_type) {
    EXPECT_EQ("gaussdb", handler_.type());
}

TEST_F(Instance_Handler_Test, discovery_that_fails_is_told_and_the_walk_goes_on) {
    Object const no_address{{"version", GAUSSDB_DWS}, {"edition", "8.2.1"}};
    // a sanitizer wants a descriptor to look at a class for the first time
    record("earlier", no_address);
    probe();
    EXPECT_LOGGED(LM_WARNING, "Failed to init gaussdb instance earlier.\n");
    EXPECT_NOT_LOGGED("Failed to list GaussDB instances\n");
    record("dws", no_address);
    {
        No_More_Descriptors const none; // /proc cannot be read
        probe();
    }
    EXPECT_LOGGED(LM_ERROR, "Failed to list GaussDB instances\n");
    EXPECT_LOGGED(LM_WARNING, "Failed to init gaussdb instance dws.\n");
    EXPECT_TRUE(manager_.cluster_exists("dws"));
    Log_Capture::instance().claim_all(LM_ERROR, "");
}

TEST_F(Instance_Handler_Test, what_discovery_found_is_added_with_its_whole_record) {
    discovers("c1", {{"instance", "c1"}, {"note", "by hand"}});
    probe();
    ASSERT_EQ(1u, instances_.size());
    Instance const& found = *instances_.at("c1");
    EXPECT_EQ("gaussdb", found.type);
    EXPECT_EQ("c1", found.name);
    EXPECT_EQ((Object{{"instance", "c1"}, {"note", "by hand"}, {"manual", true}}), found.options);
}

TEST_F(Instance_Handler_Test, a_running_cluster_is_found) {
    host_.write("/home/omm/profile", "export GAUSSHOME=/home/omm/app\n");
    host_.write("/home/omm/tool/script/config/clusterconfig.xml",
                cluster_xml({{"clusterName", "c1"}, {"ServiceType", "SingleService"}},
                            {{{"name", "host1"}}}));
    host_.tools.prints("gs_check", "gs_check GaussDB_100_1.0.2");
    Database_Process const process("/home/omm/app/bin/gaussdb -D /data/dn1",
                                   {"GS_CLUSTER_NAME=c1",
                                    "MPPDB_ENV_SEPARATE_PATH=/home/omm/profile",
                                    "GPHOME=/home/omm/tool"});
    probe();
    ASSERT_EQ(1u, instances_.count("c1"));
    EXPECT_EQ("1.0.2", json_spirit::object_get_str(instances_.at("c1")->options, "edition"));
}

TEST_F(Instance_Handler_Test, a_refused_process_is_told_and_goes_with_the_next_search) {
    host_.write("/home/omm/profile", "export GAUSSHOME=app\n");
    {
        Database_Process const process(
            "/home/omm/app/bin/gaussdb",
            {"GS_CLUSTER_NAME=c1", "MPPDB_ENV_SEPARATE_PATH=/home/omm/profile"});
        probe();
        ASSERT_EQ(1u, handler_.alerts().size());
        EXPECT_EQ("c1", handler_.alerts()[0].instance);
        EXPECT_LOGGED(LM_ERROR, handler_.alerts()[0].text);
    }
    probe();
    EXPECT_TRUE(handler_.alerts().empty());
}

TEST_F(Instance_Handler_Test, what_is_forgotten_is_not_found_again_unless_it_runs) {
    discovers("c1", {{"instance", "c1"}});
    handler_.forget("c1");
    handler_.forget("unknown");
    probe();
    EXPECT_TRUE(instances_.empty());
    EXPECT_FALSE(manager_.cluster_exists("c1"));
}

TEST_F(Instance_Handler_Test, a_record_without_a_name_adds_nothing) {
    discovers("c1", {{"note", "no name"}});
    discovers("c2", {{"instance", ""}});
    discovers("c3", {{"instance", 5}});
    probe();
    EXPECT_TRUE(instances_.empty());
}

TEST_F(Instance_Handler_Test, what_is_on_record_keeps_its_options) {
    auto const known = record("c1", {{"note", "of the record"}});
    discovers("c1", {{"instance", "c1"}, {"note", "of discovery"}});
    probe();
    EXPECT_EQ(known, instances_.at("c1"));
    EXPECT_EQ((Object{{"note", "of the record"}}), known->options);
}

TEST_F(Instance_Handler_Test, an_offline_instance_comes_back_by_what_was_written_down) {
    write_down_100("c1");
    record("c1", offline_100());
    probe();
    ASSERT_TRUE(manager_.cluster_exists("c1"));
    EXPECT_EQ("1.0.2", manager_.get_cluster("c1")->get_gaussdb_version().dump());
}

TEST_F(Instance_Handler_Test, an_offline_instance_of_which_nothing_is_written_down) {
    record("c1", offline_100());
    record("c2", {});
    probe();
    EXPECT_LOGGED(LM_ERROR, "Failed to load environment variables of cluster c1\n");
    Log_Capture::instance().claim_all(LM_ERROR, "c1_env");
    EXPECT_FALSE(manager_.cluster_exists("c1"));
    EXPECT_EQ(2u, instances_.size());
}

TEST_F(Instance_Handler_Test, an_offline_instance_without_user_or_edition_or_version_is_left_out) {
    write_down_100("c1");
    for (char const* key : {"user", "edition", "version"}) {
        instances_.clear();
        Object options = offline_100();
        options.erase(key);
        record("c1", options);
        probe();
        instances_.clear();
        record("c1", with(offline_100(), key, json_spirit::Array()));
        probe();
        EXPECT_FALSE(manager_.cluster_exists("c1")) << key;
    }
}

TEST_F(Instance_Handler_Test, an_instance_whose_own_name_is_empty_is_left_out) {
    write_down_100("c1");
    record("c1", offline_100())->name.clear();
    record("dws", dws())->name.clear();
    probe();
    EXPECT_FALSE(manager_.cluster_exists("c1"));
    EXPECT_FALSE(manager_.cluster_exists("dws"));
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Instance_Handler_Test, a_tpops_instance_never_comes_back_as_an_offline_one) {
    write_down_100("c1");
    host_.tools.prints("ssh", "port=8000");
    record("c1", with(offline_100(), "tpops_host", "tpops.example"));
    record("dws", with(dws(), "tpops_host", ""));
    probe();
    EXPECT_FALSE(manager_.cluster_exists("c1"));
    EXPECT_FALSE(manager_.cluster_exists("dws"));
    EXPECT_LOGGED(LM_WARNING, "Failed to init gaussdb instance c1.");
    EXPECT_LOGGED(LM_WARNING, "Failed to init gaussdb instance dws.");
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, "Failed to extract TPOPS info: "));
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Instance_Handler_Test, a_tpops_host_that_is_no_text_makes_no_tpops_instance) {
    write_down_100("c1");
    record("c1", with(offline_100(), "tpops_host", 5));
    probe();
    EXPECT_TRUE(manager_.cluster_exists("c1"));
}

TEST_F(Instance_Handler_Test, a_tpops_instance_that_is_known_is_left_alone) {
    auto const instance = record("c1", {{"tpops_host", "tpops.example"}});
    Scripted_Cluster::enter("c1", {GAUSSDB_TPOPS, 1, 0, 0});
    EXPECT_TRUE(init_tpops_instance(instance));
    probe();
}

TEST_F(Instance_Handler_Test, a_tpops_instance_comes_back_without_asking_the_platform) {
    TPOPS_Platform platform;
    record("t1", platform.record("i1"));
    probe();
    GaussDB_Cluster_Handler_var const handler = manager_.get_cluster("t1");
    ASSERT_FALSE(handler.null());
    auto* const tpops = dynamic_cast<GaussDB_TPOPS_Handler*>(handler.get());
    ASSERT_TRUE(tpops);
    EXPECT_EQ("t1", tpops->info().name);
    EXPECT_EQ("i1", tpops->get_instance_info().id);
    EXPECT_EQ(TPOPS_Platform::PASSWORD, tpops->get_login_info().password.plain());
    EXPECT_TRUE(platform.requests().empty());
    probe();
    EXPECT_EQ(tpops, manager_.get_cluster("t1").get()) << "once is enough";
}

TEST_F(Instance_Handler_Test, without_memory_there_is_no_tpops_instance) {
    auto const instance = record("t1", TPOPS_Platform().record("i1"));
    Failing_New const guard(sizeof(GaussDB_TPOPS_Handler));
    errno = 0;
    EXPECT_FALSE(init_tpops_instance(instance));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_FALSE(manager_.cluster_exists("t1"));
}

TEST_F(Instance_Handler_Test, a_tpops_instance_that_cannot_be_entered_is_dropped) {
    auto const instance = record("", TPOPS_Platform().record("i1"));
    EXPECT_FALSE(init_tpops_instance(instance));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_LOGGED(LM_ERROR, "Failed to add TPOPS instance  to cluster manager.");
}

TEST_F(Instance_Handler_Test, the_platform_tells_the_state_of_a_tpops_instance) {
    TPOPS_Platform platform;
    platform.on("GET /rds/v3/instances", 200,
                R"({"instances": [{"id": "i1", "instance_status": "abnormal"}]})");
    platform.on("GET /rds/gaussdb/v3/instances/i1/agent/status", 200, "{}");
    record("t1", platform.record("i1"));
    probe();
    std::string state;
    EXPECT_EQ("error", handler_.get_state("t1", state));
    EXPECT_EQ(0, handler_.logon("t1", "u2", "p2", nullptr));
}

TEST_F(Instance_Handler_Test, a_new_account_of_a_tpops_instance_outlives_a_change_of_its_record) {
    TPOPS_Platform platform;
    auto const instance = record("t1", platform.record("i1"));
    probe();
    EXPECT_EQ(0, handler_.update_options("t1", "u2", "p2", instance->options));
    auto const cluster = manager_.get_cluster("t1");
    ASSERT_TRUE(cluster->init("")) << "as after a change of its record";
    TPOPS_Login const& login =
        dynamic_cast<GaussDB_TPOPS_Handler*>(cluster.get())->get_login_info();
    EXPECT_EQ("u2", login.username);
    EXPECT_EQ("p2", login.password.plain());
}

TEST_F(Instance_Handler_Test, a_dws_instance_comes_back_with_its_options) {
    host_.tools.prints("ssh", "port=8000");
    record("dws", with(dws(), "ssh_options", "-o Port=2222"));
    probe();
    GaussDB_Cluster_Handler_var const handler = manager_.get_cluster("dws");
    ASSERT_FALSE(handler.null());
    EXPECT_TRUE(handler->get_gaussdb_version() == GaussDB_Version(GAUSSDB_DWS, 8, 2, 1));
    EXPECT_EQ("dws", handler->info().name);
    EXPECT_THAT(host_.tools.call("ssh").args, ElementsAre("ssh", "-o", "Port=2222", "10.0.0.1",
                                                          testing::HasSubstr("gs_guc check")));
}

TEST_F(Instance_Handler_Test, an_opengauss_instance_comes_back_too) {
    host_.tools.prints("ssh", "port=8000");
    record("og", {{"address", "10.0.0.2"}, {"version", GAUSSDB_FOR_OPENGAUSS}});
    probe();
    ASSERT_TRUE(manager_.cluster_exists("og"));
    EXPECT_TRUE(manager_.get_cluster("og")->get_gaussdb_version() ==
                GaussDB_Version(GAUSSDB_FOR_OPENGAUSS, 0, 0, 0));
}

TEST_F(Instance_Handler_Test, a_dws_instance_whose_init_fails_stays_known) {
    record("dws", {{"version", GAUSSDB_DWS}, {"edition", "8.2.1"}});
    probe();
    EXPECT_TRUE(manager_.cluster_exists("dws"));
    EXPECT_LOGGED(LM_ERROR, "Failed to get GaussDB cluster ip address.\n");
    EXPECT_LOGGED(LM_WARNING, "Failed to init gaussdb instance dws.\n");
}

TEST_F(Instance_Handler_Test, a_dws_record_with_options_that_are_refused_runs_nothing) {
    record("dws", with(dws(), "ssh_options", "-o ProxyCommand=id"));
    probe();
    EXPECT_TRUE(manager_.cluster_exists("dws"));
    EXPECT_LOGGED(LM_ERROR, "Invalid record of instance dws: ssh_options '-o ProxyCommand=id' ");
    EXPECT_LOGGED(LM_WARNING, "Failed to init gaussdb instance dws.\n");
    std::string state;
    EXPECT_EQ("error", handler_.get_state("dws", state));
    EXPECT_LOGGED(LM_ERROR, "GaussDB_Instance_Handler::get_state error.\n");
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Instance_Handler_Test, a_dws_record_of_the_wrong_kind_is_a_failing_init) {
    record("dws", with(dws(), "ssh_options", 22));
    probe();
    EXPECT_TRUE(manager_.cluster_exists("dws"));
    EXPECT_LOGGED(LM_ERROR, "Invalid record of a gaussdb instance, ");
    EXPECT_LOGGED(LM_WARNING, "Failed to init gaussdb instance dws.\n");
}

TEST_F(Instance_Handler_Test, a_dws_edition_that_is_no_version_leaves_zeros) {
    host_.tools.prints("ssh", "port=8000");
    record("dws", with(dws(), "edition", "new"));
    probe();
    EXPECT_EQ("0.0.0", manager_.get_cluster("dws")->get_gaussdb_version().dump());
    Log_Capture::instance().claim_all(LM_ERROR, "new");
}

TEST_F(Instance_Handler_Test, a_known_dws_instance_is_not_made_again) {
    Scripted_Cluster const* const known = Scripted_Cluster::enter("dws");
    record("dws", dws());
    probe();
    EXPECT_EQ(known, manager_.get_cluster("dws").get());
    EXPECT_EQ(0u, host_.tools.calls("ssh"));
}

TEST_F(Instance_Handler_Test, one_that_fails_does_not_keep_back_the_next) {
    host_.tools.prints("ssh", "port=8000");
    record("a", offline_100());
    record("b", dws());
    instances_.emplace("aa", nullptr);
    probe();
    EXPECT_TRUE(manager_.cluster_exists("b"));
    Log_Capture::instance().claim_all(LM_ERROR, "a_env");
    EXPECT_LOGGED(LM_ERROR, "Failed to load environment variables of cluster a\n");
}

TEST_F(Instance_Handler_Test, without_memory_a_dws_instance_has_no_cluster) {
    record("dws", dws());
    errno = 0;
    Failing_New const no_memory(sizeof(GaussDB_Non_Intrusive_Handler));
    probe();
    EXPECT_FALSE(manager_.cluster_exists("dws"));
}

TEST_F(Instance_Handler_Test, the_state_is_the_clusters_own_word) {
    Scripted_Cluster::enter("c1")->status = "Degraded";
    std::string state = "before";
    EXPECT_EQ(&state, &handler_.get_state("c1", state));
    EXPECT_EQ("Degraded", state);
}

TEST_F(Instance_Handler_Test, a_state_that_nobody_tells_is_an_error) {
    Scripted_Cluster::enter("c1")->has_status = false;
    for (char const* name : {"c1", "other", "", static_cast<char const*>(nullptr)}) {
        std::string state = "before";
        EXPECT_EQ(&state, &handler_.get_state(name, state));
        EXPECT_EQ("error", state);
        EXPECT_LOGGED(LM_ERROR, "GaussDB_Instance_Handler::get_state error.\n");
    }
}

TEST_F(Instance_Handler_Test, logon_asks_the_cluster_with_the_account) {
    Scripted_Cluster const* const cluster = Scripted_Cluster::enter("c1");
    EXPECT_EQ(0, handler_.logon("c1", "u", "p", nullptr));
    EXPECT_THAT(cluster->accounts, ElementsAre("u/p@(null)"));
    EXPECT_THAT(cluster->answers.asked, ElementsAre("logon"));
}

TEST_F(Instance_Handler_Test, logon_that_is_refused_or_of_an_unknown_instance) {
    Scripted_Cluster::enter("c1")->answers.succeeds = false;
    for (char const* name : {"c1", "other"}) {
        EXPECT_EQ(-1, handler_.logon(name, "u", "p", nullptr));
        EXPECT_LOGGED(LM_ERROR, "GaussDB_Instance_Handler::logon error.\n");
    }
}

TEST_F(Instance_Handler_Test, logon_without_an_account_asks_nobody) {
    EXPECT_EQ(0, handler_.logon("unknown", nullptr, nullptr, nullptr));
}

TEST_F(Instance_Handler_Test, logon_wants_a_name) {
    for (char const* name : {"", static_cast<char const*>(nullptr)}) {
        EXPECT_EQ(-1, handler_.logon(name, nullptr, nullptr, nullptr));
        EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    }
}

TEST_F(Instance_Handler_Test, logon_with_half_an_account_or_empty_texts) {
    EXPECT_EQ(-1, handler_.logon("c1", "", "", nullptr));
    EXPECT_CHECK_LOGGED("username is NULL or \"\"");
    EXPECT_EQ(-1, handler_.logon("c1", nullptr, "p", nullptr));
    EXPECT_CHECK_LOGGED("username is NULL or \"\"");
    EXPECT_EQ(-1, handler_.logon("c1", "u", "", nullptr));
    EXPECT_CHECK_LOGGED("password is NULL or \"\"");
    EXPECT_EQ(-1, handler_.logon("c1", "u", nullptr, nullptr));
    EXPECT_CHECK_LOGGED("password is NULL or \"\"");
}

TEST_F(Instance_Handler_Test, options_without_a_tpops_host_stay_as_they_are) {
    Object options{{"user", "omm"}};
    EXPECT_EQ(0, handler_.update_options("unknown", "u", "p", options));
    EXPECT_EQ((Object{{"user", "omm"}}), options);
}

TEST_F(Instance_Handler_Test, options_of_a_tpops_instance_get_the_account) {
    Scripted_Cluster::enter("c1");
    Object options{{"tpops_host", "tpops.example"}, {"username", "old"}};
    EXPECT_EQ(0, handler_.update_options("c1", "u", "p", options));
    EXPECT_EQ("u", options.at("username").get_str());
    std::string const stored = options.at("password").get_str();
    EXPECT_EQ("p", decrypt_secure_string(stored, CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH));
    EXPECT_EQ(3u, options.size());
}

TEST_F(Instance_Handler_Test, options_stay_when_the_account_is_not_taken) {
    Scripted_Cluster::enter("c1")->answers.succeeds = false;
    Object const before{{"tpops_host", 5}};
    for (char const* name : {"c1", "unknown", static_cast<char const*>(nullptr)}) {
        Object options = before;
        EXPECT_EQ(-1, handler_.update_options(name, "u", "p", options));
        EXPECT_EQ(before, options);
    }
    EXPECT_NOT_LOGGED("GaussDB_Instance_Handler::");
}

TEST_F(Instance_Handler_Test, options_stay_when_there_is_no_password) {
    Scripted_Cluster::enter("c1");
    Object options{{"tpops_host", "tpops.example"}};
    EXPECT_EQ(-1, handler_.update_options("c1", "u", nullptr, options));
    EXPECT_EQ(1u, options.size());
    EXPECT_CHECK_LOGGED("plain is NULL");
}

} // namespace
