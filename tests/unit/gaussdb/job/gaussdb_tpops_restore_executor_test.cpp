#include "gaussdb/job/gaussdb_tpops_restore_executor.h"

#include "tests/unit/gaussdb/job/tpops_world.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/** A restore of the resource "r-1", on the platform "i-1", to "r-2", which is the instance "c1". */
class GaussDB_TPOPS_Restore_Executor_Test : public TPOPS_World {
public:
    static constexpr char POLICY[] = "tpops_r-1_r-2";
    static constexpr char TARGET[] = "r-2";
    static constexpr char BRANCH[] = "backup_set.gaussdb_restore_branch";

    void SetUp() override {
        TPOPS_World::SetUp();
        make_definition(JOB_DEFINITION_RESTORE, TARGET);
        source_ = new GaussDB_Restore_Job_Source;
        source_->id(RESOURCE);
        source_->restore_as_ = "gaussdb/c1";
        source_->backup_key_ = "key-2";
        def_->source(Job_Source_var(source_));
        options_ = new GaussDB_Restore_Job_Options;
        options_->channels_ = 2;
        def_->options(Job_Options_var(options_));
        have_set("key-1", 10, 100);
        have_set("key-2", 20, 200);
        have_set("key-3", 30, 300);
        branch_answers(Value(true));
    }
    std::string restore() { return run_job<GaussDB_TPOPS_Restore_Executor>(TARGET); }

    void have_set(std::string const& key, int size, int64_t when) {
        catalog_->add_row({{"uuid", key},
                           {"backup_key", key},
                           {"resource_uuid", RESOURCE},
                           {"instance_id", "i-1"},
                           {"incarnation", "key-1"},
                           {"backup_id", "id of " + key},
                           {"backup_set_size", size},
                           {"backup_start_time", when},
                           {"backup_end_time", when},
                           {"compression", key == "key-2" ? "zstd" : "lzop"},
                           {"storages", Array{Object{{"pool_uuid", "pool-1"}}}}});
    }
    void branch_answers(Value const& value) { upstream_->serve_call(BRANCH, rpc_result(value)); }
    Object recovery() { return bodies(RECOVERY).at(0); }
    Object of_recovery(char const* part) { return recovery().at(part).get_obj(); }
    /** @param policy  whether a policy is left, too */
    void expect_failed(std::string const& message, bool policy = true) {
        rm_rf(root(POLICY).c_str());
        EXPECT_EQ(FAILURE, restore());
        EXPECT_LOGGED(LM_ERROR, message);
        EXPECT_EQ(policy, exists_here(POLICY));
        EXPECT_FALSE(exists_here("tpops_r-1_r-2_act"));
    }

    GaussDB_Restore_Job_Source* source_ = nullptr;
    GaussDB_Restore_Job_Options* options_ = nullptr;
};

using TPOPS_Restore_Test = GaussDB_TPOPS_Restore_Executor_Test;

TEST_F(TPOPS_Restore_Test, RestoreFromABackupAsksForAllInOrder) {
    say(JOBS, {job("running"), job("completed")});
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_THAT(asked(), ElementsAre(GET_INFO, RECOVERY, JOBS));
    EXPECT_EQ("/rds/gaussdb/v3/instances/i-1/extend-info?key=XbsaRoute",
              last_target("/rds/gaussdb/v3/instances/i-1/extend-info"));
    EXPECT_EQ((Object{{"instance_id", "i-1"}, {"backup_id", "id of key-2"}, {"type", "backup"}}),
              of_recovery("source"));
    EXPECT_EQ((Object{{"instance_id", "i-1"}}), of_recovery("target"));
    EXPECT_EQ(2u, count(JOBS));
    EXPECT_TRUE(Log_Capture::instance().claim(
        LM_DEBUG, "Restore job of GaussDB instance 'c1' is running...\n"));
}

TEST_F(TPOPS_Restore_Test, RestoreToATimeSendsMillisecondsAndNoBackup) {
    options_->restore_time_ = "2026-11-22T18:00:00+08:00";
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ((Object{{"instance_id", "i-1"},
                      {"backup_id", ""},
                      {"type", "timestamp"},
                      {"restore_time", int64_t{1795341600000}}}),
              of_recovery("source"));
}

TEST_F(TPOPS_Restore_Test, TimeThatIsNoneEndsTheRunSilently) {
    options_->restore_time_ = "tomorrow";
    EXPECT_EQ(FAILURE, restore());
    EXPECT_EQ(0u, count(RECOVERY));
}

