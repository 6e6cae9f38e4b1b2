#include "tests/support/log_capture.h"
#include "tests/support/xbsa_standard.h"
#include "tests/support/xbsa_world.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <vector>

using namespace xbsa_standard;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

Library const& library() {
    static Library const loaded(ZENBRAK3_XBSA_LIBRARY);
    return loaded;
}

/** Behind each structure, to see that nothing is written there. */
template <typename Structure>
struct Guarded {
    Structure value;
    unsigned char guard[64];

    Guarded() {
        std::memset(&value, 0, sizeof value);
        std::memset(guard, 0xa5, sizeof guard);
    }
    Structure* operator->() { return &value; }
    bool intact() const {
        for (unsigned char const byte : guard)
            if (byte != 0xa5)
                return false;
        return true;
    }
};

/** Calls the library as the standard's text says, with all fields set in each structure. */
class Xbsa_Standard : public testing::Test {
protected:
    void SetUp() override {
        world_.policy["compression"] = "none";
        world_.save_policy();
        ASSERT_EQ(SUCCESS, open()) << last_error();
    }
    void TearDown() override {
        library().terminate(handle_);
        // what is refused is in the library's log, which is this process's
        Log_Capture::instance().claim_all(LM_ERROR, "BSA");
    }

    int open(std::vector<std::string> texts = {"BSA_API_VERSION=1.1.0", "BSA_DELIMITER=/",
                                               "NBBSA_POLICY=nightly"}) {
        std::vector<char*> environment;
        for (std::string& text : texts)
            environment.push_back(text.data());
        environment.push_back(nullptr);
        char token[64] = "";
        Owner owner{};
        std::strcpy(owner.app_object_owner, "gaussdb.cluster");
        return library().init(&handle_, token, &owner, environment.data());
    }
    static std::string last_error() {
        unsigned int size = 0;
        if (library().get_last_error(&size, nullptr) != BUFFER_TOO_SMALL)
            return "";
        std::string text(size, '\0');
        EXPECT_EQ(SUCCESS, library().get_last_error(&size, text.data()));
        return text.c_str();
    }
    static Guarded<Object_Descriptor> object(std::string const& path, size_t size) {
        Guarded<Object_Descriptor> made;
        std::strcpy(made->object_owner.app_object_owner, "gaussdb.cluster");
        std::strcpy(made->object_name.object_space_name, "cluster");
        std::strcpy(made->object_name.path_name, path.c_str());
        made->copy_type = COPY_BACKUP;
        made->estimated_size = size;
        std::strcpy(made->resource_type, "Database");
        made->object_type = TYPE_FILE;
        std::strcpy(made->object_description, "a part of a backup");
        std::strcpy(reinterpret_cast<char*>(made->object_info), "information");
        return made;
    }
    static Guarded<Query_Descriptor> query(std::string const& path) {
        Guarded<Query_Descriptor> made;
        std::strcpy(made->object_owner.bsa_object_owner, "*");
        std::strcpy(made->object_owner.app_object_owner, "*");
        std::strcpy(made->object_name.object_space_name, "*");
        std::strcpy(made->object_name.path_name, path.c_str());
        made->copy_type = COPY_ANY;
        made->object_type = TYPE_ANY;
        made->object_status = STATUS_ANY;
        return made;
    }

