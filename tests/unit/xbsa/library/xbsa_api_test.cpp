#include "xbsa/library/xbsa.h"

#include "tests/support/scoped_env.h"
#include "tests/unit/xbsa/library/xbsa_api_fixture.h"

#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// a session

TEST_F(Xbsa_Api, what_is_sent_comes_back) {
    open_session();
    std::string const content = data(3 * 1024 * 1024 + 17);
    BSA_UInt64 id = 0;
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/base/1/1249", content, &id))
        << xbsa::last_error();
    std::string read;
    EXPECT_EQ(BSA_RC_NO_MORE_DATA, xbsa::get(handle_, id, read)) << xbsa::last_error();
    EXPECT_TRUE(content == read);
}

TEST_F(Xbsa_Api, an_empty_object_comes_back_empty) {
    open_session();
    BSA_UInt64 id = 0;
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/empty", "", &id));
    std::string read = "x";
    EXPECT_EQ(BSA_RC_NO_MORE_DATA, xbsa::get(handle_, id, read));
    EXPECT_EQ("", read);
}

TEST_F(Xbsa_Api, every_codec_gives_back_what_was_sent) {
    std::string const content = data(1500000);
    for (char const* codec : {"", "none", "lzop", "zstd", "auto"}) {
        world_.policy["compression"] = codec;
        reopen();
        BSA_UInt64 id = 0;
        ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, codec, content + codec, &id))
            << xbsa::last_error();
        std::string read;
        EXPECT_EQ(BSA_RC_NO_MORE_DATA, xbsa::get(handle_, id, read)) << xbsa::last_error();
        EXPECT_TRUE(content + codec == read) << codec;
    }
}

TEST_F(Xbsa_Api, auto_packs_as_the_pool_does) {
    world_.policy["compression"] = "auto";
    world_.pool()["compression"] = "lzop";
    reopen();
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/x", "content"));
    ASSERT_EQ(1u, world_.data_files().size());
    EXPECT_TRUE(world_.data_files()[0].ends_with(".lzo"));
}

TEST_F(Xbsa_Api, a_policy_without_tls_is_served_too) {
    Xbsa_World plain(false);
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::open(handle_, Xbsa_World::POLICY)) << xbsa::last_error();
    EXPECT_EQ(1u, plain.calls("pool.find").size());
}

TEST_F(Xbsa_Api, only_the_keyword_names_the_policy) {
    BSA_ObjectOwner owner{};
    std::strcpy(owner.bsa_ObjectOwner, Xbsa_World::POLICY);
    Scoped_Env const variable("NBBSA_POLICY", Xbsa_World::POLICY);
    Scoped_Env const older("NBU_POLICY", Xbsa_World::POLICY);
    std::string old_keyword = std::string("NBU_POLICY=") + Xbsa_World::POLICY;
    char* environment[] = {version_.data(), old_keyword.data(), nullptr};
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "NBBSA_POLICY is not set",
                   BSAInit(&handle_, nullptr, &owner, environment));
    std::strcpy(owner.bsa_ObjectOwner, "not-a-policy");
    std::string keyword = std::string("NBBSA_POLICY=") + Xbsa_World::POLICY;
    environment[1] = keyword.data();
    EXPECT_EQ(BSA_RC_SUCCESS, BSAInit(&handle_, nullptr, &owner, environment));
}

TEST_F(Xbsa_Api, a_policy_can_be_a_path_in_the_media_directory) {
    ASSERT_EQ(BSA_RC_SUCCESS,
              xbsa::open(handle_, "/var/cache/quilmot/zenbrak3/gaussdb/media/nightly"))
        << xbsa::last_error();
}