TEST_F(TPOPS_Restore_Test, SizesAreTheSumOfTheChain) {
    source_->backup_key_ = "key-3";
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(60u, job_->activity().set_size);
    EXPECT_EQ(60u, job_->activity().size);
}

TEST_F(TPOPS_Restore_Test, SetsOfTheCatalogWithoutAnIdAreRestoredAllTheSame) {
    Object row = catalog_->row("key-2");
    row.erase("backup_id");
    catalog_->add_row(row);
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ("", json_spirit::object_get_str(of_recovery("source"), "backup_id"))
        << "it is the platform that refuses";
}

TEST_F(TPOPS_Restore_Test, ProgressIsThatOfTheCounterUpTo99) {
    say(JOBS, {job("running"), job("running"), job("running"), job("completed")});
    std::vector<uint64_t> counts{15, 1000};
    on_event_ = [&](std::string const& event) {
        if (event.starts_with("progress") && !counts.empty()) {
            count_bytes(POLICY, counts.front());
            counts.erase(counts.begin());
        }
    };
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_THAT(jobs_.progress(), ElementsAre(0, 50, 99));
}

TEST_F(TPOPS_Restore_Test, BuildingIsPolledOnWithoutReport) {
    say(JOBS, {job("building"), job("what"), job("completed")});
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ(3u, count(JOBS));
    EXPECT_THAT(jobs_.progress(), IsEmpty());
}

TEST_F(TPOPS_Restore_Test, WithoutSizesOrCounterFileProgressStaysAtZero) {
    say(JOBS, {job("running"), job("completed")});
    std::filesystem::create_directories(root("tpops_r-1_r-2_act"));
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_THAT(jobs_.progress(), ElementsAre(0));
    EXPECT_LOGGED(LM_ERROR, "Failed to create xbsa info handle for GaussDB instance 'c1', errno=");
    EXPECT_LOGGED(LM_ERROR, "Failed to memory map ");
}

TEST_F(TPOPS_Restore_Test, PlatformThatIsDownIsWaitedFor) {
    say(JOBS, {Answer{500, "down"}, Answer{job("completed")}});
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_LOGGED(LM_ERROR, "Failed to get GaussDB restore job 'j-1' details: ");
    claim_request_errors();
    EXPECT_THAT(jobs_.holds(), testing::Contains(testing::StartsWith("waiting platform ")));
}

TEST_F(TPOPS_Restore_Test, FailedJobFailsTheRunAndLeavesThePolicy) {
    say(JOBS, {job("failed")});
    expect_failed("Restore GaussDB instance 'c1' failed\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to get GaussDB restore job 'j-1' details: ");
}

TEST_F(TPOPS_Restore_Test, TokenInAnAnswerStaysOutOfTheLog) {
    say(RECOVERY, {Answer{500, R"({"echo":"token-1"})"}});
    expect_failed("Failed to create restore job for GaussDB instance 'c1' with");
    claim_request_errors();
    say(JOBS, {R"({"job":{"status":"failed"},"echo":"token-1"})"});
    say(RECOVERY, {R"({"job_id":"j-1"})"});
    expect_failed("Restore GaussDB instance 'c1' failed\n");
    EXPECT_LOGGED(LM_ERROR, "Failed to get GaussDB restore job 'j-1' details: "
                            "{\"echo\":\"******\",\"job\":{\"status\":\"failed\"}}\n");
}

TEST_F(TPOPS_Restore_Test, CancelLeavesThePolicyAndThePlatformsJob) {
    say(JOBS, {job("running")});
    on_event_ = [this](std::string const& event) {
        if (event.starts_with("progress") && job_->state() == JOB_STATE_RUNNING) {
            EXPECT_EQ(0, job_->abort());
        }
    };
    EXPECT_EQ(CANCELED, restore());
    EXPECT_TRUE(exists_here(POLICY));
    EXPECT_FALSE(exists_here("tpops_r-1_r-2_act"));
    EXPECT_LOGGED(LM_WARNING,
                  "goes on with the restore of instance 'c1', job 'j-1'; stop it there");
}

// the catalog