    /** An object within a transaction, in full buffers but for the last. */
    int create(Guarded<Object_Descriptor>& descriptor, std::string const& content) {
        Guarded<Data_Block> wish;
        int code = library().create_object(handle_, &descriptor.value, &wish.value);
        if (code != SUCCESS)
            return code;
        // no restriction of the length, no trailer, no header
        EXPECT_EQ(0u, wish->buffer_len);
        EXPECT_EQ(0u, wish->num_bytes);
        EXPECT_EQ(0u, wish->header_bytes);
        std::string memory(BLOCK, '\0');
        for (size_t at = 0; at < content.size(); at += BLOCK) {
            size_t const size = std::min(BLOCK, content.size() - at);
            std::memcpy(memory.data(), content.data() + at, size);
            Data_Block block = block_of(memory, size);
            Data_Block const before = block;
            code = library().send_data(handle_, &block);
            EXPECT_EQ(0, std::memcmp(&before, &block, sizeof block)) << "the caller's, all of it";
            if (code != SUCCESS)
                return code;
        }
        EXPECT_TRUE(descriptor.intact() && wish.intact());
        return library().end_data(handle_);
    }
    unsigned long put(std::string const& path, std::string const& content) {
        auto descriptor = object(path, content.size());
        EXPECT_EQ(SUCCESS, library().begin_txn(handle_));
        EXPECT_EQ(SUCCESS, create(descriptor, content)) << last_error();
        EXPECT_EQ(SUCCESS, library().end_txn(handle_, COMMIT)) << last_error();
        return descriptor->copy_id;
    }
    /** Reads an object within a transaction. */
    std::string get(unsigned long copy_id) {
        Guarded<Object_Descriptor> descriptor;
        Guarded<Data_Block> wish;
        descriptor->copy_id = copy_id;
        EXPECT_EQ(SUCCESS, library().get_object(handle_, &descriptor.value, &wish.value))
            << last_error();
        EXPECT_TRUE(descriptor.intact() && wish.intact());
        std::string content, memory(BLOCK, '\0');
        Data_Block block = block_of(memory, 0);
        int code = SUCCESS;
        while ((code = library().get_data(handle_, &block)) == SUCCESS) {
            EXPECT_LE(block.num_bytes, BLOCK);
            if (block.num_bytes == 0)
                throw std::runtime_error("no data, and no end of them");
            content.append(memory, 0, block.num_bytes);
        }
        EXPECT_EQ(NO_MORE_DATA, code) << last_error();
        EXPECT_EQ(0u, block.num_bytes);
        EXPECT_EQ(SUCCESS, library().end_data(handle_));
        return content;
    }
    std::vector<std::string> find(Guarded<Query_Descriptor> wanted,
                                  std::vector<Object_Descriptor>* all = nullptr) {
        std::vector<std::string> paths;
        Guarded<Object_Descriptor> found;
        int code = library().query_object(handle_, &wanted.value, &found.value);
        while (code == SUCCESS && paths.size() < 1000) {
            paths.emplace_back(found->object_name.path_name);
            if (all)
                all->push_back(found.value);
            code = library().get_next_query_object(handle_, &found.value);
        }
        EXPECT_TRUE(wanted.intact() && found.intact());
        EXPECT_TRUE(code == (paths.empty() ? NO_MATCH : NO_MORE_DATA)) << code << last_error();
        return paths;
    }
    std::vector<std::string> find_all(Guarded<Query_Descriptor> wanted) {
        EXPECT_EQ(SUCCESS, library().begin_txn(handle_));
        std::vector<std::string> paths = find(std::move(wanted));
        EXPECT_EQ(SUCCESS, library().end_txn(handle_, COMMIT));
        return paths;
    }
    static Data_Block block_of(std::string& memory, size_t bytes) {
        return {static_cast<unsigned int>(memory.size()),
                static_cast<unsigned int>(bytes),
                0,
                0,
                0,
                memory.data()};
    }
    static std::string text(size_t size) {
        std::string made(size, '\0');
        for (size_t i = 0; i < size; ++i)
            made[i] = static_cast<char>(i * i >> 3);
        return made;
    }

    static constexpr size_t BLOCK = 65536;
    Xbsa_World world_;
    long handle_ = 0;
};

TEST_F(Xbsa_Standard, version_and_provider_are_known_before_a_session) {
    ASSERT_EQ(SUCCESS, library().terminate(handle_));
    Guarded<Api_Version> version;
    EXPECT_EQ(SUCCESS, library().query_api_version(&version.value));
    EXPECT_EQ(1, version->issue);
    EXPECT_EQ(1, version->version);
    EXPECT_EQ(0, version->level);
    EXPECT_TRUE(version.intact());
    unsigned int size = 0;
    char delimiter = 0;
    EXPECT_EQ(BUFFER_TOO_SMALL, library().query_service_provider(&size, &delimiter, nullptr));
    std::string provider(size, '\0');
    EXPECT_EQ(SUCCESS, library().query_service_provider(&size, &delimiter, provider.data()));
    EXPECT_EQ(2, std::count(provider.begin(), provider.end(), delimiter)) << "three fields";
    EXPECT_EQ(SUCCESS, open());
}

