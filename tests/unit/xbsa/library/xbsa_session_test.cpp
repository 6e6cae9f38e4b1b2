#include "tests/unit/xbsa/library/xbsa_api_fixture.h"

#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

class Xbsa_Session_Test : public Xbsa_Api {};

// transactions

TEST_F(Xbsa_Session_Test, nothing_is_to_be_seen_before_the_transaction_ends) {
    open_session();
    long other = 0;
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::open(other, Xbsa_World::POLICY));
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    BSA_ObjectDescriptor first = xbsa::object("/1"), second = xbsa::object("/2");
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, first, "one"));
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, second, "two"));
    EXPECT_THAT(xbsa::find(other, xbsa::pattern("*")), IsEmpty());
    EXPECT_THAT(world_.data_files(), IsEmpty());
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
    EXPECT_THAT(xbsa::find(other, xbsa::pattern("*")), ElementsAre("/2", "/1"));
    BSATerminate(other);
}

TEST_F(Xbsa_Session_Test, all_objects_of_a_transaction_become_pieces_at_once) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    BSA_ObjectDescriptor first = xbsa::object("/1"), second = xbsa::object("/2");
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, first, data(100000)));
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, second, "two"));
    EXPECT_THAT(world_.calls("catalog.add_piece"), IsEmpty());
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
    auto const calls = world_.calls("catalog.add_piece");
    ASSERT_EQ(1u, calls.size());
    EXPECT_EQ(Xbsa_World::SET, json_spirit::object_get_str(calls[0], "uuid"));
    json_spirit::Array pieces;
    json_spirit::extract_or_throw(calls[0])("pieces", pieces);
    ASSERT_EQ(3u, pieces.size());
    for (json_spirit::Value const& piece : pieces) {
        std::string path;
        uint64_t size = 0, stored = 0;
        json_spirit::extract_or_throw(piece.get_obj())("path", path)("size", size)("storage_size",
                                                                                   stored);
        std::string const file = world_.pool_path() + "/" + path;
        ASSERT_TRUE(std::filesystem::exists(file)) << file;
        EXPECT_EQ(std::filesystem::file_size(file), stored);
    }
    EXPECT_EQ(100000u, json_spirit::object_get_int64_or_throw(pieces[0].get_obj(), "size"));
    EXPECT_EQ(3u, json_spirit::object_get_int64_or_throw(pieces[1].get_obj(), "size"));
}

TEST_F(Xbsa_Session_Test, an_aborted_transaction_leaves_nothing) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    BSA_ObjectDescriptor descriptor = xbsa::object("/1"), open = xbsa::object("/2");
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, descriptor, data(100000)));
    ASSERT_EQ(BSA_RC_SUCCESS, BSACreateObject(handle_, &open, nullptr));
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::send(handle_, data(100000)));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_ABORT));
    EXPECT_EQ(0u, world_.files_in_pool());
    EXPECT_THAT(world_.calls("catalog.add_piece"), IsEmpty());
    EXPECT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/3", "x")) << "the session goes on";
}

TEST_F(Xbsa_Session_Test, a_session_that_ends_within_a_transaction_leaves_nothing) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    BSA_ObjectDescriptor descriptor = xbsa::object("/1"), open = xbsa::object("/2");
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, descriptor, data(100000)));
    ASSERT_EQ(BSA_RC_SUCCESS, BSACreateObject(handle_, &open, nullptr));
    EXPECT_EQ(BSA_RC_SUCCESS, BSATerminate(handle_));
    handle_ = 0;
    EXPECT_EQ(0u, world_.files_in_pool());
}

TEST_F(Xbsa_Session_Test, objects_that_the_catalog_refuses_are_removed_again) {
    open_session();
    fail("catalog.add_piece",
         {json_spirit::Object{{"error", json_spirit::Array{-32005, "the set is complete"}}}});
    EXPECT_REFUSED(BSA_RC_TRANSACTION_ABORTED, "the set is complete",
                   xbsa::put(handle_, "/1", "one"));
    EXPECT_EQ(0u, world_.files_in_pool());
    EXPECT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/1", "one"));
    EXPECT_EQ(2u, world_.files_in_pool());
}