TEST_F(Xbsa_Api, an_environment_that_is_not_valid_is_refused) {
    std::string keyword = std::string("NBBSA_POLICY=") + Xbsa_World::POLICY;
    Scoped_Env const not_looked_at("BSA_API_VERSION", "1.1.0");
    char* without_version[] = {keyword.data(), nullptr};
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "BSA_API_VERSION is not set",
                   BSAInit(&handle_, nullptr, nullptr, without_version));
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "BSA_API_VERSION is not set",
                   BSAInit(&handle_, nullptr, nullptr, nullptr));
    for (std::string text : {"OTHER", "", "=value", "OTHER =1", "OTHER= 1", "OTHER\t=1"}) {
        char* environment[] = {version_.data(), keyword.data(), text.data(), nullptr};
        EXPECT_REFUSED(BSA_RC_INVALID_ENV, "is not of the form KEYWORD=value",
                       BSAInit(&handle_, nullptr, nullptr, environment));
    }
    for (std::string text : {"BSA_DELIMITER=//", "BSA_DELIMITER=\xe4", "BSA_DELIMITER=\x01"}) {
        char* environment[] = {version_.data(), keyword.data(), text.data(), nullptr};
        EXPECT_REFUSED(BSA_RC_INVALID_ENV, "BSA_DELIMITER is not one character",
                       BSAInit(&handle_, nullptr, nullptr, environment));
    }
    EXPECT_EQ(0, handle_);
    std::string delimiter = "BSA_DELIMITER=.", empty = "NBBSA_SCHEDULE=";
    char* good[] = {version_.data(), keyword.data(), delimiter.data(), empty.data(), nullptr};
    EXPECT_EQ(BSA_RC_SUCCESS, BSAInit(&handle_, nullptr, nullptr, good)) << xbsa::last_error();
}

TEST_F(Xbsa_Api, a_session_without_a_policy_is_refused) {
    long handle = 0;
    char* environment[] = {version_.data(), nullptr};
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "no policy is named",
                   BSAInit(&handle, nullptr, nullptr, environment));
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "No such file", xbsa::open(handle, "other"));
    for (char const* name : {"../gaussdb/nightly", "/etc/passwd", "..", "a/b", ".",
                             "/var/cache/quilmot/zenbrak3/gaussdb/nightly",
                             "/var/cache/quilmot/zenbrak3/gaussdb/media/../nightly",
                             "/var/cache/quilmot/zenbrak3/gaussdb/media/a/nightly"})
        EXPECT_REFUSED(BSA_RC_INVALID_ENV, "is not the name of a policy", xbsa::open(handle, name));
    EXPECT_EQ(0, handle);
}

TEST_F(Xbsa_Api, another_version_of_the_api_is_refused) {
    for (std::string const wanted : {"2.0.0", "1.1", "1.1.1", "1.1.0.0"}) {
        std::string version = "BSA_API_VERSION=" + wanted;
        char* environment[] = {version.data(), nullptr};
        EXPECT_REFUSED(BSA_RC_VERSION_NOT_SUPPORTED, "'" + wanted + "'",
                       BSAInit(&handle_, nullptr, nullptr, environment));
    }
}

TEST_F(Xbsa_Api, an_environment_or_owner_without_an_end_is_refused) {
    std::string huge = "A=" + std::string(10000, 'x');
    char* environment[] = {huge.data(), nullptr};
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "the environment is too large",
                   BSAInit(&handle_, nullptr, nullptr, environment));
    BSA_ObjectOwner owner;
    std::memset(&owner, 'x', sizeof owner);
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "a text without an end",
                   BSAInit(&handle_, nullptr, &owner, nullptr));
}

TEST_F(Xbsa_Api, a_wrong_key_is_an_authentication_failure) {
    world_.policy["access_key"] = "another";
    world_.save_policy();
    EXPECT_REFUSED(BSA_RC_AUTHENTICATION_FAILURE, "does not accept the policy's access key",
                   xbsa::open(handle_, Xbsa_World::POLICY));
    EXPECT_NOT_LOGGED("another");
}

TEST_F(Xbsa_Api, an_agent_that_cannot_prove_who_it_is_is_not_trusted) {
    std::filesystem::remove("/var/opt/quilmot/zenbrak3/agent/backupd.crt");
    EXPECT_REFUSED(BSA_RC_ABORT_SYSTEM_ERROR, "pool.find failed",
                   xbsa::open(handle_, Xbsa_World::POLICY));
    EXPECT_LOGGED(LM_ERROR, "Failed to send HTTP request");
    EXPECT_THAT(world_.calls("pool.find"), IsEmpty());
}

TEST_F(Xbsa_Api, a_pool_that_the_agent_does_not_know_is_an_invalid_environment) {
    world_.policy["pool_uuid"] = "gone";
    world_.save_policy();
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "not found", xbsa::open(handle_, Xbsa_World::POLICY));
}

TEST_F(Xbsa_Api, a_pool_on_another_device_is_refused) {
    world_.policy["device_uuid"] = "device-2";
    world_.pool()["device_uuids"] = json_spirit::Array{"device-1"};
    world_.save_policy();
    world_.save_agent();
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "is not on the device",
                   xbsa::open(handle_, Xbsa_World::POLICY));
    world_.pool()["device_uuids"] = json_spirit::Array{"device-1", "device-2"};
    reopen();
}

