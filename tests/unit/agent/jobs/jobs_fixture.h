#ifndef TESTS_UNIT_AGENT_JOBS_JOBS_FIXTURE_H
#define TESTS_UNIT_AGENT_JOBS_JOBS_FIXTURE_H

#include "agent/database/agent_database.h"
#include "agent/jobs/definition_json.h"
#include "agent/jobs/job_modules.h"
#include "agent/jobs/job_tables.h"
#include "gaussdb/job/gaussdb_backup_job_options_parser.h"
#include "gaussdb/job/gaussdb_backup_job_source_parser.h"
#include "gaussdb/job/gaussdb_restore_job_options_parser.h"
#include "gaussdb/job/gaussdb_restore_job_source_parser.h"
#include "json_spirit/text.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>

/** A real module's parsers. */
struct Real_Parsers {
    template <typename Parser>
    using Creator = Object_Creator_Impl_T<Job_Module::Parser_Creator, Parser>;

    Creator<GaussDB_Backup_Job_Options_Parser> backup_options;
    Creator<GaussDB_Restore_Job_Options_Parser> restore_options;
    Creator<GaussDB_Backup_Job_Source_Parser> backup_source;
    Creator<GaussDB_Restore_Job_Source_Parser> restore_source;

    Job_Module module(Job_Creator* creator = nullptr) {
        return {"gaussdb",        creator,        &backup_options,
                &restore_options, &backup_source, &restore_source};
    }
};

/** An agent's database with the tables of jobs, and definitions to put into it. */
class Jobs_Fixture : public testing::Test {
protected:
    static constexpr char POOL[] = "11111111-2222-4333-8444-555555555555";
    static constexpr char RESOURCE[] = "6f9619ff-8b86-4011-b42d-00cf4fc9648f";
    static constexpr char OWNER[] = "00000000-0000-4000-8000-000000000001";

    void SetUp() override { reopen(); }

    void reopen() {
        database_.reset();
        std::string error;
        database_ = Agent_Database::open(directory_.path("agent.db"), {JOB_TABLES}, error);
        ASSERT_TRUE(database_) << error;
    }

    static json_spirit::Object json(std::string const& text) {
        json_spirit::Value value;
        std::string error;
        EXPECT_TRUE(json_spirit::parse(text, value, &error)) << error << ": " << text;
        return value.type() == json_spirit::obj_type ? value.get_obj() : json_spirit::Object();
    }
    /** What a person writes; @a more is further members with a comma before. */
    static json_spirit::Object backup(std::string const& name = "nightly",
                                      std::string const& more = "") {
        return json(R"({"name":")" + name +
                    R"(","type":"backup","subtype":"full","target":{"pool":"disk"},)"
                    R"("source":{"id":")" +
                    RESOURCE + R"(","entries":["gaussdb/production"]})" + more + "}");
    }
    static json_spirit::Object restore(std::string const& more = "") {
        return json(R"({"name":"back","type":"restore","subtype":"instance","source":{"id":")" +
                    std::string(RESOURCE) + R"(","restore_as":"gaussdb/re%2Fhearsal"})" + more +
                    "}");
    }
    static Definition_Defaults defaults() {
        return {"gaussdb", OWNER, "host-1",
                [](std::string const& pool, Pool_Info& info, std::string& error) {
                    if (pool != "disk" && pool != POOL) {
                        error = "there is no pool \"" + pool + "\"";
                        return false;
                    }
                    info.uuid = POOL;
                    return true;
                }};
    }
    static json_spirit::Object normal(json_spirit::Object const& given) {
        json_spirit::Object result;
        std::string error;
        EXPECT_TRUE(normalise_definition(given, defaults(), result, error)) << error;
        return result;
    }

    Temporary_Directory const directory_;
    std::unique_ptr<Agent_Database> database_;
    Real_Parsers parsers_;
};

#endif
