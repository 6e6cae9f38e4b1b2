#include "gaussdb/job/gaussdb_restore_job_executor.h"

#include "json_spirit/text.h"
#include "tests/unit/gaussdb/job/restore_job_fixture.h"

#include <thread>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using World = GaussDB_Restore_Job_Executor_Test;

// the whole of a restore

TEST_F(GaussDB_Restore_Job_Executor_Test, a_restore_to_the_same_cluster) {
    restore_options_->channels_ = 2;
    restore_options_->max_memory_usage_ = 3;
    restore_options_->buffer_size_ = 4;
    restore_options_->buffer_block_size_ = 5;
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ("python3 GaussRoach.py -t restore --master-port=PORT --media-type NBU "
              "--media-destination pool-1 --metadata-destination " +
                  std::string(META) +
                  " --clean --backup-key 2_2 --parallel-process=2 --max-memory-usage=3 "
                  "--buffer-size=4 --buffer-block-size=5",
              line("python3", 1));
    EXPECT_EQ("python3 GaussRoach.py -t start", line("python3", 2));
    EXPECT_EQ(2u, tools_.calls("python3"));
    EXPECT_EQ(10000u, job_->activity().size); // both sets
    EXPECT_EQ(10000u, job_->activity().set_size);
    EXPECT_THAT(catalog_calls(), ElementsAre("get_view restore"));
    EXPECT_EQ((Object{{"resource_uuid", "cluster-1"},
                      {"backup_key", "2_2"},
                      {"sort", "backup_start_time"},
                      {"order", "desc"},
                      {"cmode", "rb_orm_rows"}}),
              catalog_->queries().back());
    EXPECT_FALSE(policy_is_there());
    EXPECT_FALSE(exists(META));
    EXPECT_THAT(events_with("alert "), IsEmpty());
}

TEST_F(GaussDB_Restore_Job_Executor_Test, the_hosts_get_the_chain_and_lose_the_policy) {
    EXPECT_EQ(SUCCESS, restore());
    Object const add = last_request("add");
    EXPECT_EQ("2_2", add.at("backup_key").get_str());
    EXPECT_EQ(2u, add.at("catalogs").get_array().size());
    EXPECT_EQ(DEFINITION, add.at("definition_uuid").get_str());
    EXPECT_EQ(0u, add.count("delete_meta_path"));
    EXPECT_EQ("", add.at("uuid").get_str());
    EXPECT_EQ("", add.at("device_uuid").get_str());
    EXPECT_EQ(1, add.at("compression_level").get_int());
    EXPECT_TRUE(add.at("full_backup").get_bool());
    Object const remove = last_request("remove");
    EXPECT_EQ(DEFINITION, remove.at("definition_uuid").get_str());
    EXPECT_EQ("pool-1", remove.at("policy_name").get_str());
}

TEST_F(GaussDB_Restore_Job_Executor_Test, the_tool_finds_the_metadata_that_was_lost) {
    rm_rf(META);
    // what it sees goes beside its calls, where it may write
    roach_restores("run cd " + std::string(META) + " && cat backups.ini roach/*/one >" +
                   tools_.path("calls/seen"));
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ("{\"BackupDetails\":[{\"BackupKey\":\"2_2\",\"BackupSize\":5000UL}]}\none\none\n",
              content(tools_.path("calls/seen")));
}

TEST_F(GaussDB_Restore_Job_Executor_Test, a_restore_to_a_new_cluster) {
    target("cluster-2");
    write(std::string(META) + "/roach/2_2/one", "of another cluster");
    roach_restores("run cat " + std::string(META) + "/roach/*/one >" + tools_.path("calls/seen"));
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_THAT(line("python3", 1),
                HasSubstr(" --backup-key 2_2 --restore-new-cluster --restore-configs"));
    EXPECT_EQ("python3 GaussRoach.py -t start --restore-new-cluster -X /etc/c1.xml",
              line("python3", 2));
    EXPECT_EQ("one\none\n", content(tools_.path("calls/seen")));
}

TEST_F(GaussDB_Restore_Job_Executor_Test, on_the_same_cluster_metadata_that_is_there_stays) {
    write(std::string(META) + "/roach/2_2/one", "newer\n");
    roach_restores("run cat " + std::string(META) + "/roach/*/one >" + tools_.path("calls/seen"));
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ("one\nnewer\n", content(tools_.path("calls/seen")));
}

