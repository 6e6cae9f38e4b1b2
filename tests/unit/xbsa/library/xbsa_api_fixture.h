#ifndef TESTS_UNIT_XBSA_LIBRARY_XBSA_API_FIXTURE_H
#define TESTS_UNIT_XBSA_LIBRARY_XBSA_API_FIXTURE_H

#include "json_spirit/access.h"
#include "tests/support/log_capture.h"
#include "tests/support/xbsa_client.h"
#include "tests/support/xbsa_world.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

/** The call gave a code and, unless the text is "", said why: to the caller and to the log. */
#define EXPECT_REFUSED(code, text, call)                                                           \
    do {                                                                                           \
        EXPECT_EQ(code, call);                                                                     \
        EXPECT_THAT(xbsa::last_error(), testing::HasSubstr(text));                                 \
        EXPECT_LOGGED(LM_ERROR, text);                                                             \
    } while (0)

/** A session in a world of its own. */
class Xbsa_Api : public testing::Test {
protected:
    void open_session() {
        ASSERT_EQ(BSA_RC_SUCCESS, xbsa::open(handle_, Xbsa_World::POLICY)) << xbsa::last_error();
    }
    void TearDown() override {
        if (handle_)
            BSATerminate(handle_);
        Log_Capture::instance().claim_all(LM_ERROR, "BSATerminate: there is no such session");
    }
    /** Opens the session anew, with the policy as it is now. */
    void reopen() {
        world_.save_policy();
        world_.save_agent();
        if (handle_) {
            EXPECT_EQ(BSA_RC_SUCCESS, BSATerminate(handle_));
        }
        handle_ = 0;
        open_session();
    }
    void fail(std::string const& method, json_spirit::Array failures) {
        world_.agent["fail"] = json_spirit::Object{{method, std::move(failures)}};
        world_.save_agent();
    }
    static std::string data(size_t size) {
        std::string text(size, '\0');
        uint32_t state = 12345;
        for (char& c : text)
            c = static_cast<char>((state = state * 1664525 + 1013904223) >> 24 & 0x3f);
        return text;
    }

    Xbsa_World world_;
    long handle_ = 0;
    std::string version_ = "BSA_API_VERSION=1.1.0";
};

#endif
