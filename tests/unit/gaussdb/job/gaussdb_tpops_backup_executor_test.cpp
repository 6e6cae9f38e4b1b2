#include "gaussdb/job/gaussdb_tpops_backup_executor.h"

#include "tests/unit/gaussdb/job/tpops_world.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string const LOG_STATE = R"({"backups":[{"status":")";

class GaussDB_TPOPS_Backup_Executor_Test : public TPOPS_World {
public:
    static constexpr char POLICY[] = "tpops_r-1";

    void SetUp() override {
        TPOPS_World::SetUp();
        make_definition(JOB_DEFINITION_BACKUP, "pool-1");
        def_->subtype(JOB_DEFINITION_SUBTYPE_FULL);
        source_ = new GaussDB_Backup_Job_Source;
        source_->id(RESOURCE);
        source_->instance_ = "c1";
        def_->source(Job_Source_var(source_));
        options_ = new GaussDB_Backup_Job_Options;
        options_->channels_ = 2;
        def_->options(Job_Options_var(options_));
    }
    std::string backup() { return run_job<GaussDB_TPOPS_Backup_Executor>(RESOURCE); }

    /** A full set that is in the catalog already. */
    void have_full_set(int64_t ended = 100) {
        catalog_->add_row({{"uuid", "full-1"},
                           {"resource_uuid", RESOURCE},
                           {"storages", Array{Object{{"pool_uuid", "pool-1"}}}},
                           {"type", "full"},
                           {"incarnation", "full-1"},
                           {"timeline", "first-1"},
                           {"backup_id", "b-full"},
                           {"backup_start_time", ended - 10},
                           {"backup_end_time", ended}});
    }
    void be_differential() {
        def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
        have_full_set();
    }
    /** A log backup whose recovery-time file lies in the pool. */
    void be_log(std::string const& recovery_times = "100,200\n150,300\n") {
        def_->subtype(JOB_DEFINITION_SUBTYPE_LOG);
        have_full_set();
        say(CREATE, {R"({"backup":{"id":"l-1"}})"});
        say(BACKUPS, {LOG_STATE + "running\"}]}", backups_of_log("completed")});
        write(pool_.path() + "/r-1/basic_recovery_time", recovery_times);
        on_event_ = [this](std::string const& event) {
            if (event.starts_with("progress"))
                add_pieces({{"r-1/log_1", 70}, {"r-1/basic_recovery_time", 5}});
        };
    }
    static std::string backups_of_log(std::string const& status) {
        return LOG_STATE + status + R"(","name":"Log_RUN","id":"l-1",)" + TIMES + "}]}";
    }
    /** The run failed, nothing is left but an open set, and the platform was asked for these. */
    void expect_failed(std::string const& message) {
        EXPECT_EQ(FAILURE, backup());
        EXPECT_LOGGED(LM_ERROR, message);
        EXPECT_FALSE(exists_here(POLICY));
        EXPECT_FALSE(exists_here("tpops_r-1_act"));
    }
    /** What a run leaves in the log that fails before its set is open. */
    static void claim_no_abort() {
        EXPECT_LOGGED(LM_ERROR, "Failed to abort GaussDB catalog of '");
        Log_Capture::instance().claim_all(LM_ERROR, "The catalog has no open set");
    }
    Texts progress() const { return events_with("progress "); }

    GaussDB_Backup_Job_Source* source_ = nullptr;
    GaussDB_Backup_Job_Options* options_ = nullptr;
};

using TPOPS_Backup_Test = GaussDB_TPOPS_Backup_Executor_Test;

// the three kinds

TEST_F(TPOPS_Backup_Test, FirstFullBackupAsksForAllInOrder) {
    say(JOBS, {job("running"), job("completed"), job("running"), job("completed")});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(asked(), ElementsAre(DATABASES, PUT_INFO, MEDIA, JOBS, INSTANCES, NODES, CREATE,
                                     JOBS, BACKUPS));
    EXPECT_EQ(1u, platform_->logins());
    EXPECT_EQ(4u, count(JOBS)) << "two for the media, two for the backup";
    EXPECT_THAT(bodies(PUT_INFO),
                ElementsAre(Object{{"key", "BackupSet"}, {"value", POLICY}},
                            Object{{"key", "XbsaRoute"},
                                   {"value", R"({"ip":"127.0.0.1","port":7082,"ssl":true})"}}));
    EXPECT_THAT(bodies(MEDIA), ElementsAre(Object{{"type", "xbsa"}}));
    EXPECT_THAT(bodies(CREATE), ElementsAre(Object{{"instance_id", "i-1"},
                                                   {"name", "Physical_" + set_uuid()},
                                                   {"description", ""},
                                                   {"backup_type", "completed"}}));
    EXPECT_EQ("/rds/gaussdb/v3.1/backups?instance_id=i-1&backup_type=Snapshot_Xbsa",
              last_target("/rds/gaussdb/v3.1/backups"));
    EXPECT_EQ("/rds/v3/jobs?id=j-1", last_target("/rds/v3/jobs"));
    EXPECT_TRUE(Log_Capture::instance().claim(
        LM_DEBUG, "completed backup of GaussDB instance 'c1' is running...\n"));
}

