#include "gaussdb/common/gaussdb_100_cluster_handler.h"
#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/common/gaussdb_t_single_handler.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/file.h"
#include "tests/support/cluster_xml.h"
#include "tests/support/database_process.h"
#include "tests/support/failing_new.h"
#include "tests/support/fake_instances.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"
#include "tests/support/scripted_interpreters.h"
#include "tests/support/test_child_path.h"

#include <atomic>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <thread>

namespace {

using testing::ElementsAre;

constexpr char GAUSSDB[] = "/home/omm/app/bin/gaussdb -D /data/dn1";
constexpr char GS_CHECK_100[] = "gs_check GaussDB_100_1.0.2";
constexpr char GS_CHECK_200[] = "gs_check (GaussDB 8.1.3 build 39137c2d) compiled at 2022";

class Discovery_Test : public testing::Test {
protected:
    Discovery_Test() {
        host_.write("/home/omm/profile", "export GAUSSHOME=/home/omm/app\n");
        host_.write("/home/omm/tool/script/config/clusterconfig.xml",
                    cluster_xml({{"clusterName", "c1"},
                                 {"nodeNames", "host1"},
                                 {"gaussdbAppPath", "/home/omm/app"},
                                 {"ServiceType", "SingleService"}},
                                {{{"name", "host1"}}}));
        host_.tools.prints("gs_check", GS_CHECK_100);
        // a link to the product's library is made there as the cluster's user
        std::filesystem::create_directories("/home/omm/app/lib");
        EXPECT_EQ(0, chown_r("/home/omm/app", "nobody"));
    }

    /** Starts a process of the database with these variables, or with those of the cluster "c1". */
    void start(std::string const& title, std::vector<std::string> const& environment = C1,
               char const* user = "nobody") {
        processes_.emplace_back(title, environment, user);
    }
    std::vector<std::string> names() {
        json_spirit::Array instances;
        EXPECT_TRUE(manager_.get_instances(instances));
        std::vector<std::string> result;
        for (json_spirit::Value const& instance : instances)
            result.push_back(json_spirit::object_get_str(instance.get_obj(), "instance"));
        return result;
    }
    /** Lets the interpreters write the file of this 200-series cluster. */
    void generates_200(std::string const& name) {
        host_.write("/home/generated.xml", cluster_xml({{"clusterName", name}}, {}));
        std::string const step = "run cat /home/generated.xml";
        host_.tools.script("python", step);
        host_.tools.script("python3", step);
        // the cluster's user makes the library's link below it
        std::filesystem::create_directories("/home/omm/app/lib");
        EXPECT_EQ(0, chown_r("/home/omm/app/lib", "nobody"));
    }

    static inline std::vector<std::string> const C1 = {
        "GS_CLUSTER_NAME=c1", "MPPDB_ENV_SEPARATE_PATH=/home/omm/profile", "GPHOME=/home/omm/tool"};

    Product_Directories host_;
    Scripted_Interpreters interpreters_{host_.tools};
    std::vector<Database_Process> processes_;
    GaussDB_Cluster_Manager manager_;
};

class Environ_Test : public Discovery_Test {
protected:
    bool read(std::vector<std::string> const& environment) {
        start("x", environment);
        return get_cluster_environ_var(processes_.back().pid(), profile_, name_, gphome_);
    }

    std::string profile_ = "before";
    std::string name_ = "before";
    std::string gphome_ = "before";
};

TEST_F(Environ_Test, all_three_are_read) {
    EXPECT_TRUE(read({"X=1", "GPHOME=/g=h", "GS_CLUSTER_NAME=c1", "MPPDB_ENV_SEPARATE_PATH=/p"}));
    EXPECT_EQ("/p", profile_);
    EXPECT_EQ("c1", name_);
    EXPECT_EQ("/g=h", gphome_);
}

TEST_F(Environ_Test, a_name_with_a_profile_is_enough_and_gphome_stays) {
    EXPECT_TRUE(read({"GS_CLUSTER_NAME=c1", "MPPDB_ENV_SEPARATE_PATH=/p"}));
    EXPECT_EQ("before", gphome_);
}

TEST_F(Environ_Test, a_name_alone_is_enough_beside_an_earlier_gphome_only) {
    EXPECT_TRUE(read({"GS_CLUSTER_NAME=c1"}));
    EXPECT_EQ("", profile_);
    gphome_.clear();
    EXPECT_FALSE(read({"GS_CLUSTER_NAME=c1"}));
}

TEST_F(Environ_Test, without_a_name) {
    EXPECT_FALSE(read({"MPPDB_ENV_SEPARATE_PATH=/p", "GPHOME=/g"}));
    EXPECT_EQ("", name_);
    EXPECT_FALSE(read({}));
    EXPECT_FALSE(read({"GS_CLUSTER_NAME=", "GPHOME=/g"}));
    EXPECT_FALSE(read({"XGS_CLUSTER_NAME=c1", "GS_CLUSTER_NAME", "GPHOME=/g"}));
}

TEST_F(Environ_Test, a_large_environment_is_read_to_its_end) {
    std::vector<std::string> variables;
    for (int number = 0; number < 15; ++number)
        variables.push_back("V" + std::to_string(number) + "=" + std::string(100000, 'x'));
    variables.push_back("GS_CLUSTER_NAME=c1");
    EXPECT_TRUE(read(variables));
    EXPECT_EQ("c1", name_);
}

TEST_F(Environ_Test, a_process_that_has_gone) {
    start("x");
    pid_t const pid = processes_.back().pid();
    processes_.back().end();
    EXPECT_FALSE(get_cluster_environ_var(pid, profile_, name_, gphome_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get environment variables of pid " + std::to_string(pid) +
                                ", errno=2, No such file or directory\n");
    EXPECT_EQ("", name_);
    EXPECT_EQ("", profile_);
}

TEST_F(Environ_Test, a_process_that_has_ended_and_was_not_waited_for) {
    pid_t const pid = fork();
    if (pid == 0)
        _exit(0);
    siginfo_t info;
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT));
    EXPECT_FALSE(get_cluster_environ_var(pid, profile_, name_, gphome_));
    EXPECT_EQ("", name_);
    waitpid(pid, nullptr, 0);
    Log_Capture::instance().claim_all(LM_ERROR, "Failed to get environment variables of pid ");
}