TEST_F(GaussDB_Restore_Job_Executor_Test, before_8_1_1_python_is_used_and_no_chain_is_sent) {
    make_cluster(GAUSSDB_200, 6);
    for (std::string const key : {"1_1", "2_2"}) // where the older release looks for it
        pool_.store("cluster-1/roach/" + key + "/bak_cluster_static_config", "config");
    new_script("python", "exit 0");
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ(2u, tools_.calls("python"));
    EXPECT_EQ(0u, tools_.calls("python3"));
    EXPECT_EQ(0u, last_request("add").count("catalogs"));
    EXPECT_EQ("2_2", last_request("add").at("backup_key").get_str());
}

TEST_F(GaussDB_Restore_Job_Executor_Test, the_100_series_needs_no_metadata_of_the_pool) {
    turn_into_100();
    restore_options_->channels_ = 3;
    rm_rf((pool_.path() + "/cluster-1").c_str());
    rm_rf((pool_.path() + "/host-1").c_str());
    EXPECT_EQ(SUCCESS, restore());
    std::string const media = root("media/pool-1");
    EXPECT_EQ("python GaussRoach.py -t restore --media-type NBU --clean --media-destination " +
                  media + " --nbu-policy " + media + " --metadata-destination " + META +
                  "/roach/2_2 --backup-key 2_2 --mode cluster --master-port PORT "
                  "--parallel-process 3",
              line("python", 1));
    EXPECT_EQ("python GaussRoach.py -t start --media-type NBU", line("python", 2));
    EXPECT_EQ(0u, last_request("add").count("catalogs"));
    EXPECT_EQ("2_2", last_request("add").at("backup_key").get_str());
}

TEST_F(GaussDB_Restore_Job_Executor_Test, a_lone_instance_of_the_100_series_to_a_new_one) {
    turn_into_100(GaussDB_Cluster_Handler::TYPE_SINGLE);
    target("cluster-2");
    size_t const asked = upstream_->rest_calls().size();
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_THAT(line("python", 1), HasSubstr(" --mode single --restore-new-cluster"));
    EXPECT_EQ("python GaussRoach.py -t start --restore-new-cluster", line("python", 2));
    EXPECT_EQ(asked, upstream_->rest_calls().size());
}

TEST_F(GaussDB_Restore_Job_Executor_Test,
       a_flavour_without_a_tool_restores_nothing_and_is_started) {
    for (std::string const& uuid : {full_, incremental_})
        change(uuid, "series", 0);
    make_cluster(GAUSSDB_UNKNOWN);
    new_script("python", "exit 0");
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ("python GaussRoach.py -t start --media-type NBU", line("python", 1));
}

// the chain

TEST_F(GaussDB_Restore_Job_Executor_Test, a_set_alone_makes_two_steps) {
    restore_source_->backup_key_ = "1_1";
    change(incremental_, "incarnation", "another");
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_THAT(events_with("progress "), ElementsAre("progress 25", "progress 50"));
    EXPECT_EQ(5000u, job_->activity().size);
}

TEST_F(GaussDB_Restore_Job_Executor_Test, each_set_is_a_step_and_the_end_is_one) {
    new_script("python3", "out \\e[0mN1: 100.00%\nout \\e[0mN2: 100.00%\n"
                          "out \\e[0mRestore SUCCESSFUL\nout \\e[0mN1: 100.00%\n"
                          "out \\e[0mN2: 100.00%\nexit 0\n---\nexit 0");
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_THAT(events_with("progress "),
                ElementsAre("progress 16", "progress 33", "progress 49", "progress 66"));
}

TEST_F(GaussDB_Restore_Job_Executor_Test, rows_outside_of_the_chain_do_not_count) {
    turn_into_100();
    Object row = catalog_->row(incremental_);
    row["uuid"] = "beside";
    row["backup_key"] = "1_9";
    row["series"] = 2; // not even this is looked at
    catalog_->add_row(row);
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ(10000u, job_->activity().size);
}

