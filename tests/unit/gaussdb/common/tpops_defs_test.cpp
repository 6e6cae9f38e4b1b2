#include "gaussdb/common/tpops_defs.h"

#include "host/agent/credential.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Object;
using json_spirit::Object_Maker;

TPOPS_Job_State state_of(std::string const& word) {
    return tpops_state_from_string(word.c_str(), static_cast<int>(word.size()));
}

Object tpops_login_record() {
    return Object_Maker()("tpops_host", "tpops.example")("tpops_port", 18002)("tpops_ssl", false)(
        "username", "u1")("password",
                          encrypt_string("secret", CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH));
}

TEST(TPOPS_Job_State_Test, numbers_and_words_are_fixed) {
    std::pair<TPOPS_Job_State, char const*> const words[] = {{TPOPS_Job_State(0), "none"},
                                                             {TPOPS_Job_State(1), "running"},
                                                             {TPOPS_Job_State(2), "building"},
                                                             {TPOPS_Job_State(3), "completed"},
                                                             {TPOPS_Job_State(4), "failed"}};
    for (auto const& [state, word] : words) {
        int length = -1;
        EXPECT_STREQ(word, tpops_state_to_string(state, &length));
        EXPECT_EQ(static_cast<int>(strlen(word)), length);
        EXPECT_STREQ(word, tpops_state_to_string(state, nullptr));
        EXPECT_EQ(state, state_of(word));
    }
}

TEST(TPOPS_Job_State_Test, case_does_not_matter) {
    EXPECT_EQ(TPOPS_JOB_STATE_ERROR, tpops_state_from_string("FAILED", 6));
    EXPECT_EQ(TPOPS_JOB_STATE_COMPLETED, state_of("Completed"));
}

TEST(TPOPS_Job_State_Test, the_beginning_of_a_word_is_that_word) {
    EXPECT_EQ(TPOPS_JOB_STATE_COMPLETED, tpops_state_from_string("comp", 4));
    EXPECT_EQ(TPOPS_JOB_STATE_COMPLETED, tpops_state_from_string("completed", 4));
    EXPECT_EQ(TPOPS_JOB_STATE_RUNNING, tpops_state_from_string("x", 0));
    EXPECT_EQ(TPOPS_JOB_STATE_RUNNING, tpops_state_from_string("", 0));
    EXPECT_EQ(TPOPS_JOB_STATE_RUNNING, tpops_state_from_string(nullptr, 0));
}

TEST(TPOPS_Job_State_Test, other_words_are_none) {
    EXPECT_EQ(TPOPS_JOB_STATE_NONE, state_of("error"));
    EXPECT_EQ(TPOPS_JOB_STATE_NONE, state_of("completedx"));
    EXPECT_EQ(TPOPS_JOB_STATE_NONE, tpops_state_from_string("completedx", 10));
}

TEST(TPOPS_Login_Test, defaults) {
    TPOPS_Login const login;
    EXPECT_EQ("", login.host);
    EXPECT_EQ(8002, login.port);
    EXPECT_TRUE(login.ssl);
    EXPECT_EQ("", login.username);
    EXPECT_TRUE(login.password.empty());
}

TEST(TPOPS_Login_Test, loads_and_deciphers) {
    TPOPS_Login login;
    login.load(tpops_login_record());
    EXPECT_EQ("tpops.example", login.host);
    EXPECT_EQ(18002, login.port);
    EXPECT_FALSE(login.ssl);
    EXPECT_EQ("u1", login.username);
    EXPECT_EQ("secret", login.password.plain());
}

TEST(TPOPS_Login_Test, every_key_is_required) {
    for (char const* key : {"tpops_host", "tpops_port", "tpops_ssl", "username", "password"}) {
        Object record = tpops_login_record();
        record.erase(key);
        TPOPS_Login login;
        EXPECT_THROW(login.load(record), json_spirit::Error) << key;
    }
}

TEST(TPOPS_Login_Test, what_was_read_before_a_fault_stays) {
    Object record = tpops_login_record();
    record["tpops_ssl"] = "yes";
    TPOPS_Login login;
    EXPECT_THROW(login.load(record), json_spirit::Error);
    EXPECT_EQ("tpops.example", login.host);
    EXPECT_EQ(18002, login.port);
    EXPECT_EQ("", login.username);
}

TEST(TPOPS_Login_Test, a_port_out_of_range_is_refused) {
    for (int const port : {-1, 65536}) {
        Object record = tpops_login_record();
        record["tpops_port"] = port;
        TPOPS_Login login;
        EXPECT_THROW(login.load(record), json_spirit::Error);
    }
}

TEST(TPOPS_Login_Test, a_password_that_cannot_be_deciphered_is_empty) {
    Object record = tpops_login_record();
    record["password"] = "secret";
    TPOPS_Login login;
    login.load(record);
    EXPECT_TRUE(login.password.empty());
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_ERROR, ""));
    EXPECT_NOT_LOGGED("secret");
}