TEST_F(Xbsa_Api, a_pool_that_is_no_file_system_is_refused) {
    world_.pool()["url"] = "s3://bucket/folder";
    world_.save_agent();
    EXPECT_REFUSED(BSA_RC_ACCESS_FAILURE, "no file system of this host",
                   xbsa::open(handle_, Xbsa_World::POLICY));
}

TEST_F(Xbsa_Api, a_pool_that_is_not_mounted_is_not_made) {
    world_.pool()["url"] = "file://" + world_.files().path("elsewhere");
    world_.save_agent();
    EXPECT_REFUSED(BSA_RC_ABORT_SYSTEM_ERROR, "failed to open pool folder",
                   xbsa::open(handle_, Xbsa_World::POLICY));
    EXPECT_FALSE(world_.files().exists("elsewhere"));
}

TEST_F(Xbsa_Api, a_handle_that_is_none_or_has_ended_is_invalid_in_every_call) {
    open_session();
    long const ended = handle_;
    ASSERT_EQ(BSA_RC_SUCCESS, BSATerminate(handle_));
    handle_ = 0;
    BSA_ObjectDescriptor descriptor = xbsa::object("/x");
    BSA_QueryDescriptor query = xbsa::pattern("*");
    char memory[10];
    BSA_DataBlock32 block = xbsa::block(memory, sizeof memory);
    for (long const handle : {ended, 0L, -1L, 987654L}) {
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSABeginTxn(handle));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSAEndTxn(handle, BSA_Vote_COMMIT));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSACreateObject(handle, &descriptor, &block));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSASendData(handle, &block));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSAEndData(handle));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSAQueryObject(handle, &query, &descriptor));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSAGetNextQueryObject(handle, &descriptor));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSAGetObject(handle, &descriptor, &block));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSAGetData(handle, &block));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSADeleteObject(handle, 1));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSAGetEnvironment(handle, nullptr, nullptr));
        EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSATerminate(handle));
    }
    EXPECT_EQ(48u, Log_Capture::instance().claim_all(LM_ERROR, "there is no such session"));
    BSA_Handle none = ended;
    char* environment[] = {version_.data(), nullptr};
    EXPECT_REFUSED(BSA_RC_INVALID_HANDLE, "there is no such session",
                   NBBSAUpdateEnv(&none, environment));
}

TEST_F(Xbsa_Api, null_pointers_are_refused_in_every_call) {
    open_session();
    BSA_ObjectDescriptor descriptor = xbsa::object("/x");
    BSA_QueryDescriptor query = xbsa::pattern("*");
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSAInit(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSACreateObject(handle_, nullptr, nullptr));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSASendData(handle_, nullptr));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSAQueryObject(handle_, nullptr, &descriptor));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSAQueryObject(handle_, &query, nullptr));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSAGetNextQueryObject(handle_, nullptr));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSAGetObject(handle_, nullptr, nullptr));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSAGetData(handle_, nullptr));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSAQueryApiVersion(nullptr));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSAQueryServiceProvider(nullptr, nullptr, nullptr));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, BSAGetLastError(nullptr, nullptr));
    char* environment[] = {nullptr};
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, NBBSAUpdateEnv(nullptr, environment));
    EXPECT_EQ(BSA_RC_NULL_ARGUMENT, NBBSAUpdateEnv(&handle_, nullptr));
    EXPECT_EQ(12u, Log_Capture::instance().claim_all(LM_ERROR, " is null"));
}

