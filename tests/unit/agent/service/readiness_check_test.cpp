#include "agent/service/readiness_check.h"

#include "host/agent/instance_handler.h"
#include "host/agent/instance_manager.h"
#include "json_spirit/access.h"
#include "tests/support/fake_instances.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <fstream>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class One_State : public Instance_Handler {
public:
    explicit One_State(std::string state) : Instance_Handler("gaussdb"), state_(std::move(state)) {}
    std::string& get_state(char const*, std::string& state) override { return state = state_; }
    std::vector<Instance_Alert> alerts() override { return found; }

    std::vector<Instance_Check> check(Instance const& instance, Check_Scope scope) override {
        if (std::string const dir = json_spirit::object_get_str(instance.options, "cache_dir");
            !dir.empty())
            return {{"cache directory " + dir, true, "looked at", ""}};
        if (std::string const user = json_spirit::object_get_str(instance.options, "writer");
            !user.empty())
            return {{"route", true, "running as " + user, "", user}};
        if (!instance.options.count("address"))
            return {};
        return {{"ssh " + json_spirit::object_get_str(instance.options, "address"), false,
                 scope == TO_BACK_UP ? "asked for all" : "asked for less", "do it"}};
    }

    std::vector<Instance_Alert> found;

private:
    std::string const state_;
};

class Readiness_Check_Test : public testing::Test {
protected:
    void SetUp() override {
        mkdir((directory_.path() + "/bin").c_str(), 0755);
        Instance_Manager::instance()->add_handler(std::make_shared<One_State>("Normal"));
    }
    void TearDown() override { Instance_Manager::instance()->remove_handler("gaussdb"); }

    void add_tool(std::string const& name) {
        std::ofstream(directory_.path() + "/bin/" + name) << "#!/bin/sh\n";
    }
    void add_instance(json_spirit::Object options) {
        Instance instance;
        instance.type = "gaussdb";
        instance.name = "cluster";
        instance.options = std::move(options);
        instance.options["app_path"] = directory_.path();
        instances_->put(instance);
    }
    static std::string own_user() { return getpwuid(geteuid())->pw_name; }

    /** The line of a subject; one that says so when there is none. */
    Readiness_Check::Line line(std::string const& subject) const {
        for (Readiness_Check::Line const& line : check_.lines())
            if (line.subject == subject)
                return line;
        return {subject, false, "no such line", ""};
    }
    void expect_good(std::string const& subject) const {
        EXPECT_TRUE(line(subject).ok) << subject << ": " << line(subject).text;
        EXPECT_EQ("", line(subject).advice);
    }
    void expect_bad(std::string const& subject, std::string const& text) const {
        EXPECT_FALSE(line(subject).ok) << subject;
        EXPECT_NE(std::string::npos, line(subject).text.find(text)) << line(subject).text;
        EXPECT_NE("", line(subject).advice);
    }

    Temporary_Directory directory_;
    Fake_Instances instances_;
    Readiness_Check check_;
};

TEST_F(Readiness_Check_Test, a_cluster_with_all_that_a_backup_needs) {
    for (char const* tool : {"GaussRoach.py", "gs_om", "gs_guc", "gsql", "gs_check"})
        add_tool(tool);
    add_instance({{"version", 2}, {"edition", "8.1.1"}, {"user", own_user()}});
    check_.instance("cluster", "uid");
    for (char const* subject : {"instance cluster", "state", "tool GaussRoach.py", "tool gs_om",
                                "tool gs_guc", "tool gsql", "tool gs_check", "account"})
        expect_good(subject);
    EXPECT_TRUE(check_.ok());
}

TEST_F(Readiness_Check_Test, an_alert_about_the_instance_is_shown) {
    auto const handler = std::make_shared<One_State>("Normal");
    handler->found = {{"other", "not of this one"}, {"cluster", "claimed by two users"}};
    Instance_Manager::instance()->add_handler(handler);
    check_.instance("cluster", "uid");
    expect_bad("alert", "claimed by two users");
    expect_bad("instance cluster", "it is not known here");
    EXPECT_EQ(2u, check_.lines().size());
}

