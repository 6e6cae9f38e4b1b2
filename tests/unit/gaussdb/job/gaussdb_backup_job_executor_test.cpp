#include "gaussdb/job/gaussdb_backup_job_executor.h"

#include "host/mtf/archive_path.h"
#include "json_spirit/text.h"
#include "tests/support/impossible_threads.h"
#include "tests/unit/gaussdb/job/backup_job_fixture.h"

#include <chrono>
#include <optional>
#include <thread>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

// the whole of a backup

TEST_F(GaussDB_Backup_Job_Executor_Test, a_full_backup_is_in_the_catalog) {
    def_->max_seconds_retry(7);
    options_->compression_ = COMPR_ZSTD;
    time_t const before = time(nullptr);
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_THAT(catalog_calls(), ElementsAre("get_view catalogs", "initialize SET", "add_piece SET",
                                             "get_view catalogs", "complete SET"));
    Object row = set();
    EXPECT_LE(before, row.at("backup_start_time").get_int64());
    EXPECT_LE(row.at("backup_start_time").get_int64(), row.at("backup_end_time").get_int64());
    EXPECT_EQ(36u, row.at("minor_resource_id").get_str().size());
    int64_t const stored = json_spirit::object_get_int64_or_throw(
        row.at("storages").get_array().at(0).get_obj(), "size");
    EXPECT_LT(0, stored); // what the metadata's files take
    std::map<std::string, Value> const expected{{"uuid", set_uuid()},
                                                {"name", "nightly"},
                                                {"definition_uuid", DEFINITION},
                                                {"job_act_id", set_uuid()},
                                                {"uid", UID},
                                                {"host_uuid", "host-1"},
                                                {"resource_uuid", "cluster-1"},
                                                {"resource_label", "gaussdb physical backup"},
                                                {"agent", "gaussdb"},
                                                {"type", "full"},
                                                {"incarnation", set_uuid()},
                                                {"source_size", 5000},
                                                {"backup_set_size", 5000},
                                                {"host", ""},
                                                {"instance", "c1"},
                                                {"database_version", "V300R002C00"},
                                                {"seq", 1},
                                                {"meta_destination", META},
                                                {"backup_key", "2_2"},
                                                {"prior_backup_key", ""},
                                                {"compression", "zstd"},
                                                {"nodes", 2},
                                                {"series", 2},
                                                {"pool_uuid", "pool-1"}};
    for (auto const& [key, value] : expected)
        EXPECT_EQ(value, row.at(key)) << key;
    EXPECT_EQ(5000u, job_->activity().size);
    EXPECT_EQ(5000u, job_->activity().set_size);
    EXPECT_EQ(static_cast<uint64_t>(stored), job_->activity().set_storage_size);
    EXPECT_THAT(events_with("alert "), IsEmpty());
    EXPECT_THAT(events_with("progress "), ElementsAre("progress 25"));
}

TEST_F(GaussDB_Backup_Job_Executor_Test, every_object_in_the_pool_is_a_piece_of_the_set) {
    add_prior(); // the fifth set has the fifth archive
    for (Compression_Method method : {COMPR_NONE, COMPR_ZSTD}) {
        options_->compression_ = method;
        jobs_.clear();
        rm_rf(pool_.path().c_str());
        ASSERT_EQ(0, mkdir_p(pool_.path().c_str(), 0755));
        EXPECT_EQ(SUCCESS, backup());
        EXPECT_EQ(4u, objects().size());
        EXPECT_EQ(objects(), pieces());
        std::string const minor = set().at("minor_resource_id").get_str();
        int64_t const seq = set().at("seq").get_int64();
        EXPECT_THAT(pieces(), Contains(MTF::mtf_path("host-1/roach/" + minor, minor, seq, 0)));
        EXPECT_THAT(pieces(), Contains(MTF::cat_path("host-1/roach/" + minor, minor, seq, 0)));
    }
}