TEST_F(Discovery_Test, a_100_series_cluster_is_found_and_written_down) {
    start(GAUSSDB);
    json_spirit::Array instances;
    ASSERT_TRUE(manager_.get_instances(instances));
    json_spirit::Object const record =
        json_spirit::Object_Maker()("instance", "c1")("nodes", "host1")(
            "app_path", "/home/omm/app")("user", "nobody")("version", 1)("edition", "1.0.2");
    EXPECT_EQ((json_spirit::Array{record}), instances);
    EXPECT_LOGGED(LM_DEBUG, "Detected instance c1, version 1, edition 1.0.2\n");

    Tool_Call const call = host_.tools.call("gs_check");
    EXPECT_THAT(call.args, ElementsAre("gs_check", "-V"));
    EXPECT_EQ(getpwnam("nobody")->pw_uid, call.uid);
    EXPECT_EQ("/home/omm/tool", call.env.at("GPHOME"));
    EXPECT_EQ("/home/nobody", call.env.at("HOME"));
    EXPECT_EQ("/home/omm/app", call.env.at("GAUSSHOME"));

    GaussDB_Env back;
    EXPECT_TRUE(manager_.load_env("c1", back));
    EXPECT_EQ(manager_.get_cluster("c1")->env().get_env(), back.get_env());
    EXPECT_NE(nullptr,
              dynamic_cast<GaussDB_100_Cluster_Handler*>(manager_.get_cluster("c1").get()));
}

TEST_F(Discovery_Test, a_200_series_cluster_is_found) {
    host_.tools.prints("gs_check", GS_CHECK_200);
    generates_200("c1");
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_TRUE(manager_.get_cluster("c1")->get_gaussdb_version() ==
                GaussDB_Version(GAUSSDB_200, 8, 1, 3));
    EXPECT_EQ(1u, host_.tools.calls("python3"));
}

TEST_F(Discovery_Test, the_user_is_the_processes_own) {
    ASSERT_EQ(0, chown_r("/home/omm/app", "daemon"));
    start(GAUSSDB, C1, "daemon");
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ("daemon", manager_.get_cluster("c1")->user());
    EXPECT_EQ(getpwnam("daemon")->pw_uid, host_.tools.call("gs_check").uid);
}

TEST_F(Discovery_Test, thirty_processes_lead_to_one_handler_and_one_question) {
    for (int number = 0; number < 30; ++number)
        start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ(1u, host_.tools.calls("gs_check"));
    GaussDB_Cluster_Handler_var const first = manager_.get_cluster("c1");
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ(1u, host_.tools.calls("gs_check"));
    EXPECT_EQ(first.get(), manager_.get_cluster("c1").get());
}

TEST_F(Discovery_Test, which_command_lines_are_the_databases) {
    std::vector<std::string> const environment = C1;
    for (char const* title :
         {"gaussdb: session", "./secbox gaussdb", "gaussdbx", "mygaussdb", "/opt/gauss_db"})
        start(title);
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
    start("gaussdb");
    EXPECT_THAT(names(), ElementsAre("c1"));
}

TEST_F(Discovery_Test, a_stopped_cluster_is_still_reported) {
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    processes_.clear();
    EXPECT_THAT(names(), ElementsAre("c1"));
}

TEST_F(Discovery_Test, a_name_without_profile_and_gphome_is_passed_over) {
    start(GAUSSDB, {"GS_CLUSTER_NAME=c1"});
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
}

TEST_F(Discovery_Test, without_a_profile_of_its_own_the_users_is_read) {
    host_.write("/home/nobody/.bashrc", "export FROM_BASHRC=1\nexport GPHOME=/elsewhere\n");
    start(GAUSSDB, {"GS_CLUSTER_NAME=c1", "GPHOME=/home/omm/tool"});
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ("1", host_.tools.call("gs_check").env.at("FROM_BASHRC"));
    EXPECT_EQ("/home/omm/tool", host_.tools.call("gs_check").env.at("GPHOME"));
}

TEST_F(Discovery_Test, without_any_profile_it_is_passed_over) {
    start(GAUSSDB, {"GS_CLUSTER_NAME=c1", "GPHOME=/home/omm/tool"});
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LOGGED(LM_ERROR, "Failed to open /home/nobody/.bashrc, errno=2, ");
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
}

TEST_F(Discovery_Test, a_process_without_gphome_has_its_predecessors) {
    host_.write("/home/omm/profile", "export GPHOME=/from/profile\n");
    start(GAUSSDB, {"GPHOME=/home/omm/tool"});
    start(GAUSSDB, {"GS_CLUSTER_NAME=c1", "MPPDB_ENV_SEPARATE_PATH=/home/omm/profile"});
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_STREQ("/home/omm/tool", manager_.get_cluster("c1")->env().gp_home());
}

