#include "gaussdb/common/gaussdb_cluster_manager.h"

#include "gaussdb/common/gaussdb_100_cluster_handler.h"
#include "gaussdb/common/gaussdb_t_single_handler.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/cluster_xml.h"
#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"
#include "tests/support/scripted_interpreters.h"

#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <thread>

namespace {

using json_spirit::Object;
using json_spirit::Object_Maker;
using testing::ElementsAre;

/** A handler that counts, and whose init() does what the test says. */
class Counting_Handler : public GaussDB_Cluster_Handler {
public:
    explicit Counting_Handler(int* destroyed = nullptr)
        : GaussDB_Cluster_Handler(GaussDB_Env(), "nobody", GaussDB_Version(GAUSSDB_200, 8, 1, 3)),
          destroyed_(destroyed) {}
    ~Counting_Handler() override {
        if (destroyed_)
            ++*destroyed_;
    }
    bool init(char const* name) override {
        ++inits;
        init_name = name;
        if (during_init)
            during_init();
        if (throws)
            throw json_spirit::Error("key \"address\" is an int");
        return succeeds;
    }
    GaussDB_Client_ptr create_client(char const*, char const*, char const*) const override {
        return nullptr;
    }

    std::atomic<int> inits = 0;
    std::string init_name;
    bool succeeds = true;
    bool throws = false;
    std::function<void()> during_init;

private:
    int* destroyed_;
};

class Cluster_Manager_Test : public testing::Test {
protected:
    static void set_info(GaussDB_Cluster_Handler& handler, std::string const& name,
                         Object const& attributes = {}) {
        GaussDB_Cluster_Info info;
        info.name = name;
        info.nodes = "n1,n2";
        info.app_path = "/app";
        info.extend_attrs = attributes;
        handler.info(info);
    }
    /** The environment of a 100-series cluster that is written down under "c1". */
    void write_env_100() {
        host_.write("/home/tool/script/config/clusterconfig.xml",
                    cluster_xml({{"clusterName", "c1"}, {"ServiceType", "SingleService"}},
                                {{{"name", "host1"}}}));
        GaussDB_Env env;
        env.set_env("GPHOME", "/home/tool");
        ASSERT_TRUE(manager_.dump_env("c1", env));
    }

