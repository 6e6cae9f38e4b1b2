#include "tests/unit/gaussdb/job/non_intrusive_restore_fixture.h"

#include <future>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using testing::HasSubstr;
using testing::IsEmpty;

// hostile names

TEST_F(Non_Intrusive_Restore_Test, names_that_could_be_more_than_names_reach_no_shell) {
    for (std::string const hostile : {"x;touch /home/daemon/hacked", "$(id)", "`id`", "a'b", "a\"b",
                                      "-x", "a b", "a\nb", "a\\b"}) {
        options_->logging_level_ = hostile;
        expect_refused("Invalid logging level '");
        options_->logging_level_ = "";
        options_->xml_config_path_ = "/" + hostile;
        if (hostile != "-x")
            expect_refused("Invalid configuration file '");
        options_->xml_config_path_ = "";
        source_->backup_key_ = hostile;
        expect_refused("Invalid backup key '");
        source_->backup_key_ = "2_2";
        source_->tables_[hostile].push_front({"a", "b", "c", "d"});
        expect_refused("Invalid database '");
        source_->tables_.clear();
        add_set("1_1", "", 1, {{"granularity", "schema"}, {"database", hostile}});
        EXPECT_EQ(FAILURE, restore());
        EXPECT_LOGGED(LM_ERROR, "Invalid database '");
        Log_Capture::instance().claim_all(LM_INFO, "Performing");
        add_set("1_1", "", 1);
        add_set("2_2", "1_1", 2, {{"host", hostile}});
        as_new_cluster();
        EXPECT_EQ(FAILURE, restore());
        EXPECT_LOGGED(LM_ERROR, "Invalid host name of the old cluster '");
        set_target(RESOURCE);
        options_->xml_config_path_ = "";
        add_set("2_2", "1_1", 2);
    }
    for (std::string const hostile : {"a\nb", "a.b", ""}) {
        source_->tables_["sales"].push_front({"a", "b", "c", hostile});
        expect_refused("Invalid schema or table '");
        source_->tables_.clear();
    }
    EXPECT_EQ(0u, roach_calls());
    EXPECT_FALSE(exists("/home/daemon/hacked"));
}

TEST_F(Non_Intrusive_Restore_Test, a_record_that_is_not_accepted) {
    record_is({{"ssh_options", "-o ProxyCommand=id"}});
    expect_refused("Failed to get DWS instance info.\n", "Invalid record of instance c1");
}

TEST_F(Non_Intrusive_Restore_Test, an_address_of_the_database_that_is_more_than_an_address) {
    give("addresses", "n2; touch /home/daemon/hacked\n127.0.0.1\n");
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_LOGGED(LM_ERROR, "Invalid address of a node 'n2; touch");
    EXPECT_LOGGED(LM_WARNING, "Failed to clean roach path on n2; touch /home/daemon/hacked.\n");
    EXPECT_FALSE(exists("/home/daemon/hacked"));
    EXPECT_EQ(2u, sent("rm -rf")) << "by this host and by the node";
}

// what it has for itself

TEST_F(Non_Intrusive_Restore_Test, it_has_the_target_and_its_node_for_itself) {
    as_new_cluster();
    expect_holds("instance/dws-2", "metadata/here node/127.0.0.1 node/cn1 policy/here/dws-2");
}

TEST_F(Non_Intrusive_Restore_Test, nothing_is_changed_before_it_has_the_node) {
    as_tables();
    expect_nothing_before_hold("/home/daemon/zenbrak3_source_table.txt");
}

TEST_F(Non_Intrusive_Restore_Test, one_that_waits_shows_for_what_and_goes_on) {
    expect_waiting_shown();
}

TEST_F(Non_Intrusive_Restore_Test, one_that_waits_can_be_canceled) {
    expect_wait_canceled();
}

// a failure of each step

class Failing_Restore_Test
    : public Non_Intrusive_Restore_Test,
      public testing::WithParamInterface<Non_Intrusive_Restore_Test::Failure> {};