TEST_F(TPOPS_Backup_Test, FullSetIsDescribed) {
    options_->compression_ = COMPR_ZSTD;
    time_t const before = time(nullptr);
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_FALSE(catalog_->is_open(set_uuid()));
    std::map<std::string, std::string> const expected{{"uuid", set_uuid()},
                                                      {"backup_key", set_uuid()},
                                                      {"name", "nightly"},
                                                      {"definition_uuid", DEFINITION},
                                                      {"job_act_id", set_uuid()},
                                                      {"uid", UID},
                                                      {"host_uuid", "host-1"},
                                                      {"host", "host1"},
                                                      {"resource_uuid", RESOURCE},
                                                      {"resource_label", "tpops physical backup"},
                                                      {"agent", "gaussdb"},
                                                      {"type", "full"},
                                                      {"incarnation", set_uuid()},
                                                      {"timeline", set_uuid()},
                                                      {"instance_id", "i-1"},
                                                      {"backup_id", "b-1"},
                                                      {"database_version", "505.2"},
                                                      {"instance", "c1"},
                                                      {"compression", "zstd"},
                                                      {"pool_uuid", "pool-1"},
                                                      {"meta_destination", root("meta")}};
    for (auto const& [key, value] : expected)
        EXPECT_EQ(value, text_of_set(key.c_str())) << key;
    EXPECT_FALSE(text_of_set("minor_resource_id").empty());
    EXPECT_EQ(3, number_of_set("nodes"));
    EXPECT_EQ(0, number_of_set("seq"));
    EXPECT_EQ(GAUSSDB_TPOPS, number_of_set("series"));
    EXPECT_LE(before, number_of_set("backup_start_time"));
    EXPECT_LE(before, number_of_set("backup_end_time"));
    EXPECT_EQ(1795341600, number_of_set("begin_time"));
    EXPECT_EQ(1795343400, number_of_set("end_time"));
    EXPECT_EQ("2026-11-22T10:00:00+0000", text_of_set("platform_begin_time"));
    EXPECT_EQ("2026-11-22T10:30:00+0000", text_of_set("platform_end_time"));
}

TEST_F(TPOPS_Backup_Test, DifferentialLeavesOutInfoAndMedia) {
    be_differential();
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(asked(), ElementsAre(DATABASES, INSTANCES, NODES, CREATE, JOBS, DIFFERENTIALS));
    EXPECT_EQ("differential", json_spirit::object_get_str(bodies(CREATE).at(0), "backup_type"));
    EXPECT_EQ("/rds/gaussdb/v3/instances/i-1/differential-backups",
              last_target("/rds/gaussdb/v3/instances/i-1/diff"));
    EXPECT_EQ("incremental", text_of_set("type"));
    EXPECT_EQ("full-1", text_of_set("incarnation"));
    EXPECT_EQ("first-1", text_of_set("timeline"));
    EXPECT_EQ("b-2", text_of_set("backup_id"));
}

TEST_F(TPOPS_Backup_Test, LogBackupDependsOnTheTimelineAndIsPolledAsABackup) {
    be_log();
    catalog_->add_row({{"uuid", "diff-1"},
                       {"resource_uuid", RESOURCE},
                       {"timeline", "first-1"},
                       {"backup_id", "b-diff"},
                       {"backup_start_time", 300}});
    catalog_->add_row({{"uuid", "old"},
                       {"resource_uuid", RESOURCE},
                       {"timeline", "before"},
                       {"backup_id", "b-old"}});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(asked(), ElementsAre(DATABASES, INSTANCES, NODES, CREATE, BACKUPS));
    Object const body = bodies(CREATE).at(0);
    EXPECT_EQ("Log_" + set_uuid(), json_spirit::object_get_str(body, "name"));
    EXPECT_EQ("log", json_spirit::object_get_str(body, "backup_type"));
    EXPECT_EQ(Value(Array{"b-full", "b-diff"}), body.at("depend_backupIds"));
    EXPECT_EQ("/rds/gaussdb/v3.1/backups?instance_id=i-1&backup_id=l-1&backup_type=Log_Xbsa",
              last_target("/rds/gaussdb/v3.1/backups"));
    EXPECT_EQ("log", text_of_set("type"));
    EXPECT_EQ("l-1", text_of_set("backup_id"));
    EXPECT_EQ("full-1", text_of_set("incarnation"));
}

TEST_F(TPOPS_Backup_Test, LogBackupWithoutBackupsOnItsTimelineFailsSilently) {
    be_log();
    catalog_->add_row({{"uuid", "full-2"}, // without an id on the platform, and newer
                       {"resource_uuid", RESOURCE},
                       {"storages", Array{Object{{"pool_uuid", "pool-1"}}}},
                       {"type", "full"},
                       {"incarnation", "full-2"},
                       {"timeline", "full-2"},
                       {"backup_end_time", 200}});
    on_event_ = nullptr;
    EXPECT_EQ(FAILURE, backup());
    EXPECT_EQ(0u, count(CREATE));
}