TEST_F(Xbsa_Standard, a_life_of_a_backup) {
    std::string const content = text(3 * BLOCK + 1000);
    unsigned long const first = put("/db/1", content);
    unsigned long const empty = put("/db/2", "");
    EXPECT_NE(0u, first);
    EXPECT_NE(first, empty);

    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    std::vector<Object_Descriptor> found;
    EXPECT_THAT(find(query("/db/*"), &found), ElementsAre("/db/2", "/db/1"));
    EXPECT_EQ(first, found[1].copy_id);
    EXPECT_EQ(content, get(found[1].copy_id));
    EXPECT_EQ("", get(empty));
    ASSERT_EQ(SUCCESS, library().end_txn(handle_, COMMIT));

    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    EXPECT_EQ(SUCCESS, library().delete_object(handle_, first));
    EXPECT_EQ(2u, find(query("/db/*")).size()) << "until the commit";
    ASSERT_EQ(SUCCESS, library().end_txn(handle_, COMMIT));
    EXPECT_THAT(find_all(query("/db/*")), ElementsAre("/db/2"));
    EXPECT_EQ(SUCCESS, library().terminate(handle_));
    EXPECT_EQ(INVALID_HANDLE, library().terminate(handle_));
    ASSERT_EQ(SUCCESS, open());
}

TEST_F(Xbsa_Standard, every_field_of_a_descriptor_stands_where_the_standard_has_it) {
    auto sent = object("/db/fields", 123456789);
    std::strcpy(sent->object_owner.bsa_object_owner, "service");
    sent->copy_type = COPY_ARCHIVE;
    sent->restore_order = 0x1122334455667788;
    sent->object_type = TYPE_DIRECTORY;
    std::memset(sent->resource_type, 'r', sizeof sent->resource_type - 1);
    std::memset(sent->object_description, 'd', sizeof sent->object_description - 1);
    for (size_t i = 0; i < sizeof sent->object_info; ++i)
        sent->object_info[i] = static_cast<unsigned char>(i + 1);
    sent->object_info[255] = 0x77;
    Object_Descriptor const before = sent.value;
    time_t const start = time(nullptr);
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    ASSERT_EQ(SUCCESS, create(sent, "content"));
    ASSERT_EQ(SUCCESS, library().end_txn(handle_, COMMIT));

    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    std::vector<Object_Descriptor> found;
    ASSERT_THAT(find(query("/db/fields"), &found), ElementsAre("/db/fields"));
    Object_Descriptor const& got = found[0];
    EXPECT_EQ(sent->copy_id, got.copy_id);
    EXPECT_STREQ("service", got.object_owner.bsa_object_owner);
    EXPECT_STREQ("gaussdb.cluster", got.object_owner.app_object_owner);
    EXPECT_STREQ("cluster", got.object_name.object_space_name);
    EXPECT_EQ(COPY_ARCHIVE, got.copy_type);
    EXPECT_EQ(before.restore_order, got.restore_order);
    EXPECT_EQ(123456789u, got.estimated_size) << "the application's own value";
    EXPECT_STREQ(before.resource_type, got.resource_type);
    EXPECT_EQ(TYPE_DIRECTORY, got.object_type);
    EXPECT_EQ(MOST_RECENT, got.object_status);
    EXPECT_STREQ(before.object_description, got.object_description);
    EXPECT_EQ(0, std::memcmp(before.object_info, got.object_info, sizeof got.object_info));
    tm created = got.create_time;
    EXPECT_GE(timegm(&created), start);
    EXPECT_LE(timegm(&created), time(nullptr));
}