TEST_F(TPOPS_Restore_Test, UnknownKeyRaisesAnAlert) {
    source_->backup_key_ = "key-9";
    expect_failed("Failed to get GaussDB catalog with backup key key-9\n", false);
    EXPECT_EQ(Texts{"alert 7 1"}, events_with("alert "));
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(TPOPS_Restore_Test, CatalogThatCannotBeAskedRaisesAnAlert) {
    catalog_->fail("get_view");
    expect_failed("Failed to get GaussDB catalog with backup key key-2\n", false);
    EXPECT_EQ(Texts{"alert 7 1"}, events_with("alert "));
    Log_Capture::instance().claim_all(LM_ERROR, "get_view");
}

TEST_F(TPOPS_Restore_Test, RowWithoutItsKeysIsRefused) {
    for (char const* const key : {"instance_id", "backup_set_size", "compression"}) {
        Object row = catalog_->row("key-2");
        row.erase(key);
        catalog_->add_row(row);
        expect_failed("Failed to get GaussDB catalog of 'c1': ", false);
        EXPECT_LOGGED(LM_ERROR, "Failed to get GaussDB catalog with backup key key-2\n");
        have_set("key-2", 20, 200);
    }
}

TEST_F(TPOPS_Restore_Test, CatalogIsAskedAsItIsToBe) {
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_EQ((Object{{"resource_uuid", RESOURCE},
                      {"backup_key", "key-2"},
                      {"sort", "backup_start_time"},
                      {"order", "desc"},
                      {"cmode", "rb_orm_rows"}}),
              catalog_->queries().front());
}

// the backup agent

TEST_F(TPOPS_Restore_Test, AgentThatIsNotFoundDoesNotStopTheRun) {
    struct Case {
        Answer answer;
        char const* message;
    };
    std::vector<Case> const cases{
        {{500, "{}"}, "Failed to get GaussDB instance 'c1' XbsaRoute info\n"},
        {"[]", "Failed to get GaussDB instance 'c1' XbsaRoute info\n"},
        {"{}", "Failed to get GaussDB instance 'c1 XbsaRoute info: {}\n"},
        {info_answer(""), "Failed to get GaussDB instance 'c1 XbsaRoute info: "},
        {info_answer("{\"ip\""), "Failed to get GaussDB instance 'c1 XbsaRoute info: "},
        {info_answer("[]"), "Failed to get GaussDB instance 'c1 XbsaRoute info: "},
        {info_answer(R"({"ip":"127.0.0.1","port":7082})"),
         "Failed to get GaussDB instance 'c1' xbsa info: "},
        {info_answer(R"({"ip":"127.0.0.1","port":7082,"ssl":false})"),
         "The retrieval of GaussDB backup client information for the host: 127.0.0.1, port: 7082, "
         "and ssl: 0 has failed\n"}};
    struct stat status {};
    on_event_ = [&](std::string const& event) {
        if (event.starts_with("progress")) {
            EXPECT_EQ(0, stat(root(POLICY).c_str(), &status));
        }
    };
    say(JOBS, {job("running"), job("completed")});
    for (Case const& one : cases) {
        say(GET_INFO, {one.answer});
        status.st_uid = 77;
        jobs_.clear();
        EXPECT_EQ(SUCCESS, restore()) << one.answer.body;
        EXPECT_LOGGED(LM_ERROR, one.message);
        EXPECT_EQ(0u, status.st_uid) << "nobody else gets the policy";
        EXPECT_EQ(0640u, status.st_mode & 07777);
        Log_Capture::instance().claim_all(LM_ERROR, "TPOPS request ");
    }
}

TEST_F(TPOPS_Restore_Test, RouteToAnotherUsersAgentGetsNoPolicy) {
    // an administrator of the platform may have set it
    say(GET_INFO, {info_answer(R"({"ip":"127.0.0.1","port":7099,"ssl":true})")});
    others_.push_back(
        std::make_unique<Data_Service>("backUpAgent host = 127.0.0.1 port = 7099", "bin"));
    ASSERT_TRUE(give_xbsa_folder(pool_.url(), RESOURCE, USER));
    expect_failed("Failed to dump policy file for GaussDB instance 'c1'\n", false);
    EXPECT_LOGGED(LM_ERROR, "Failed to prepare pool first, ");
    EXPECT_EQ(0u, count(RECOVERY));
}

TEST_F(TPOPS_Restore_Test, RecordWithoutAnIdIsRefusedWithoutItsPassword) {
    record_loses_ = {"id"};
    EXPECT_EQ(FAILURE, restore());
    for (std::string const& line : jobs_.log_lines())
        EXPECT_EQ(line.npos, line.find("\"password\"")) << line;
    EXPECT_LOGGED(LM_ERROR, "Failed to get GaussDB id of instance 'c1': {");
    EXPECT_FALSE(exists_here(POLICY));
}

// the platform

TEST_F(TPOPS_Restore_Test, RestoreTimeIsToldBeforeTheRestore) {
    time_t const before = time(nullptr);
    ASSERT_EQ(SUCCESS, restore());
    auto const calls = upstream_->rpc_calls();
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(BRANCH, calls.front().method);
    Object const params = calls.front().params.get_obj();
    EXPECT_EQ(TARGET, json_spirit::object_get_str(params, "resource_uuid"));
    tm local = {};
    std::string const text = json_spirit::object_get_str(params, "restore_time");
    ASSERT_NE(nullptr, strptime(text.c_str(), "%Y-%m-%d %H:%M:%S", &local)) << text;
    local.tm_isdst = -1;
    EXPECT_LE(before, mktime(&local));
}

TEST_F(TPOPS_Restore_Test, ServerThatDoesNotTakeTheTimeEndsTheRun) {
    branch_answers(Value(false));
    expect_failed("Failed to set GaussDB restore time of 'c1'\n");
    EXPECT_EQ(0u, count(RECOVERY));
    branch_answers(Value("yes"));
    expect_failed("Failed to set GaussDB restore time of 'c1'\n");
    Log_Capture::instance().claim_all(LM_ERROR, BRANCH);
}

TEST_F(TPOPS_Restore_Test, RestoreThatThePlatformRefusesFailsTheRun) {
    for (Answer const& answer : {Answer{400, R"({"errCode":"DBS.1"})"}, Answer{"[]"}}) {
        say(RECOVERY, {answer});
        expect_failed("Failed to create restore job for GaussDB instance 'c1' with '{");
        Log_Capture::instance().claim_all(LM_ERROR, "TPOPS request ");
    }
}

TEST_F(TPOPS_Restore_Test, RestoreWithoutAJobEndsTheRunSilently) {
    for (char const* const answer : {"{}", R"({"job_id":""})"}) {
        say(RECOVERY, {answer});
        EXPECT_EQ(FAILURE, restore());
        EXPECT_EQ(0u, count(JOBS));
    }
}

TEST_F(TPOPS_Restore_Test, LoginThatIsRefusedFailsTheRun) {
    logs_in_ = false;
    EXPECT_EQ(FAILURE, restore());
    EXPECT_THAT(catalog_->calls(), IsEmpty());
    EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_ERROR, "oken"));
}