TEST_F(TPOPS_Backup_Test, LogBackupNeedsTheCatalogsAnswer) {
    be_log();
    jobs_.on_hold([this](std::set<std::string> const& resources) {
        catalog_->fail("get_view", resources.contains("policy/here/tpops_r-1"));
        return Hold_Answer();
    });
    expect_failed("Failed to get depend backup ids of GaussDB instance 'c1': null\n");
    Log_Capture::instance().claim_all(LM_ERROR, "get_view");
}

// what a backup builds on

TEST_F(TPOPS_Backup_Test, WithoutAFullBackupOthersBecomeOne) {
    for (Job_Definition_Subtype const type :
         {JOB_DEFINITION_SUBTYPE_INCREMENTAL, JOB_DEFINITION_SUBTYPE_LOG}) {
        def_->subtype(type);
        jobs_.clear();
        ASSERT_EQ(SUCCESS, backup());
        EXPECT_LOGGED(LM_WARNING,
                      "No full backup of GaussDB instance 'c1' found, perform full backup\n");
        EXPECT_EQ("full", text_of_set("type"));
        EXPECT_EQ("completed", json_spirit::object_get_str(bodies(CREATE).at(0), "backup_type"));
        EXPECT_EQ(2u, count(PUT_INFO));
        catalog_->restored(RESOURCE, time(nullptr) + 10); // for the next round
    }
}

TEST_F(TPOPS_Backup_Test, SecondFullBackupHasANewIncarnationOnTheOldTimeline) {
    have_full_set();
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(set_uuid(), text_of_set("incarnation"));
    EXPECT_EQ("first-1", text_of_set("timeline"));
    EXPECT_EQ(0u, count(MEDIA)) << "the media has been changed before";
    EXPECT_EQ(2u, count(PUT_INFO)) << "but the route is written each time";
}

TEST_F(TPOPS_Backup_Test, FullBackupFromBeforeARestoreDoesNotCount) {
    be_differential();
    catalog_->restored(RESOURCE, 100);
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ("full", text_of_set("type"));
    EXPECT_EQ(set_uuid(), text_of_set("timeline"));
    EXPECT_LOGGED(LM_WARNING, "No full backup");
}

TEST_F(TPOPS_Backup_Test, OnlyTheNewestFinishedFullBackupOfThePoolCounts) {
    be_differential();
    for (auto const& [uuid, pool, type, end] : {std::tuple{"elsewhere", "pool-2", "full", 900},
                                                {"log", "pool-1", "log", 900},
                                                {"unfinished", "pool-1", "full", 0},
                                                {"older", "pool-1", "full", 50}})
        catalog_->add_row({{"uuid", uuid},
                           {"resource_uuid", RESOURCE},
                           {"storages", Array{Object{{"pool_uuid", pool}}}},
                           {"type", type},
                           {"incarnation", uuid},
                           {"backup_end_time", end}});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ("full-1", text_of_set("incarnation"));
}

TEST_F(TPOPS_Backup_Test, CatalogThatCannotBeAskedCountsAsNoFullBackup) {
    have_full_set();
    catalog_->fail("get_view");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(1u, count(MEDIA));
    EXPECT_EQ(set_uuid(), text_of_set("timeline"));
    Log_Capture::instance().claim_all(LM_ERROR, "get_view");
}

// the media

TEST_F(TPOPS_Backup_Test, MediaThatNeedsNoChangeHasNoJob) {
    say(MEDIA, {{400, R"({"errCode":"DBS.06015006"})"}});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(1u, count(JOBS));
    claim_request_errors();
}

TEST_F(TPOPS_Backup_Test, MediaThatCannotBeChangedEndsTheRun) {
    for (Answer const& answer : {Answer{500, R"({"errCode":"DBS.1"})"}, Answer{"[]"}}) {
        say(MEDIA, {answer});
        expect_failed("Failed to change backup media to xbsa for GaussDB instance 'c1'\n");
        claim_no_abort();
        Log_Capture::instance().claim_all(LM_ERROR, "TPOPS request ");
        Log_Capture::instance().claim_all(LM_ERROR, "The answer of platform localhost:");
    }
}

TEST_F(TPOPS_Backup_Test, MediaJobThatEndsOtherwiseEndsTheRun) {
    for (char const* const state : {"failed", "building", "what"}) {
        say(JOBS, {job("running"), job(state)});
        expect_failed("Failed to change backup media to xbsa for GaussDB instance 'c1'\n");
        claim_no_abort();
        EXPECT_EQ(2u, count(JOBS)) << "anything but running ends it";
        EXPECT_EQ(0u, count(CREATE));
        Log_Capture::instance().claim_all(LM_ERROR, "Failed to get GaussDB job 'm-1' details");
    }
}

TEST_F(TPOPS_Backup_Test, CancelWhileTheMediaChanges) {
    say(JOBS, {job("running")});
    jobs_.on_hold([this](std::set<std::string> const& resources) {
        if (resources.contains("policy/here/tpops_r-1")) {
            EXPECT_EQ(0, job_->abort());
        }
        return Hold_Answer();
    });
    EXPECT_EQ(CANCELED, backup());
    EXPECT_EQ(1u, count(MEDIA));
    EXPECT_EQ(0u, count(CREATE));
    EXPECT_LOGGED(LM_WARNING, "goes on with the change of the backup media, job 'm-1'; stop it");
    claim_no_abort();
}