TEST_F(Xbsa_Api, calls_out_of_their_order_are_refused_and_change_nothing) {
    open_session();
    char memory[10] = {};
    BSA_DataBlock32 block = xbsa::block(memory, sizeof memory, 1);
    BSA_ObjectDescriptor descriptor = xbsa::object("/x");
    BSA_QueryDescriptor query = xbsa::pattern("*");
    auto const refused = [](int code) { EXPECT_EQ(BSA_RC_INVALID_CALL_SEQUENCE, code); };
    refused(BSAEndTxn(handle_, BSA_Vote_COMMIT));
    refused(BSACreateObject(handle_, &descriptor, &block));
    refused(BSASendData(handle_, &block));
    refused(BSAEndData(handle_));
    refused(BSAGetData(handle_, &block));
    refused(BSAGetNextQueryObject(handle_, &descriptor));
    refused(BSADeleteObject(handle_, 1));
    refused(BSAQueryObject(handle_, &query, &descriptor));
    refused(BSAGetObject(handle_, &descriptor, &block));

    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    refused(BSABeginTxn(handle_));
    refused(BSASendData(handle_, &block));
    refused(BSAGetNextQueryObject(handle_, &descriptor));
    ASSERT_EQ(BSA_RC_SUCCESS, BSACreateObject(handle_, &descriptor, &block));
    block = xbsa::block(memory, sizeof memory, 1);
    refused(BSACreateObject(handle_, &descriptor, &block));
    refused(BSAEndTxn(handle_, BSA_Vote_COMMIT));
    refused(BSAQueryObject(handle_, &query, &descriptor));
    refused(BSAGetObject(handle_, &descriptor, &block));
    refused(BSADeleteObject(handle_, 1));
    EXPECT_EQ(BSA_RC_SUCCESS, BSASendData(handle_, &block));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndData(handle_));
    refused(BSASendData(handle_, &block));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT)) << xbsa::last_error();
    EXPECT_THAT(xbsa::find(handle_, query), ElementsAre("/x"));
    EXPECT_EQ(18u, Log_Capture::instance().claim_all(LM_ERROR, "BSA"));
}

TEST_F(Xbsa_Api, what_is_read_is_ended_before_anything_else) {
    open_session();
    BSA_UInt64 id = 0;
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/x", "content", &id));
    char memory[10] = {};
    BSA_DataBlock32 block = xbsa::block(memory, sizeof memory);
    BSA_ObjectDescriptor descriptor = xbsa::object("/x"), other = xbsa::object("/y");
    BSA_QueryDescriptor query = xbsa::pattern("*");
    descriptor.copyId = id;
    auto const refused = [](int code) { EXPECT_EQ(BSA_RC_INVALID_CALL_SEQUENCE, code); };
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAGetObject(handle_, &descriptor, nullptr));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAGetData(handle_, &block));
    EXPECT_EQ(BSA_RC_NO_MORE_DATA, BSAGetData(handle_, &block));
    EXPECT_EQ(BSA_RC_NO_MORE_DATA, BSAGetData(handle_, &block)) << "and again";
    refused(BSAGetObject(handle_, &descriptor, nullptr));
    refused(BSAQueryObject(handle_, &query, &other));
    refused(BSACreateObject(handle_, &other, nullptr));
    refused(BSADeleteObject(handle_, id));
    refused(BSASendData(handle_, &block));
    refused(BSAEndTxn(handle_, BSA_Vote_COMMIT));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndData(handle_));
    refused(BSAGetData(handle_, &block));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
    EXPECT_EQ(7u, Log_Capture::instance().claim_all(LM_ERROR, "BSA"));
}

TEST_F(Xbsa_Api, a_transaction_modifies_or_retrieves) {
    open_session();
    BSA_UInt64 id = 0;
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/x", "content", &id));
    BSA_ObjectDescriptor got = xbsa::object("/x"), made = xbsa::object("/y");
    got.copyId = id;
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_THAT(xbsa::find_objects(handle_, xbsa::pattern("*")), ElementsAre("/x"));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAGetObject(handle_, &got, nullptr));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndData(handle_));
    EXPECT_REFUSED(BSA_RC_INVALID_CALL_SEQUENCE, "the transaction retrieves",
                   BSACreateObject(handle_, &made, nullptr));
    EXPECT_REFUSED(BSA_RC_INVALID_CALL_SEQUENCE, "the transaction retrieves",
                   BSADeleteObject(handle_, id));
    EXPECT_THAT(xbsa::find_objects(handle_, xbsa::pattern("*")), ElementsAre("/x"));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));

    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_EQ(BSA_RC_SUCCESS, BSADeleteObject(handle_, id));
    EXPECT_THAT(xbsa::find_objects(handle_, xbsa::pattern("*")), ElementsAre("/x"));
    EXPECT_REFUSED(BSA_RC_INVALID_CALL_SEQUENCE, "the transaction modifies",
                   BSAGetObject(handle_, &got, nullptr));
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, made, "more"));
    EXPECT_REFUSED(BSA_RC_INVALID_CALL_SEQUENCE, "the transaction modifies",
                   BSAGetObject(handle_, &got, nullptr));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
    EXPECT_THAT(xbsa::find(handle_, xbsa::pattern("*")), ElementsAre("/y"));
}