TEST_F(Readiness_Check_Test, a_tool_that_is_not_there_is_named_with_where_to_put_it) {
    add_instance({{"version", 2}, {"edition", "8.1.1"}, {"user", own_user()}});
    check_.instance("cluster", "uid");
    expect_bad("tool gs_om", directory_.path() + "/bin");
    EXPECT_NE(std::string::npos, line("tool gs_om").advice.find(own_user()));
    EXPECT_FALSE(check_.ok());
}

TEST_F(Readiness_Check_Test, the_directory_that_the_database_writes_to_is_passed_on) {
    add_instance({{"version", 3}, {"user", own_user()}});
    check_.instance("cluster", "uid", "/backups");
    expect_good("cache directory /backups");
    check_ = Readiness_Check();
    check_.instance("cluster", "uid");
    EXPECT_EQ("no such line", line("cache directory /backups").text) << "it is not kept";
}

TEST_F(Readiness_Check_Test, an_instance_that_nobody_knows) {
    check_.instance("none", "uid");
    ASSERT_EQ(1u, check_.lines().size());
    expect_bad("instance none", "not known");
}

TEST_F(Readiness_Check_Test, states_that_allow_no_backup) {
    add_instance({{"version", 6}});
    for (char const* state : {"Unavailable", "error", "", "Starting"}) {
        check_ = Readiness_Check();
        Instance_Manager::instance()->add_handler(std::make_shared<One_State>(state));
        check_.instance("cluster", "uid");
        expect_bad("state", state);
    }
}

TEST_F(Readiness_Check_Test, a_platform_is_looked_at_in_place_of_a_state_and_tools) {
    Instance_Manager::instance()->add_handler(std::make_shared<One_State>("error"));
    add_instance({{"tpops_host", "h"}, {"version", "505.1.0"}, {"address", "seen by the module"}});
    check_.instance("cluster", "uid");
    EXPECT_EQ("on record, version 505.1.0", line("instance cluster").text);
    EXPECT_EQ("no such line", line("state").text);
    EXPECT_EQ("no such line", line("user").text);
    EXPECT_EQ("asked for all", line("ssh seen by the module").text);
    expect_bad("account", "none on record");
}

TEST_F(Readiness_Check_Test, a_user_that_this_host_does_not_have) {
    add_instance({{"version", 1}, {"user", "nobody-of-that-name"}});
    check_.instance("cluster", "uid");
    expect_bad("user nobody-of-that-name", "no such user");
    EXPECT_EQ("no such line", line("tool gs_om").text);
}

TEST_F(Readiness_Check_Test, a_record_without_a_user) {
    add_instance({{"version", 1}});
    check_.instance("cluster", "uid");
    expect_bad("user", "does not name");
}

TEST_F(Readiness_Check_Test, flavours_that_are_logged_on_to_need_an_account) {
    add_instance({{"version", 3}});
    check_.instance("cluster", "uid");
    expect_bad("account", "none on record");
    check_ = Readiness_Check();
    ASSERT_TRUE(instances_->save_account("gaussdb", "cluster", "uid",
                                         {{"username", "omm"}, {"password", "x"}}));
    check_.instance("cluster", "uid");
    expect_good("account");
}

TEST_F(Readiness_Check_Test, a_cluster_over_ssh_has_the_modules_lines_and_needs_no_account) {
    add_instance({{"version", 4}, {"address", "10.0.0.1"}});
    Instance_Manager::instance()->add_handler(std::make_shared<One_State>("Normal"));
    check_.instance("cluster", "uid");
    expect_good("tool ssh");
    expect_good("account");
    expect_bad("ssh 10.0.0.1", "asked for all");
    check_ = Readiness_Check();
    check_.machines(*instances_->find("gaussdb", "cluster"), Instance_Handler::TO_DECLARE);
    expect_bad("ssh 10.0.0.1", "asked for less");
}