TEST_P(Failing_Restore_Test, leaves_no_policy_and_no_metadata) {
    expect_failed(GetParam());
    EXPECT_EQ(sent("GaussRoach.py -t restore") > 0, sent("rm -rf") > 0);
}

std::vector<Non_Intrusive_Restore_Test::Failure> restore_failures() {
    using World = Non_Intrusive_Restore_Test::Runs;
    std::vector<std::string> const none;
    std::vector<std::string> const asked{"get_view restore"};
    return {
        {"no_options",
         [](World& w) { w.def_->options(Job_Options_var()); },
         "",
         "opts_ is NULL",
         {},
         none,
         false},
        {"no_record",
         [](World& w) {
             w.record_is({{"meta_path", 5}});
         },
         "",
         "Failed to get DWS instance info.\n",
         {"Failed to get DWS instance info, "},
         none,
         false},
        {"no_service",
         [](World& w) { w.service(""); },
         "",
         "Failed to get roach client info.\n",
         {},
         none,
         false},
        {"catalog",
         [](World& w) { w.catalog_->fail("get_view"); },
         "alert 7 1",
         "Failed to get gaussdb catalog, backup key 2_2\n",
         {"The catalog fails to get_view"},
         asked,
         false},
        {"no_way_in",
         [](World& w) { w.ssh_fails("hostname"); },
         "",
         "Failed to get database host name.\n",
         {"no way"},
         asked,
         false},
        {"policy",
         [](World& w) {
             w.serve_hosts({"other"});
             w.serve_other(rpc_error(-1, "no"));
         },
         "alert 7 7",
         "Failed to notify cluster nodes\n",
         {"Failed to notify roach policy to agent other", "gaussdb.roach_source"},
         asked,
         false},
        {"user",
         [](World& w) { w.ssh_fails("whoami"); },
         "",
         "Failed to get database roach agent user.\n",
         {"no way"},
         asked,
         false},
        {"tool",
         [](World& w) { w.new_script("GaussRoach.py", "err no space\nexit 1"); },
         "",
         "Failed to execute roach restore.\n",
         {"no space"},
         asked,
         false},
        {"cut_connection",
         [](World& w) { w.ssh_fails("GaussRoach.py -t restore"); },
         "",
         "Failed to execute roach restore.\n",
         {"no way"},
         asked,
         false},
        {"start",
         [](World& w) { w.new_script("GaussRoach.py", "exit 0\n---\nexit 1"); },
         "alert 7 11",
         "Failed to start GaussDB, please start manually.\n",
         {"status 1"},
         asked,
         false},
    };
}

INSTANTIATE_TEST_SUITE_P(Steps, Failing_Restore_Test, testing::ValuesIn(restore_failures()),
                         [](auto const& step) { return step.param.name; });