TEST_F(Xbsa_Api, a_call_that_fails_does_not_decide_what_the_transaction_is) {
    open_session();
    BSA_UInt64 id = 0;
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/x", "content", &id));
    BSA_ObjectDescriptor nameless = xbsa::object("", ""), got = xbsa::object("/x");
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_REFUSED(BSA_RC_INVALID_OBJECTDESCRIPTOR, "has no name",
                   BSACreateObject(handle_, &nameless, nullptr));
    got.copyId = id + 1;
    EXPECT_REFUSED(BSA_RC_OBJECT_NOT_FOUND, "no object", BSAGetObject(handle_, &got, nullptr));
    EXPECT_EQ(BSA_RC_SUCCESS, BSADeleteObject(handle_, id));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_ABORT));
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_REFUSED(BSA_RC_OBJECT_NOT_FOUND, "no object", BSADeleteObject(handle_, id + 1));
    got.copyId = id;
    EXPECT_EQ(BSA_RC_SUCCESS, BSAGetObject(handle_, &got, nullptr));
}

TEST_F(Xbsa_Api, the_answers_of_a_query_end_with_its_transaction) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/1", "x"));
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/2", "x"));
    BSA_QueryDescriptor query = xbsa::pattern("*");
    BSA_ObjectDescriptor descriptor;
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAQueryObject(handle_, &query, &descriptor));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_REFUSED(BSA_RC_INVALID_CALL_SEQUENCE, "nothing has been asked for",
                   BSAGetNextQueryObject(handle_, &descriptor));
}

TEST_F(Xbsa_Api, a_vote_that_is_none_is_refused) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    BSA_Vote vote;
    int const number = 3;
    std::memcpy(&vote, &number, sizeof vote);
    EXPECT_REFUSED(BSA_RC_INVALID_VOTE, "neither to commit nor to abort", BSAEndTxn(handle_, vote));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
}

// texts about the service

TEST_F(Xbsa_Api, version_and_provider_are_told_without_a_session) {
    BSA_ApiVersion version{};
    EXPECT_EQ(BSA_RC_SUCCESS, BSAQueryApiVersion(&version));
    EXPECT_EQ(1, version.issue);
    EXPECT_EQ(1, version.version);
    EXPECT_EQ(0, version.level);
    BSA_UInt32 size = 0;
    char delimiter = 0;
    EXPECT_REFUSED(BSA_RC_BUFFER_TOO_SMALL, "takes more memory",
                   BSAQueryServiceProvider(&size, &delimiter, nullptr));
    EXPECT_EQ('/', delimiter);
    std::string name(size, 'x');
    EXPECT_EQ(BSA_RC_SUCCESS, BSAQueryServiceProvider(&size, nullptr, name.data()));
    EXPECT_STREQ("quilmot/zenbrak3/1.0", name.c_str());
    EXPECT_EQ(name.size(), size);
}

TEST_F(Xbsa_Api, the_last_error_says_how_much_memory_it_takes) {
    EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSABeginTxn(1));
    EXPECT_LOGGED(LM_ERROR, "BSABeginTxn: there is no such session");
    char text[100] = "unchanged";
    BSA_UInt32 size = 5;
    EXPECT_EQ(BSA_RC_BUFFER_TOO_SMALL, BSAGetLastError(&size, text));
    EXPECT_STREQ("unchanged", text);
    EXPECT_EQ(sizeof "there is no such session", size);
    EXPECT_EQ(BSA_RC_SUCCESS, BSAGetLastError(&size, text));
    EXPECT_STREQ("there is no such session", text);
}

TEST_F(Xbsa_Api, the_last_error_is_the_thread_s_own) {
    EXPECT_EQ(BSA_RC_INVALID_HANDLE, BSABeginTxn(1));
    EXPECT_LOGGED(LM_ERROR, "there is no such session");
    std::thread([] { EXPECT_EQ("", xbsa::last_error()); }).join();
    EXPECT_EQ("there is no such session", xbsa::last_error());
    open_session();
    char text[10] = "unchanged";
    BSA_UInt32 size = sizeof text;
    EXPECT_EQ(BSA_RC_SUCCESS, BSAGetLastError(&size, text));
    EXPECT_EQ(0u, size) << "there is none";
    EXPECT_STREQ("unchanged", text);
}