// the platform's job

TEST_F(TPOPS_Backup_Test, ProgressIsThatOfTheCounterUpTo99) {
    have_full_set();
    say(JOBS, {job("running"), job("building"), job("running"), job("completed")});
    std::vector<uint64_t> counts{512, 1 << 20};
    on_event_ = [&](std::string const& event) {
        if (event.starts_with("progress") && !counts.empty()) {
            count_bytes(POLICY, counts.front());
            counts.erase(counts.begin());
        }
    };
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.progress(), ElementsAre(0, 25, 99));
}

TEST_F(TPOPS_Backup_Test, CounterFileBelongsToTheBackupAgentAndStartsAtZero) {
    have_full_set();
    say(JOBS, {job("running"), job("completed")});
    struct stat status {};
    on_event_ = [&](std::string const& event) {
        if (event.starts_with("progress")) {
            EXPECT_EQ(0, stat(root("tpops_r-1_act").c_str(), &status));
        }
    };
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(1u, status.st_uid) << "daemon";
    EXPECT_EQ(0640u, status.st_mode & 07777);
    EXPECT_EQ(4096, status.st_size);
    EXPECT_FALSE(exists_here("tpops_r-1_act"));
}

TEST_F(TPOPS_Backup_Test, WithoutSizesProgressStaysAtZero) {
    have_full_set();
    say(DATABASES, {Answer{500, "{}"}});
    say(JOBS, {job("running"), job("running"), job("completed")});
    on_event_ = [&](std::string const& event) {
        if (event.starts_with("progress"))
            count_bytes(POLICY, 4096);
    };
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.progress(), ElementsAre(0, 0));
    claim_request_errors();
}

TEST_F(TPOPS_Backup_Test, WithoutACounterFileProgressStaysAtZero) {
    have_full_set();
    say(JOBS, {job("running"), job("running"), job("completed")});
    std::filesystem::create_directories(root("tpops_r-1_act"));
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.progress(), ElementsAre(0, 0));
    EXPECT_LOGGED(LM_ERROR, "Failed to create xbsa info handle for GaussDB instance, errno=");
    EXPECT_LOGGED(LM_ERROR, "Failed to memory map ");
}

TEST_F(TPOPS_Backup_Test, CounterFileThatIsTruncatedOrRemovedIsHarmless) {
    have_full_set();
    say(JOBS, {job("running"), job("running"), job("running"), job("completed")});
    int step = 0;
    on_event_ = [&](std::string const& event) {
        if (!event.starts_with("progress"))
            return;
        std::string const file = root("tpops_r-1_act");
        if (++step == 1)
            count_bytes(POLICY, 1024);
        else
            EXPECT_EQ(0, step == 2 ? truncate(file.c_str(), 0) : unlink(file.c_str()));
    };
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.progress(), ElementsAre(0, 50, 50));
}

TEST_F(TPOPS_Backup_Test, UnknownWordIsPolledOnWithoutReport) {
    have_full_set();
    say(JOBS, {job("what"), job("none"), job("completed")});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.progress(), IsEmpty());
    EXPECT_EQ(3u, count(JOBS));
}

TEST_F(TPOPS_Backup_Test, PlatformThatIsDownIsWaitedForAndThatIsShown) {
    have_full_set();
    say(JOBS, {Answer{500, "down"}, Answer{R"({"job":{}})"}, Answer{"[]"}, Answer{"{}"},
               Answer{job("running")}, Answer{502, "down"}, Answer{job("completed")}});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(4u + 1, Log_Capture::instance().claim_all(
                          LM_ERROR, "Failed to get GaussDB job 'j-1' details: "));
    claim_request_errors();
    EXPECT_THAT(jobs_.progress(), ElementsAre(0, 0)) << "also while the last word stands";
    std::string const waiting =
        "waiting platform localhost:" + std::to_string(platform_->port()) + " to answer";
    Texts told = jobs_.holds();
    std::erase_if(told, [](std::string const& line) { return !line.starts_with("waiting"); });
    EXPECT_THAT(told, ElementsAre(waiting, "waiting ", waiting, "waiting "));
}

/** Waits for a while that can be told between two polls. */
class Patient_Backup : public GaussDB_TPOPS_Backup_Executor {
public:
    static constexpr int PAUSE_MS = 20;
    explicit Patient_Backup(Job& job) : GaussDB_TPOPS_Backup_Executor(job) {
        EXPECT_EQ(ACE_Time_Value(3), sleep_interval_);
        sleep_interval_.set(0, PAUSE_MS * 1000);
    }
};

