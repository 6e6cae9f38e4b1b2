#include "host/agent/object_creator.h"

#include "gaussdb/job/gaussdb_job_creator.h"
#include "tests/support/failing_new.h"
#include "tests/unit/gaussdb/job/job_definition_fixture.h"

#include <gtest/gtest.h>

using Parser_Creator = Object_Creator_T<YAJL_Handler>;
using Exterminator = void (*)(void*);

// as an agent looks them up
extern "C" {
Parser_Creator* _make_GaussDB_Backup_Job_Options_Parser_Creator(Exterminator*);
Parser_Creator* _make_GaussDB_Restore_Job_Options_Parser_Creator(Exterminator*);
Parser_Creator* _make_GaussDB_Backup_Job_Source_Parser_Creator(Exterminator*);
Parser_Creator* _make_GaussDB_Restore_Job_Source_Parser_Creator(Exterminator*);
Job_Creator* _make_GaussDB_Job_Creator(Job_Creator_Exterminator*);
void _gobble_GaussDB_Job_Creator(void*);
void _gobble_GaussDB_Backup_Job_Options_Parser_Creator(void*);
void _gobble_GaussDB_Restore_Job_Options_Parser_Creator(void*);
void _gobble_GaussDB_Backup_Job_Source_Parser_Creator(void*);
void _gobble_GaussDB_Restore_Job_Source_Parser_Creator(void*);
}

namespace {

template <typename Kind>
struct Pair;
template <>
struct Pair<Backup_Options> {
    static constexpr auto make = _make_GaussDB_Backup_Job_Options_Parser_Creator;
    static constexpr auto gobble = _gobble_GaussDB_Backup_Job_Options_Parser_Creator;
};
template <>
struct Pair<Restore_Options> {
    static constexpr auto make = _make_GaussDB_Restore_Job_Options_Parser_Creator;
    static constexpr auto gobble = _gobble_GaussDB_Restore_Job_Options_Parser_Creator;
};
template <>
struct Pair<Backup_Source> {
    static constexpr auto make = _make_GaussDB_Backup_Job_Source_Parser_Creator;
    static constexpr auto gobble = _gobble_GaussDB_Backup_Job_Source_Parser_Creator;
};
template <>
struct Pair<Restore_Source> {
    static constexpr auto make = _make_GaussDB_Restore_Job_Source_Parser_Creator;
    static constexpr auto gobble = _gobble_GaussDB_Restore_Job_Source_Parser_Creator;
};

template <typename Kind>
class Job_Definition_Exports : public testing::Test {};
using Kinds = testing::Types<Backup_Options, Restore_Options, Backup_Source, Restore_Source>;
TYPED_TEST_SUITE(Job_Definition_Exports, Kinds);

template <typename Kind>
using Creator_Impl = Object_Creator_Impl_T<Parser_Creator, typename Kind::Parser>;

TYPED_TEST(Job_Definition_Exports, make_without_a_gobbler_returns_a_creator_of_the_parser) {
    Parser_Creator* const creator = Pair<TypeParam>::make(nullptr);
    ASSERT_TRUE(creator);
    EXPECT_TRUE(dynamic_cast<Creator_Impl<TypeParam>*>(creator));
    EXPECT_EQ(0, creator->init(0, nullptr));
    Pair<TypeParam>::gobble(creator);
}

TYPED_TEST(Job_Definition_Exports, make_stores_the_paired_gobble) {
    Exterminator gobble = nullptr;
    Parser_Creator* const creator = Pair<TypeParam>::make(&gobble);
    ASSERT_TRUE(creator);
    EXPECT_EQ(Pair<TypeParam>::gobble, gobble);
    gobble(creator);
}

TYPED_TEST(Job_Definition_Exports, the_parser_that_it_creates_parses) {
    Parser_Creator* const creator = Pair<TypeParam>::make(nullptr);
    YAJL_Handler* const handler = creator->create();
    auto* const parser = dynamic_cast<typename TypeParam::Parser*>(handler);
    ASSERT_TRUE(parser);
    std::string const text = TypeParam::SAMPLE;
    EXPECT_TRUE(parser->parse(text.data(), text.size()) && parser->complete()) << parser->error();
    EXPECT_TRUE(dynamic_cast<typename TypeParam::Object*>(parser->result()));
    creator->destroy(handler);
    creator->destroy(nullptr);
    Pair<TypeParam>::gobble(creator);
}

TYPED_TEST(Job_Definition_Exports, without_memory_make_returns_null_and_stores_gobble_first) {
    Exterminator gobble = nullptr;
    errno = 0;
    Failing_New const no_memory(sizeof(Creator_Impl<TypeParam>));
    EXPECT_EQ(nullptr, Pair<TypeParam>::make(&gobble));
    EXPECT_EQ(Pair<TypeParam>::gobble, gobble);
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ(nullptr, Pair<TypeParam>::make(nullptr));
}

TYPED_TEST(Job_Definition_Exports, without_memory_create_returns_null) {
    Parser_Creator* const creator = Pair<TypeParam>::make(nullptr);
    {
        errno = 0;
        Failing_New const no_memory(sizeof(typename TypeParam::Parser));
        EXPECT_EQ(nullptr, creator->create());
        EXPECT_EQ(ENOMEM, errno);
    }
    Pair<TypeParam>::gobble(creator);
}

TYPED_TEST(Job_Definition_Exports, gobble_ignores_null) {
    Pair<TypeParam>::gobble(nullptr);
}

TYPED_TEST(Job_Definition_Exports, gobble_calls_fini_before_the_destructor) {
    struct Telling_Creator : Creator_Impl<TypeParam> {
        explicit Telling_Creator(std::string& log) : log_(log) {}
        ~Telling_Creator() override { log_ += "destroyed"; }
        int fini() override {
            log_ += "fini ";
            return 0;
        }
        std::string& log_;
    };
    std::string log;
    Pair<TypeParam>::gobble(static_cast<Parser_Creator*>(new Telling_Creator(log)));
    EXPECT_EQ("fini destroyed", log);
}

TEST(Job_Creator_Exports, make_without_a_gobbler_returns_a_creator_and_writes_nothing) {
    Job_Creator* const creator = _make_GaussDB_Job_Creator(nullptr);
    EXPECT_TRUE(dynamic_cast<GaussDB_Job_Creator*>(creator));
    _gobble_GaussDB_Job_Creator(creator);
}

TEST(Job_Creator_Exports, without_memory_make_returns_null_and_stores_gobble_first) {
    Job_Creator_Exterminator gobble = nullptr;
    errno = 0;
    Failing_New const no_memory(sizeof(GaussDB_Job_Creator));
    EXPECT_EQ(nullptr, _make_GaussDB_Job_Creator(&gobble));
    EXPECT_EQ(&_gobble_GaussDB_Job_Creator, gobble);
    EXPECT_EQ(ENOMEM, errno);
}

TEST(Job_Creator_Exports, gobble_ignores_null_and_does_not_call_fini) {
    struct Telling_Creator : GaussDB_Job_Creator {
        explicit Telling_Creator(std::string& log) : log_(log) {}
        ~Telling_Creator() override { log_ += "destroyed"; }
        int fini() override {
            log_ += "fini ";
            return 0;
        }
        std::string& log_;
    };
    std::string log;
    _gobble_GaussDB_Job_Creator(nullptr);
    _gobble_GaussDB_Job_Creator(static_cast<Job_Creator*>(new Telling_Creator(log)));
    EXPECT_EQ("destroyed", log);
}

} // namespace
