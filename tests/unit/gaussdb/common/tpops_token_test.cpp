#include "gaussdb/common/tpops_token.h"

#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <thread>

namespace {

class TPOPS_Token_Test : public testing::Test {
protected:
    ~TPOPS_Token_Test() override { TPOPS_Token::close_instance(); }
    TPOPS_Token& tokens_ = *TPOPS_Token::instance();
};

TEST_F(TPOPS_Token_Test, a_newer_token_replaces_the_older) {
    EXPECT_EQ("", tokens_.get_token("u"));
    tokens_.set_token("u", "one");
    tokens_.set_token("v", "other");
    EXPECT_EQ("one", tokens_.get_token("u"));
    tokens_.set_token("u", "two");
    EXPECT_EQ("two", tokens_.get_token("u"));
    EXPECT_EQ("other", tokens_.get_token("v"));
}

TEST_F(TPOPS_Token_Test, nothing_is_stored_for_null_or_empty_texts) {
    tokens_.set_token("u", "one");
    tokens_.set_token("u", "");
    tokens_.set_token("u", nullptr);
    tokens_.set_token("", "x");
    tokens_.set_token(nullptr, "x");
    EXPECT_EQ("one", tokens_.get_token("u"));
    EXPECT_EQ("", Log_Capture::instance().dump());
}

TEST_F(TPOPS_Token_Test, a_token_of_nobody_is_a_broken_precondition) {
    EXPECT_EQ("", tokens_.get_token(nullptr));
    EXPECT_CHECK_LOGGED("user is NULL or \"\"");
    EXPECT_EQ("", tokens_.get_token(""));
    EXPECT_CHECK_LOGGED("user is NULL or \"\"");
}

TEST_F(TPOPS_Token_Test, the_end_of_the_module_forgets_all) {
    tokens_.set_token("u", "one");
    TPOPS_Token_fini();
    EXPECT_EQ("", TPOPS_Token::instance()->get_token("u"));
}

TEST(TPOPS_Token_Instance_Test, there_is_one_unless_memory_is_short) {
    TPOPS_Token::close_instance();
    {
        Failing_New const guard(sizeof(TPOPS_Token));
        errno = 0;
        EXPECT_EQ(nullptr, TPOPS_Token::instance());
        EXPECT_EQ(ENOMEM, errno);
    }
    TPOPS_Token* const first = TPOPS_Token::instance();
    EXPECT_NE(nullptr, first);
    EXPECT_EQ(first, TPOPS_Token::instance());
    TPOPS_Token::close_instance();
}

TEST_F(TPOPS_Token_Test, threads_may_use_it_at_once) {
    auto const work = [&](char const* token) {
        for (int round = 0; round < 1000; ++round) {
            tokens_.set_token("u", token);
            std::string const seen = tokens_.get_token("u");
            EXPECT_TRUE(seen == "token of one" || seen == "token of the other") << seen;
        }
    };
    std::thread other(work, "token of the other");
    work("token of one");
    other.join();
}

} // namespace