    Product_Directories host_;
    Scripted_Interpreters interpreters_{host_.tools};
    GaussDB_Cluster_Manager manager_;
    std::string const env_file_ = std::string(host_.CACHE) + "c1_env";
};

TEST(Cluster_Manager_Instance_Test, one_for_the_process_until_it_is_closed) {
    GaussDB_Cluster_Manager* const manager = GaussDB_Cluster_Manager::instance();
    EXPECT_EQ(manager, GaussDB_Cluster_Manager::instance());
    int destroyed = 0;
    auto* const handler = new Counting_Handler(&destroyed);
    EXPECT_TRUE(manager->add_cluster("c1", handler));
    GaussDB_Cluster_Manager::close_instance();
    EXPECT_EQ(1, destroyed);
    EXPECT_FALSE(GaussDB_Cluster_Manager::instance()->cluster_exists("c1"));
    GaussDB_Cluster_Manager_fini();
    GaussDB_Cluster_Manager_fini();
}

TEST_F(Cluster_Manager_Test, add_wants_a_name_and_a_handler) {
    Counting_Handler handler;
    EXPECT_FALSE(manager_.add_cluster(nullptr, &handler));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_FALSE(manager_.add_cluster("", &handler));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_FALSE(manager_.add_cluster("c1", nullptr));
    EXPECT_CHECK_LOGGED("handler is NULL");
    EXPECT_FALSE(manager_.cluster_exists("c1"));
}

TEST_F(Cluster_Manager_Test, what_was_added_is_found_by_its_exact_name) {
    auto* const handler = new Counting_Handler;
    EXPECT_TRUE(manager_.add_cluster("c1", handler));
    EXPECT_EQ(handler, manager_.get_cluster("c1").get());
    EXPECT_TRUE(manager_.cluster_exists("c1"));
    for (char const* other : {"C1", "c", "c11", ""}) {
        EXPECT_FALSE(manager_.cluster_exists(other));
        EXPECT_TRUE(manager_.get_cluster(other).null());
    }
    EXPECT_FALSE(manager_.cluster_exists(nullptr));
    EXPECT_TRUE(manager_.get_cluster(nullptr).null());
    EXPECT_EQ(0, handler->inits);
}

TEST_F(Cluster_Manager_Test, a_second_of_a_name_stays_its_callers) {
    int destroyed = 0;
    auto* const first = new Counting_Handler;
    auto second = std::make_unique<Counting_Handler>(&destroyed);
    EXPECT_TRUE(manager_.add_cluster("c1", first));
    EXPECT_FALSE(manager_.add_cluster("c1", second.get()));
    EXPECT_LOGGED(LM_ERROR, "Cluster c1 already exists.\n");
    EXPECT_EQ(first, manager_.get_cluster("c1").get());
    EXPECT_EQ(0, destroyed);
}

TEST_F(Cluster_Manager_Test, a_removed_handler_lives_as_long_as_somebody_holds_it) {
    int destroyed = 0;
    manager_.add_cluster("c1", new Counting_Handler(&destroyed));
    GaussDB_Cluster_Handler_var held = manager_.get_cluster("c1");
    EXPECT_TRUE(manager_.remove_cluster("c1"));
    EXPECT_FALSE(manager_.cluster_exists("c1"));
    EXPECT_EQ(0, destroyed);
    held.reset();
    EXPECT_EQ(1, destroyed);
}

TEST_F(Cluster_Manager_Test, removing_what_is_not_there_is_a_success) {
    EXPECT_TRUE(manager_.remove_cluster("unknown"));
    EXPECT_TRUE(manager_.remove_cluster(nullptr));
}

TEST_F(Cluster_Manager_Test, a_host_without_any_database_has_no_instances) {
    json_spirit::Array instances;
    EXPECT_FALSE(manager_.list_cluster());
    EXPECT_TRUE(manager_.list_gaussdb_t());
    EXPECT_TRUE(manager_.get_instances(instances));
    EXPECT_TRUE(instances.empty());
}

TEST_F(Cluster_Manager_Test, records_are_by_name_behind_what_is_there_already) {
    for (char const* name : {"b", "a"}) {
        auto* const handler = new Counting_Handler;
        set_info(*handler, name);
        manager_.add_cluster(name, handler);
    }
    json_spirit::Array instances = {"before"};
    EXPECT_TRUE(manager_.get_instances(instances));
    auto const record = [](char const* name) {
        return Object_Maker()("instance", name)("nodes", "n1,n2")("app_path", "/app")(
            "user", "nobody")("version", 2)("edition", "8.1.3");
    };
    EXPECT_EQ((json_spirit::Array{"before", Object(record("a")), Object(record("b"))}), instances);
}

TEST_F(Cluster_Manager_Test, a_record_made_by_hand_is_the_record) {
    Object const manual = Object_Maker()("manual", true)("address", "10.0.0.1")("version", 4);
    auto* const handler = new Counting_Handler;
    set_info(*handler, "c1", manual);
    manager_.add_cluster("c1", handler);
    json_spirit::Array instances;
    EXPECT_TRUE(manager_.get_instances(instances));
    EXPECT_EQ((json_spirit::Array{manual}), instances);
}

TEST_F(Cluster_Manager_Test, manual_counts_as_true_alone) {
    for (json_spirit::Value const& manual :
         {json_spirit::Value(false), json_spirit::Value("true"), json_spirit::Value(1)}) {
        GaussDB_Cluster_Manager manager;
        auto* const handler = new Counting_Handler;
        set_info(*handler, "c1", Object_Maker()("manual", manual));
        manager.add_cluster("c1", handler);
        json_spirit::Array instances;
        EXPECT_TRUE(manager.get_instances(instances));
        EXPECT_EQ("c1", json_spirit::object_get_str(instances.at(0).get_obj(), "instance"));
    }
}

TEST_F(Cluster_Manager_Test, discovery_initialises_what_was_added_each_time) {
    auto* const handler = new Counting_Handler;
    manager_.add_cluster("c1", handler);
    EXPECT_TRUE(manager_.list_cluster());
    EXPECT_TRUE(manager_.list_cluster());
    EXPECT_EQ(2, handler->inits);
    EXPECT_EQ("c1", handler->init_name);
}

TEST_F(Cluster_Manager_Test, one_failing_init_takes_out_one_cluster) {
    auto* const good = new Counting_Handler;
    auto* const bad = new Counting_Handler;
    bad->succeeds = false;
    manager_.add_cluster("a_bad", bad);
    manager_.add_cluster("b_good", good);
    EXPECT_TRUE(manager_.list_cluster());
    EXPECT_LOGGED(LM_ERROR, "Failed to init instance a_bad\n");
    EXPECT_FALSE(manager_.cluster_exists("a_bad"));
    EXPECT_TRUE(manager_.cluster_exists("b_good"));
    EXPECT_EQ(1, good->inits);
}

TEST_F(Cluster_Manager_Test, who_took_the_name_of_a_failing_one_meanwhile_stays) {
    auto* const bad = new Counting_Handler;
    auto* const other = new Counting_Handler;
    bad->succeeds = false;
    bad->during_init = [&] {
        EXPECT_TRUE(manager_.remove_cluster("c1"));
        EXPECT_TRUE(manager_.add_cluster("c1", other));
    };
    manager_.add_cluster("c1", bad);
    EXPECT_TRUE(manager_.list_cluster());
    EXPECT_LOGGED(LM_ERROR, "Failed to init instance c1\n");
    EXPECT_EQ(other, manager_.get_cluster("c1").get());
}

TEST_F(Cluster_Manager_Test, an_init_that_throws_is_a_failing_one) {
    auto* const handler = new Counting_Handler;
    handler->throws = true;
    manager_.add_cluster("c1", handler);
    EXPECT_TRUE(manager_.list_cluster());
    EXPECT_LOGGED(LM_ERROR, "The record of instance c1 is of no use, key \"address\" is an int\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to init instance c1\n");
    EXPECT_FALSE(manager_.cluster_exists("c1"));
}

TEST_F(Cluster_Manager_Test, an_environment_comes_back_as_it_was) {
    GaussDB_Env env;
    env.set_env("Z", "last");
    env.set_env("A", "x \"y\" \xe4\xb8\xad $Z");
    env.set_env("EMPTY", "");
    ASSERT_TRUE(manager_.dump_env("c1", env));
    EXPECT_EQ(0640u, host_.mode(env_file_));
    EXPECT_EQ(0755u, host_.mode(host_.CACHE));
    std::string const text = host_.read(env_file_);
    EXPECT_LT(text.find("\"A\""), text.find("\"EMPTY\""));
    EXPECT_LT(text.find("\"EMPTY\""), text.find("\"Z\""));
    GaussDB_Env back;
    back.set_env("KEPT", "1");
    EXPECT_TRUE(manager_.load_env("c1", back));
    env.set_env("KEPT", "1");
    EXPECT_EQ(env.get_env(), back.get_env());
}

TEST_F(Cluster_Manager_Test, bytes_that_are_not_utf8_come_back_as_they_were) {
    GaussDB_Env env;
    env.set_env("PLAIN", "x%41");
    env.set_env("LATIN", "/srv/caf\xe9%41");
    env.set_env("N\xc4ME", "\xff\xfe");
    ASSERT_TRUE(manager_.dump_env("c1", env));
    GaussDB_Env back;
    EXPECT_TRUE(manager_.load_env("c1", back));
    EXPECT_EQ(env.get_env(), back.get_env());
}

TEST_F(Cluster_Manager_Test, an_escaped_variable_that_is_none_is_left_out) {
    host_.write(env_file_, R"({"A": {"name": "A", "value": "%00"}, "B": {"name": "", "value": "x"},
                               "C": {"name": "%zz", "value": "x"}, "D": {}, "E": {"name": "E",
                               "value": "%E9"}})");
    GaussDB_Env env;
    EXPECT_TRUE(manager_.load_env("c1", env));
    EXPECT_EQ((GaussDB_Env::map_type{{"E", "\xe9"}}), env.get_env());
}