TEST_F(TPOPS_Backup_Test, PlatformHasTimeBetweenTwoPolls) {
    say(JOBS, {job("running"), job("completed"), job("running"), job("running"), job("completed")});
    new_platform();
    auto const begin = std::chrono::steady_clock::now();
    ASSERT_EQ(SUCCESS, run(Job_var(new Controllable_Job_T<Patient_Backup>(def_), false), RESOURCE));
    EXPECT_LE(std::chrono::milliseconds(5 * Patient_Backup::PAUSE_MS),
              std::chrono::steady_clock::now() - begin);
    EXPECT_EQ(5u, count(JOBS));
}

TEST_F(TPOPS_Backup_Test, FailedJobFailsTheRun) {
    have_full_set();
    say(JOBS, {job("running"), job("FAILED")});
    expect_failed("completed backup for GaussDB instance 'c1' failed\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to get GaussDB job 'j-1' details: ");
    EXPECT_TRUE(catalog_->is_open(set_uuid())) << "it is the agent that drops the set";
    EXPECT_THAT(jobs_.holds(), testing::Not(testing::Contains(testing::StartsWith("waiting"))));
}

TEST_F(TPOPS_Backup_Test, TokenInAnAnswerStaysOutOfTheLog) {
    have_full_set();
    say(JOBS, {R"({"job":{"status":"failed"},"echo":"token-1","x_mini_token":"token-2"})"});
    expect_failed("completed backup for GaussDB instance 'c1' failed\n");
    EXPECT_LOGGED(LM_ERROR,
                  "Failed to get GaussDB job 'j-1' details: {\"echo\":\"******\",\"job\":{"
                  "\"status\":\"failed\"},\"x_mini_token\":\"******\"}\n");
}

TEST_F(TPOPS_Backup_Test, FailedLogBackupFailsTheRun) {
    be_log();
    say(BACKUPS, {"{}", R"({"backups":[]})", R"({"backups":[5]})", R"({"backups":[{}]})",
                  LOG_STATE + "failed\"}]}"});
    expect_failed("log backup for GaussDB instance 'c1' failed\n");
    EXPECT_EQ(5u, Log_Capture::instance().claim_all(
                      LM_ERROR, "Failed to get GaussDB log job details with l-1: "));
}

TEST_F(TPOPS_Backup_Test, CancelLeavesThePlatformsJobAndSaysSo) {
    have_full_set();
    say(JOBS, {job("running")});
    on_event_ = [this](std::string const& event) {
        if (event.starts_with("progress") && job_->state() == JOB_STATE_RUNNING) {
            EXPECT_EQ(0, job_->abort());
        }
    };
    EXPECT_EQ(CANCELED, backup());
    EXPECT_EQ(0u, count("POST /rds/gaussdb/v3/instances/i-1/backups/stop"));
    EXPECT_LOGGED(LM_WARNING,
                  "goes on with backup 'Physical_" + set_uuid() + "', job 'j-1'; stop it there");
    EXPECT_FALSE(exists_here(POLICY));
    EXPECT_FALSE(exists_here("tpops_r-1_act"));
    EXPECT_TRUE(catalog_->is_open(set_uuid()));
}

TEST_F(TPOPS_Backup_Test, StopEndsTheRunAsACancelDoes) {
    be_log();
    say(BACKUPS, {LOG_STATE + "running\"}]}"});
    on_event_ = [this](std::string const& event) {
        if (event.starts_with("progress") && job_->state() == JOB_STATE_RUNNING) {
            EXPECT_EQ(0, job_->stop());
        }
    };
    EXPECT_EQ(CANCELED, backup());
    EXPECT_LOGGED(LM_WARNING, "', id 'l-1'; stop it there");
}

// the end

TEST_F(TPOPS_Backup_Test, SizesAreThoseOfTheSet) {
    have_full_set();
    say(JOBS, {job("running"), job("completed")});
    on_event_ = [this](std::string const& event) {
        if (event.starts_with("progress"))
            add_pieces({{"r-1/a", 70}, {"r-1/b", 30}});
    };
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(100, number_of_set("source_size"));
    EXPECT_EQ(100, number_of_set("backup_set_size"));
    EXPECT_EQ(100u, job_->activity().size);
    EXPECT_EQ(100u, job_->activity().set_size);
    EXPECT_EQ(100u, job_->activity().set_storage_size);
}

TEST_F(TPOPS_Backup_Test, SetWithoutPiecesHasNoSizes) {
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(0, number_of_set("source_size"));
    EXPECT_EQ(0u, job_->activity().set_storage_size);
}

TEST_F(TPOPS_Backup_Test, BackupOfAnotherNameCompletesASetWithoutItsId) {
    say(BACKUPS, {backups("Physical_other")});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ("", text_of_set("backup_id"));
    EXPECT_EQ(0, number_of_set("begin_time"));
    EXPECT_EQ(0, number_of_set("end_time"));
    EXPECT_EQ(0u, set().count("platform_end_time"));
}

TEST_F(TPOPS_Backup_Test, ZoneIsTakenForHoursAndTheTextIsKept) {
    say(BACKUPS, {backups("Physical_RUN", R"("begin_time":"2026-11-22T18:00:00+0800",)"
                                          R"("end_time":"2026-11-22T08:30:00-0200")")});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(1795341600 - 800 * 3600, number_of_set("begin_time"));
    EXPECT_EQ(1795343400 + 200 * 3600, number_of_set("end_time"));
    EXPECT_EQ("2026-11-22T18:00:00+0800", text_of_set("platform_begin_time"));
}

