#include "host/agent/object_creator.h"

#include "tests/support/failing_new.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string lived;

struct Base {
    virtual ~Base() = default;
    virtual char const* name() const { return "base"; }
};

struct Derived : Base {
    Derived() { lived += "made "; }
    ~Derived() override { lived += "destroyed "; }
    char const* name() const override { return "derived"; }
};

/** A class for which there is never memory. */
struct Greedy : Base {
    static void* operator new(size_t, std::nothrow_t const&) noexcept { return nullptr; }
    static void operator delete(void*) {}
};

using Base_Creator = Object_Creator_T<Base>;

class Object_Creator_Test : public testing::Test {
protected:
    Object_Creator_Test() { lived.clear(); }
};

TEST_F(Object_Creator_Test, creates_the_derived_class_and_destroys_it_through_the_base) {
    Object_Creator_Impl_T<Base_Creator, Derived> creator;
    Base_Creator& seen = creator;
    Base* const object = seen.create();
    ASSERT_TRUE(object);
    EXPECT_STREQ("derived", object->name());
    seen.destroy(object);
    EXPECT_EQ("made destroyed ", lived);
}

TEST_F(Object_Creator_Test, destroys_no_null) {
    Object_Creator_Impl_T<Base_Creator, Derived> creator;
    creator.destroy(nullptr);
    EXPECT_EQ("", lived);
}

TEST_F(Object_Creator_Test, a_class_without_memory_gives_null_and_ENOMEM) {
    Object_Creator_Impl_T<Base_Creator, Greedy> creator;
    errno = 0;
    EXPECT_EQ(nullptr, creator.create());
    EXPECT_EQ(ENOMEM, errno);
}

TEST_F(Object_Creator_Test, no_memory_at_all_gives_null_and_ENOMEM) {
    Object_Creator_Impl_T<Base_Creator, Derived> creator;
    errno = 0;
    Failing_New const no_memory(sizeof(Derived));
    EXPECT_EQ(nullptr, creator.create());
    EXPECT_EQ(ENOMEM, errno);
    EXPECT_EQ("", lived);
}

TEST_F(Object_Creator_Test, a_success_leaves_errno_alone) {
    Object_Creator_Impl_T<Base_Creator, Derived> creator;
    errno = EINTR;
    creator.destroy(creator.create());
    EXPECT_EQ(EINTR, errno);
}

TEST_F(Object_Creator_Test, init_and_fini_succeed_unless_overridden) {
    Object_Creator_Impl_T<Base_Creator, Derived> creator;
    EXPECT_EQ(0, creator.init(0, nullptr));
    EXPECT_EQ(0, creator.fini());
}

} // namespace