TEST_F(GaussDB_Backup_Job_Executor_Test, the_tool_gets_policy_and_tuning) {
    options_->channels_ = 2;
    options_->max_memory_usage_ = 3;
    options_->buffer_size_ = 4;
    options_->buffer_block_size_ = 5;
    roach_works("2_2", "wait");
    Value policy;
    EXPECT_EQ(SUCCESS, backup_while("python3", [&] {
                  EXPECT_TRUE(load_json(root("pool-1").c_str(), policy));
              }));
    EXPECT_EQ("python3 GaussRoach.py -t backup --master-port=PORT --media-type NBU "
              "--media-destination pool-1 --metadata-destination " +
                  std::string(META) +
                  " --compression-type=0 --parallel-process=2 --max-memory-usage=3 "
                  "--buffer-size=4 --buffer-block-size=5",
              line("python3"));
    EXPECT_EQ("cluster-1", policy.get_obj().at("cluster_id").get_str());
    EXPECT_EQ("device-1", policy.get_obj().at("device_uuid").get_str());
    EXPECT_EQ("pool-1", policy.get_obj().at("pool_uuid").get_str());
    EXPECT_EQ(set_uuid(), policy.get_obj().at("uuid").get_str());
    EXPECT_TRUE(policy.get_obj().at("full_backup").get_bool());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, the_hosts_are_told_before_and_after) {
    EXPECT_EQ(SUCCESS, backup());
    Object const add = last_request("add");
    EXPECT_EQ(META, add.at("delete_meta_path").get_str());
    EXPECT_EQ(0u, add.count("backup_key") + add.count("catalogs"));
    EXPECT_EQ(1u, last_request("remove").size() == 0 ? 0u : 1u);
    EXPECT_EQ(set_uuid(), last_request("remove").at("uuid").get_str());
    EXPECT_FALSE(policy_is_there());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_host_that_keeps_the_policy_does_not_spoil_a_backup) {
    upstream_->serve_forward("other", "gaussdb.roach_source",
                             [](Value const& params, JSON_RPC_Reply& reply) {
                                 reply.result = Value(true);
                                 return params.get_obj().at("action").get_str() == "add";
                             });
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to notify roach policy to agent other\n");
    Log_Capture::instance().claim_all(LM_ERROR, "gaussdb.roach_source");
    EXPECT_EQ("complete SET", catalog_calls().back());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, an_older_200_series_is_driven_by_python) {
    make_cluster(GAUSSDB_200, 6);
    tools_.script("python", leave("2_2", "backups.ini", "5000") + "run cp " + META +
                                "/bak_cluster_static_config.common " + META +
                                "/bak_cluster_static_config\nout Backup key: 2_2\nexit 0");
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_EQ(0u, tools_.calls("python3"));
    EXPECT_EQ(5000, set().at("source_size").get_int64());
}

// what it builds on

TEST_F(GaussDB_Backup_Job_Executor_Test, an_incremental_backup_builds_on_the_last_set) {
    add_prior("1_0", 3);
    add_prior("1_1", 4);
    metadata_has("1_1");
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_EQ("1_1", set().at("prior_backup_key").get_str());
    EXPECT_EQ("the-full-one", set().at("incarnation").get_str());
    EXPECT_EQ("incremental", set().at("type").get_str());
    EXPECT_EQ(5, set().at("seq").get_int64());
    EXPECT_THAT(line("python3"), testing::HasSubstr(" --prior-backup-key=1_1"));
    EXPECT_EQ(0u, last_request("add").count("delete_meta_path"));
    EXPECT_FALSE(last_request("add").at("full_backup").get_bool());
    EXPECT_THAT(events_with("alert "), IsEmpty());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, what_it_asks_the_catalog) {
    add_prior();
    metadata_has("1_1");
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    def_->max_seconds_retry(7);
    EXPECT_EQ(SUCCESS, backup());
    ASSERT_EQ(3u, catalog_->queries().size());
    EXPECT_EQ((Object{{"resource_uuid", "cluster-1"},
                      {"order", "desc"},
                      {"sort", "seq"},
                      {"limit", 1},
                      {"cmode", "rb_orm_rows"}}),
              catalog_->queries()[0]);
    EXPECT_EQ((Object{{"resource_uuid", "cluster-1"},
                      {"pool_uuid", "pool-1"},
                      {"order", "desc"},
                      {"sort", "backup_end_time"},
                      {"limit", 1},
                      {"cmode", "rb_orm_rows"}}),
              catalog_->queries()[1]);
    EXPECT_EQ((Object{{"uuid", set_uuid()}, {"with_storages", "1"}, {"cmode", "rb_orm_rows"}}),
              catalog_->queries()[2]);
    EXPECT_EQ(-1, catalog_->limits().max_seconds_retry); // of complete
}