TEST_F(TPOPS_Backup_Test, TimeThatIsNoneStaysZero) {
    say(BACKUPS, {backups("Physical_RUN", R"("begin_time":"yesterday","end_time":"")")});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(0, number_of_set("begin_time"));
    EXPECT_EQ(0, number_of_set("end_time"));
    EXPECT_LOGGED(LM_ERROR, "Failed to convert time 'yesterday' to timestamp, errno=");
    EXPECT_LOGGED(LM_EMERGENCY, "time_str is NULL or \"\"");
}

TEST_F(TPOPS_Backup_Test, TimeWithoutDigitsOfAZoneStandsAsItIs) {
    say(BACKUPS, {backups("Physical_RUN", R"("begin_time":"2026-11-22T10:00:00Z",)"
                                          R"("end_time":"2026-11-22T18:30:00+08:00")")});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(1795341600, number_of_set("begin_time"));
    EXPECT_EQ(1795343400, number_of_set("end_time"));
}

TEST_F(TPOPS_Backup_Test, BackupWithoutItsKeysFailsTheRun) {
    say(BACKUPS, {R"({"backups":[{"name":"Physical_RUN","id":"b-1"}]})"});
    expect_failed("Failed to get backup info of GaussDB instance 'c1': ");
}

TEST_F(TPOPS_Backup_Test, AnswerWithoutBackupsFailsTheRun) {
    for (Answer const& answer : {Answer{"{}"}, Answer{"[]"}, Answer{500, "{}"}}) {
        say(BACKUPS, {answer});
        expect_failed("Failed to get backups info of GaussDB instance 'c1'\n");
        Log_Capture::instance().claim_all(LM_ERROR, "TPOPS request ");
    }
}

TEST_F(TPOPS_Backup_Test, LogBackupHasTheTimesOfItsRecoveryFile) {
    be_log("x 100,200\n150,300 0,5 7,0\n");
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(100, number_of_set("begin_time"));
    EXPECT_EQ(300, number_of_set("end_time"));
    EXPECT_EQ(0u, set().count("platform_begin_time")) << "the platform's would be others";
}

TEST_F(TPOPS_Backup_Test, LogBackupWithoutARecoveryFileHasThePlatformsTimes) {
    be_log();
    on_event_ = [this](std::string const& event) {
        if (event.starts_with("progress"))
            add_pieces({{"r-1/log_1", 70}});
    };
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(1795341600, number_of_set("begin_time"));
}

TEST_F(TPOPS_Backup_Test, RecoveryFileWithoutTimesFailsTheRun) {
    be_log("0,5 x7,8 9,10y -\n");
    expect_failed("Failed to get GaussDB basic recovery timestamp from r-1/basic_recovery_time, "
                  "contents is: 0,5 x7,8 9,10y -");
}

TEST_F(TPOPS_Backup_Test, RecoveryFileThatIsNotThereFailsTheRun) {
    be_log();
    rm_rf((pool_.path() + "/r-1").c_str());
    expect_failed("Failed to get GaussDB contents of basic_recovery_time_file: ");
}

TEST_F(TPOPS_Backup_Test, PoolThatIsNotThereFailsALogBackup) {
    be_log();
    auto const add = on_event_;
    on_event_ = [this, add](std::string const& event) {
        add(event);
        if (event.starts_with("progress"))
            pools_->info.uuid = "other";
    };
    expect_failed("Failed to get pool info of 'pool-1'\n");
    Log_Capture::instance().claim_all(LM_ERROR, "no pool pool-1");
}

TEST_F(TPOPS_Backup_Test, RecoveryFileOfAFullBackupIsNotRead) {
    have_full_set();
    say(JOBS, {job("running"), job("completed")});
    on_event_ = [this](std::string const& event) {
        if (event.starts_with("progress"))
            add_pieces({{"r-1/basic_recovery_time", 70}});
    };
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(1795341600, number_of_set("begin_time"));
}

TEST_F(TPOPS_Backup_Test, CatalogThatCannotCompleteFailsTheRun) {
    catalog_->fail("complete");
    expect_failed("Failed to commit GaussDB catalog for 'c1'\n");
    Log_Capture::instance().claim_all(LM_ERROR, "complete");
}

TEST_F(TPOPS_Backup_Test, CatalogThatCannotOpenTheSetRaisesAnAlert) {
    catalog_->fail("initialize");
    expect_failed("Failed to initialize GaussDB catalog for 'c1'\n");
    EXPECT_EQ(Texts{"alert 7 8"}, events_with("alert "));
    EXPECT_EQ(0u, count(CREATE));
    Log_Capture::instance().claim_all(LM_ERROR, "initialize");
}

// what is refused