TEST_F(Xbsa_Api, a_session_gives_back_its_environment_and_owner) {
    BSA_ObjectOwner owner{};
    std::strcpy(owner.app_ObjectOwner, "omm");
    std::string keyword = std::string("NBBSA_POLICY=") + Xbsa_World::POLICY;
    char other[] = "OTHER=1";
    char* environment[] = {other, keyword.data(), version_.data(), nullptr};
    ASSERT_EQ(BSA_RC_SUCCESS, BSAInit(&handle_, nullptr, &owner, environment));
    BSA_ObjectOwner got{};
    char* texts[4] = {};
    EXPECT_EQ(BSA_RC_SUCCESS, BSAGetEnvironment(handle_, &got, texts));
    EXPECT_STREQ("omm", got.app_ObjectOwner);
    EXPECT_STREQ("OTHER=1", texts[0]);
    EXPECT_EQ(keyword, texts[1]);
    EXPECT_EQ(version_, texts[2]);
    EXPECT_EQ(nullptr, texts[3]);
}

TEST_F(Xbsa_Api, an_environment_can_change_between_transactions) {
    open_session();
    world_.policy["uuid"] = Xbsa_World::OLDER_SET;
    world_.save_policy("weekly");
    std::string policy = "NBBSA_POLICY=weekly", schedule = "NBBSA_SCHEDULE=full";
    char* changes[] = {policy.data(), schedule.data(), nullptr};
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_REFUSED(BSA_RC_INVALID_CALL_SEQUENCE, "cannot change within a transaction",
                   NBBSAUpdateEnv(&handle_, changes));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/before", "x"));
    ASSERT_EQ(BSA_RC_SUCCESS, NBBSAUpdateEnv(&handle_, changes)) << xbsa::last_error();
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/after", "x"));
    EXPECT_EQ(1u, world_.data_files().size());
    EXPECT_EQ(1u, world_.data_files(Xbsa_World::OLDER_SET).size());
    char* texts[4] = {};
    EXPECT_EQ(BSA_RC_SUCCESS, BSAGetEnvironment(handle_, nullptr, texts));
    EXPECT_EQ(policy, texts[0]);
    EXPECT_EQ(schedule, texts[1]);
    EXPECT_EQ(version_, texts[2]);
    EXPECT_EQ(nullptr, texts[3]);
}

TEST_F(Xbsa_Api, an_environment_that_cannot_be_leaves_the_session_as_it_was) {
    open_session();
    std::string bad = "NBBSA_POLICY=none", version = "BSA_API_VERSION=2.0.0";
    std::string huge = "A=" + std::string(10000, 'x');
    char* none[] = {bad.data(), nullptr};
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "No such file", NBBSAUpdateEnv(&handle_, none));
    char* newer[] = {version.data(), nullptr};
    EXPECT_REFUSED(BSA_RC_VERSION_NOT_SUPPORTED, "2.0.0", NBBSAUpdateEnv(&handle_, newer));
    char* large[] = {huge.data(), nullptr};
    EXPECT_REFUSED(BSA_RC_INVALID_ENV, "is too large", NBBSAUpdateEnv(&handle_, large));
    EXPECT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/x", "x"));
    EXPECT_EQ(1u, world_.data_files().size());
}

// several at once

TEST_F(Xbsa_Api, every_thread_has_its_session) {
    constexpr int THREADS = 4;
    std::vector<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back([i] {
            long handle = 0;
            ASSERT_EQ(BSA_RC_SUCCESS, xbsa::open(handle, Xbsa_World::POLICY));
            for (int round = 0; round < 5; ++round) {
                std::string const path = "/" + std::to_string(i) + "/" + std::to_string(round);
                std::string const content = data(200000) + path;
                BSA_UInt64 id = 0;
                std::string read;
                EXPECT_EQ(BSA_RC_SUCCESS, xbsa::put(handle, path, content, &id));
                EXPECT_EQ(BSA_RC_NO_MORE_DATA, xbsa::get(handle, id, read));
                EXPECT_TRUE(content == read);
            }
            EXPECT_EQ(BSA_RC_SUCCESS, BSATerminate(handle));
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(20u, world_.data_files().size());
}

TEST_F(Xbsa_Api, calls_of_threads_that_share_a_session_wait_for_each_other) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    BSA_ObjectDescriptor descriptor = xbsa::object("/shared");
    ASSERT_EQ(BSA_RC_SUCCESS, BSACreateObject(handle_, &descriptor, nullptr));
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([this] {
            for (int piece = 0; piece < 20; ++piece)
                EXPECT_EQ(BSA_RC_SUCCESS, xbsa::send(handle_, std::string(10000, 'x')));
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndData(handle_));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
    std::string read;
    EXPECT_EQ(BSA_RC_NO_MORE_DATA, xbsa::get(handle_, descriptor.copyId, read));
    EXPECT_EQ(std::string(800000, 'x'), read);
}

} // namespace