TEST_F(Xbsa_Standard, every_field_of_a_query_stands_where_the_standard_has_it) {
    unsigned long const id = put("/db/1", "x");
    ASSERT_NE(0u, id);
    auto wanted = query("/db/1");
    // what is reserved is not looked at
    for (char* reserved : {wanted->rsv3, wanted->rsv4, wanted->rsv5})
        std::memset(reserved, 'x', 31);
    std::memset(wanted->rsv6, 'x', sizeof wanted->rsv6);
    std::memset(&wanted->rsv1, 'x', sizeof wanted->rsv1);
    std::memset(&wanted->rsv2, 'x', sizeof wanted->rsv2);
    time_t const hour = 3600, now = time(nullptr);
    auto const at = [](time_t seconds) { return *gmtime(&seconds); };
    wanted->create_time_from = at(now - hour);
    wanted->create_time_to = at(now + hour);
    std::strcpy(wanted->object_owner.app_object_owner, "gaussdb.cluster");
    std::strcpy(wanted->object_name.object_space_name, "cluster");
    wanted->copy_type = COPY_BACKUP;
    wanted->object_type = TYPE_FILE;
    wanted->object_status = MOST_RECENT;
    EXPECT_THAT(find_all(wanted), ElementsAre("/db/1"));
    for (int field = 0; field < 8; ++field) {
        auto other = wanted;
        switch (field) {
        case 0:
            std::strcpy(other->object_owner.bsa_object_owner, "somebody");
            break;
        case 1:
            std::strcpy(other->object_owner.app_object_owner, "gaussdb");
            break;
        case 2:
            std::strcpy(other->object_name.object_space_name, "");
            break;
        case 3:
            other->create_time_from = at(now + hour);
            break;
        case 4:
            other->create_time_to = at(now - hour);
            break;
        case 5:
            other->copy_type = COPY_ARCHIVE;
            break;
        case 6:
            other->object_type = TYPE_OTHER;
            break;
        case 7:
            other->object_status = NOT_MOST_RECENT;
            break;
        }
        EXPECT_THAT(find_all(other), IsEmpty()) << "field " << field;
    }
}

TEST_F(Xbsa_Standard, wildcards_of_a_query) {
    for (char const* path : {"/db/base/1", "/db/base/12", "/db/log/1", "/*"})
        put(path, "x");
    EXPECT_EQ(4u, find_all(query("/*")).size());
    EXPECT_THAT(find_all(query("/db/*/1")), ElementsAre("/db/log/1", "/db/base/1"));
    EXPECT_THAT(find_all(query("/db/base/1?")), ElementsAre("/db/base/12"));
    EXPECT_THAT(find_all(query("/\\*")), ElementsAre("/*"));
    EXPECT_THAT(find_all(query("/db")), IsEmpty());
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    Guarded<Object_Descriptor> found;
    for (auto change : {+[](Query_Descriptor& q) { q.object_name.path_name[0] = '\0'; },
                        +[](Query_Descriptor& q) { q.copy_type = Copy_Type(0); },
                        +[](Query_Descriptor& q) { q.object_type = Object_Type(0); },
                        +[](Query_Descriptor& q) { q.object_status = Object_Status(0); }}) {
        auto bad = query("/*");
        change(bad.value);
        EXPECT_EQ(INVALID_QUERYDESCRIPTOR,
                  library().query_object(handle_, &bad.value, &found.value));
        EXPECT_NE("", last_error());
    }
}

TEST_F(Xbsa_Standard, copies_of_one_name_are_kept_apart) {
    unsigned long const older = put("/db/1", "older"), newer = put("/db/1", "newer");
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    std::vector<Object_Descriptor> all;
    find(query("/db/1"), &all);
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(newer, all[0].copy_id);
    EXPECT_EQ(MOST_RECENT, all[0].object_status);
    EXPECT_EQ(older, all[1].copy_id);
    EXPECT_EQ(NOT_MOST_RECENT, all[1].object_status);
    EXPECT_EQ("older", get(older));
    EXPECT_EQ("newer", get(newer));
}

TEST_F(Xbsa_Standard, an_aborted_transaction_has_no_effect) {
    unsigned long const kept = put("/kept", "x");
    auto whole = object("/whole", 4), half = object("/half", 4);
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    ASSERT_EQ(SUCCESS, library().delete_object(handle_, kept));
    ASSERT_EQ(SUCCESS, create(whole, "text"));
    ASSERT_EQ(SUCCESS, library().create_object(handle_, &half.value, nullptr));
    EXPECT_EQ(SUCCESS, library().end_txn(handle_, ABORT));
    EXPECT_THAT(find_all(query("/*")), ElementsAre("/kept"));

    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    ASSERT_EQ(SUCCESS, create(whole, "text"));
    ASSERT_EQ(SUCCESS, library().terminate(handle_)) << "which aborts";
    ASSERT_EQ(SUCCESS, open());
    EXPECT_THAT(find_all(query("/*")), ElementsAre("/kept"));
}