TEST_F(TPOPS_Backup_Test, BackupThatThePlatformRefusesFailsTheRun) {
    for (Answer const& answer : {Answer{500, R"({"errCode":"DBS.1"})"}, Answer{"{}"}}) {
        say(CREATE, {answer});
        expect_failed("Failed to create backup job for GaussDB instance 'c1' with '{");
        Log_Capture::instance().claim_all(LM_ERROR, "TPOPS request ");
        Log_Capture::instance().claim_all(LM_ERROR, "Failed to create ");
        EXPECT_EQ("", json_spirit::object_get_str(set(), "backup_id"));
    }
}

TEST_F(TPOPS_Backup_Test, ExtendInfoThatCannotBeWrittenFailsTheRun) {
    say(PUT_INFO, {Answer{500, "{}"}});
    expect_failed("Failed to set BackupSet info for GaussDB instance 'c1'\n");
    claim_request_errors();
    claim_no_abort();
    say(PUT_INFO, {Answer{"{}"}, Answer{500, "{}"}});
    expect_failed("Failed to set XbsaRoute info for GaussDB instance 'c1'\n");
    claim_request_errors();
    claim_no_abort();
}

TEST_F(TPOPS_Backup_Test, LoginThatIsRefusedFailsTheRun) {
    logs_in_ = false;
    expect_failed("Failed to initialize backup info for GaussDB instance 'c1'\n");
    EXPECT_THAT(asked(), IsEmpty());
    EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_ERROR, "oken"));
}

TEST_F(TPOPS_Backup_Test, InstanceThatIsUnknownFailsTheRun) {
    source_->instance_ = "c2";
    expect_failed("Failed to initialize backup info for GaussDB instance 'c2'\n");
    EXPECT_LOGGED(LM_EMERGENCY, "cluster_ is NULL");
}

TEST_F(TPOPS_Backup_Test, InstanceOfAnotherFlavourFailsTheRun) {
    on_event_ = [this](std::string const& event) {
        if (event == "state running")
            make_cluster(GAUSSDB_200);
    };
    expect_failed("Failed to initialize backup info for GaussDB instance 'c1'\n");
}

TEST_F(TPOPS_Backup_Test, RecordWithoutItsKeysFailsTheRun) {
    for (char const* const key : {"id", "xbsa_host", "xbsa_port", "xbsa_ssl"}) {
        record_loses_ = {key};
        expect_failed("Failed to get GaussDB instance 'c1' extend attrs: ");
        EXPECT_LOGGED(LM_ERROR, "Failed to initialize backup info");
    }
}

TEST_F(TPOPS_Backup_Test, BackupAgentThatDoesNotFitFailsTheRun) {
    for (char const* const line : {"", "backUpAgent host = 127.0.0.2 port = 7082",
                                   "backUpAgent host = 127.0.0.1 port = 7083",
                                   "backUpAgent host = 127.0.0.1 port = 7082 ssl = false"}) {
        service(line);
        expect_failed("The retrieval of GaussDB backup client information for the host: 127.0.0.1, "
                      "port: 7082, and ssl: 1 has failed\n");
        EXPECT_LOGGED(LM_ERROR, "Failed to initialize backup info");
    }
}

TEST_F(TPOPS_Backup_Test, BackupAgentOfAnotherUserForTheSameRouteIsNotBelieved) {
    others_.push_back(std::make_unique<Data_Service>(AGENT, "bin"));
    expect_failed("The retrieval of GaussDB backup client information");
    EXPECT_LOGGED(LM_ERROR, "run a backUpAgent for 127.0.0.1, port 7082 (process ");
    EXPECT_LOGGED(LM_ERROR, "Failed to initialize backup info");
    EXPECT_FALSE(exists_here(POLICY));
}

TEST_F(TPOPS_Backup_Test, BackupAgentOfAnotherRouteIsNoHindrance) {
    others_.push_back(
        std::make_unique<Data_Service>("backUpAgent host = 127.0.0.1 port = 7083", "bin"));
    EXPECT_EQ(SUCCESS, backup());
}

TEST_F(TPOPS_Backup_Test, PoolOfAnotherUserFailsTheRun) {
    ASSERT_TRUE(give_xbsa_folder(pool_.url(), RESOURCE, "bin"));
    expect_failed("Failed to dump policy file for GaussDB instance 'c1'\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to prepare pool first, ");
    claim_no_abort();
    EXPECT_EQ(0u, count(CREATE));
}

TEST_F(TPOPS_Backup_Test, NodesThatAreNotToldAreZero) {
    say(INSTANCES, {Answer{"{}"}});
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(0, number_of_set("nodes"));
    EXPECT_LOGGED(LM_ERROR, "The answer of platform localhost:");
}

// the policy, and what the run has for itself

