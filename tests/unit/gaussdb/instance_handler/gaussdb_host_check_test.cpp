#include "gaussdb/instance_handler/gaussdb_host_check.h"

#include "gaussdb/common/gaussdb_cluster_manager.h"
#include "gaussdb/instance_handler/clock_check.h"
#include "gaussdb/instance_handler/gaussdb_guide.h"
#include "host/process/cancellation.h"
#include "tests/support/database_tools.h"
#include "tests/support/fake_instances.h"
#include "tests/support/fake_upstream_backend.h"
#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"
#include "tests/support/scripted_cluster.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thread>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using testing::HasSubstr;

/** A cluster "c1" of this host, whose tools are scripted and run as its user. */
class Host_Check_Test : public testing::Test {
protected:
    Host_Check_Test() {
        std::filesystem::permissions(files_.path(), std::filesystem::perms(0755));
        tools_.env().set_env("GAUSSHOME", home());
        enter(GAUSSDB_200);
        for (char const* tool : {"gs_om", "gs_guc", "gsql"})
            tools_.script(tool, "exit 0");
        tools_.script("gs_check", "out gs_check (GaussDB 8.1.1 build 1234) compiled at");
        tools_.script("GaussRoach.py", "out GaussRoach.py (GaussDB 8.1.1 build 1234)");
        std::filesystem::create_directory(files_.path("bin"));
        for (char const* tool :
             {"GaussRoach.py", "gs_om", "gs_guc", "gsql", "gs_check", "zsql", "zengine", "zctl.py"})
            files_.write(std::string("bin/") + tool, "#!/bin/sh\n");
        host_.write("/opt/quilmot/zenbrak3/lib/libxbsa64.so", "");
        make_link("/opt/quilmot/zenbrak3/lib/libxbsa64.so");
        host_.write(std::string(Product_Directories::CACHE) + "c1", "");
    }
    ~Host_Check_Test() override {
        GaussDB_Cluster_Manager::close_instance();
        Log_Capture::instance().claim_all(LM_WARNING, "");
        Log_Capture::instance().claim_all(LM_ERROR, "");
    }

    std::string home() const { return files_.path("app"); }
    std::string link() const { return home() + "/lib/libsimsearch/libxbsa64.so"; }
    void make_link(std::string const& target) const {
        std::filesystem::create_directories(home() + "/lib/libsimsearch");
        std::filesystem::remove(link());
        std::filesystem::create_symlink(target, link());
    }
    void enter(GAUSSDB_VERSION flavour) {
        GaussDB_Cluster_Manager::close_instance();
        cluster_ = new Scripted_Cluster({flavour, 8, 1, 1}, tools_.env(), tools_.user());
        ASSERT_TRUE(GaussDB_Cluster_Manager::instance()->add_cluster("c1", cluster_));
        flavour_ = flavour;
        instance_ = {"gaussdb",
                     "c1",
                     "uuid-1",
                     {{"version", flavour}, {"user", tools_.user()}, {"app_path", files_.path()}},
                     {}};
    }
    /** Other machines of the cluster besides this one. */
    void machines(std::vector<std::string> const& names) {
        GaussDB_Cluster_Info info = cluster_->info();
        for (std::string const& name : names) {
            GaussDB_Device_Info device;
            device.name = name;
            if (name != "host1")
                device.ssh_ips = {"10.0.0." + name.substr(4)};
            info.devices.push_back(device);
        }
        cluster_->info(info);
    }
    void agents_on(int count) {
        Array hosts;
        for (int number = 0; number < count; ++number)
            hosts.emplace_back(Object{{"host_uuid", "h" + std::to_string(number)}});
        upstream_->serve(
            HTTP_METHOD_GET, "/d2/r/v2/resources",
            rest_answer(200, Object{{"rows", Array{Object{{"form", "x"}, {"instances", hosts}}}}}));
    }