TEST_F(Xbsa_Standard, a_transaction_without_calls_commits) {
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    EXPECT_EQ(SUCCESS, library().end_txn(handle_, COMMIT));
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    EXPECT_EQ(SUCCESS, library().end_txn(handle_, ABORT));
}

TEST_F(Xbsa_Standard, a_commit_that_fails_is_an_abort) {
    world_.agent["fail"] = json_spirit::Object{
        {"catalog.add_piece",
         json_spirit::Array{json_spirit::Object{{"error", json_spirit::Array{-32005, "full"}}}}}};
    world_.save_agent();
    auto made = object("/x", 1);
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    ASSERT_EQ(SUCCESS, create(made, "x"));
    EXPECT_EQ(TRANSACTION_ABORTED, library().end_txn(handle_, COMMIT));
    EXPECT_THAT(last_error(), HasSubstr("full"));
    EXPECT_EQ(INVALID_CALL_SEQUENCE, library().end_txn(handle_, ABORT)) << "it has ended";
    EXPECT_THAT(find_all(query("/*")), IsEmpty());
    EXPECT_NE(0u, put("/x", "x"));
}

// the order of the calls: what each of them gives in each state

TEST_F(Xbsa_Standard, calls_in_each_state) {
    unsigned long const id = put("/x", "content");
    std::string memory(100, 'm');
    enum State { OUTSIDE, BEGUN, MODIFYING, RETRIEVING, QUERIED, SENDING, READING, STATES };
    auto const enter = [&](State state) {
        if (state == OUTSIDE)
            return;
        EXPECT_EQ(SUCCESS, library().begin_txn(handle_));
        auto descriptor = object("/new", 1);
        if (state == MODIFYING) {
            EXPECT_EQ(SUCCESS, create(descriptor, "x"));
        } else if (state == SENDING) {
            EXPECT_EQ(SUCCESS, library().create_object(handle_, &descriptor.value, nullptr));
        } else if (state == QUERIED) {
            auto wanted = query("/*");
            EXPECT_EQ(SUCCESS, library().query_object(handle_, &wanted.value, &descriptor.value));
        } else if (state == RETRIEVING) {
            EXPECT_EQ("content", get(id));
        } else if (state == READING) {
            descriptor->copy_id = id;
            EXPECT_EQ(SUCCESS, library().get_object(handle_, &descriptor.value, nullptr));
        }
    };
    struct Call {
        char const* name;
        std::vector<State> allowed;
        std::function<int()> make;
    };
    Data_Block block = block_of(memory, 1);
    auto wanted = query("/*");
    Guarded<Object_Descriptor> other;
    std::vector<Call> const calls{
        {"BSABeginTxn", {OUTSIDE}, [&] { return library().begin_txn(handle_); }},
        {"BSAEndTxn commit",
         {BEGUN, MODIFYING, RETRIEVING, QUERIED},
         [&] { return library().end_txn(handle_, COMMIT); }},
        {"BSAEndTxn abort",
         {BEGUN, MODIFYING, RETRIEVING, QUERIED, SENDING, READING},
         [&] { return library().end_txn(handle_, ABORT); }},
        {"BSACreateObject",
         {BEGUN, MODIFYING, QUERIED},
         [&] {
             other = object("/other", 1);
             return library().create_object(handle_, &other.value, nullptr);
         }},
        {"BSADeleteObject",
         {BEGUN, MODIFYING, QUERIED},
         [&] { return library().delete_object(handle_, id); }},
        {"BSASendData", {SENDING}, [&] { return library().send_data(handle_, &block); }},
        {"BSAEndData", {SENDING, READING}, [&] { return library().end_data(handle_); }},
        {"BSAGetObject",
         {BEGUN, RETRIEVING, QUERIED},
         [&] {
             other->copy_id = id;
             return library().get_object(handle_, &other.value, nullptr);
         }},
        {"BSAGetData", {READING}, [&] { return library().get_data(handle_, &block); }},
        {"BSAQueryObject",
         {BEGUN, MODIFYING, RETRIEVING, QUERIED},
         [&] { return library().query_object(handle_, &wanted.value, &other.value); }},
        {"BSAGetNextQueryObject",
         {QUERIED},
         [&] {
             int const code = library().get_next_query_object(handle_, &other.value);
             return code == NO_MORE_DATA ? SUCCESS : code;
         }},
    };
    for (Call const& one : calls)
        for (int state = OUTSIDE; state < STATES; ++state) {
            enter(static_cast<State>(state));
            block = block_of(memory, 1);
            bool const allowed =
                std::find(one.allowed.begin(), one.allowed.end(), state) != one.allowed.end();
            EXPECT_EQ(allowed ? SUCCESS : INVALID_CALL_SEQUENCE, one.make())
                << one.name << " in state " << state << ": " << last_error();
            library().end_txn(handle_, ABORT); // out of whatever it is in
        }
    EXPECT_THAT(find_all(query("/*")), testing::Contains("/x")) << "nothing has changed";
}