TEST_F(GaussDB_Backup_Job_Executor_Test, without_a_prior_set_an_incremental_one_becomes_full) {
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    metadata_has("");
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_THAT(events_with("alert "), ElementsAre("alert 5 5"));
    EXPECT_TRUE(
        Log_Capture::instance().claim(LM_INFO, "Do full backup because prior backup not found\n"));
    EXPECT_EQ("incremental", set().at("type").get_str());
    EXPECT_EQ(set_uuid(), set().at("incarnation").get_str());
    EXPECT_EQ("", set().at("prior_backup_key").get_str());
    EXPECT_THAT(line("python3"), testing::Not(testing::HasSubstr("--prior-backup-key")));
    EXPECT_EQ(0u, last_request("add").count("delete_meta_path")); // as the definition has it
    EXPECT_FALSE(last_request("add").at("full_backup").get_bool());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_set_of_another_pool_is_nothing_to_build_on) {
    catalog_->add_row(Object{{"uuid", "set-9"},
                             {"resource_uuid", "cluster-1"},
                             {"storages", Array{Object{{"pool_uuid", "pool-2"}}}},
                             {"incarnation", "x"},
                             {"backup_key", "9_9"},
                             {"seq", 9}});
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_THAT(events_with("alert "), ElementsAre("alert 5 5"));
    EXPECT_EQ(10, set().at("seq").get_int64()); // but the numbers run over all pools
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_prior_set_that_cannot_be_read_makes_it_full) {
    catalog_->add_row(Object{{"uuid", "set-9"},
                             {"resource_uuid", "cluster-1"},
                             {"storages", Array{Object{{"pool_uuid", "pool-1"}}}},
                             {"incarnation", "x"},
                             {"backup_key", 9},
                             {"seq", 1}});
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to get prior backup: ");
    EXPECT_EQ(set_uuid(), set().at("incarnation").get_str());
    EXPECT_EQ("", set().at("prior_backup_key").get_str());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_key_that_the_tool_forgot_restarts_the_chain) {
    add_prior();
    metadata_has("0_0");
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_TRUE(Log_Capture::instance().claim(
        LM_INFO, "Do full backup because prior backup key not found\n"));
    EXPECT_THAT(events_with("alert "), IsEmpty());
    EXPECT_EQ(set_uuid(), set().at("incarnation").get_str());
    EXPECT_EQ("", set().at("prior_backup_key").get_str());
    EXPECT_EQ("incremental", set().at("type").get_str());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, only_incremental_itself_looks_for_the_key) {
    add_prior();
    metadata_has("0_0");
    def_->subtype(JOB_DEFINITION_SUBTYPE_CUMULATIVE); // builds on a set like an incremental one
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_EQ("1_1", set().at("prior_backup_key").get_str());
    EXPECT_EQ("the-full-one", set().at("incarnation").get_str());
    EXPECT_NOT_LOGGED("prior backup key not found");
}

TEST_F(GaussDB_Backup_Job_Executor_Test, the_100_series_does_not_look_for_the_key) {
    make_cluster(GAUSSDB_100, 6);
    add_prior();
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    roach_100_works();
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to get instance account.\n");
    EXPECT_EQ("1_1", set().at("prior_backup_key").get_str());
    EXPECT_NOT_LOGGED("prior backup key not found");
}

// the cluster's state

TEST_F(GaussDB_Backup_Job_Executor_Test, a_state_that_cannot_be_asked_stops_nothing) {
    tools_.script("gs_om", "err no cluster\nexit 1");
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_WARNING, "no cluster");
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_degraded_cluster_is_backed_up) {
    cluster_is("Degraded", "Yes");
    EXPECT_EQ(SUCCESS, backup());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_release_that_does_not_tell_the_balance_is_balanced) {
    tools_.script("gs_om", "out cluster_state   : Normal\nexit 0");
    EXPECT_EQ(SUCCESS, backup());
}

// whose job it is

