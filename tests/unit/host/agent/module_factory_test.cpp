#include "host/agent/module_factory.h"

#include "host/agent/object_creator.h"
#include "tests/support/failing_new.h"

#include <gtest/gtest.h>
#include <string>

namespace local {

std::string happened;

struct Service {
    virtual ~Service() { happened += "base gone "; }
    virtual int fini() {
        happened += "fini ";
        return 0;
    }
};

struct Other {
    virtual ~Other() = default;
    int other = 0;
};

/** Its Service is not at its beginning. */
struct Object : Other, Service {
    Object() { happened += "made "; }
    ~Object() override { happened += "destroyed "; }
};

/** A class for which there is never memory. */
struct Greedy : Service {
    static void* operator new(size_t, std::nothrow_t const&) noexcept { return nullptr; }
    static void operator delete(void*) {}
};

using Service_Creator = Object_Creator_T<Service>;

template <typename P>
class Telling_Creator_T : public Object_Creator_Impl_T<Service_Creator, P> {
public:
    ~Telling_Creator_T() override { happened += "creator gone "; }
    int fini() override {
        happened += "creator fini ";
        return 0;
    }
};

} // namespace local

MODULE_FACTORY(Local_Object, local::Service, local::Object)
MODULE_FACTORY(Local_Greedy, local::Service, local::Greedy)
MODULE_CREATOR_FACTORY(Local_Creator, Object_Creator_T<local::Service>,
                       local::Telling_Creator_T<local::Object>)

namespace {

using local::happened;
using Exterminator = void (*)(void*);

class Module_Factory_Test : public testing::Test {
protected:
    Module_Factory_Test() { happened.clear(); }
};

TEST_F(Module_Factory_Test, make_without_a_gobbler_returns_an_object) {
    local::Service* const object = _make_Local_Object(nullptr);
    ASSERT_TRUE(object);
    EXPECT_EQ("made ", happened);
    _gobble_Local_Object(object);
}

TEST_F(Module_Factory_Test, make_stores_the_paired_gobble) {
    Exterminator gobble = nullptr;
    local::Service* const object = _make_Local_Object(&gobble);
    EXPECT_EQ(&_gobble_Local_Object, gobble);
    gobble(object);
    EXPECT_EQ("made destroyed base gone ", happened);
}

TEST_F(Module_Factory_Test, gobble_is_stored_even_when_there_is_no_memory) {
    Exterminator gobble = nullptr;
    errno = 0;
    EXPECT_EQ(nullptr, _make_Local_Greedy(&gobble));
    EXPECT_EQ(&_gobble_Local_Greedy, gobble);
    EXPECT_EQ(ENOMEM, errno);
}

TEST_F(Module_Factory_Test, no_memory_and_no_gobbler_is_null_and_ENOMEM) {
    errno = 0;
    EXPECT_EQ(nullptr, _make_Local_Greedy(nullptr));
    EXPECT_EQ(ENOMEM, errno);
}

TEST_F(Module_Factory_Test, no_memory_at_all_makes_nothing) {
    Exterminator gobble = nullptr;
    Failing_New const no_memory(sizeof(local::Object));
    EXPECT_EQ(nullptr, _make_Local_Object(&gobble));
    EXPECT_EQ(&_gobble_Local_Object, gobble);
    EXPECT_EQ("", happened);
}

TEST_F(Module_Factory_Test, gobble_ignores_null) {
    _gobble_Local_Object(nullptr);
    _gobble_Local_Creator(nullptr);
    EXPECT_EQ("", happened);
}

TEST_F(Module_Factory_Test, gobble_does_not_call_fini) {
    _gobble_Local_Object(_make_Local_Object(nullptr));
    EXPECT_EQ(std::string::npos, happened.find("fini"));
}

TEST_F(Module_Factory_Test, gobble_of_a_parser_creator_calls_fini_before_the_destructor) {
    Exterminator gobble = nullptr;
    Object_Creator_T<local::Service>* const creator = _make_Local_Creator(&gobble);
    ASSERT_TRUE(creator);
    EXPECT_EQ(&_gobble_Local_Creator, gobble);
    local::Service* const object = creator->create();
    creator->destroy(object);
    happened.clear();
    gobble(creator);
    EXPECT_EQ("creator fini creator gone ", happened);
}

} // namespace