TEST_F(Discovery_Test, without_any_gphome_a_200_series_cluster_cannot_be_made_ready) {
    host_.write("/home/omm/profile",
                "export GAUSSHOME=/home/omm/app\nexport GPHOME=/from/profile\n");
    host_.tools.prints("gs_check", GS_CHECK_200);
    start(GAUSSDB, {"GS_CLUSTER_NAME=c1", "MPPDB_ENV_SEPARATE_PATH=/home/omm/profile"});
    EXPECT_TRUE(manager_.list_cluster());
    EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_EMERGENCY, "gp_home is NULL or \"\""));
    EXPECT_LOGGED(LM_ERROR, "Failed to init instance c1\n");
    EXPECT_FALSE(manager_.cluster_exists("c1"));
    EXPECT_TRUE(host_.exists(std::string(host_.CACHE) + "c1_env")) << "what is known is kept";
}

TEST_F(Discovery_Test, an_opengauss_process_makes_no_record) {
    host_.tools.prints("gs_check", "gs_check (GaussDB Kernel 505.1.0 build 1f1a6e37)");
    start(GAUSSDB);
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LOGGED(LM_DEBUG, "Detected instance c1, version 5, edition 505.1.0\n");
    EXPECT_FALSE(host_.exists(std::string(host_.CACHE) + "c1_env"));
}

TEST_F(Discovery_Test, a_version_that_nobody_knows_is_passed_over) {
    host_.tools.prints("gs_check", "gs_check (openGauss OM 2.0.0 build 7ef5c80a)");
    start(GAUSSDB);
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LOGGED(LM_ERROR, "Unrecognized GaussDB version\n");
}

TEST_F(Discovery_Test, one_bad_process_does_not_end_the_search) {
    start(GAUSSDB, {"GS_CLUSTER_NAME=bad", "MPPDB_ENV_SEPARATE_PATH=/home/none"});
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_LOGGED(LM_ERROR, "Failed to open /home/none, errno=2, ");
}

TEST_F(Discovery_Test, a_name_that_leads_out_of_the_products_directories_changes_nothing) {
    for (char const* name : {"../../evil", "a/b", "..", "it's", "\"q\""})
        start(GAUSSDB, {"GS_CLUSTER_NAME=" + std::string(name), "GPHOME=/home/omm/tool",
                        "MPPDB_ENV_SEPARATE_PATH=/home/omm/profile"});
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LE(5u, Log_Capture::instance().claim_all(LM_ERROR, "cannot be a cluster's name"));
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
    EXPECT_FALSE(host_.exists("/var/cache/quilmot/zenbrak3"));
    EXPECT_FALSE(host_.exists("/var/opt/quilmot/zenbrak3"));
}

TEST_F(Discovery_Test, a_profile_of_900_KiB_is_read) {
    std::string text;
    for (int number = 0; text.size() < 900 * 1024; ++number)
        text += "# comment " + std::to_string(number) + " " + std::string(1000, 'x') + "\n";
    host_.write("/home/omm/profile", text + "export LAST=1\n");
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ("1", host_.tools.call("gs_check").env.at("LAST"));
}

TEST_F(Discovery_Test, a_profile_of_one_line_of_50_mb_is_refused) {
    host_.write("/home/omm/profile", std::string(50 * 1024 * 1024, ' '));
    start(GAUSSDB);
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LOGGED(LM_ERROR, "Failed to open /home/omm/profile, errno=27, ");
}

TEST_F(Discovery_Test, a_profile_that_is_no_file_is_refused) {
    std::filesystem::remove("/home/omm/profile");
    std::filesystem::create_directory("/home/omm/profile");
    start(GAUSSDB);
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LOGGED(LM_ERROR, "Failed to open /home/omm/profile, errno=21, Is a directory\n");
    std::filesystem::remove("/home/omm/profile");
    ASSERT_EQ(0, mkfifo("/home/omm/profile", 0644));
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LOGGED(LM_ERROR, "Failed to open /home/omm/profile, errno=22, ");
}

TEST_F(Discovery_Test, a_broken_file_of_the_cluster) {
    host_.write("/home/omm/tool/script/config/clusterconfig.xml", "<ROOT><CLUSTER>");
    start(GAUSSDB);
    EXPECT_TRUE(manager_.list_cluster());
    EXPECT_LOGGED(LM_ERROR, "Failed to parse XML ");
    EXPECT_LOGGED(LM_ERROR, "Failed to init instance c1\n");
    EXPECT_FALSE(manager_.cluster_exists("c1"));
}

TEST_F(Discovery_Test, a_cluster_is_not_to_be_had_before_it_is_ready) {
    host_.tools.prints("gs_check", GS_CHECK_200);
    generates_200("c1");
    host_.tools.script("python3", "wait\nrun cat /home/generated.xml");
    start(GAUSSDB);
    std::thread lister([&] { EXPECT_TRUE(manager_.list_cluster()); });
    while (host_.tools.calls("python3") == 0)
        std::this_thread::yield();
    // a tool runs, and none of these waits for it
    EXPECT_FALSE(manager_.cluster_exists("c1"));
    EXPECT_TRUE(manager_.get_cluster("c1").null());
    EXPECT_TRUE(manager_.remove_cluster("c1"));
    auto* const other = new GaussDB_100_Cluster_Handler(GaussDB_Env(), "omm",
                                                        GaussDB_Version(GAUSSDB_100, 1, 0, 0));
    EXPECT_TRUE(manager_.add_cluster("other", other));
    host_.tools.go("python3");
    lister.join();
    EXPECT_TRUE(manager_.cluster_exists("c1"));
    EXPECT_TRUE(manager_.cluster_exists("other"));
}