TEST_F(Xbsa_Session_Test, a_catalog_that_cannot_be_reached_for_a_while_is_tried_again) {
    world_.policy["retry"] = 30;
    reopen();
    fail("catalog.add_piece", {json_spirit::Object{{"status", 503}}});
    EXPECT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/1", "one")) << xbsa::last_error();
    EXPECT_EQ(2u, world_.calls("catalog.add_piece").size());
}

TEST_F(Xbsa_Session_Test, a_large_transaction_is_committed_and_aborted_as_a_whole) {
    open_session();
    for (BSA_Vote const vote : {BSA_Vote_ABORT, BSA_Vote_COMMIT}) {
        ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
        for (int i = 0; i < 150; ++i) {
            BSA_ObjectDescriptor descriptor = xbsa::object("/" + std::to_string(i));
            ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, descriptor, "content"));
        }
        EXPECT_THAT(xbsa::find_objects(handle_, xbsa::pattern("*")), IsEmpty());
        EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, vote));
        EXPECT_EQ(vote == BSA_Vote_COMMIT ? 151u : 0u, world_.files_in_pool());
    }
    EXPECT_EQ(150u, xbsa::find(handle_, xbsa::pattern("*")).size());
}

TEST_F(Xbsa_Session_Test, a_policy_of_a_restore_and_a_read_only_pool_are_not_written_to) {
    BSA_ObjectDescriptor descriptor = xbsa::object("/1");
    world_.policy["uuid"] = "";
    reopen();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_REFUSED(BSA_RC_ACCESS_FAILURE, "it names no backup set",
                   BSACreateObject(handle_, &descriptor, nullptr));
    world_.policy["uuid"] = Xbsa_World::SET;
    world_.pool()["read_only"] = true;
    reopen();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_REFUSED(BSA_RC_ACCESS_FAILURE, "is for restores only",
                   BSACreateObject(handle_, &descriptor, nullptr));
    EXPECT_EQ(0u, world_.files_in_pool());
}

TEST_F(Xbsa_Session_Test, a_descriptor_that_cannot_be_is_refused) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    BSA_ObjectDescriptor nameless = xbsa::object("", "");
    BSA_ObjectDescriptor endless = xbsa::object("/x");
    std::memset(endless.objectName.pathName, 'x', BSA_MAX_PATHNAME);
    BSA_ObjectDescriptor any = xbsa::object("/x");
    any.copyType = BSA_CopyType_ANY;
    BSA_ObjectDescriptor strange = xbsa::object("/x");
    std::memset(&strange.objectType, 0x7f, sizeof strange.objectType);
    for (BSA_ObjectDescriptor* descriptor : {&nameless, &endless, &any, &strange})
        EXPECT_REFUSED(BSA_RC_INVALID_OBJECTDESCRIPTOR, "the object has no name",
                       BSACreateObject(handle_, descriptor, nullptr));
}

TEST_F(Xbsa_Session_Test, a_block_that_cannot_be_is_refused) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    BSA_ObjectDescriptor descriptor = xbsa::object("/x");
    ASSERT_EQ(BSA_RC_SUCCESS, BSACreateObject(handle_, &descriptor, nullptr));
    char memory[100] = {};
    BSA_DataBlock32 no_memory = xbsa::block(nullptr, 100, 10);
    BSA_DataBlock32 larger = xbsa::block(memory, 100, 101);
    BSA_DataBlock32 header = xbsa::block(memory, 100, 10);
    header.headerBytes = 101;
    BSA_DataBlock32 behind = xbsa::block(memory, 100, 10);
    behind.headerBytes = 95;
    for (BSA_DataBlock32* block : {&no_memory, &larger, &header, &behind})
        EXPECT_REFUSED(BSA_RC_INVALID_DATABLOCK, "without memory", BSASendData(handle_, block));
    std::strcpy(memory, "headercontent");
    BSA_DataBlock32 good = xbsa::block(memory, 100, 7);
    good.headerBytes = 6;
    EXPECT_EQ(BSA_RC_SUCCESS, BSASendData(handle_, &good));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndData(handle_));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));

    BSA_DataBlock32 block = xbsa::block(memory, 5, 5);
    block.headerBytes = 5;
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_EQ(BSA_RC_SUCCESS, BSAGetObject(handle_, &descriptor, &block));
    EXPECT_EQ(0u, block.bufferLen) << "no preference";
    EXPECT_EQ(0u, block.numBytes);
    EXPECT_EQ(0u, block.headerBytes);
    EXPECT_EQ(memory, block.bufferPtr);
    EXPECT_REFUSED(BSA_RC_INVALID_DATABLOCK, "no memory for data", BSAGetData(handle_, &block));
    block = xbsa::block(memory, 100);
    block.headerBytes = 6;
    EXPECT_EQ(BSA_RC_SUCCESS, BSAGetData(handle_, &block));
    EXPECT_EQ(7u, block.numBytes);
    EXPECT_EQ("headercontent", std::string(memory, 13));
    EXPECT_EQ(BSA_RC_NO_MORE_DATA, BSAGetData(handle_, &block));
    EXPECT_EQ(0u, block.numBytes);
}