// codes that name an argument

TEST_F(Xbsa_Standard, environments_that_are_refused) {
    long const session = handle_;
    EXPECT_EQ(INVALID_ENV, open({"NBBSA_POLICY=nightly"})) << "BSA_API_VERSION is mandatory";
    EXPECT_EQ(VERSION_NOT_SUPPORTED, open({"BSA_API_VERSION=1.2.0", "NBBSA_POLICY=nightly"}));
    EXPECT_EQ(INVALID_ENV, open({"BSA_API_VERSION = 1.1.0", "NBBSA_POLICY=nightly"}));
    EXPECT_EQ(INVALID_ENV, open({"BSA_API_VERSION=1.1.0"}));
    EXPECT_EQ(INVALID_ENV, open({"BSA_API_VERSION=1.1.0", "NBBSA_POLICY=none"}));
    EXPECT_NE("", last_error());
    EXPECT_EQ(session, handle_) << "unchanged";
    world_.policy["access_key"] = "wrong";
    world_.save_policy();
    EXPECT_EQ(AUTHENTICATION_FAILURE, open());
}

TEST_F(Xbsa_Standard, arguments_that_are_refused) {
    std::string memory(100, 'm');
    auto descriptor = object("/x", 1);
    auto wanted = query("/*");
    EXPECT_EQ(NULL_ARGUMENT, library().init(nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(NULL_ARGUMENT, library().query_api_version(nullptr));
    EXPECT_EQ(INVALID_HANDLE, library().begin_txn(handle_ + 1000));
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    EXPECT_EQ(INVALID_VOTE, library().end_txn(handle_, Vote(0)));
    EXPECT_EQ(INVALID_VOTE, library().end_txn(handle_, Vote(3)));
    EXPECT_EQ(INVALID_COPYID, library().delete_object(handle_, 0));
    EXPECT_EQ(OBJECT_NOT_FOUND, library().delete_object(handle_, 4711));
    descriptor->copy_id = 4711;
    EXPECT_EQ(OBJECT_NOT_FOUND, library().get_object(handle_, &descriptor.value, nullptr));
    EXPECT_EQ(NULL_ARGUMENT, library().get_object(handle_, nullptr, nullptr));
    EXPECT_EQ(NULL_ARGUMENT, library().create_object(handle_, nullptr, nullptr));
    EXPECT_EQ(NULL_ARGUMENT, library().query_object(handle_, nullptr, &descriptor.value));
    EXPECT_EQ(NULL_ARGUMENT, library().query_object(handle_, &wanted.value, nullptr));
    EXPECT_EQ(NULL_ARGUMENT, library().get_next_query_object(handle_, nullptr));
    for (auto change :
         {+[](Object_Descriptor& d) { d.copy_type = COPY_ANY; },
          +[](Object_Descriptor& d) { d.object_type = TYPE_ANY; },
          +[](Object_Descriptor& d) { d.object_name = Name{}; },
          +[](Object_Descriptor& d) { std::memset(d.resource_type, 'x', sizeof d.resource_type); },
          +[](Object_Descriptor& d) {
              std::memset(d.object_description, 'x', sizeof d.object_description);
          }}) {
        auto bad = object("/x", 1);
        change(bad.value);
        EXPECT_EQ(INVALID_OBJECTDESCRIPTOR, library().create_object(handle_, &bad.value, nullptr));
    }
    ASSERT_EQ(SUCCESS, library().create_object(handle_, &descriptor.value, nullptr));
    EXPECT_EQ(NULL_ARGUMENT, library().send_data(handle_, nullptr));
    Data_Block block = block_of(memory, 101);
    EXPECT_EQ(INVALID_DATABLOCK, library().send_data(handle_, &block));
    block = block_of(memory, 100);
    block.header_bytes = 1;
    EXPECT_EQ(INVALID_DATABLOCK, library().send_data(handle_, &block));
    block = block_of(memory, 100);
    block.buffer = nullptr;
    EXPECT_EQ(INVALID_DATABLOCK, library().send_data(handle_, &block));
    block = block_of(memory, 100);
    EXPECT_EQ(SUCCESS, library().send_data(handle_, &block));
}

TEST_F(Xbsa_Standard, a_pool_for_restores_only_is_an_access_failure) {
    put("/x", "x");
    world_.pool()["read_only"] = true;
    world_.save_agent();
    ASSERT_EQ(SUCCESS, library().terminate(handle_));
    ASSERT_EQ(SUCCESS, open());
    auto descriptor = object("/y", 1);
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    EXPECT_EQ(ACCESS_FAILURE, library().create_object(handle_, &descriptor.value, nullptr));
    EXPECT_THAT(find(query("/*")), ElementsAre("/x"));
}

TEST_F(Xbsa_Standard, damaged_data_are_a_system_error) {
    unsigned long const id = put("/x", text(BLOCK));
    std::fstream file(world_.data_files().at(0), std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(BLOCK / 2).put('!');
    file.close();
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    Guarded<Object_Descriptor> descriptor;
    descriptor->copy_id = id;
    ASSERT_EQ(SUCCESS, library().get_object(handle_, &descriptor.value, nullptr));
    std::string memory(BLOCK, '\0');
    Data_Block block = block_of(memory, 0);
    EXPECT_EQ(ABORT_SYSTEM_ERROR, library().get_data(handle_, &block));
    EXPECT_THAT(last_error(), HasSubstr("is damaged"));
    EXPECT_EQ(SUCCESS, library().end_txn(handle_, ABORT));
}

TEST_F(Xbsa_Standard, the_environment_can_be_asked_for) {
    Owner owner{};
    char* texts[4] = {};
    EXPECT_EQ(SUCCESS, library().get_environment(handle_, &owner, texts));
    EXPECT_STREQ("gaussdb.cluster", owner.app_object_owner);
    EXPECT_STREQ("BSA_API_VERSION=1.1.0", texts[0]);
    EXPECT_STREQ("BSA_DELIMITER=/", texts[1]);
    EXPECT_STREQ("NBBSA_POLICY=nightly", texts[2]);
    EXPECT_EQ(nullptr, texts[3]);
    EXPECT_EQ(INVALID_HANDLE, library().get_environment(handle_ + 1000, &owner, texts));
}

TEST_F(Xbsa_Standard, the_last_error_is_that_of_the_last_call) {
    EXPECT_EQ(INVALID_CALL_SEQUENCE, library().end_data(handle_));
    unsigned int size = 3;
    char text[100] = "xx";
    EXPECT_EQ(BUFFER_TOO_SMALL, library().get_last_error(&size, text));
    EXPECT_STREQ("xx", text);
    EXPECT_EQ(SUCCESS, library().get_last_error(&size, text));
    EXPECT_EQ(std::strlen(text) + 1, size);
    ASSERT_EQ(SUCCESS, library().begin_txn(handle_));
    size = sizeof text;
    EXPECT_EQ(SUCCESS, library().get_last_error(&size, text));
    EXPECT_EQ(0u, size) << "nothing has failed";
}

} // namespace
