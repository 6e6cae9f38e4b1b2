#include "gaussdb/job/gaussdb_event_handler.h"
#include "tests/support/failing_new.h"
#include "tests/unit/gaussdb/job/backup_job_fixture.h"

#include <optional>

namespace {

using testing::IsEmpty;

// a failure of each step

using Step = Failing_Step<GaussDB_Backup_Job_Executor_Test>;
using World = GaussDB_Backup_Job_Executor_Test;

std::vector<Step> failing_steps() {
    std::string const asked = "get_view catalogs";
    std::vector<std::string> const dropped{asked, "initialize SET", "abort SET"};
    std::vector<std::string> const dropped_with_pieces{asked, "initialize SET", "add_piece SET",
                                                       "abort SET"};
    return {
        {"abnormal_state",
         [](World& w) { w.cluster_is("Unavailable", "Yes"); },
         "alert 7 3",
         LM_WARNING,
         "GaussDB cluster state is abnormal, stop backup\n",
         {},
         {}},
        {"abnormal_state_goes_before_balance",
         [](World& w) { w.cluster_is("normal", "No"); },
         "alert 7 3",
         LM_WARNING,
         "GaussDB cluster state is abnormal, stop backup\n",
         {},
         {}},
        {"unbalanced",
         [](World& w) { w.cluster_is("Degraded", "No"); },
         "alert 7 4",
         LM_WARNING,
         "GaussDB cluster is unbalanced, stop backup\n",
         {},
         {}},
        {"no_options",
         [](World& w) { w.def_->options(Job_Options_var()); },
         "",
         LM_ERROR,
         "opts_ is NULL:\n",
         {},
         {}},
        {"sequence",
         [](World& w) { w.catalog_->fail("get_view"); },
         "",
         LM_ERROR,
         "The catalog fails to get_view",
         {},
         {asked}},
        {"sequence_that_is_no_number",
         [](World& w) {
             w.catalog_->add_row(
                 Object{{"uuid", "s"}, {"resource_uuid", "cluster-1"}, {"seq", "one"}});
         },
         "",
         LM_ERROR,
         "Failed to get gaussdb backup sequence, ",
         {},
         {asked}},
        {"hosts",
         [](World& w) { w.serve_hosts({}); },
         "alert 7 6",
         LM_ERROR,
         "Failed to get cluster hosts of c1\n",
         {},
         {asked}},
        {"hosts_of_an_unreachable_server",
         [](World& w) { w.upstream_->reachable(false); },
         "alert 7 6",
         LM_ERROR,
         "Failed to get cluster hosts of c1\n",
         {"Failed to get cluster info of c1", "/d2/r/v2/resources"},
         {asked}},
        {"notify_here",
         [](World& w) { w.write(w.root("pool-1") + "/x", ""); },
         "alert 7 7",
         LM_ERROR,
         "Failed to notify cluster nodes\n",
         {"Invalid policy name"},
         {asked}},
        {"notify_other",
         [](World& w) { w.serve_other(rpc_error(-1, "no")); },
         "alert 7 7",
         LM_ERROR,
         "Failed to notify cluster nodes\n",
         {"Failed to notify roach policy to agent other", "gaussdb.roach_source"},
         {asked}},
        {"initialize",
         [](World& w) { w.catalog_->fail("initialize"); },
         "alert 7 8",
         LM_ERROR,
         "Failed to initialize gaussdb catalog\n",
         {"The catalog fails to initialize"},
         {asked, "initialize SET"}},
        {"roach",
         [](World& w) { w.roach_fails(); },
         "",
         LM_ERROR,
         "Failed to backup gaussdb data\n",
         {"no space"},
         dropped},
        {"roach_dies",
         [](World& w) { w.tools_.script("python3", "signal 9"); },
         "",
         LM_ERROR,
         "Failed to backup gaussdb data\n",
         {"GaussRoach.py"},
         dropped},
        {"roach_not_there",
         [](World& w) { rm_rf(w.tools_.path("python3").c_str()); },
         "",
         LM_ERROR,
         "Failed to backup gaussdb data\n",
         {"python3"},
         dropped},
        {"no_backup_key",
         [](World& w) { w.tools_.script("python3", "exit 0"); },
         "",
         LM_ERROR,
         "Failed to backup gaussdb data, the backup tool gave no backup key\n",
         {},
         dropped},
        {"no_metadata",
         [](World& w) { w.tools_.script("python3", "out Backup key: 2_2\nexit 0"); },
         "alert 7 9",
         LM_ERROR,
         "Failed to backup gaussdb metadata\n",
         {"Failed to backup roach meta file"},
         dropped},
        {"pool_gone",
         [](World& w) { rm_rf(w.pool_.path().c_str()); },
         "alert 7 9",
         LM_ERROR,
         "Failed to backup gaussdb metadata\n",
         {"Failed to connect"},
         dropped},
        {"pool_not_on_record",
         [](World& w) { w.pools_->info.uuid = "another"; },
         "alert 7 9",
         LM_ERROR,
         "Failed to backup gaussdb metadata\n",
         {"Failed to get pool (pool-1) info", "pool-1"},
         dropped},
        {"add_piece",
         [](World& w) { w.catalog_->fail("add_piece"); },
         "alert 7 9",
         LM_ERROR,
         "Failed to backup gaussdb metadata\n",
         {"The catalog fails to add_piece"},
         dropped_with_pieces},
        {"roach_metadata",
         [](World& w) { w.roach_works("2_2", "run rm -r " + std::string(META) + "/roach/2_2"); },
         "",
         LM_ERROR,
         "Failed to backup roach metadata, backup key 2_2\n",
         {"/meta/2_2", "No files were backed up"},
         dropped_with_pieces},
        {"complete",
         [](World& w) { w.catalog_->fail("complete"); },
         "alert 7 2",
         LM_ERROR,
         "Failed to commit gaussdb catalog\n",
         {"The catalog fails to complete"},
         {asked, "initialize SET", "add_piece SET", asked, "complete SET", "abort SET"}},
        {"roach_and_abort",
         [](World& w) {
             w.roach_fails();
             w.catalog_->fail("abort");
         },
         "",
         LM_ERROR,
         "Failed to backup gaussdb data\n",
         {"no space", "The catalog fails to abort", "Failed to abort gaussdb catalog"},
         dropped},
        {"roach_100",
         [](World& w) {
             w.make_cluster(GAUSSDB_100, 6);
             w.tools_.script("python", "err no space\nexit 1");
         },
         "",
         LM_ERROR,
         "Failed to backup gaussdb 100 data\n",
         {"no space", "Failed to get instance account"},
         dropped},
        {"no_backup_key_100",
         [](World& w) {
             w.make_cluster(GAUSSDB_100, 6);
             w.tools_.script("python", "exit 0");
         },
         "",
         LM_ERROR,
         "Failed to backup gaussdb data, the backup tool gave no backup key\n",
         {"Failed to get instance account"},
         dropped},
    };
}

class Failing_Backup : public GaussDB_Backup_Job_Executor_Test,
                       public testing::WithParamInterface<Step> {};

TEST_P(Failing_Backup, is_told_and_leaves_no_set) {
    GetParam().breaks(*this);
    expect_failed(GetParam(), backup());
    EXPECT_EQ(GetParam().name == "roach_and_abort", catalog_->has(set_uuid()));
    EXPECT_EQ(0u, last_request("remove").size()); // the hosts keep the policy of a failed run
}

INSTANTIATE_TEST_SUITE_P(Steps, Failing_Backup, testing::ValuesIn(failing_steps()),
                         [](auto const& step) { return step.param.name; });

TEST_F(GaussDB_Backup_Job_Executor_Test, a_set_that_could_not_be_dropped_is_a_warning) {
    roach_fails();
    catalog_->fail("abort");
    EXPECT_EQ(FAILURE, backup());
    EXPECT_LOGGED(LM_WARNING, "Failed to abort gaussdb catalog\n");
    for (char const* line : {"Failed to backup gaussdb data\n", "The catalog fails to abort"})
        EXPECT_LOGGED(LM_ERROR, line);
    Log_Capture::instance().claim_all(LM_WARNING, "no space");
}

TEST_F(GaussDB_Backup_Job_Executor_Test, the_set_is_dropped_before_the_job_is_over) {
    roach_fails();
    bool open_at_the_end = true;
    jobs_.on_event([&](std::string const& event) {
        if (event == "finished")
            open_at_the_end = catalog_->has(set_uuid());
    });
    EXPECT_EQ(FAILURE, backup());
    EXPECT_FALSE(open_at_the_end);
    EXPECT_LOGGED(LM_ERROR, "Failed to backup gaussdb data\n");
    Log_Capture::instance().claim_all(LM_WARNING, "no space");
}

TEST_F(GaussDB_Backup_Job_Executor_Test, without_memory_for_the_archives_handler) {
    std::optional<Failing_New> no_memory;
    jobs_.on_event([&](std::string const& event) {
        if (event == "state running")
            no_memory.emplace(sizeof(GaussDB_Event_Handler));
        else if (event.starts_with("ended "))
            no_memory.reset();
    });
    EXPECT_EQ(FAILURE, backup());
    EXPECT_EQ("abort SET", catalog_calls().back());
    EXPECT_THAT(events_with("alert "), IsEmpty());
}

// what it has for itself

constexpr char INSTANCE_HELD[] = " instance/cluster-1";
constexpr char TOOL_HELD[] = " metadata/here metadata/other policy/here/pool-1 policy/other/pool-1";

TEST_F(GaussDB_Backup_Job_Executor_Test, it_has_the_tools_directories_of_all_hosts_for_itself) {
    Texts const held{std::string("hold") + INSTANCE_HELD, std::string("hold") + TOOL_HELD,
                     std::string("release") + TOOL_HELD, std::string("release") + INSTANCE_HELD};
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_EQ(held, jobs_.holds());
    jobs_.clear();
    new_script("python3", "err no space\nexit 1");
    EXPECT_EQ(FAILURE, backup());
    EXPECT_EQ(held, jobs_.holds()) << "a failed run gives it back, too";
    EXPECT_LOGGED(LM_ERROR, "Failed to backup gaussdb data\n");
    Log_Capture::instance().claim_all(LM_WARNING, "no space");
}

TEST_F(GaussDB_Backup_Job_Executor_Test, nobody_is_told_anything_before_it_has_them) {
    bool told_early = false;
    jobs_.on_hold([&](std::set<std::string> const&) {
        told_early = told_early || policy_is_there() || last_request("add").size() != 0 ||
                     tools_.calls("python3") != 0;
        return Hold_Answer();
    });
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_FALSE(told_early);
}

TEST_F(GaussDB_Backup_Job_Executor_Test, one_that_waits_can_be_canceled) {
    for (char const* resource : {"instance/cluster-1", "metadata/here"}) {
        jobs_.clear();
        jobs_.on_hold([&](std::set<std::string> const& resources) {
            if (!resources.contains(resource))
                return Hold_Answer();
            job_->abort();
            return Hold_Answer{Hold_Answer::WAIT, "job x"};
        });
        EXPECT_EQ("ended canceled 0", backup());
        EXPECT_FALSE(policy_is_there());
        EXPECT_EQ(0u, last_request("add").size());
        EXPECT_EQ(0u, tools_.calls("python3"));
        EXPECT_TRUE(Log_Capture::instance().claim(LM_INFO, "Canceled while waiting for job x\n"));
    }
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_failed_run_does_not_stand_in_the_way_of_the_next) {
    roach_fails();
    EXPECT_EQ(FAILURE, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to backup gaussdb data\n");
    Log_Capture::instance().claim_all(LM_WARNING, "no space");
    jobs_.clear();
    roach_works();
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_EQ(1, set().at("seq").get_int64());
    EXPECT_FALSE(policy_is_there());
}

} // namespace