TEST_F(GaussDB_Restore_Job_Executor_Test,
       the_pool_and_the_method_are_those_of_the_set_that_is_asked_for) {
    turn_into_100();
    change(full_, "storages", Array{Object{{"pool_uuid", "pool-9"}}});
    change(full_, "compression", "lzop");
    change(incremental_, "storages",
           Array{Object{{"pool_uuid", "pool-8"}, {"copy", true}}, Object{{"pool_uuid", "pool-1"}}});
    change(incremental_, "compression", "zstd");
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ("pool-1", last_request("add").at("pool_uuid").get_str());
    EXPECT_EQ("zstd", last_request("add").at("compression").get_str());
    EXPECT_EQ("pool-1", last_request("add").at("policy_name").get_str());
}

TEST_F(GaussDB_Restore_Job_Executor_Test, a_copy_is_restored_when_it_is_all_that_is_left) {
    turn_into_100();
    change(incremental_, "storages", Array{Object{{"pool_uuid", "pool-8"}, {"copy", true}}});
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ("pool-8", last_request("add").at("pool_uuid").get_str());
}

// the database's directories

TEST_F(GaussDB_Restore_Job_Executor_Test, the_data_directories_of_all_machines_are_cleaned) {
    GaussDB_Cluster_Info info = cluster_->info();
    info.devices[0].coordinators.dirs = {"/cn1"};
    info.devices[0].data_nodes.dirs = {"/dn1,host2,/dn1s,,host3,/dn1d", ",", ""};
    info.devices[1].coordinators.dirs = {"/cn2"};
    info.devices[1].data_nodes.dirs = {"relative,/dn2", "/dn1"};
    cluster_->info(info);
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ(Value(Array{"/cn1", "/cn2", "/dn1", "/dn1d", "/dn1s", "/dn2"}),
              last_request("remove").at("dirs"));
}

TEST_F(GaussDB_Restore_Job_Executor_Test,
       a_postmaster_that_was_backed_up_is_not_taken_for_a_running_one) {
    GaussDB_Cluster_Info info = cluster_->info();
    info.devices[0].data_nodes.dirs = {files_.path("dn1") + ",host2," + files_.path("dn2")};
    cluster_->info(info);
    files_.write("dn1/postmaster.pid", "1");
    files_.write("dn2/postmaster.pid", "1");
    for (char const* directory : {"dn1", "dn2"})
        EXPECT_EQ(0, chown_r(files_.path(directory).c_str(), USER));
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_FALSE(files_.exists("dn1/postmaster.pid"));
    EXPECT_FALSE(files_.exists("dn2/postmaster.pid"));
}

TEST_F(GaussDB_Restore_Job_Executor_Test, a_cluster_without_directories_sends_an_empty_list) {
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_EQ(Value(Array{}), last_request("remove").at("dirs"));
}

// whose job it is

TEST_F(GaussDB_Restore_Job_Executor_Test, another_machine_or_cluster_is_not_active) {
    size_t const asked = catalog_->calls().size();
    restore_source_->restore_as_ = "gaussdb/c2";
    EXPECT_EQ("", restore());
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
    restore_source_->restore_as_ = "other/c1";
    jobs_.clear();
    EXPECT_EQ("", restore());
    EXPECT_LOGGED(LM_WARNING, "Failed to parse gaussdb source:\"other/c1\"\n");
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
    restore_source_->restore_as_ = "gaussdb/c1";
    Host_Manager::instance()->name("host2");
    jobs_.clear();
    EXPECT_EQ("", restore());
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
    EXPECT_EQ(asked, catalog_->calls().size());
    EXPECT_EQ(0u, tools_.calls("python3"));
}

TEST_F(GaussDB_Restore_Job_Executor_Test, runs_to_one_target_wait_for_each_other) {
    roach_restores("wait");
    Job_Definition_var const other(new Job_Definition(*restore_def_));
    other->id("99112233-4455-6677-8899-aabbccddeeff");
    Job_var const second(new Default_Job_T<GaussDB_Restore_Job_Executor>(other), false);
    std::thread beside([&] {
        while (tools_.calls("python3") == 0)
            std::this_thread::yield();
        EXPECT_EQ(0, second->start());
        while (events_with("state running").size() < 2)
            std::this_thread::yield();
        // the first is at work, and the second has asked nobody
        EXPECT_THAT(catalog_calls(), ElementsAre("get_view restore"));
        tools_.go("python3");
    });
    EXPECT_EQ(SUCCESS, restore());
    beside.join();
    EXPECT_TRUE(jobs_.wait_for_finished(2));
    EXPECT_THAT(events_with("ended "), ElementsAre(SUCCESS, SUCCESS));
}