TEST_F(Readiness_Check_Test, pools) {
    std::string const path = directory_.path();
    ASSERT_EQ(0, chmod(path.c_str(), 0711));
    struct {
        Readiness_Check::Pool pool;
        uint64_t needed;
        char const* fault;
    } const cases[] = {
        {{"p", true, false, 100, 0, 0, path}, 100, nullptr},
        {{"p", true, false, 100, 0, 0, path}, 0, nullptr},
        {{"p", true, false, 100, 0, 0, path}, 101, "100 B free"},
        {{"p", true, false, 5000, 10, 2058, path}, 3000, "2.0 KiB free"},
        {{"p", true, false, 5000, 100, 60, path}, 0, "0 B free"},
        {{"p", false, false, 100, 0, 0, path}, 0, "not there"},
        {{"p", true, true, 100, 0, 0, path}, 0, "read-only"},
        {{"p", true, false, 100, 0, 0, "/not mounted"}, 0, "/not mounted is not on this host"},
    };
    for (auto const& row : cases) {
        check_ = Readiness_Check();
        check_.pool(row.pool, row.needed);
        if (row.fault)
            expect_bad("pool p", row.fault);
        else
            expect_good("pool p");
    }
    ASSERT_EQ(0, chmod(path.c_str(), 0755));
    check_ = Readiness_Check();
    check_.pool({"p", true, false, 100, 0, 0, path}, 0);
    expect_bad("pool p", "other users can list or change its directory");
    check_.no_pool();
    expect_bad("pool", "there is none");
    check_ = Readiness_Check();
    check_.pools_unknown("no connection");
    expect_bad("pool", "the backup server was not asked: no connection");
}

TEST_F(Readiness_Check_Test, the_pool_is_written_to_as_the_databases_user) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root: another user's rights are taken";
    add_instance({{"version", 2}, {"user", "nobody"}});
    Instance instance = *instances_->find("gaussdb", "cluster");
    instance.uuid = "0123";
    ASSERT_TRUE(instances_->put(instance));
    directory_.write("pool/.keep", "");
    std::filesystem::remove(directory_.path("pool/.keep"));
    ASSERT_EQ(0, chmod(directory_.path("pool").c_str(), 0711));
    for (mode_t const mode : {0755u, 0700u}) {
        ASSERT_EQ(0, chmod(directory_.path().c_str(), mode));
        check_ = Readiness_Check();
        check_.instance("cluster", "uid");
        check_.pool({"p", true, false, 100, 0, 0, directory_.path("pool")}, 0);
        if (mode == 0755)
            expect_good("pool p");
        else
            expect_bad("pool p", "nobody cannot pass through " + directory_.path());
    }
}

TEST_F(Readiness_Check_Test,
       the_pool_of_a_platforms_instance_is_written_to_as_the_backup_agents_user) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root: another user's rights are taken";
    add_instance({{"tpops_host", "h"}, {"writer", "nobody"}});
    Instance instance = *instances_->find("gaussdb", "cluster");
    instance.uuid = "0123";
    ASSERT_TRUE(instances_->put(instance));
    directory_.write("pool/.keep", "");
    std::filesystem::remove(directory_.path("pool/.keep"));
    ASSERT_EQ(0, chmod(directory_.path("pool").c_str(), 0711));
    ASSERT_EQ(0, chmod(directory_.path().c_str(), 0700));
    check_.instance("cluster", "uid");
    check_.pool({"p", true, false, 100, 0, 0, directory_.path("pool")}, 0);
    expect_bad("pool p", "nobody cannot pass through " + directory_.path());
}

TEST_F(Readiness_Check_Test, a_module_without_jobs_and_a_damaged_database) {
    check_.module("/m.so", {"GaussDB_Instance_Handler"});
    check_.database({"row 3 missing from index"});
    expect_bad("module", "/m.so makes no jobs");
    expect_bad("agent's database", "row 3");
    EXPECT_EQ(json_spirit::Value(false), check_.dump().at("ok"));
    check_ = Readiness_Check();
    check_.module("/m.so", {"GaussDB_Job_Creator"});
    check_.database({});
    EXPECT_TRUE(check_.ok());
    EXPECT_EQ(2u, check_.dump().at("lines").get_array().size());
}

} // namespace