TEST_F(Discovery_Test, a_name_taken_meanwhile_stays_with_who_took_it) {
    host_.tools.prints("gs_check", GS_CHECK_200);
    generates_200("c1");
    host_.tools.script("python3", "wait\nrun cat /home/generated.xml");
    start(GAUSSDB);
    std::thread lister([&] { EXPECT_TRUE(manager_.list_cluster()); });
    while (host_.tools.calls("python3") == 0)
        std::this_thread::yield();
    auto* const other = new GaussDB_100_Cluster_Handler(GaussDB_Env(), "omm",
                                                        GaussDB_Version(GAUSSDB_100, 1, 0, 0));
    EXPECT_TRUE(manager_.add_cluster("c1", other));
    host_.tools.go("python3");
    lister.join();
    EXPECT_EQ(other, manager_.get_cluster("c1").get());
}

TEST_F(Discovery_Test, two_threads_that_list_ask_once) {
    for (int number = 0; number < 5; ++number)
        start(GAUSSDB);
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number)
        threads.emplace_back([&] {
            json_spirit::Array instances;
            EXPECT_TRUE(manager_.get_instances(instances));
            EXPECT_EQ(1u, instances.size());
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(1u, host_.tools.calls("gs_check"));
}

TEST_F(Discovery_Test, without_memory_the_search_ends) {
    start(GAUSSDB);
    start(GAUSSDB, {"GS_CLUSTER_NAME=c2", C1[1], C1[2]});
    {
        Failing_New const guard(sizeof(GaussDB_100_Cluster_Handler));
        EXPECT_FALSE(manager_.list_cluster());
        EXPECT_EQ(ENOMEM, errno);
    }
    EXPECT_EQ(1u, host_.tools.calls("gs_check"));
    EXPECT_FALSE(manager_.cluster_exists("c1"));
    EXPECT_TRUE(manager_.list_cluster()) << "the next one finds them";
    EXPECT_TRUE(manager_.cluster_exists("c1"));
    EXPECT_TRUE(manager_.cluster_exists("c2"));
}

/** Processes of another user than the cluster's, "nobody". */
class False_Cluster_Test : public Discovery_Test {
protected:
    ~False_Cluster_Test() override {
        // each has been expected as an alert
        for (char const* text : {"zenbrak3 instance", "but is not used: "})
            Log_Capture::instance().claim_all(LM_ERROR, text);
    }

    static uid_t uid_of(char const* user) { return getpwnam(user)->pw_uid; }
    /** Gives a path to a user, who alone can change it. */
    static void give(std::string const& path, char const* user, mode_t mode = 0755) {
        ASSERT_EQ(0, chown(path.c_str(), uid_of(user), getpwnam(user)->pw_gid));
        ASSERT_EQ(0, chmod(path.c_str(), mode));
    }
    void put_on_record(char const* name, json_spirit::Object const& options) {
        Instance instance;
        instance.type = "gaussdb";
        instance.name = name;
        instance.options = options;
        ASSERT_TRUE(record_->put(instance));
    }
    /** The one alert's text, when it is of "c1". */
    std::string alert() const {
        std::vector<Instance_Alert> const alerts = manager_.alerts();
        return alerts.size() == 1 && alerts[0].instance == "c1" ? alerts[0].text : "not one alert";
    }
    /** Discovery finds nothing, runs nothing, writes nothing, and says why. */
    void expect_refused(std::string const& reason) {
        EXPECT_THAT(names(), testing::IsEmpty());
        EXPECT_THAT(alert(), testing::HasSubstr(reason));
        EXPECT_LOGGED(LM_ERROR, reason);
        EXPECT_EQ(0u, host_.tools.calls("gs_check"));
        EXPECT_FALSE(host_.exists(std::string(host_.CACHE) + "c1_env"));
    }

    Fake_Instances record_;
};

TEST_F(False_Cluster_Test, a_cluster_on_record_is_its_users_alone) {
    put_on_record("c1", {{"user", "nobody"}});
    start(GAUSSDB, C1, "daemon");
    expect_refused(
        "of user \"daemon\" claims cluster \"c1\", which is on record for user \"nobody\"");
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ("nobody", manager_.get_cluster("c1")->user());
    EXPECT_EQ(uid_of("nobody"), host_.tools.call("gs_check").uid);
    EXPECT_THAT(alert(), testing::HasSubstr("daemon")) << "it is still there";
    processes_.front().end();
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_THAT(manager_.alerts(), testing::IsEmpty());
}

TEST_F(False_Cluster_Test, an_alert_is_logged_once) {
    put_on_record("c1", {{"user", "nobody"}});
    start(GAUSSDB, C1, "daemon");
    for (int round = 0; round < 3; ++round)
        EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, "claims cluster \"c1\""));
}

TEST_F(False_Cluster_Test, a_known_cluster_stays_with_its_user_without_a_record) {
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    processes_.clear();
    start(GAUSSDB, C1, "daemon");
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ("nobody", manager_.get_cluster("c1")->user());
    EXPECT_EQ(1u, host_.tools.calls("gs_check"));
    EXPECT_THAT(alert(), testing::HasSubstr("user \"daemon\" claims cluster \"c1\""));
}

TEST_F(False_Cluster_Test, of_two_users_neither_is_believed_until_one_is_left) {
    ASSERT_EQ(0, chown_r("/home/omm/app", "root"));
    start(GAUSSDB, C1, "daemon");
    start(GAUSSDB);
    expect_refused("of user \"nobody\" both belong to a cluster \"c1\"");
    EXPECT_THAT(alert(), testing::HasSubstr("of user \"daemon\""));
    processes_.front().end();
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ("nobody", manager_.get_cluster("c1")->user());
}