TEST_F(Non_Intrusive_Restore_Test, metadata_that_cannot_be_removed_is_a_warning) {
    ssh_fails("n2 rm -rf");
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_LOGGED(LM_WARNING, "Failed to clean roach path on n2.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "255");
}

TEST_F(Non_Intrusive_Restore_Test, metadata_is_removed_over_a_second_connection_when_one_is_cut) {
    give("addresses", "127.0.0.1\n");
    tool("rm", R"sh(
[[ "$*" == *zenbrak3_meta* && ! -e DIR/cut ]] || exec /bin/rm "$@"
touch DIR/cut; exit 255
)sh");
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_TRUE(exists(tools_.path("cut")));
    Log_Capture::instance().claim_all(LM_WARNING, "255");
}

TEST_F(Non_Intrusive_Restore_Test, metadata_that_stays_is_told_when_the_database_tells_no_nodes) {
    for (char const* step : {"", "node_host"}) {
        if (*step)
            ssh_fails(step);
        else
            give("addresses", "");
        ASSERT_EQ(SUCCESS, restore());
        EXPECT_LOGGED(LM_WARNING, "Directory /home/daemon/zenbrak3_meta_");
    }
    EXPECT_EQ(0u, sent("rm -rf"));
    EXPECT_LOGGED(LM_ERROR, "Failed to get database addresses.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "255");
}

// a cancel

TEST_F(Non_Intrusive_Restore_Test, a_cancel_stops_the_tool) {
    new_script("GaussRoach.py",
               "wait\nexit 1\n---\nrun touch " + tools_.path("GaussRoach.py.go") + "\nexit 0");
    EXPECT_EQ("ended canceled 0",
              run_while<Eager_Kind>(def_, RESOURCE, [](Job& job) { EXPECT_EQ(0, job.stop()); }));
    EXPECT_EQ("GaussRoach.py -t stop", roach_line(2));
    EXPECT_EQ(2u, roach_calls());
    EXPECT_LOGGED(LM_ERROR, "Failed to execute roach restore.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "GaussRoach.py");
    EXPECT_FALSE(policy_of(RESOURCE));
    EXPECT_LT(0u, sent("rm -rf"));
}

TEST_F(Non_Intrusive_Restore_Test, a_stop_command_that_never_ends_does_not_hold_up_the_run) {
    new_script("GaussRoach.py", "wait\nexit 1\n---\nrun touch " + tools_.path("GaussRoach.py.go") +
                                    "\nrun exec sleep 600");
    EXPECT_EQ("ended canceled 0",
              run_while<Eager_Kind>(def_, RESOURCE, [](Job& job) { EXPECT_EQ(0, job.stop()); }));
    EXPECT_EQ("GaussRoach.py -t stop", roach_line(2));
    EXPECT_LOGGED(LM_WARNING, "was ended, the tool that it is to stop has ended");
    EXPECT_LOGGED(LM_ERROR, "Failed to execute roach restore.\n");
    Log_Capture::instance().claim_all(LM_WARNING, "GaussRoach.py");
    EXPECT_LT(0u, sent("rm -rf"));
}

TEST_F(Non_Intrusive_Restore_Test, a_cancel_before_the_tool_runs_nothing) {
    new_script("whoami", "run touch " + tools_.path("asked") + "\nwait\nout daemon");
    Job_var const job(new Kind(def_), false);
    std::thread beside([&] {
        while (!exists(tools_.path("asked")))
            std::this_thread::yield();
        EXPECT_EQ(0, job->abort());
        tools_.go("whoami");
    });
    EXPECT_EQ("ended canceled 0", run(job, RESOURCE));
    beside.join();
    EXPECT_EQ(0u, roach_calls());
    EXPECT_FALSE(policy_of(RESOURCE));
}

TEST_F(Non_Intrusive_Restore_Test, a_run_that_is_cancelled_now_leaves_no_list_on_the_node) {
    as_tables();
    tool("scp", R"sh(
target=${*: -1} source=${*: -2:1}
cp "$source" "${target#*:}"
[[ $target == *target_table* ]] || exit 0
touch DIR/asked; exec sleep 600
)sh");
    Job_var const job(new Kind(def_), false);
    std::thread beside([&] {
        while (!exists(tools_.path("asked")))
            std::this_thread::yield();
        EXPECT_EQ(0, job->abort_now());
    });
    EXPECT_EQ("ended canceled 0", run(job, RESOURCE));
    beside.join();
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_source_table.txt"));
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_target_table.txt"));
    EXPECT_LOGGED(LM_ERROR, "Failed to generate table file");
    Log_Capture::instance().claim_all(LM_WARNING, "scp");
}

TEST_F(Non_Intrusive_Restore_Test, a_list_is_removed_over_a_second_connection_when_one_is_cut) {
    as_tables();
    tool("rm", R"sh(
[[ "$*" == *zenbrak3_*_table.txt && ! -e DIR/cut ]] || exec /bin/rm "$@"
touch DIR/cut; exit 255
)sh");
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_TRUE(exists(tools_.path("cut")));
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_source_table.txt"));
    EXPECT_FALSE(exists("/home/daemon/zenbrak3_target_table.txt"));
    Log_Capture::instance().claim_all(LM_WARNING, "ssh");
}

} // namespace