    void look() { lines_ = GaussDB_Host_Check(instance_, flavour_).instance(); }
    void look_at_places(std::string const& writer = "") {
        lines_ = GaussDB_Host_Check(instance_, flavour_).places(writer);
    }
    Instance_Check line(std::string const& subject) const {
        for (Instance_Check const& one : lines_)
            if (one.subject.starts_with(subject))
                return one;
        return {subject, false, "no such line", ""};
    }
    bool has(std::string const& subject) const { return line(subject).text != "no such line"; }
    void expect_good(std::string const& subject, std::string const& text = "") const {
        EXPECT_EQ(Instance_Check::OK, line(subject).state()) << subject << line(subject).text;
        EXPECT_THAT(line(subject).text, HasSubstr(text));
        EXPECT_EQ("", line(subject).advice);
    }
    void expect(Instance_Check::State state, std::string const& subject,
                std::string const& text) const {
        EXPECT_EQ(state, line(subject).state()) << subject << ": " << line(subject).text;
        EXPECT_THAT(line(subject).text, HasSubstr(text));
        EXPECT_NE("", line(subject).advice);
    }
    void expect_bad(std::string const& subject, std::string const& text) const {
        expect(Instance_Check::CRITICAL, subject, text);
    }

    Temporary_Directory files_;
    Product_Directories host_;
    Database_Tools tools_;
    Fake_Instances instances_;
    Scoped_Fake_Upstream upstream_;
    Scripted_Cluster* cluster_ = nullptr;
    int flavour_ = GAUSSDB_200;
    Instance instance_;
    std::vector<Instance_Check> lines_;
};

TEST_F(Host_Check_Test, a_cluster_with_all_that_a_backup_needs) {
    look();
    for (char const* subject : {"state", "user", "tool GaussRoach.py", "tool gs_om", "tool gs_guc",
                                "tool gsql", "tool gs_check", "account"})
        expect_good(subject);
    expect_good("version", "8.1.1, known to work");
    expect_good("GaussRoach.py --version", "GaussDB 8.1.1");
    EXPECT_EQ(tools_.user(), line("user").user);
    EXPECT_FALSE(has("agents")) << "it has one machine";
    look_at_places(tools_.user());
    expect_good("library link " + link(), "it leads to /opt/quilmot/zenbrak3/lib/libxbsa64.so");
    expect_good("directory " + std::string("/var/cache/quilmot/zenbrak3/gaussdb"), " MiB free");
    EXPECT_EQ("metadata_free", line("directory").measure);
    EXPECT_LT(0, line("directory").value);
}

TEST_F(Host_Check_Test, its_tools_run_as_its_user) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root: another user's rights are taken";
    look();
    for (char const* tool : {"gs_check", "GaussRoach.py"})
        EXPECT_EQ(getpwnam(tools_.user())->pw_uid, tools_.call(tool).uid) << tool;
}

TEST_F(Host_Check_Test, states_that_allow_no_backup) {
    for (char const* state : {"Unavailable", "", "Starting"}) {
        cluster_->status = state;
        look();
        expect_bad("state", state);
    }
    cluster_->status = "Degraded";
    look();
    expect_good("state");
    cluster_->has_status = false;
    look();
    expect_bad("state", "error");
}

TEST_F(Host_Check_Test, a_user_that_is_unknown_or_not_named) {
    instance_.options["user"] = "nobody-of-that-name";
    look();
    expect_bad("user nobody-of-that-name", "no such user");
    EXPECT_FALSE(has("tool"));
    EXPECT_FALSE(has("version"));
    instance_.options.erase("user");
    look();
    expect_bad("user", "does not name");
}

TEST_F(Host_Check_Test, a_tool_that_is_absent_is_named_with_where_to_put_it) {
    std::filesystem::remove(files_.path("bin/gs_om"));
    look();
    expect_bad("tool gs_om", files_.path() + "/bin");
    EXPECT_THAT(line("tool gs_om").advice, HasSubstr(tools_.user()));
}

TEST_F(Host_Check_Test, a_version_that_was_not_tried_is_a_warning) {
    tools_.script("gs_check", "out gs_check (GaussDB 9.0.0 build 1234) compiled at");
    look();
    expect(Instance_Check::WARNING, "version", "9.0.0, not tried");
    tools_.script("gs_check", "out hello\nexit 1");
    look();
    expect_bad("version", "does not tell it");
}

TEST_F(Host_Check_Test, a_backup_tool_that_does_not_run) {
    tools_.script("GaussRoach.py", "err ImportError: no module named psutil\nexit 1");
    look();
    expect_bad("GaussRoach.py --version", "it does not run: ImportError: no module");
    tools_.script("GaussRoach.py", "out [GAUSS-50000] : Unrecognized parameter\nexit 1");
    look();
    expect_good("GaussRoach.py --version", "does not tell its version");
}