TEST_F(False_Cluster_Test, an_administrator_puts_a_false_record_right) {
    ASSERT_EQ(0, chown_r("/home/omm/app", "root"));
    start(GAUSSDB, C1, "daemon");
    EXPECT_THAT(names(), ElementsAre("c1"));
    put_on_record("c1", {{"user", "daemon"}});
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_THAT(alert(), testing::HasSubstr("on record for user \"daemon\""));
    EXPECT_THAT(alert(), testing::HasSubstr("zenbrak3 instance remove c1"));

    put_on_record("c1", {{"user", "nobody"}});
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ("nobody", manager_.get_cluster("c1")->user());
    EXPECT_LOGGED(LM_ERROR, "Cluster c1 is on record for user \"nobody\", no longer using what was "
                            "found of user \"daemon\"\n");
    EXPECT_THAT(alert(), testing::HasSubstr("user \"daemon\" claims"));
}

TEST_F(False_Cluster_Test, a_record_without_a_user_belongs_to_no_process) {
    put_on_record("c1", {{"address", "10.0.0.1"}, {"version", 4}});
    start(GAUSSDB);
    expect_refused("which is on record without a user of this host");
}

TEST_F(False_Cluster_Test, a_user_on_record_who_does_not_exist_is_nobody_else) {
    put_on_record("c1", {{"user", "gone-user"}});
    start(GAUSSDB);
    expect_refused("which is on record for user \"gone-user\"");
}

TEST_F(False_Cluster_Test, roots_processes_are_not_believed) {
    start(GAUSSDB, C1, "root");
    expect_refused("it runs as root");
}

TEST_F(False_Cluster_Test, the_program_has_to_be_the_users) {
    host_.write("/home/program", host_.read(ZENBRAK3_TEST_CHILD));
    give("/home/program", "daemon");
    processes_.emplace_back(GAUSSDB, C1, "nobody", std::vector<std::string>(), "/home/program");
    expect_refused("its program: \"/home/program\" belongs to uid ");
    processes_.clear();
    give("/home/program", "nobody", 0775);
    processes_.emplace_back(GAUSSDB, C1, "nobody", std::vector<std::string>(), "/home/program");
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_THAT(alert(), testing::HasSubstr("its program: \"/home/program\" is writable by"));
    processes_.clear();
    give("/home/program", "nobody");
    processes_.emplace_back(GAUSSDB, C1, "nobody", std::vector<std::string>(), "/home/program");
    std::filesystem::rename("/home/program", "/home/moved");
    std::filesystem::copy_file("/home/moved", "/home/program");
    std::filesystem::remove("/home/moved");
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_THAT(alert(), testing::HasSubstr("its program: \"/home/moved (deleted)\" cannot be"));
    std::filesystem::copy_file("/home/program", "/home/moved (deleted)");
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_THAT(alert(), testing::HasSubstr("is not the file that the process runs"));
}

TEST_F(False_Cluster_Test, the_data_directory_has_to_be_the_users) {
    std::filesystem::create_directories("/home/data/dn1");
    give("/home/data/dn1", "daemon", 0700);
    std::vector<std::string> in_environment = C1;
    in_environment.push_back("PGDATA=/home/data/dn1");
    processes_.emplace_back(GAUSSDB, in_environment, "nobody");
    expect_refused("its data directory: \"/home/data/dn1\" belongs to uid ");
    for (std::vector<std::string> const& rest : std::vector<std::vector<std::string>>{
             {"-D", "/home/data/dn1"}, {"-M", "primary", "-D/home/data/dn1"}}) {
        processes_.clear();
        processes_.emplace_back(GAUSSDB, C1, "nobody", rest);
        EXPECT_THAT(names(), testing::IsEmpty());
        EXPECT_THAT(alert(), testing::HasSubstr("its data directory: \"/home/data/dn1\" belongs"));
    }
    give("/home/data/dn1", "nobody", 0700);
    EXPECT_THAT(names(), ElementsAre("c1"));
}

TEST_F(False_Cluster_Test, the_profile_has_to_be_the_users) {
    give("/home/omm/profile", "daemon");
    start(GAUSSDB);
    expect_refused("its profile: \"/home/omm/profile\" belongs to uid ");
    give("/home/omm/profile", "nobody");
    give("/home/omm", "nobody", 0777);
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_THAT(alert(), testing::HasSubstr("its profile: \"/home/omm\" is writable by"));
    give("/home/omm", "nobody", 0700);
    EXPECT_THAT(names(), ElementsAre("c1"));
}

TEST_F(False_Cluster_Test, a_profile_that_its_user_cannot_read_is_not_read_for_him) {
    host_.write("/home/omm/profile", "export SECRET=of-root\n");
    ASSERT_EQ(0, chmod("/home/omm/profile", 0600));
    start(GAUSSDB);
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LOGGED(LM_ERROR, "Failed to open /home/omm/profile, errno=13, Permission denied\n");
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
}

TEST_F(False_Cluster_Test, the_tools_have_to_be_the_users) {
    std::filesystem::create_directories("/home/theirs");
    give("/home/theirs", "daemon");
    start(GAUSSDB);
    for (char const* line :
         {"export PATH=/home/theirs:$PATH\n", "export PATH=$PATH:/home/theirs/none\n",
          "export PATH=/tmp/none:$PATH\n", "export PATH=$PATH:../../tmp\n",
          "export LD_LIBRARY_PATH=/home/theirs\n", "export PYTHONPATH=/x:/home/theirs\n",
          "export GAUSSHOME=/home/theirs\n", "export ROACH_HOME=/tmp/roach\n"}) {
        host_.write("/home/omm/profile", line);
        EXPECT_THAT(names(), testing::IsEmpty()) << line;
        std::string const name = std::string(line).substr(7, std::string(line).find('=') - 7);
        EXPECT_THAT(alert(), testing::HasSubstr("is not used: " + name)) << line;
    }
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
}

TEST_F(False_Cluster_Test, one_tool_that_others_can_write_is_enough) {
    host_.write("/home/tools/gsql", "");
    host_.write("/home/omm/profile", "export PATH=/home/tools:$PATH\n");
    ASSERT_EQ(0, chmod("/home/tools/gsql", 0666));
    start(GAUSSDB);
    expect_refused("PATH of its profile: \"/home/tools/gsql\" is writable by");
}