TEST_F(Xbsa_Session_Test, no_name_leads_out_of_the_set_s_folder) {
    open_session();
    std::vector<std::string> const names{"../../../escape",
                                         "/../../x",
                                         "..",
                                         ".",
                                         "/",
                                         "a/../../b",
                                         ".zenbrak3-x",
                                         "_transactions",
                                         std::string(1023, '/'),
                                         std::string(1023, '.'),
                                         "\xff\xfe\n",
                                         "%2e%2e/%2f"};
    for (std::string const& name : names)
        ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, name, name)) << xbsa::last_error();
    EXPECT_EQ(names.size(), world_.data_files().size());
    size_t found = 0;
    for (auto const& entry : std::filesystem::directory_iterator(world_.files().path()))
        found += entry.path().filename() == "escape";
    EXPECT_EQ(0u, found);
    std::vector<std::string> reversed(names.rbegin(), names.rend());
    EXPECT_EQ(reversed, xbsa::find(handle_, xbsa::pattern("*")));
}

// queries

TEST_F(Xbsa_Session_Test, a_query_gives_back_what_the_object_was_created_with) {
    open_session();
    BSA_ObjectDescriptor descriptor = xbsa::object("/base/1", "tablespace");
    std::strcpy(descriptor.objectOwner.bsa_ObjectOwner, "cluster");
    std::strcpy(descriptor.objectOwner.app_ObjectOwner, "omm");
    std::strcpy(descriptor.resourceType, "Database");
    std::strcpy(descriptor.objectDescription, "a \"description\" \xe4");
    descriptor.copyType = BSA_CopyType_ARCHIVE;
    descriptor.objectType = BSA_ObjectType_OTHER;
    descriptor.restoreOrder = 0x8000000000000001;
    descriptor.estimatedSize = 12;
    for (int i = 0; i < BSA_MAX_OBJECTINFO - 1; ++i)
        descriptor.objectInfo[i] = static_cast<unsigned char>(255 - i);
    BSA_ObjectDescriptor const sent = descriptor;
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    time_t const before = time(nullptr);
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, descriptor, "content"));
    EXPECT_NE(0u, descriptor.copyId);
    EXPECT_EQ(12u, descriptor.estimatedSize);
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));

    std::vector<BSA_ObjectDescriptor> found;
    BSA_QueryDescriptor query = xbsa::pattern("/base/1");
    EXPECT_THAT(xbsa::find(handle_, query), IsEmpty()) << "owners are compared as they are";
    std::strcpy(query.objectOwner.app_ObjectOwner, "o*");
    EXPECT_THAT(xbsa::find(handle_, query), IsEmpty()) << "both of them";
    std::strcpy(query.objectOwner.bsa_ObjectOwner, "*");
    ASSERT_THAT(xbsa::find(handle_, query, &found), ElementsAre("/base/1"));
    BSA_ObjectDescriptor const& got = found[0];
    EXPECT_EQ(descriptor.copyId, got.copyId);
    EXPECT_STREQ("tablespace", got.objectName.objectSpaceName);
    EXPECT_STREQ("cluster", got.objectOwner.bsa_ObjectOwner);
    EXPECT_STREQ("omm", got.objectOwner.app_ObjectOwner);
    EXPECT_STREQ("Database", got.resourceType);
    EXPECT_STREQ(sent.objectDescription, got.objectDescription);
    EXPECT_EQ(BSA_CopyType_ARCHIVE, got.copyType);
    EXPECT_EQ(BSA_ObjectType_OTHER, got.objectType);
    EXPECT_EQ(BSA_ObjectStatus_MOST_RECENT, got.objectStatus);
    EXPECT_EQ(sent.restoreOrder, got.restoreOrder);
    EXPECT_EQ(12u, got.estimatedSize) << "the application's own value";
    EXPECT_EQ(0, std::memcmp(sent.objectInfo, got.objectInfo, BSA_MAX_OBJECTINFO));
    tm created = got.createTime;
    EXPECT_GE(timegm(&created), before);
    EXPECT_LE(timegm(&created), time(nullptr));
}