TEST_F(Host_Check_Test, a_tool_that_hangs_is_ended_with_the_check) {
    tools_.script("gs_check", "wait");
    auto const limit = std::make_shared<Cancellation>();
    std::thread ender([&] {
        while (tools_.calls("gs_check") == 0)
            std::this_thread::yield();
        limit->cancel();
    });
    {
        Cancellation_Scope const scope(limit);
        look();
    }
    ender.join();
    expect(Instance_Check::UNKNOWN, "version", "no answer within the time of the check");
    EXPECT_TRUE(has("account")) << "the check goes on";
}

TEST_F(Host_Check_Test, flavours_that_are_logged_on_to_need_an_account) {
    look();
    expect_good("account", "trusted locally");
    for (GAUSSDB_VERSION const flavour : {GAUSSDB_T, GAUSSDB_TPOPS}) {
        enter(flavour);
        look();
        expect_bad("account", "none on record");
        instance_.logon_options = {{"uid", Object{{"username", "backup"}}}};
        look();
        expect_good("account", "backup");
    }
    enter(GAUSSDB_DWS);
    look();
    expect_good("account", "none is needed");
    expect_good("tool ssh");
}

TEST_F(Host_Check_Test, the_files_of_a_lone_instance_reach_the_pool_through_the_agent) {
    enter(GAUSSDB_T);
    tools_.env().set_env("GSDB_HOME", files_.path());
    look();
    EXPECT_EQ("", line("user").user);
    expect_good("tool zengine");
    expect_bad("version", "zengine -v does not tell it");
    look_at_places();
    EXPECT_FALSE(has("library link"));
}

// the other machines

TEST_F(Host_Check_Test, each_machine_of_a_cluster_needs_an_agent) {
    machines({"host1", "host2", "host3"});
    instances_->put(instance_);
    tools_.script("ssh", "run date +%s.%N\nexit 0");
    agents_on(3);
    look();
    expect_good("agents", "on all 3 hosts: host1, host2, host3");
    agents_on(2);
    look();
    expect_bad("agents", "2 of the 3 hosts have one");
}

TEST_F(Host_Check_Test, the_backup_tool_reaches_the_machines_by_ssh) {
    machines({"host1", "host2"});
    tools_.script("ssh", "out " + std::to_string(clock_now()) + "\nexit 0");
    look();
    expect_good("ssh 10.0.0.2", "can log in");
    expect_good("clock of host2", "agrees");
    Tool_Call const call = tools_.call("ssh");
    EXPECT_THAT(call.args, testing::Contains("StrictHostKeyChecking=yes"));
    EXPECT_THAT(call.args, testing::Contains("UpdateHostKeys=no"));
    if (geteuid() == 0) {
        EXPECT_EQ(getpwnam(tools_.user())->pw_uid, call.uid);
    }
    EXPECT_EQ(1u, tools_.calls("ssh")) << "not to this host";
    tools_.script("ssh", "err Permission denied (publickey).\nexit 255");
    look();
    expect_bad("ssh 10.0.0.2", "cannot log in: Permission denied");
    EXPECT_FALSE(has("clock of host2"));
}

TEST_F(Host_Check_Test, an_address_that_is_not_one_is_not_called) {
    machines({"host2"});
    GaussDB_Cluster_Info info = cluster_->info();
    info.devices.push_back(info.devices[0]);
    info.devices[1].ssh_ips = {"-oProxyCommand=id"};
    cluster_->info(info);
    tools_.script("ssh", "exit 1");
    look();
    expect_bad("ssh -oProxyCommand=id", "the address");
    EXPECT_EQ(1u, tools_.calls("ssh"));
}

TEST(Clock_Check, differs_by_what_the_question_does_not_explain) {
    EXPECT_EQ(0, clock_difference("100.5", 100, 101));
    EXPECT_EQ(-10, clock_difference("90", 100, 101));
    EXPECT_EQ(9, clock_difference("110", 100, 101));
    for (char const* text :
         {"", "x", "1 2", "nan", "inf", "-5", "1e5", "0x10", "999999999999999999999", "5.5.5"})
        EXPECT_FALSE(clock_difference(text, 1, 2)) << text;
}