TEST_F(Cluster_Manager_Test, loading_takes_strings_alone) {
    host_.write(env_file_, R"({"A": "1", "B": 2, "C": ["x"], "D": null})");
    GaussDB_Env env;
    EXPECT_TRUE(manager_.load_env("c1", env));
    EXPECT_EQ((GaussDB_Env::map_type{{"A", "1"}}), env.get_env());
}

TEST_F(Cluster_Manager_Test, loading_what_is_no_environment) {
    GaussDB_Env env;
    EXPECT_FALSE(manager_.load_env("c1", env));
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, env_file_));
    EXPECT_EQ(0750u, host_.mode(host_.CACHE));
    host_.write(env_file_, "[]");
    EXPECT_FALSE(manager_.load_env("c1", env));
    EXPECT_LOGGED(LM_ERROR, env_file_ + " holds no environment\n");
    for (std::string const& text : {std::string(), std::string("{\"A\": \"1\""),
                                    std::string("{\"A\0\": 1}", 9), std::string(1000, '[')}) {
        host_.write(env_file_, text);
        EXPECT_FALSE(manager_.load_env("c1", env));
        EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, ""));
    }
    EXPECT_TRUE(env.get_env().empty());
}

TEST_F(Cluster_Manager_Test, an_environment_leaves_its_directory_for_no_name) {
    host_.write("/var/cache/quilmot/zenbrak3/x_env", R"({"A": "1"})");
    GaussDB_Env env;
    for (char const* name : {"../x", "a/b", "", "it's"}) {
        EXPECT_FALSE(manager_.dump_env(name, env));
        EXPECT_LOGGED(LM_ERROR, "cannot be a cluster's name");
        EXPECT_FALSE(manager_.load_env(name, env));
        EXPECT_LOGGED(LM_ERROR, "cannot be a cluster's name");
    }
    EXPECT_TRUE(env.get_env().empty());
    EXPECT_FALSE(host_.exists(host_.CACHE));
    EXPECT_EQ(R"({"A": "1"})", host_.read("/var/cache/quilmot/zenbrak3/x_env"));
}