TEST_F(False_Cluster_Test, the_name_that_a_clusters_own_files_have_is_not_its_name) {
    host_.write("/home/omm/tool/script/config/clusterconfig.xml",
                cluster_xml({{"clusterName", "../other"}}, {{{"name", "host1"}}}));
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
}

TEST_F(False_Cluster_Test, a_home_that_is_not_an_absolute_path_is_refused) {
    start(GAUSSDB);
    for (char const* line : {"export GAUSSHOME=\"/home/omm/app\"\n", "export GAUSSHOME=app\n",
                             "export GAUSSHOME='/home/omm/app'\n", "export GAUSSHOME=/home/`id`\n",
                             "export ROACH_HOME=../roach\n"}) {
        host_.write("/home/omm/profile", line);
        EXPECT_THAT(names(), testing::IsEmpty()) << line;
        EXPECT_THAT(alert(), testing::HasSubstr("is not an absolute path without quotes")) << line;
    }
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
}

TEST_F(False_Cluster_Test, a_gphome_of_another_user_is_never_taken) {
    start(GAUSSDB, {"GPHOME=/home/theirs"}, "daemon");
    start(GAUSSDB, {"GS_CLUSTER_NAME=c1", "MPPDB_ENV_SEPARATE_PATH=/home/omm/profile"});
    manager_.list_cluster();
    EXPECT_EQ("", host_.tools.call("gs_check").env.at("GPHOME"));
    Log_Capture::instance().claim_all(LM_ERROR, "");
}

TEST_F(False_Cluster_Test, a_process_without_fault_counts_beside_one_with) {
    processes_.emplace_back(GAUSSDB, C1, "nobody", std::vector<std::string>{"-D", "/home/none"});
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_THAT(manager_.alerts(), testing::IsEmpty());
}

TEST_F(False_Cluster_Test, the_number_of_alerts_is_limited) {
    for (char const* user : {"root", "daemon", "bin", "sys", "games", "man", "lp"})
        for (int number = 0; number < 17; ++number)
            start(GAUSSDB,
                  {"GS_CLUSTER_NAME=" + std::string(user) + std::to_string(number), C1[1], C1[2],
                   "PGDATA=/tmp"},
                  user);
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_EQ(100u, manager_.alerts().size());
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
    EXPECT_EQ(7u, Log_Capture::instance().claim_all(LM_ERROR, "of more than 16 clusters"));
}

TEST_F(False_Cluster_Test, a_user_with_very_many_clusters_costs_few_runs_of_tools) {
    host_.tools.prints("gs_check", "of no known version");
    for (int number = 0; number < 40; ++number)
        start(GAUSSDB, {"GS_CLUSTER_NAME=x" + std::to_string(number), C1[1], C1[2]});
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_EQ(16u, host_.tools.calls("gs_check"));
    ASSERT_EQ(1u, manager_.alerts().size());
    EXPECT_LOGGED(LM_ERROR, "user \"nobody\" has processes of more than 16 clusters");
    Log_Capture::instance().claim_all(LM_ERROR, "Unrecognized GaussDB version");
}

class Config_Cluster_Test : public Discovery_Test {
protected:
    Config_Cluster_Test() {
        host_.write(PROFILE, "# the cluster\nexport GAUSSHOME=/home/omm/app\n"
                             "export GPHOME=/home/omm/tool\nexport GS_CLUSTER_NAME=FI-MPPDB\n"
                             "export GS_CLUSTER_NAME=other\n");
        passwd const* const user = getpwnam("nobody");
        EXPECT_EQ(0, chown(PROFILE, user->pw_uid, user->pw_gid));
    }

    static constexpr char PROFILE[] = "/home/omm/.mppdbgs_profile";
};

TEST_F(Config_Cluster_Test, a_profile_stands_for_a_cluster_that_is_down) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    generates_200("FI-MPPDB");
    EXPECT_THAT(names(), ElementsAre("FI-MPPDB"));
    EXPECT_LOGGED(LM_DEBUG, "Detected instance FI-MPPDB, version 2, edition 6.0.0 from "
                            "/home/omm/.mppdbgs_profile\n");
    EXPECT_EQ("nobody", manager_.get_cluster("FI-MPPDB")->user());
    EXPECT_EQ(0u, host_.tools.calls("gs_check"));
    EXPECT_EQ(1u, host_.tools.calls("python")) << "version 6";
    EXPECT_FALSE(host_.exists(std::string(host_.CACHE) + "FI-MPPDB_env"));
}

TEST_F(Config_Cluster_Test, loading_enters_and_listing_initialises) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    generates_200("FI-MPPDB");
    EXPECT_TRUE(manager_.load_config_cluster());
    EXPECT_TRUE(manager_.cluster_exists("FI-MPPDB"));
    EXPECT_EQ(0u, host_.tools.calls("python"));
    EXPECT_TRUE(manager_.list_cluster());
    EXPECT_EQ(1u, host_.tools.calls("python"));
}

TEST_F(Config_Cluster_Test, a_failing_init_leaves_an_empty_list) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    host_.tools.script("python", "exit 1");
    EXPECT_TRUE(manager_.list_cluster());
    EXPECT_LOGGED(LM_ERROR, "Failed to init instance FI-MPPDB\n");
    EXPECT_FALSE(manager_.cluster_exists("FI-MPPDB"));
    Log_Capture::instance().claim_all(LM_ERROR, "Failed to generate GaussDB xml config\n");
    Log_Capture::instance().claim_all(LM_WARNING, "status 1");
}

TEST_F(Config_Cluster_Test, a_running_cluster_goes_before_the_profile) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
}