TEST_F(Xbsa_Session_Test, an_object_without_an_owner_is_the_session_s) {
    BSA_ObjectOwner owner{};
    std::strcpy(owner.bsa_ObjectOwner, "tool");
    std::strcpy(owner.app_ObjectOwner, "omm");
    std::string policy = std::string("NBBSA_POLICY=") + Xbsa_World::POLICY;
    char* environment[] = {version_.data(), policy.data(), nullptr};
    ASSERT_EQ(BSA_RC_SUCCESS, BSAInit(&handle_, nullptr, &owner, environment));
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/1", "x"));
    BSA_QueryDescriptor query = xbsa::pattern("*");
    std::vector<BSA_ObjectDescriptor> found;
    EXPECT_THAT(xbsa::find(handle_, query, &found), ElementsAre("/1")) << "and so is a query";
    EXPECT_STREQ("tool", found.at(0).objectOwner.bsa_ObjectOwner);
    EXPECT_STREQ("omm", found.at(0).objectOwner.app_ObjectOwner);
    std::strcpy(query.objectOwner.bsa_ObjectOwner, "*");
    std::strcpy(query.objectOwner.app_ObjectOwner, "o*");
    EXPECT_THAT(xbsa::find(handle_, query), ElementsAre("/1"));
    std::strcpy(query.objectOwner.app_ObjectOwner, "other");
    EXPECT_THAT(xbsa::find(handle_, query), IsEmpty());
}

TEST_F(Xbsa_Session_Test, the_newest_copy_is_told_from_older_ones) {
    open_session();
    for (char const* content : {"one", "two", "three"})
        ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/same", content));
    std::vector<BSA_ObjectDescriptor> all, newest, older;
    xbsa::find(handle_, xbsa::pattern("/same"), &all);
    ASSERT_EQ(3u, all.size());
    BSA_QueryDescriptor query = xbsa::pattern("/same");
    query.objectStatus = BSA_ObjectStatus_MOST_RECENT;
    xbsa::find(handle_, query, &newest);
    query.objectStatus = BSA_ObjectStatus_NOT_MOST_RECENT;
    xbsa::find(handle_, query, &older);
    ASSERT_EQ(1u, newest.size());
    EXPECT_EQ(2u, older.size());
    std::string read;
    xbsa::get(handle_, newest[0].copyId, read);
    EXPECT_EQ("three", read);
    xbsa::get(handle_, all[2].copyId, read);
    EXPECT_EQ("one", read);
}

TEST_F(Xbsa_Session_Test, a_query_that_finds_nothing_or_cannot_be) {
    open_session();
    BSA_ObjectDescriptor descriptor;
    BSA_QueryDescriptor query = xbsa::pattern("/none");
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_EQ(BSA_RC_NO_MATCH, BSAQueryObject(handle_, &query, &descriptor));
    EXPECT_EQ(BSA_RC_NO_MORE_DATA, BSAGetNextQueryObject(handle_, &descriptor));
    std::memset(&query.copyType, 0, sizeof query.copyType);
    EXPECT_REFUSED(BSA_RC_INVALID_QUERYDESCRIPTOR, "an unknown type",
                   BSAQueryObject(handle_, &query, &descriptor));
    query = xbsa::pattern("*");
    query.createTime_from.tm_mon = 12;
    EXPECT_REFUSED(BSA_RC_INVALID_QUERYDESCRIPTOR, "an invalid time",
                   BSAQueryObject(handle_, &query, &descriptor));
    query = xbsa::pattern("");
    EXPECT_REFUSED(BSA_RC_INVALID_QUERYDESCRIPTOR, "no pathName",
                   BSAQueryObject(handle_, &query, &descriptor));
    std::memset(query.objectName.pathName, '*', BSA_MAX_PATHNAME);
    EXPECT_REFUSED(BSA_RC_INVALID_QUERYDESCRIPTOR, "a text without an end",
                   BSAQueryObject(handle_, &query, &descriptor));
}