// a failure of each step

using Step = Failing_Step<World>;

std::vector<Step> failing_steps() {
    std::vector<std::string> const asked{"get_view restore"};
    std::string const no_catalog = "Failed to get gaussdb catalog, backup key 2_2\n";
    std::string const no_notice = "Failed to notify cluster nodes\n";
    return {
        {"no_options",
         [](World& w) { w.restore_def_->options(Job_Options_var()); },
         "",
         LM_ERROR,
         "opts_ is NULL:\n",
         {},
         {}},
        {"catalog",
         [](World& w) { w.catalog_->fail("get_view"); },
         "alert 7 1",
         LM_ERROR,
         no_catalog,
         {"The catalog fails to get_view"},
         asked},
        {"no_such_key",
         [](World& w) { w.restore_source_->backup_key_ = "9_9"; },
         "alert 7 1",
         LM_ERROR,
         "Failed to get gaussdb catalog, backup key 9_9\n",
         {},
         asked},
        {"no_key",
         [](World& w) { w.restore_source_->backup_key_ = ""; },
         "alert 7 1",
         LM_ERROR,
         "Failed to get gaussdb catalog, backup key \n",
         {"backup_key is empty"},
         {}},
        {"a_prior_set_has_gone",
         [](World& w) { w.change(w.full_, "resource_uuid", "another"); },
         "alert 7 1",
         LM_ERROR,
         no_catalog,
         {"Failed to get base gaussdb backup set"},
         asked},
        {"a_chain_in_a_circle",
         [](World& w) { w.change(w.full_, "prior_backup_key", "2_2"); },
         "alert 7 1",
         LM_ERROR,
         no_catalog,
         {"Failed to get base gaussdb backup set"},
         asked},
        {"a_prior_set_of_another_flavour",
         [](World& w) { w.change(w.full_, "series", 1); },
         "alert 7 1",
         LM_ERROR,
         no_catalog,
         {"Failed to restore, gaussdb version mismatch."},
         asked},
        {"a_set_of_another_flavour",
         [](World& w) { w.change(w.incremental_, "series", 4); },
         "alert 7 1",
         LM_ERROR,
         no_catalog,
         {"Failed to restore, gaussdb version mismatch."},
         asked},
        {"a_row_that_is_not_as_it_should_be",
         [](World& w) { w.change(w.full_, "backup_set_size", "big"); },
         "alert 7 1",
         LM_ERROR,
         no_catalog,
         {"Failed to get gaussdb catalog, key 'backup_set_size'"},
         asked},
        {"a_definition_whose_id_is_no_name",
         [](World& w) { w.restore_def_->id(".."); },
         "",
         LM_ERROR,
         "Failed to restore, invalid job definition id '..'\n",
         {},
         asked},
        {"hosts",
         [](World& w) { w.serve_hosts({}); },
         "alert 7 6",
         LM_ERROR,
         "Failed to get cluster hosts of c1\n",
         {},
         asked},
        {"archive_gone",
         [](World& w) {
             rm_rf((w.pool_.path() + "/host-1").c_str());
             w.target("cluster-2");
         },
         "",
         LM_ERROR,
         "Failed to restore gaussdb roach metadata, backup key 2_2\n",
         {".cat"},
         asked},
        {"metadata_file_gone",
         [](World& w) { rm_rf((w.pool_.path() + "/cluster-1/roach/2_2").c_str()); },
         "alert 7 7",
         LM_ERROR,
         no_notice,
         {"Failed to restore backups.ini"},
         asked},
        {"no_storage",
         [](World& w) { w.change(w.incremental_, "storages", Array{}); },
         "alert 7 7",
         LM_ERROR,
         no_notice,
         {"Invalid policy name ''"},
         asked},
        {"notify_other",
         [](World& w) { w.serve_other(rpc_error(-1, "no")); },
         "alert 7 7",
         LM_ERROR,
         no_notice,
         {"Failed to notify roach policy to agent other", "gaussdb.roach_source"},
         asked},
        {"roach",
         [](World& w) { w.new_script("python3", "err no space\nexit 1"); },
         "",
         LM_ERROR,
         "Failed to restore gaussdb data\n",
         {"no space"},
         asked},
        {"roach_dies",
         [](World& w) { w.new_script("python3", "signal 9"); },
         "",
         LM_ERROR,
         "Failed to restore gaussdb data\n",
         {"GaussRoach.py"},
         asked},
        {"roach_100",
         [](World& w) {
             w.turn_into_100();
             w.new_script("python", "err no space\nexit 1");
         },
         "",
         LM_ERROR,
         "Failed to restore gaussdb data\n",
         {"no space"},
         asked},
        {"start",
         [](World& w) { w.roach_restores("", "err no port\nexit 1"); },
         "alert 7 11",
         LM_ERROR,
         "Failed to start gaussdb, start manually\n",
         {"no port"},
         asked},
    };
}