TEST_F(Config_Cluster_Test, nothing_is_said_when_nothing_is_configured) {
    EXPECT_FALSE(manager_.load_config_cluster());
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", "");
    EXPECT_FALSE(manager_.load_config_cluster());
}

TEST_F(Config_Cluster_Test, a_profile_that_cannot_be_read_is_told) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", "/home/none");
    EXPECT_FALSE(manager_.load_config_cluster());
    EXPECT_LOGGED(LM_ERROR, "Failed to open /home/none, errno=2, No such file or directory\n");
}

TEST_F(Config_Cluster_Test, a_profile_without_a_name_is_no_cluster) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    host_.write(PROFILE, " export GS_CLUSTER_NAME=c1\nGS_CLUSTER_NAME=c1\n");
    EXPECT_FALSE(manager_.load_config_cluster());
}

TEST_F(Config_Cluster_Test, blanks_and_another_systems_line_break_are_no_part_of_the_name) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    for (std::string const end : {" ", "\t ", "\r"}) {
        host_.write(PROFILE,
                    "export GPHOME=/home/omm/tool\nexport GS_CLUSTER_NAME=c7" + end + "\n");
        passwd const* const user = getpwnam("nobody");
        EXPECT_EQ(0, chown(PROFILE, user->pw_uid, user->pw_gid));
        EXPECT_TRUE(manager_.load_config_cluster());
        EXPECT_TRUE(manager_.cluster_exists("c7")) << end;
        manager_.remove_cluster("c7");
    }
}

TEST_F(Config_Cluster_Test, a_name_that_leads_elsewhere_is_refused) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    host_.write(PROFILE, "export GS_CLUSTER_NAME=../c1\n");
    EXPECT_FALSE(manager_.load_config_cluster());
    EXPECT_LOGGED(LM_ERROR, "'../c1' cannot be a cluster's name");
}

TEST_F(Config_Cluster_Test, a_profile_of_nobody_known) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    ASSERT_EQ(0, chown(PROFILE, 54321, 54321));
    EXPECT_FALSE(manager_.load_config_cluster());
    EXPECT_LOGGED(LM_ERROR, "Failed to get /home/omm/.mppdbgs_profile owner, errno=2, No such file "
                            "or directory.\n");
}

TEST_F(Config_Cluster_Test, a_profile_of_root_would_run_tools_as_root) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    ASSERT_EQ(0, chown(PROFILE, 0, 0));
    EXPECT_FALSE(manager_.load_config_cluster());
    EXPECT_LOGGED(LM_ERROR, "the configured profile \"/home/omm/.mppdbgs_profile\" is not used: "
                            "it belongs to root");
    EXPECT_EQ(1u, manager_.alerts().size());
}

TEST_F(Config_Cluster_Test, a_profile_that_others_can_write_is_refused) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    ASSERT_EQ(0, chmod(PROFILE, 0664));
    EXPECT_FALSE(manager_.load_config_cluster());
    EXPECT_LOGGED(LM_ERROR, "is writable by its group or by others (mode 0664)");
}

TEST_F(Config_Cluster_Test, a_cluster_on_record_stays_with_its_user) {
    Scoped_Env const configured("GAUSSDB_MPPDBGS_PROFILE", PROFILE);
    Fake_Instances record;
    Instance instance;
    instance.type = "gaussdb";
    instance.name = "FI-MPPDB";
    instance.options = {{"user", "daemon"}};
    ASSERT_TRUE(record->put(instance));
    EXPECT_FALSE(manager_.list_cluster());
    EXPECT_LOGGED(LM_ERROR, "but the cluster is on record for user \"daemon\"");
    EXPECT_FALSE(manager_.cluster_exists("FI-MPPDB"));
}

class Gaussdb_T_Test : public Discovery_Test {
protected:
    Gaussdb_T_Test() {
        std::filesystem::create_directories("/home/db");
        // the tool looks for its script beside itself
        std::filesystem::create_symlink(host_.tools.path(), "/home/db/bin");
        host_.tools.prints("zengine", "GaussDB_T_1.0.2.B303 Release cfa19bd");
        host_.write("/home/data/cfg/zengine.ini", "LSNR_PORT = 1611\n");
    }
    static constexpr char ZENGINE[] = "/home/db/bin/zengine nomount -D /home/data/ -x";
};

TEST_F(Gaussdb_T_Test, an_instance_is_found_and_written_down) {
    Scoped_Env const path("PATH", "/usr/bin:/bin");
    Scoped_Env const library_path("LD_LIBRARY_PATH", "/agent/lib");
    start(ZENGINE, {});
    json_spirit::Array instances;
    ASSERT_TRUE(manager_.get_instances(instances));
    json_spirit::Object const record =
        json_spirit::Object_Maker()("instance", "zengine_1611")("nodes", "host1")(
            "app_path", "/home/db")("user", "nobody")("version", 3)("edition", "0.0.0");
    EXPECT_EQ((json_spirit::Array{record}), instances);
    EXPECT_LOGGED(LM_DEBUG, "Detected GaussDB T, port:1611, data_dir:/home/data\n");

    Tool_Call const call = host_.tools.call("zengine");
    EXPECT_THAT(call.args, ElementsAre("/home/db/bin/zengine", "-v"));
    EXPECT_EQ(getpwnam("nobody")->pw_uid, call.uid);
    GaussDB_Env::map_type const expected = {
        {"GSDB_HOME", "/home/db"},
        {"GSDB_DATA", "/home/data"},
        {"LSNR_PORT", "1611"},
        {"PATH", "/home/db/bin:/usr/bin:/bin"},
        {"LD_LIBRARY_PATH", "/home/db/add-ons:/home/db/lib:/agent/lib"}};
    EXPECT_EQ(expected, manager_.get_cluster("zengine_1611")->env().get_env());
    GaussDB_Env back;
    EXPECT_TRUE(manager_.load_env("zengine_1611", back));
    EXPECT_EQ(expected, back.get_env());
}