TEST_F(Xbsa_Session_Test, an_empty_text_of_a_query_is_an_empty_text) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/1", "x"));
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    BSA_ObjectDescriptor nowhere = xbsa::object("/2", "");
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, nowhere, "x"));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
    EXPECT_THAT(xbsa::find(handle_, xbsa::pattern("*", "")), ElementsAre("/2"));
    EXPECT_THAT(xbsa::find(handle_, xbsa::pattern("*", "db")), ElementsAre("/1"));
    EXPECT_THAT(xbsa::find(handle_, xbsa::pattern("/*", "*")), ElementsAre("/2", "/1"));
}

TEST_F(Xbsa_Session_Test, a_restore_finds_the_objects_of_all_sets_that_the_catalog_has) {
    for (char const* set : {Xbsa_World::OLDER_SET, Xbsa_World::SET, "a-dropped-set"}) {
        world_.policy["uuid"] = set;
        world_.agent["sets"].get_array().emplace_back("a-dropped-set");
        reopen();
        ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, set, set)) << xbsa::last_error();
    }
    world_.agent["sets"] = json_spirit::Array{Xbsa_World::OLDER_SET, Xbsa_World::SET};
    world_.policy["uuid"] = "";
    reopen();
    std::vector<BSA_ObjectDescriptor> found;
    EXPECT_THAT(xbsa::find(handle_, xbsa::pattern("*"), &found),
                ElementsAre(Xbsa_World::SET, Xbsa_World::OLDER_SET));
    std::string read;
    EXPECT_EQ(BSA_RC_NO_MORE_DATA, xbsa::get(handle_, found[1].copyId, read));
    EXPECT_EQ(Xbsa_World::OLDER_SET, read);
}

TEST_F(Xbsa_Session_Test, a_copy_id_alone_leads_to_its_object) {
    open_session();
    BSA_UInt64 id = 0;
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/1", "content", &id));
    reopen();
    std::string read;
    EXPECT_EQ(BSA_RC_NO_MORE_DATA, xbsa::get(handle_, id, read));
    EXPECT_EQ("content", read);
    BSA_ObjectDescriptor descriptor = xbsa::object("as the caller has it");
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    descriptor.copyId = id;
    EXPECT_EQ(BSA_RC_SUCCESS, BSAGetObject(handle_, &descriptor, nullptr));
    EXPECT_STREQ("as the caller has it", descriptor.objectName.pathName);
    EXPECT_EQ(BSA_RC_SUCCESS, BSAEndData(handle_));
    descriptor.copyId = id + 1;
    EXPECT_REFUSED(BSA_RC_OBJECT_NOT_FOUND, "no object with that copy id",
                   BSAGetObject(handle_, &descriptor, nullptr));
    descriptor.copyId = 0;
    EXPECT_REFUSED(BSA_RC_INVALID_COPYID, "copy id 0", BSAGetObject(handle_, &descriptor, nullptr));
}

TEST_F(Xbsa_Session_Test, an_object_that_has_gone_since_the_query_is_not_found) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/1", "content"));
    std::vector<BSA_ObjectDescriptor> found;
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    ASSERT_EQ(1u, xbsa::find_objects(handle_, xbsa::pattern("*"), &found).size());
    std::filesystem::remove(world_.data_files()[0]);
    EXPECT_REFUSED(BSA_RC_OBJECT_NOT_FOUND, "there is no object",
                   BSAGetObject(handle_, &found[0], nullptr));
    EXPECT_THAT(xbsa::find_objects(handle_, xbsa::pattern("*")), IsEmpty());
}