class Failing_Restore : public World, public testing::WithParamInterface<Step> {};

TEST_P(Failing_Restore, is_told_and_changes_no_set) {
    std::string const name = GetParam().name;
    GetParam().breaks(*this);
    Object const full = catalog_->row(full_);
    Object const incremental = catalog_->row(incremental_);
    expect_failed(GetParam(), restore());
    EXPECT_EQ(full, catalog_->row(full_));
    EXPECT_EQ(incremental, catalog_->row(incremental_));
    EXPECT_TRUE(exists(META)); // the tool's metadata goes only when it is of no use any more
    EXPECT_EQ(0u, job_->activity().set_size);
    bool const tool_ran = name.starts_with("roach") || name == "start";
    EXPECT_EQ(tool_ran, tools_.calls("python3") + tools_.calls("python") != 0);
    // the database is started only behind a restore
    EXPECT_EQ(name == "start" ? 2u : 1u,
              std::max<size_t>(1, std::max(tools_.calls("python3"), tools_.calls("python"))));
    EXPECT_EQ(name == "start", !last_request("remove").at("definition_uuid").get_str().empty());
}

INSTANTIATE_TEST_SUITE_P(Steps, Failing_Restore, testing::ValuesIn(failing_steps()),
                         [](auto const& step) { return step.param.name; });

TEST_F(GaussDB_Restore_Job_Executor_Test, an_id_that_leads_elsewhere_removes_nothing) {
    write("/var/cache/quilmot/zenbrak3/kept", "x");
    for (char const* id : {"", ".", "..", "../..", "a/b"}) {
        restore_def_->id(id);
        jobs_.clear();
        EXPECT_EQ(FAILURE, restore());
        EXPECT_LOGGED(LM_ERROR, "invalid job definition id '" + std::string(id) + "'\n");
    }
    EXPECT_TRUE(exists("/var/cache/quilmot/zenbrak3/kept"));
    EXPECT_TRUE(exists(META));
}

TEST_F(GaussDB_Restore_Job_Executor_Test, it_has_the_tools_directories_of_all_hosts_for_itself) {
    jobs_.clear();
    EXPECT_EQ(SUCCESS, restore());
    std::string const instance = "instance/" + restore_def_->target().id();
    std::string const tool = "metadata/here metadata/other policy/here/pool-1 policy/other/pool-1";
    EXPECT_EQ((Texts{"hold " + instance, "hold " + tool, "release " + tool, "release " + instance}),
              jobs_.holds());
}

TEST_F(GaussDB_Restore_Job_Executor_Test, one_that_waits_touches_nothing_and_can_be_canceled) {
    jobs_.clear();
    size_t const told = upstream_->rpc_calls().size();
    jobs_.on_hold([&](std::set<std::string> const& resources) {
        if (!resources.contains("metadata/here"))
            return Hold_Answer();
        job_->abort();
        return Hold_Answer{Hold_Answer::WAIT, "job x"};
    });
    EXPECT_EQ("ended canceled 0", restore());
    EXPECT_EQ(told, upstream_->rpc_calls().size());
    EXPECT_TRUE(Log_Capture::instance().claim(LM_INFO, "Canceled while waiting for job x\n"));
}

TEST_F(GaussDB_Restore_Job_Executor_Test, a_failed_restore_can_be_done_again) {
    new_script("python3", "err no space\nexit 1");
    EXPECT_EQ(FAILURE, restore());
    EXPECT_LOGGED(LM_ERROR, "Failed to restore gaussdb data\n");
    EXPECT_LOGGED(LM_WARNING, "no space");
    jobs_.clear();
    roach_restores();
    EXPECT_EQ(SUCCESS, restore());
    EXPECT_FALSE(policy_is_there());
}

} // namespace