TEST_F(GaussDB_Backup_Job_Executor_Test, another_machine_of_the_cluster_is_not_active) {
    Host_Manager::instance()->name("host2");
    EXPECT_EQ("", backup());
    EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
    EXPECT_THAT(catalog_->calls(), IsEmpty());
    EXPECT_EQ(0u, tools_.calls("gs_om"));
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_cluster_that_is_not_known_or_not_named_is_not_active) {
    for (char const* instance : {"c2", ""}) {
        source_->instance_ = instance;
        jobs_.clear();
        EXPECT_EQ("", backup());
        EXPECT_EQ(JOB_STATE_SKIPPED, job_->state());
    }
    EXPECT_THAT(catalog_->calls(), IsEmpty());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, runs_of_one_resource_wait_for_each_other) {
    roach_works("2_2", "wait");
    Job_var const second(new Default_Job_T<GaussDB_Backup_Job_Executor>(def_), false);
    EXPECT_EQ(SUCCESS, backup_while("python3", [&] {
                  EXPECT_EQ(0, second->start());
                  while (events_with("state running").size() < 2)
                      std::this_thread::yield();
              }));
    EXPECT_TRUE(jobs_.wait_for_finished(2));
    // the one that waited does nothing until the first is over
    EXPECT_THAT(catalog_calls(), ElementsAre("get_view catalogs", "initialize SET", "add_piece SET",
                                             "get_view catalogs", "complete SET",
                                             "get_view catalogs", "initialize SET", "add_piece SET",
                                             "get_view catalogs", "complete SET"));
    EXPECT_EQ(2, catalog_->row(jobs_.run_ids().back()).at("seq").get_int64());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_cancel_lets_the_tool_run_to_its_end) {
    roach_works("2_2", "wait");
    std::string const outcome = backup_while("python3", [&] { EXPECT_EQ(0, job_->abort()); });
    EXPECT_EQ(1u, events_with("ended ").size()) << outcome;
    EXPECT_EQ("complete SET", catalog_calls().back());
    EXPECT_FALSE(catalog_->is_open(set_uuid()));
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_run_that_is_cancelled_now_ends_its_tool_and_its_policy) {
    roach_works("2_2", "wait");
    EXPECT_EQ("ended canceled 0",
              backup_while("python3", [&] { EXPECT_EQ(0, job_->abort_now()); }));
    EXPECT_LOGGED(LM_ERROR, "Failed to backup gaussdb data\n");
    Log_Capture::instance().claim_all(LM_WARNING, "the run was cancelled");
    EXPECT_EQ("abort SET", catalog_calls().back());
    EXPECT_THAT(objects(), IsEmpty());
    EXPECT_FALSE(policy_is_there());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_cancel_during_a_run_that_fails_is_a_cancel) {
    tools_.script("python3", "wait\nexit 1");
    EXPECT_EQ("ended canceled 0", backup_while("python3", [&] { job_->abort(); }));
    EXPECT_LOGGED(LM_ERROR, "Failed to backup gaussdb data\n");
    Log_Capture::instance().claim_all(LM_WARNING, "GaussRoach.py");
    EXPECT_EQ("abort SET", catalog_calls().back());
}

// what is not known is no failure

TEST_F(GaussDB_Backup_Job_Executor_Test, a_size_that_the_metadata_does_not_tell_is_0) {
    tools_.script("python3", leave("3_3", "backups.ini", "5000") + "run mkdir " + META +
                                 "/roach/2_2 && echo x >" + META +
                                 "/roach/2_2/x\nout Backup key: 2_2\nexit 0");
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_EQ(0, set().at("source_size").get_int64());
    EXPECT_EQ(0u, job_->activity().size);
}

TEST_F(GaussDB_Backup_Job_Executor_Test, metadata_that_is_not_as_it_should_be_costs_the_size_only) {
    tools_.script("python3",
                  leave("2_2", "backups.ini", "\"many\"") + "out Backup key: 2_2\nexit 0");
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to parse " + std::string(META) + "/backups.ini, ");
    EXPECT_EQ(0, set().at("source_size").get_int64());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_stored_size_that_cannot_be_asked_is_0) {
    roach_works("2_2", "wait");
    EXPECT_EQ(SUCCESS, backup_while("python3", [&] { catalog_->fail("get_view"); }));
    EXPECT_LOGGED(LM_ERROR, "The catalog fails to get_view");
    EXPECT_EQ(0u, job_->activity().set_storage_size);
    EXPECT_EQ(5000u, job_->activity().set_size);
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_flavour_without_a_tool_runs_none_and_is_recorded) {
    make_cluster(GAUSSDB_UNKNOWN);
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_EQ(0u, tools_.calls("python3") + tools_.calls("python"));
    EXPECT_THAT(catalog_calls(), ElementsAre("get_view catalogs", "initialize SET",
                                             "get_view catalogs", "complete SET"));
    EXPECT_EQ(0, set().at("source_size").get_int64());
    EXPECT_EQ("", set().at("backup_key").get_str());
}