TEST_F(TPOPS_Backup_Test, PolicyIsTheBackupAgentsAndGoesWithTheRun) {
    have_full_set();
    options_->compression_ = COMPR_LZOP;
    options_->compression_level_ = 4;
    def_->max_seconds_retry(60);
    say(JOBS, {job("running"), job("completed")});
    Value seen;
    struct stat status {};
    on_event_ = [&](std::string const& event) {
        if (event.starts_with("progress")) {
            seen = policy(POLICY);
            EXPECT_EQ(0, stat(root(POLICY).c_str(), &status));
        }
    };
    ASSERT_EQ(SUCCESS, backup());
    Object const& found = seen.get_obj();
    EXPECT_EQ(1u, status.st_uid);
    EXPECT_EQ(0640u, status.st_mode & 07777);
    EXPECT_EQ(RESOURCE, json_spirit::object_get_str(found, "cluster_id"));
    EXPECT_EQ("device-1", json_spirit::object_get_str(found, "device_uuid"));
    EXPECT_EQ("pool-1", json_spirit::object_get_str(found, "pool_uuid"));
    EXPECT_EQ(set_uuid(), json_spirit::object_get_str(found, "uuid"));
    EXPECT_EQ("lzop", json_spirit::object_get_str(found, "compression"));
    EXPECT_EQ(Value(4), found.at("compression_level"));
    EXPECT_EQ(Value(60), found.at("retry"));
    EXPECT_EQ(Value(static_cast<int>(GAUSSDB_TPOPS)), found.at("version"));
    EXPECT_EQ(Value(true), found.at("full_backup"));
    EXPECT_FALSE(exists_here(POLICY));
}

TEST_F(TPOPS_Backup_Test, PolicyOfADifferentialSaysSo) {
    be_differential();
    say(JOBS, {job("running"), job("completed")});
    Value seen;
    on_event_ = [&](std::string const& event) {
        if (event.starts_with("progress"))
            seen = policy(POLICY);
    };
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_EQ(Value(false), seen.get_obj().at("full_backup"));
}

TEST_F(TPOPS_Backup_Test, RunHasItsInstanceAndThenItsPolicyForItself) {
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.holds(),
                ElementsAre("hold instance/r-1", "hold policy/here/tpops_r-1",
                            "release policy/here/tpops_r-1", "release instance/r-1"));
}

TEST_F(TPOPS_Backup_Test, RunThatMayNotHaveWhatItUsesTouchesNothing) {
    for (char const* const resource : {"instance/r-1", "policy/here/tpops_r-1"}) {
        refuse_hold(resource);
        expect_failed("Failed to reserve what the run uses, not yours\n");
        EXPECT_EQ(0u, count(PUT_INFO));
        Log_Capture::instance().claim_all(LM_ERROR, "Failed to abort GaussDB catalog");
        Log_Capture::instance().claim_all(LM_ERROR, "The catalog has no open set");
    }
}

TEST_F(TPOPS_Backup_Test, AnotherClustersToolAndItsDirectoriesAreLeftAlone) {
    have_full_set();
    write(root("meta/backupset_nbu.ini"), "x");
    EXPECT_EQ(0, chown_r(root("meta").c_str(), "bin"));
    write(root("pool-1"), "a policy");
    EXPECT_EQ(0, chown_r(root("pool-1").c_str(), "bin"));
    ASSERT_EQ(SUCCESS, backup());
    struct stat status {};
    ASSERT_EQ(0, stat(root("meta").c_str(), &status));
    EXPECT_EQ(2u, status.st_uid);
    EXPECT_TRUE(exists_here("meta/backupset_nbu.ini"));
    EXPECT_TRUE(exists_here("pool-1")) << "that run may be at work";
}

TEST_F(TPOPS_Backup_Test, WhatRunsThatDiedHaveLeftGoesWithTheNext) {
    for (char const* const name : {"tpops_r-2", "tpops_r-2_act", "tpops_r-3_r-4", "tpops_r-1"})
        write(root(name), "left");
    write(root("c9_env"), "{}");
    ASSERT_EQ(SUCCESS, backup());
    for (char const* const name : {"tpops_r-2", "tpops_r-2_act", "tpops_r-3_r-4", "tpops_r-1"})
        EXPECT_FALSE(exists_here(name)) << name;
    EXPECT_TRUE(exists_here("c9_env"));
    EXPECT_EQ(3u, Log_Capture::instance().claim_all(LM_INFO, "which an earlier run has left\n"));
}

TEST_F(TPOPS_Backup_Test, LeftCounterFileKeepsItsCounts) {
    have_full_set();
    say(JOBS, {job("running"), job("completed")});
    write(root("tpops_r-1_act"), std::string(4096, '\0'));
    count_bytes(POLICY, 1024);
    ASSERT_EQ(SUCCESS, backup());
    EXPECT_THAT(jobs_.progress(), ElementsAre(50));
}

TEST_F(TPOPS_Backup_Test, LogOfARunHasNoPasswordAndNoToken) {
    Log_Capture::instance();
    ASSERT_EQ(SUCCESS, backup());
    for (std::string const& line : jobs_.log_lines()) {
        EXPECT_EQ(line.npos, line.find(TPOPS_Platform::PASSWORD)) << line;
        EXPECT_EQ(line.npos, line.find("token-1")) << line;
    }
}

TEST_F(TPOPS_Backup_Test, ExecutorThatRunsNothingAbortsNothing) {
    new_platform();
    Job_var const idle(new Controllable_Job_T<GaussDB_TPOPS_Backup_Executor>(def_), false);
    EXPECT_EQ(0, idle->remove());
    EXPECT_THAT(catalog_->calls(), IsEmpty());
}

} // namespace