TEST(TPOPS_Instance_Info_Test, survives_dump_and_load) {
    TPOPS_Instance_Info info;
    info.id = "i1";
    info.name = "n1";
    info.status = "normal";
    info.type = "Ha";
    info.version = "3.1";
    info.node_count = 3;
    EXPECT_EQ(
        R"({"id":"i1","name":"n1","node_count":3,"status":"normal","type":"Ha","version":"3.1"})",
        json_spirit::to_text(info.dump()));
    TPOPS_Instance_Info copy;
    EXPECT_TRUE(copy.load(info.dump()));
    EXPECT_EQ(info.dump(), copy.dump());
}

TEST(TPOPS_Instance_Info_Test, version_and_nodes_may_be_absent) {
    Object record = TPOPS_Instance_Info().dump();
    record.erase("version");
    record.erase("node_count");
    TPOPS_Instance_Info info;
    info.version = "old";
    EXPECT_TRUE(info.load(record));
    EXPECT_EQ("old", info.version);
    EXPECT_EQ(0, info.node_count);
}

TEST(TPOPS_Instance_Info_Test, the_others_are_required) {
    for (char const* key : {"id", "name", "status", "type"}) {
        Object record = TPOPS_Instance_Info().dump();
        record.erase(key);
        TPOPS_Instance_Info info;
        EXPECT_THROW(info.load(record), json_spirit::Error) << key;
    }
    TPOPS_Instance_Info info;
    EXPECT_THROW(info.load("text"), json_spirit::Error);
}

TEST(GaussDB_TPOPS_Instance_Info_Test, an_empty_object_leaves_the_defaults) {
    GaussDB_TPOPS_Instance_Info info;
    EXPECT_TRUE(info.load(Object()));
    EXPECT_EQ(8002, info.tpops_port);
    EXPECT_FALSE(info.tpops_ssl);
    EXPECT_EQ(0, info.xbsa_port);
    EXPECT_FALSE(info.xbsa_ssl);
    EXPECT_EQ(GaussDB_TPOPS_Instance_Info().dump(), info.dump());
    EXPECT_EQ(R"({"id":"","name":"","node_count":0,"status":"","tpops_host":"","tpops_port":8002,)"
              R"("tpops_ssl":false,"type":"","version":"","xbsa_host":"","xbsa_port":0,)"
              R"("xbsa_ssl":false})",
              json_spirit::to_text(info.dump()));
}

TEST(GaussDB_TPOPS_Instance_Info_Test, all_keys_survive_load_and_dump) {
    Object const record = Object_Maker()("tpops_host", "h")("tpops_port", 1)("tpops_ssl", true)(
        "xbsa_host", "x")("xbsa_port", 65535)("xbsa_ssl", true)("id", "i")("name", "n")(
        "status", "s")("type", "t")("version", "v")("node_count", -1);
    GaussDB_TPOPS_Instance_Info info;
    EXPECT_TRUE(info.load(record));
    EXPECT_EQ(record, info.dump());
}

TEST(GaussDB_TPOPS_Instance_Info_Test, a_key_of_the_wrong_kind_is_refused) {
    GaussDB_TPOPS_Instance_Info info;
    EXPECT_THROW(info.load(Object_Maker()("xbsa_host", "x")("xbsa_port", "1")), json_spirit::Error);
    EXPECT_EQ("x", info.xbsa_host) << "read before the fault";
    EXPECT_THROW(info.load(json_spirit::Array()), json_spirit::Error);
}

TEST(TPOPS_Database_Info_Test, every_key_is_required_and_a_text) {
    Object const record = Object_Maker()("name", "d")("owner", "o")("size", "7 MB")(
        "character_set", "UTF8")("collate_set", "C")("datctype", "en");
    TPOPS_Database_Info info;
    EXPECT_TRUE(info.load(record));
    EXPECT_EQ(record, info.dump());
    EXPECT_EQ("7 MB", info.size);
    for (auto const& [key, value] : record) {
        Object without = record;
        without.erase(key);
        EXPECT_THROW(info.load(without), json_spirit::Error) << key;
        without[key] = 7;
        EXPECT_THROW(info.load(without), json_spirit::Error) << key;
    }
}

TEST(Backup_Args_Test, without_dependencies_there_are_four_keys) {
    EXPECT_EQ(R"({"backup_type":"full","description":"d","instance_id":"i","name":"n"})",
              json_spirit::to_text(Backup_Args{"i", "n", "d", "full", {}}.dump()));
}

TEST(Backup_Args_Test, dependencies_are_an_array) {
    EXPECT_EQ(R"(["b1","b2"])",
              json_spirit::to_text(
                  Backup_Args{"i", "n", "d", "log", {"b1", "b2"}}.dump()["depend_backupIds"]));
}

TEST(Restore_Args_Test, without_a_time_there_is_no_key_for_it) {
    EXPECT_EQ(R"({"source":{"backup_id":"b","instance_id":"s","type":"backup"},)"
              R"("target":{"instance_id":"t"}})",
              json_spirit::to_text(Restore_Args{"s", "backup", "b", 0, "t"}.dump()));
}

TEST(Restore_Args_Test, a_time_is_a_whole_number) {
    EXPECT_EQ(R"({"source":{"backup_id":"","instance_id":"s","restore_time":1652084311000,)"
              R"("type":"timestamp"},"target":{"instance_id":"t"}})",
              json_spirit::to_text(Restore_Args{"s", "timestamp", "", 1652084311000, "t"}.dump()));
}

} // namespace