TEST_F(GaussDB_Backup_Job_Executor_Test, a_resource_without_an_id_is_told_and_goes_on) {
    make_cluster(GAUSSDB_UNKNOWN);
    source_->id("");
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to compute minor resource id for resource ");
    EXPECT_EQ("", set().at("minor_resource_id").get_str());
}

// the 100 series

class Backup_100_Test : public GaussDB_Backup_Job_Executor_Test {
protected:
    void SetUp() override {
        GaussDB_Backup_Job_Executor_Test::SetUp();
        make_cluster(GAUSSDB_100, 6);
        roach_100_works();
    }
    void add_account() {
        ASSERT_TRUE(instances_->save_account("gaussdb", "c1", UID,
                                             {{"username", "op"}, {"password", "secret"}}));
    }
    /** What zsql answers to the question for the version, then to each for the progress. */
    void zsql_says(Texts const& rows, std::string const& last) {
        std::string script = "out VERSION\nout -------\nout GaussDB_100_1.0.1\n";
        for (std::string const& row : rows)
            script += "---\nline\nout COUNT SUM\nout ----- ---\n" +
                      (row.empty() ? "" : "out " + row + "\n") + "out 1 rows fetched.\n";
        tools_.script("zsql", script + "---\n" + last);
    }
    void wait_for_line(std::string const& text) const {
        while (!Log_Capture::instance().contains(text))
            std::this_thread::yield();
    }
};

TEST_F(Backup_100_Test, a_full_backup_of_a_cluster) {
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to get instance account.\n");
    EXPECT_EQ("python GaussRoach.py -t backup --media-type NBU --media-destination " +
                  root("media/pool-1") + " --nbu-policy " + root("media/pool-1") +
                  " --mode cluster --metadata-destination " + META + " --master-port PORT",
              line("python"));
    EXPECT_THAT(catalog_calls(), ElementsAre("get_view catalogs", "initialize SET",
                                             "get_view catalogs", "complete SET"));
    EXPECT_EQ(5120, set().at("source_size").get_int64());
    EXPECT_EQ("GaussDB_100_1.0.1", set().at("database_version").get_str());
    EXPECT_EQ(1, set().at("series").get_int64());
    EXPECT_THAT(objects(), IsEmpty()); // the tool keeps its metadata itself
    EXPECT_FALSE(policy_is_there());
}

TEST_F(Backup_100_Test, a_lone_instance_is_told_here_only) {
    make_cluster(GAUSSDB_100, 6, GaussDB_Cluster_Handler::TYPE_SINGLE);
    options_->channels_ = 3;
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to get instance account.\n");
    EXPECT_EQ("python GaussRoach.py -t backup --media-type NBU --media-destination " +
                  root("media/pool-1") + " --nbu-policy " + root("media/pool-1") +
                  " --mode single --metadata-destination " + META + " --parallel-process 3",
              line("python"));
    EXPECT_TRUE(upstream_->rest_calls().empty());
    EXPECT_TRUE(upstream_->rpc_calls().empty());
}

TEST_F(Backup_100_Test, the_size_of_an_incremental_one_is_in_the_metadata_of_its_base) {
    add_prior();
    def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
    tools_.script("python", "run mkdir -p " + std::string(META) + "/roach/1_1 && echo '" +
                                R"({"BackupDetails":[{"BackupKey":"2_2","BackupSize":"3 MB"}]})" +
                                "' >" + META +
                                "/roach/1_1/backupset_nbu.ini\nout backup key: 2_2\nexit 0");
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to get instance account.\n");
    EXPECT_THAT(line("python"), testing::HasSubstr(" --prior-backup-key 1_1 "));
    EXPECT_EQ(3 << 20, set().at("source_size").get_int64());
    EXPECT_EQ(META, set().at("meta_destination").get_str());
}