TEST_F(Gaussdb_T_Test, a_known_one_stays) {
    start(ZENGINE, {});
    EXPECT_TRUE(manager_.list_gaussdb_t_single());
    GaussDB_Cluster_Handler_var const first = manager_.get_cluster("zengine_1611");
    start(ZENGINE, {});
    EXPECT_TRUE(manager_.list_gaussdb_t());
    EXPECT_EQ(first.get(), manager_.get_cluster("zengine_1611").get());
}

TEST_F(Gaussdb_T_Test, two_instances_of_one_installation) {
    host_.write("/home/data2/cfg/zengine.ini", "lsnr_port=1888\n");
    start(ZENGINE, {});
    start("/home/db/bin/zengine open -D /home/data2", {});
    EXPECT_THAT(names(), ElementsAre("zengine_1611", "zengine_1888"));
}

TEST_F(Gaussdb_T_Test, settings_without_an_end_are_no_settings) {
    for (char const* target : {"/dev/zero", "/dev/urandom", "/proc/kmsg"}) {
        std::filesystem::remove("/home/data/cfg/zengine.ini");
        std::filesystem::create_directories("/home/data/cfg");
        std::filesystem::create_symlink(target, "/home/data/cfg/zengine.ini");
        EXPECT_EQ(0, manager_.get_lsnr_port("/home/data")) << target;
    }
    std::filesystem::remove("/home/data/cfg/zengine.ini");
    ASSERT_EQ(0, mkfifo("/home/data/cfg/zengine.ini", 0666));
    EXPECT_EQ(0, manager_.get_lsnr_port("/home/data"));
    std::filesystem::remove("/home/data/cfg/zengine.ini");
    host_.write("/home/data/cfg/zengine.ini", std::string(1024 * 1024, '#') + "\nlsnr_port=1888\n");
    EXPECT_EQ(0, manager_.get_lsnr_port("/home/data")) << "too large";
}

TEST_F(Gaussdb_T_Test, beside_a_cluster_of_another_flavour_it_is_not_looked_for) {
    start(ZENGINE, {});
    start(GAUSSDB);
    EXPECT_THAT(names(), ElementsAre("c1"));
    EXPECT_EQ(0u, host_.tools.calls("zengine"));
}

TEST_F(Gaussdb_T_Test, a_command_line_without_a_data_directory_is_passed_over) {
    start("/home/db/bin/zengine nomount", {});
    start("less /bin/zengine.log", {});
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_EQ(0u, host_.tools.calls("zengine"));
}

TEST_F(Gaussdb_T_Test, another_product_is_passed_over) {
    host_.tools.prints("zengine", "Zenith-Gauss100-OLTP-V300R001C00B300 Release");
    start(ZENGINE, {});
    EXPECT_THAT(names(), testing::IsEmpty());
}

TEST_F(Gaussdb_T_Test, a_program_that_fails_is_passed_over) {
    host_.tools.script("zengine", "err no license\nexit 1");
    start(ZENGINE, {});
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LOGGED(LM_ERROR, "Failed to execute command '/home/db/bin/zengine -v': no license");
    Log_Capture::instance().claim_all(LM_WARNING, "status 1");
}

TEST_F(Gaussdb_T_Test, without_a_port_it_is_passed_over) {
    std::filesystem::remove("/home/data/cfg/zengine.ini");
    start(ZENGINE, {});
    EXPECT_THAT(names(), testing::IsEmpty());
}

TEST_F(Gaussdb_T_Test, the_port_of_another_users_instance_is_not_taken_over) {
    host_.write("/home/false/cfg/zengine.ini", "LSNR_PORT = 1611\n");
    start(ZENGINE, {});
    EXPECT_THAT(names(), ElementsAre("zengine_1611"));
    processes_.clear();
    start("/home/db/bin/zengine open -D /home/false", {}, "daemon");
    EXPECT_TRUE(manager_.list_gaussdb_t());
    EXPECT_EQ("nobody", manager_.get_cluster("zengine_1611")->user());
    EXPECT_LOGGED(LM_ERROR, "user \"daemon\" claims cluster \"zengine_1611\"");
    EXPECT_EQ(1u, host_.tools.calls("zengine"));
}

TEST_F(Gaussdb_T_Test, its_directories_have_to_be_the_users) {
    ASSERT_EQ(0, chmod("/home/data", 0777));
    start(ZENGINE, {});
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_LOGGED(LM_ERROR, "GSDB_DATA: \"/home/data\" is writable by");
    EXPECT_EQ(0u, host_.tools.calls("zengine"));
    EXPECT_EQ(1u, manager_.alerts().size());
}

TEST_F(Gaussdb_T_Test, a_configuration_that_its_user_cannot_read_is_not_read_for_him) {
    ASSERT_EQ(0, chmod("/home/data", 0700)); // root's
    start(ZENGINE, {});
    EXPECT_THAT(names(), testing::IsEmpty());
    EXPECT_EQ(0u, host_.tools.calls("zengine"));
}

TEST_F(Gaussdb_T_Test, without_memory_the_search_ends) {
    start(ZENGINE, {});
    Failing_New const guard(sizeof(GaussDB_T_Single_Handler));
    EXPECT_FALSE(manager_.list_gaussdb_t());
    EXPECT_EQ(ENOMEM, errno);
    json_spirit::Array instances;
    EXPECT_FALSE(manager_.get_instances(instances));
    EXPECT_TRUE(instances.empty());
}

} // namespace