TEST(Clock_Check, hosts_that_disagree_are_told) {
    auto const state = [](char const* printed) {
        return clock_line("h", printed, 1000, 1000).state();
    };
    EXPECT_EQ(Instance_Check::OK, state("1005"));
    EXPECT_EQ(Instance_Check::WARNING, state("1006"));
    EXPECT_EQ(Instance_Check::WARNING, state("940"));
    EXPECT_EQ(Instance_Check::CRITICAL, state("939"));
    EXPECT_EQ(Instance_Check::UNKNOWN, state("late"));
    Instance_Check const line = clock_line("h", "994", 1000, 1000);
    EXPECT_EQ("6 seconds behind this host's", line.text);
    EXPECT_EQ("clock_h", line.measure);
    EXPECT_EQ(-6, line.value);
}

// the link to the XBSA library

TEST_F(Host_Check_Test, links_that_the_backup_tool_cannot_use) {
    make_link("/opt/quilmot/zenbrak3/lib/other.so");
    look_at_places();
    expect_bad("library link", "a library that does not exist");
    make_link(files_.path("bin/gsql"));
    look_at_places();
    expect(Instance_Check::WARNING, "library link", "not this product's library");
    std::filesystem::remove(link());
    look_at_places();
    expect_bad("library link", "it does not exist");
    files_.write("app/lib/libsimsearch/libxbsa64.so", "");
    look_at_places();
    expect_bad("library link", "something else than a link");
}

TEST_F(Host_Check_Test, the_link_of_the_cluster_is_looked_at_with_its_user_s_rights) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root: another user's rights are taken";
    std::filesystem::permissions(home(), std::filesystem::perms(0700));
    look_at_places();
    expect_bad("library link", "Permission denied");
}

TEST_F(Host_Check_Test, each_flavour_has_its_link_where_its_handler_makes_it) {
    for (GAUSSDB_VERSION const flavour : {GAUSSDB_100, GAUSSDB_DWS}) {
        enter(flavour);
        look_at_places();
        EXPECT_EQ("library link /usr/openv/lib/libxbsa64.so", line("library link").subject);
        expect_bad("library link", "it does not exist");
    }
    for (GAUSSDB_VERSION const flavour : {GAUSSDB_T, GAUSSDB_FOR_OPENGAUSS, GAUSSDB_TPOPS}) {
        enter(flavour);
        look_at_places();
        EXPECT_FALSE(has("library link")) << flavour;
    }
}

// the directory of policies

TEST_F(Host_Check_Test, the_directory_of_policies_is_roots_and_writable) {
    std::string const cache = "/var/cache/quilmot/zenbrak3/gaussdb";
    {
        Read_Only_Mount const read_only("/var/cache/quilmot");
        look_at_places();
        expect_bad("directory " + cache, "cannot be written");
    }
    std::filesystem::permissions(cache, std::filesystem::perms(0777));
    look_at_places();
    expect_bad("directory " + cache, "others than root can write to " + cache);
    std::filesystem::permissions(cache, std::filesystem::perms(0755));
    look_at_places();
    expect_good("directory " + cache);
    std::filesystem::remove_all("/var/cache/quilmot/zenbrak3");
    look_at_places();
    expect_good("directory " + cache);
    EXPECT_FALSE(host_.exists("/var/cache/quilmot/zenbrak3")) << "it is not made";
    host_.write("/var/cache/quilmot/zenbrak3", "");
    look_at_places();
    expect_bad("directory " + cache, "is not a directory");
}

TEST_F(Host_Check_Test, who_writes_to_the_pool_passes_to_the_policy) {
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root: another user's rights are taken";
    std::filesystem::permissions("/var/cache/quilmot/zenbrak3", std::filesystem::perms(0700));
    look_at_places(tools_.user());
    Instance_Check const closed = lines_.back();
    EXPECT_EQ("directory /var/cache/quilmot/zenbrak3", closed.subject);
    EXPECT_EQ(Instance_Check::CRITICAL, closed.state());
    EXPECT_THAT(closed.text, HasSubstr("cannot pass through it"));
    look_at_places("");
    EXPECT_NE(closed.subject, lines_.back().subject);
}

TEST_F(Host_Check_Test, the_module_looks_at_all_of_it_before_a_backup) {
    lines_ = GaussDB_Guide().check(instance_, Database_Guide::TO_BACK_UP);
    for (char const* subject : {"state", "user", "version", "library link", "directory"})
        EXPECT_TRUE(has(subject)) << subject;
    EXPECT_TRUE(GaussDB_Guide().check(instance_, Database_Guide::TO_DECLARE).empty());
}

} // namespace