TEST_F(Backup_100_Test, the_processes_percentages_make_the_jobs) {
    add_account();
    // nothing found, no process, two, one beyond the end, and what ends the thread
    zsql_says({"", "0", "0 0", "2 61", "1 150", "3 7 extra"},
              "line\nout C S\nout - -\nout 2147483647 1\n");
    roach_100_works("wait");
    EXPECT_EQ(SUCCESS, backup_while<Eager_Executor>(
                           "python", [&] { wait_for_line("Failed to parse progress info"); }));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse progress info 2147483647 1.\n");
    EXPECT_THAT(events_with("progress "), ElementsAre("progress 30", "progress 99", "progress 2"));
    EXPECT_EQ(8u, tools_.calls("zsql"));
    Tool_Call const call = tools_.call("zsql", 2);
    EXPECT_EQ("secret\n", call.input);
    EXPECT_THAT(call.text(), testing::Not(testing::HasSubstr("secret")));
    EXPECT_EQ("select count(*), SUM(PROGRESS) from DV_BACKUP_PROCESSES where STATUS='processing' "
              "and TYPE='backup';",
              call.args.back());
}

TEST_F(Backup_100_Test, each_number_beyond_the_range_ends_the_reports) {
    add_account();
    for (char const* row : {"1 2147483647", "99999999999999999999 1"}) {
        jobs_.clear();
        zsql_says({}, "line\nout C S\nout - -\nout " + std::string(row) + "\n");
        roach_100_works("wait");
        EXPECT_EQ(SUCCESS, backup_while<Eager_Executor>("python", [&] {
                      wait_for_line("Failed to parse progress info " + std::string(row));
                  }));
        EXPECT_LOGGED(LM_ERROR, "Failed to parse progress info " + std::string(row) + ".\n");
        EXPECT_THAT(events_with("progress "), IsEmpty());
    }
}

TEST_F(Backup_100_Test, a_question_that_fails_ends_the_reports_and_not_the_backup) {
    add_account();
    zsql_says({"2 20"}, "line\nout GS-1: gone\nexit 1");
    roach_100_works("wait");
    EXPECT_EQ(SUCCESS, backup_while<Eager_Executor>(
                           "python", [&] { wait_for_line("Failed to query progress"); }));
    EXPECT_LOGGED(LM_ERROR, "Failed to query progress from DV_BACKUP_PROCESSES\n");
    Log_Capture::instance().claim_all(LM_WARNING, "zsql");
    Log_Capture::instance().claim_all(LM_ERROR, "GS-1: gone");
    EXPECT_THAT(events_with("progress "), ElementsAre("progress 10"));
    EXPECT_EQ(3u, tools_.calls("zsql"));
}

TEST_F(Backup_100_Test, the_end_of_the_tool_ends_the_wait_between_two_questions) {
    add_account();
    auto const begin = std::chrono::steady_clock::now();
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_GT(std::chrono::seconds(4), std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(1u, tools_.calls("zsql")); // the version
}

TEST_F(Backup_100_Test, a_cluster_without_a_client_reports_nothing) {
    struct No_Client : Known_Cluster<GaussDB_100_Cluster_Handler> {
        using Known_Cluster::Known_Cluster;
        GaussDB_Client_ptr create_client(char const*, char const*, char const*) const override {
            return nullptr;
        }
    };
    auto* const cluster = new No_Client(tools_.env(), USER, {GAUSSDB_100, 6, 0, 0},
                                        GaussDB_Cluster_Handler::TYPE_SINGLE);
    cluster->info(cluster_->info());
    GaussDB_Cluster_Manager::instance()->remove_cluster("c1");
    ASSERT_TRUE(GaussDB_Cluster_Manager::instance()->add_cluster("c1", cluster));
    add_account();
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to get SQL client.\n");
    EXPECT_EQ("", set().at("database_version").get_str());
}

TEST_F(Backup_100_Test, without_a_thread_nothing_is_reported) {
    std::optional<Impossible_Threads> impossible;
    jobs_.on_event([&](std::string const& event) {
        if (event == "state running")
            impossible.emplace();
        else if (event.starts_with("ended "))
            impossible.reset();
    });
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_WARNING, "Failed to start a thread, no progress is reported\n");
}

TEST_F(Backup_100_Test, what_the_side_thread_says_is_in_the_jobs_log) {
    EXPECT_EQ(SUCCESS, backup());
    EXPECT_LOGGED(LM_ERROR, "Failed to get instance account.\n");
    EXPECT_THAT(jobs_.log_lines(), Contains("Failed to get instance account.\n"));
}

} // namespace