TEST_F(TPOPS_Restore_Test, TargetThatIsNoneFailsTheRun) {
    source_->restore_as_ = "gaussdb/c2";
    EXPECT_EQ(FAILURE, restore());
    EXPECT_LOGGED(LM_EMERGENCY, "cluster_ is NULL");
}

// the policy, and what the run has for itself

TEST_F(TPOPS_Restore_Test, PolicyIsTheBackupAgentsAndGoesAfterASuccess) {
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
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_FALSE(exists_here(POLICY));
    EXPECT_FALSE(exists_here("tpops_r-1_r-2_act"));
    Object const& found = seen.get_obj();
    EXPECT_EQ(1u, status.st_uid);
    EXPECT_EQ(RESOURCE, json_spirit::object_get_str(found, "cluster_id"));
    EXPECT_EQ("", json_spirit::object_get_str(found, "device_uuid"));
    EXPECT_EQ("pool-1", json_spirit::object_get_str(found, "pool_uuid"));
    EXPECT_EQ(jobs_.run_ids().back(), json_spirit::object_get_str(found, "uuid"));
    EXPECT_EQ("zstd", json_spirit::object_get_str(found, "compression")) << "that of the newest";
    EXPECT_EQ(Value(1), found.at("compression_level"));
    EXPECT_EQ(Value(60), found.at("retry"));
    EXPECT_EQ(Value(true), found.at("full_backup"));
}

TEST_F(TPOPS_Restore_Test, RunHasItsTargetAndThenItsPolicyForItself) {
    ASSERT_EQ(SUCCESS, restore());
    EXPECT_THAT(jobs_.holds(),
                ElementsAre("hold instance/r-2", "hold policy/here/tpops_r-1_r-2",
                            "release policy/here/tpops_r-1_r-2", "release instance/r-2"));
}

TEST_F(TPOPS_Restore_Test, RunThatMayNotHaveWhatItUsesTouchesNothing) {
    for (char const* const resource : {"instance/r-2", "policy/here/tpops_r-1_r-2"}) {
        refuse_hold(resource);
        expect_failed("Failed to reserve what the run uses, not yours\n", false);
        EXPECT_EQ(0u, count(RECOVERY));
    }
}

} // namespace