TEST_F(Cluster_Manager_Test, an_environment_that_cannot_be_written_is_told) {
    Read_Only_Mount const guard("/var/cache/quilmot");
    EXPECT_FALSE(manager_.dump_env("c1", GaussDB_Env()));
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, "errno=30"));
}

class Lsnr_Port_Test : public Cluster_Manager_Test {
protected:
    unsigned short port(std::string const& text) {
        host_.write("/home/data/cfg/zengine.ini", text);
        return manager_.get_lsnr_port("/home/data");
    }
};

TEST_F(Lsnr_Port_Test, a_data_directory_is_wanted) {
    EXPECT_EQ(0, manager_.get_lsnr_port(nullptr));
    EXPECT_CHECK_LOGGED("gaussdb_data is NULL or \"\"");
    EXPECT_EQ(0, manager_.get_lsnr_port(""));
    EXPECT_CHECK_LOGGED("gaussdb_data is NULL or \"\"");
}

TEST_F(Lsnr_Port_Test, blanks_and_case_do_not_matter) {
    EXPECT_EQ(1611, port("LSNR_ADDR = 127.0.0.1\nLSNR_PORT = 1611\n"));
    EXPECT_EQ(1611, port("lsnr_port = 1611"));
    EXPECT_EQ(1611, port("\t Lsnr_Port=1611 # the listener\r\n"));
}

TEST_F(Lsnr_Port_Test, the_first_of_two_counts) {
    EXPECT_EQ(1611, port("LSNR_PORT = 1611\nLSNR_PORT = 1888\n"));
    EXPECT_EQ(0, port("LSNR_PORT = none\nLSNR_PORT = 1888\n"));
}

TEST_F(Lsnr_Port_Test, other_lines_do_not_count) {
    EXPECT_EQ(0, port("#LSNR_PORT = 1611\nMY_LSNR_PORT = 1\nLSNR_PORTS = 1\nLSNR_PORT 1\n"));
    EXPECT_EQ(0, port(""));
    EXPECT_EQ(0, port(std::string(100000, ' ') + std::string(1000, '\0')));
}

TEST_F(Lsnr_Port_Test, a_port_beyond_the_range_is_the_largest) {
    EXPECT_EQ(65535, port("LSNR_PORT = 70000"));
}

TEST_F(Lsnr_Port_Test, without_a_file_there_is_no_port) {
    EXPECT_EQ(0, manager_.get_lsnr_port("/home/none"));
    std::filesystem::create_directories("/home/dir/cfg/zengine.ini");
    EXPECT_EQ(0, manager_.get_lsnr_port("/home/dir"));
}

class Offline_Instance_Test : public Cluster_Manager_Test {};