// damage

TEST_F(Xbsa_Session_Test, a_damaged_object_is_an_error_and_not_data) {
    std::string const content = data(200000);
    for (char const* codec : {"none", "lzop", "zstd"}) {
        world_.policy["compression"] = codec;
        reopen();
        BSA_UInt64 id = 0;
        ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, codec, content, &id));
        std::string const file = world_.data_files().back();
        std::ifstream in(file, std::ios::binary);
        std::string const stored((std::istreambuf_iterator<char>(in)), {});
        for (size_t const at : {size_t{50}, stored.size() / 2, stored.size() - 20}) {
            std::string damaged = stored;
            damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
            std::ofstream(file, std::ios::binary) << damaged;
            std::string read;
            EXPECT_REFUSED(BSA_RC_ABORT_SYSTEM_ERROR, "is damaged", xbsa::get(handle_, id, read));
            EXPECT_LT(read.size(), content.size()) << codec << " at " << at;
            EXPECT_EQ(BSA_RC_SUCCESS, BSAEndData(handle_));
            EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
        }
        std::ofstream(file, std::ios::binary) << stored.substr(0, stored.size() - 1);
        std::string read;
        EXPECT_REFUSED(BSA_RC_ABORT_SYSTEM_ERROR, "is damaged", xbsa::get(handle_, id, read));
        EXPECT_EQ("", read);
        EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_ABORT));
        std::filesystem::remove(file);
    }
}

TEST_F(Xbsa_Session_Test, a_damaged_list_of_a_transaction_is_an_error_and_not_silence) {
    open_session();
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/1", "content"));
    for (auto const& entry :
         std::filesystem::directory_iterator(world_.set_path() + "/_transactions"))
        std::filesystem::resize_file(entry.path(), 20);
    EXPECT_THAT(xbsa::find(handle_, xbsa::pattern("*")), ElementsAre(HasSubstr("is damaged")));
    EXPECT_LOGGED(LM_ERROR, "is damaged");
}

// removal

TEST_F(Xbsa_Session_Test, an_object_is_removed_when_the_transaction_ends) {
    open_session();
    BSA_ObjectDescriptor first = xbsa::object("/1"), second = xbsa::object("/2");
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, first, "one"));
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put_object(handle_, second, "two"));
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_EQ(BSA_RC_SUCCESS, BSADeleteObject(handle_, first.copyId));
    EXPECT_EQ(2u, xbsa::find_objects(handle_, xbsa::pattern("*")).size());
    ASSERT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_ABORT));
    EXPECT_EQ(2u, xbsa::find(handle_, xbsa::pattern("*")).size());
    for (BSA_UInt64 const id : {first.copyId, second.copyId}) {
        ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
        EXPECT_EQ(BSA_RC_SUCCESS, BSADeleteObject(handle_, id));
        EXPECT_EQ(BSA_RC_SUCCESS, BSAEndTxn(handle_, BSA_Vote_COMMIT));
        EXPECT_EQ(id == first.copyId ? 2u : 0u, world_.files_in_pool());
    }
}

TEST_F(Xbsa_Session_Test, objects_of_other_sets_are_not_removed) {
    world_.policy["uuid"] = Xbsa_World::OLDER_SET;
    reopen();
    BSA_UInt64 id = 0;
    ASSERT_EQ(BSA_RC_SUCCESS, xbsa::put(handle_, "/1", "one", &id));
    world_.policy["uuid"] = Xbsa_World::SET;
    reopen();
    ASSERT_EQ(BSA_RC_SUCCESS, BSABeginTxn(handle_));
    EXPECT_REFUSED(BSA_RC_ACCESS_FAILURE, "in another backup set", BSADeleteObject(handle_, id));
    EXPECT_REFUSED(BSA_RC_OBJECT_NOT_FOUND, "no object", BSADeleteObject(handle_, id + 1));
    EXPECT_REFUSED(BSA_RC_INVALID_COPYID, "copy id 0", BSADeleteObject(handle_, 0));
}

} // namespace