TEST_F(Offline_Instance_Test, a_name_and_a_user_are_wanted) {
    EXPECT_FALSE(manager_.update_offline_instance(nullptr, "omm", 2, "8.1.1"));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_FALSE(manager_.update_offline_instance("", "omm", 2, "8.1.1"));
    EXPECT_CHECK_LOGGED("name is NULL or \"\"");
    EXPECT_FALSE(manager_.update_offline_instance("c1", nullptr, 2, "8.1.1"));
    EXPECT_CHECK_LOGGED("user is NULL or \"\"");
    EXPECT_FALSE(manager_.update_offline_instance("c1", "", 2, "8.1.1"));
    EXPECT_CHECK_LOGGED("user is NULL or \"\"");
}

TEST_F(Offline_Instance_Test, a_known_cluster_is_left_as_it_is) {
    auto* const handler = new Counting_Handler;
    manager_.add_cluster("c1", handler);
    EXPECT_TRUE(manager_.update_offline_instance("c1", "nobody", 99, "none"));
    EXPECT_EQ(handler, manager_.get_cluster("c1").get());
    EXPECT_EQ(0, handler->inits);
}

TEST_F(Offline_Instance_Test, without_its_environment_nothing_comes_back) {
    EXPECT_FALSE(manager_.update_offline_instance("c1", "nobody", 1, "8.1.1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to load environment variables of cluster c1\n");
    Log_Capture::instance().claim_all(LM_ERROR, env_file_);
}

TEST_F(Offline_Instance_Test, a_name_that_leads_elsewhere_is_refused) {
    host_.write("/var/cache/quilmot/zenbrak3/x_env", R"({"GPHOME": "/g"})");
    EXPECT_FALSE(manager_.update_offline_instance("../x", "nobody", 1, "8.1.1"));
    EXPECT_LOGGED(LM_ERROR, "'../x' cannot be a cluster's name");
    EXPECT_LOGGED(LM_ERROR, "Failed to load environment variables of cluster ../x\n");
}

TEST_F(Offline_Instance_Test, an_edition_that_is_no_version) {
    write_env_100();
    EXPECT_FALSE(manager_.update_offline_instance("c1", "nobody", 1, "eight"));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse GaussDB version eight\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to update offline instance c1, eight\n");
    EXPECT_FALSE(manager_.cluster_exists("c1"));
}

TEST_F(Offline_Instance_Test, flavours_of_which_nothing_is_written_down) {
    write_env_100();
    for (int const version : {-1, 0, 4, 5, 6, 7, 1 << 30})
        EXPECT_FALSE(manager_.update_offline_instance("c1", "nobody", version, "8.1.1"));
    EXPECT_FALSE(manager_.cluster_exists("c1"));
}

TEST_F(Offline_Instance_Test, a_100_series_cluster) {
    write_env_100();
    EXPECT_TRUE(manager_.update_offline_instance("c1", "nobody", 1, "1.0.2"));
    GaussDB_Cluster_Handler_var const handler = manager_.get_cluster("c1");
    ASSERT_FALSE(handler.null());
    EXPECT_TRUE(handler->get_gaussdb_version() == GaussDB_Version(GAUSSDB_100, 1, 0, 2));
    EXPECT_EQ("nobody", handler->user());
    EXPECT_EQ("c1", handler->info().name);
    EXPECT_EQ(GaussDB_Cluster_Handler::TYPE_SINGLE, handler->type());
}

/** A cluster that was brought back, whose user's profile the test changes. */
class Recorded_Cluster_Test : public Offline_Instance_Test {
protected:
    void SetUp() override {
        profile_names("c1");
        write_env_100();
        bring_back(manager_);
    }
    void profile_names(std::string const& name) {
        host_.write("/home/nobody/.bashrc", "export GS_CLUSTER_NAME=" + name + "\n");
    }
    static void bring_back(GaussDB_Cluster_Manager& manager) {
        ASSERT_TRUE(manager.update_offline_instance("c1", "nobody", 1, "1.0.2"));
    }
    static std::string fault(GaussDB_Cluster_Manager& manager) {
        std::string text;
        bool const is_same = manager.is_same_cluster("c1", true, text);
        EXPECT_EQ(is_same, text.empty());
        return text;
    }
};

TEST_F(Recorded_Cluster_Test, it_is_the_same_as_long_as_its_users_tools_answer_for_it) {
    EXPECT_EQ("", fault(manager_));
    EXPECT_EQ("", fault(manager_));
    profile_names("c2");
    EXPECT_EQ("cluster \"c1\" is not the one on record: its user's tools answer for the cluster "
              "\"c2\" now. If it is gone for good, run: zenbrak3 instance remove c1; if it is the "
              "same one after a planned change, run that and then: zenbrak3 instances --refresh",
              fault(manager_));
    profile_names("c1");
    EXPECT_EQ("", fault(manager_));
}

TEST_F(Recorded_Cluster_Test, the_record_outlives_the_agent_and_goes_when_it_is_forgotten) {
    EXPECT_EQ("", fault(manager_));
    profile_names("c2");
    GaussDB_Cluster_Manager later;
    bring_back(later);
    EXPECT_NE("", fault(later));
    later.remove_cluster("c1");
    EXPECT_EQ("", fault(later)) << "not known any more";
    later.forget_record("c1");
    bring_back(later);
    EXPECT_EQ("", fault(later)) << "accepted as it is";
}

TEST_F(Recorded_Cluster_Test, the_name_of_its_environment_counts_without_a_record) {
    GaussDB_Env env;
    env.set_env("GPHOME", "/home/tool");
    env.set_env("GS_CLUSTER_NAME", "c1");
    ASSERT_TRUE(manager_.dump_env("c1", env));
    profile_names("c2");
    GaussDB_Cluster_Manager later;
    bring_back(later);
    EXPECT_NE("", fault(later));
}

TEST_F(Recorded_Cluster_Test, a_record_that_others_can_write_is_not_believed) {
    EXPECT_EQ("", fault(manager_));
    std::string const path = std::string(host_.CACHE) + "c1_identity";
    ASSERT_EQ(0, chmod(path.c_str(), 0666));
    profile_names("c2");
    EXPECT_EQ("", fault(manager_)) << "recorded anew";
    EXPECT_LOGGED(LM_ERROR, "Failed to load " + path);
}

TEST_F(Recorded_Cluster_Test, a_search_tells_of_another_cluster) {
    (void)manager_.list_cluster();
    EXPECT_TRUE(manager_.alerts().empty());
    profile_names("c2");
    (void)manager_.list_cluster();
    ASSERT_EQ(1u, manager_.alerts().size());
    EXPECT_EQ("c1", manager_.alerts().front().instance);
    EXPECT_THAT(manager_.alerts().front().text, testing::HasSubstr("is not the one on record"));
    Log_Capture::instance().claim_all(LM_ERROR, "is not the one on record");
    profile_names("c1");
    (void)manager_.list_cluster();
    EXPECT_TRUE(manager_.alerts().empty());
}

TEST_F(Recorded_Cluster_Test, after_a_restore_the_database_that_is_there_is_the_one_on_record) {
    auto const database_is = [&](char const* identifier) {
        host_.write("/home/nobody/dn1/global/pg_control", std::string(identifier) + "the rest");
    };
    host_.write("/home/tool/script/config/clusterconfig.xml",
                cluster_xml({{"clusterName", "c1"}, {"ServiceType", "SingleService"}},
                            {{{"name", "host1"},
                              {"dataNum", "1"},
                              {"dataPortBase", "4000"},
                              {"dataNode1", "/home/nobody/dn1"}}}));
    database_is("12345678");
    manager_.remove_cluster("c1");
    bring_back(manager_);
    EXPECT_EQ("", fault(manager_));
    database_is("87654321");
    EXPECT_THAT(fault(manager_), testing::HasSubstr("is another one"));
    manager_.record_data("c1");
    EXPECT_EQ("", fault(manager_));
    manager_.record_data("c2"); // there is none
    EXPECT_FALSE(std::filesystem::exists(std::string(host_.CACHE) + "c2_identity"));
}

TEST_F(Recorded_Cluster_Test, its_tools_have_to_be_its_users_at_each_job) {
    std::string text;
    EXPECT_TRUE(manager_.owns_its_tools("c1", text));
    ASSERT_EQ(0, chmod("/home/tool/script", 0777));
    EXPECT_FALSE(manager_.owns_its_tools("c1", text));
    EXPECT_TRUE(text.starts_with("the tools of cluster \"c1\" are not run: GPHOME: ")) << text;
}

TEST_F(Recorded_Cluster_Test, a_cluster_that_was_added_by_hand_has_no_record) {
    manager_.remove_cluster("c1");
    manager_.add_cluster("c1", new Counting_Handler);
    profile_names("c2");
    ASSERT_EQ(0, chmod("/home/tool/script", 0777));
    std::string text;
    EXPECT_EQ("", fault(manager_));
    EXPECT_TRUE(manager_.owns_its_tools("c1", text));
}

TEST_F(Offline_Instance_Test, a_200_series_cluster_by_its_saved_configuration) {
    GaussDB_Env env;
    env.set_env("GPHOME", "/home/tool");
    env.set_env("GAUSSHOME", "/home/gone");
    env.set_env("PATH", std::getenv("PATH"));
    ASSERT_TRUE(manager_.dump_env("c1", env));
    host_.write(std::string(host_.CACHE) + "c1", "saved");
    host_.write("/home/generated.xml", cluster_xml({{"clusterName", "c1"}}, {}));
    host_.tools.script("python3", "exit 1\n---\nrun cat /home/generated.xml");
    EXPECT_TRUE(manager_.update_offline_instance("c1", "nobody", 2, "8.1.3"));
    EXPECT_TRUE(manager_.cluster_exists("c1"));
    EXPECT_EQ(std::string(host_.CACHE) + "c1", host_.tools.call("python3", 2).args.at(5));
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
    Log_Capture::instance().claim_all(LM_WARNING, "status 1");
    EXPECT_LOGGED(LM_WARNING, "not made, /home/gone does not exist\n");
}

TEST_F(Offline_Instance_Test, a_gaussdb_t_instance) {
    GaussDB_Env env;
    env.set_env("GSDB_HOME", "/opt/db");
    env.set_env("GSDB_DATA", "/opt/data");
    env.set_env("LSNR_PORT", "1611");
    ASSERT_TRUE(manager_.dump_env("zengine_1611", env));
    EXPECT_TRUE(manager_.update_offline_instance("zengine_1611", "nobody", 3, "0.0.0"));
    GaussDB_Cluster_Handler_var const handler = manager_.get_cluster("zengine_1611");
    ASSERT_FALSE(handler.null());
    EXPECT_NE(nullptr, dynamic_cast<GaussDB_T_Single_Handler*>(handler.get()));
}

TEST_F(Offline_Instance_Test, the_user_on_record_replaces_another_users_handler) {
    write_env_100();
    GaussDB_Version const version(GAUSSDB_100, 1, 0, 0);
    manager_.add_cluster("c1", new GaussDB_100_Cluster_Handler(GaussDB_Env(), "daemon", version));
    EXPECT_TRUE(manager_.update_offline_instance("c1", "nobody", 1, "1.0.2"));
    EXPECT_EQ("nobody", manager_.get_cluster("c1")->user());
    EXPECT_LOGGED(LM_ERROR, "no longer using what was found of user \"daemon\"\n");
}

TEST_F(Offline_Instance_Test, tools_of_another_user_are_not_run) {
    host_.write("/home/theirs/gs_om", "");
    ASSERT_EQ(0, chown("/home/theirs", 1, 1));
    GaussDB_Env env;
    env.set_env("GPHOME", "/home/tool");
    env.set_env("PATH", "/home/theirs");
    ASSERT_TRUE(manager_.dump_env("c1", env));
    EXPECT_FALSE(manager_.update_offline_instance("c1", "nobody", 1, "1.0.2"));
    EXPECT_LOGGED(LM_ERROR, "Failed to update offline instance c1 of user nobody, PATH of its "
                            "profile: \"/home/theirs\" belongs to uid 1\n");
    EXPECT_FALSE(manager_.cluster_exists("c1"));
}

TEST_F(Offline_Instance_Test, a_user_who_is_root_or_not_here_is_refused) {
    write_env_100();
    EXPECT_FALSE(manager_.update_offline_instance("c1", "root", 1, "1.0.2"));
    EXPECT_LOGGED(LM_ERROR, "of user root, the tools of a database are not run as root\n");
    EXPECT_FALSE(manager_.update_offline_instance("c1", "gone-user", 1, "1.0.2"));
    EXPECT_LOGGED(LM_ERROR, "of user gone-user, this host does not have the user\n");
}

TEST_F(Offline_Instance_Test, an_environment_that_others_can_write_is_not_loaded) {
    write_env_100();
    ASSERT_EQ(0, chmod(env_file_.c_str(), 0666));
    EXPECT_FALSE(manager_.update_offline_instance("c1", "nobody", 1, "1.0.2"));
    EXPECT_LOGGED(LM_ERROR, "Failed to load " + env_file_ + ", others can change it: ");
    ASSERT_EQ(0, chmod(env_file_.c_str(), 0640));
    ASSERT_EQ(0, chown(env_file_.c_str(), 1, 1));
    EXPECT_FALSE(manager_.update_offline_instance("c1", "nobody", 1, "1.0.2"));
    EXPECT_LOGGED(LM_ERROR, "others can change it: \"" + env_file_ + "\" belongs to uid 1\n");
    ASSERT_EQ(0, chown(env_file_.c_str(), 0, 0));
    ASSERT_EQ(0, chmod(host_.CACHE, 01777));
    EXPECT_FALSE(manager_.update_offline_instance("c1", "nobody", 1, "1.0.2"));
    EXPECT_LOGGED(LM_ERROR, "others can change it: ");
    Log_Capture::instance().claim_all(LM_ERROR, "Failed to load environment variables");
}

TEST_F(Offline_Instance_Test, a_failing_init_leaves_nothing) {
    write_env_100();
    std::filesystem::remove("/home/tool/script/config/clusterconfig.xml");
    EXPECT_FALSE(manager_.update_offline_instance("c1", "nobody", 1, "1.0.2"));
    EXPECT_LOGGED(LM_ERROR, " Failed to open XML ");
    EXPECT_LOGGED(LM_ERROR, "Failed to init offline instance c1\n");
    EXPECT_FALSE(manager_.cluster_exists("c1"));
}

TEST_F(Cluster_Manager_Test, threads_that_add_look_up_list_and_remove_at_once) {
    constexpr int ROUNDS = 50;
    std::atomic<bool> done = false;
    std::vector<std::thread> threads;
    for (int number = 0; number < 2; ++number)
        threads.emplace_back([&, number] {
            for (int round = 0; round < ROUNDS; ++round) {
                std::string const name = "c" + std::to_string(number);
                auto* const handler = new Counting_Handler;
                set_info(*handler, name);
                ASSERT_TRUE(manager_.add_cluster(name.c_str(), handler));
                EXPECT_FALSE(manager_.get_cluster(name.c_str()).null());
                EXPECT_TRUE(manager_.remove_cluster(name.c_str()));
            }
        });
    std::thread reader([&] {
        while (!done) {
            manager_.cluster_exists("c0");
            GaussDB_Cluster_Handler_var const handler = manager_.get_cluster("c1");
            if (!handler.null()) {
                EXPECT_EQ("c1", handler->info().name);
            }
        }
    });
    std::thread lister([&] {
        while (!done) {
            json_spirit::Array instances;
            EXPECT_TRUE(manager_.get_instances(instances));
            EXPECT_GE(2u, instances.size());
        }
    });
    for (std::thread& thread : threads)
        thread.join();
    done = true;
    reader.join();
    lister.join();
}

TEST_F(Cluster_Manager_Test, the_process_wide_one_is_made_once_by_many_threads) {
    std::vector<std::thread> threads;
    std::vector<GaussDB_Cluster_Manager*> seen(8);
    for (GaussDB_Cluster_Manager*& one : seen)
        threads.emplace_back([&one] { one = GaussDB_Cluster_Manager::instance(); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(seen, testing::Each(GaussDB_Cluster_Manager::instance()));
    GaussDB_Cluster_Manager::close_instance();
}

TEST(Cluster_Manager_Instance_Test, without_memory_there_is_none) {
    {
        Failing_New const guard(sizeof(GaussDB_Cluster_Manager));
        EXPECT_EQ(nullptr, GaussDB_Cluster_Manager::instance());
        EXPECT_EQ(ENOMEM, errno);
    }
    EXPECT_NE(nullptr, GaussDB_Cluster_Manager::instance());
    GaussDB_Cluster_Manager::close_instance();
}

TEST_F(Offline_Instance_Test, without_memory_nothing_comes_back) {
    write_env_100();
    Failing_New const guard(sizeof(GaussDB_100_Cluster_Handler));
    EXPECT_FALSE(manager_.update_offline_instance("c1", "nobody", 1, "1.0.2"));
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_FALSE(manager_.cluster_exists("c1"));
}

} // namespace
