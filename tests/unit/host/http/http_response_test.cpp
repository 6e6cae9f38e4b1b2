#include "host/http/http_response.h"

#include <gtest/gtest.h>

namespace {

TEST(HTTP_Response, begins_as_no_answer) {
    HTTP_Response const response;
    EXPECT_EQ(0, response.status());
    EXPECT_FALSE(response.ok());
    EXPECT_EQ("", response.body());
    EXPECT_EQ("", response.error());
}

TEST(HTTP_Response, only_200_to_299_is_well) {
    HTTP_Response response;
    for (auto const& [status, ok] : {std::pair(199, false),
                                     {200, true},
                                     {204, true},
                                     {299, true},
                                     {300, false},
                                     {500, false}}) {
        response.status(status);
        EXPECT_EQ(ok, response.ok()) << status;
    }
}

TEST(HTTP_Response, clear_leaves_nothing) {
    HTTP_Response response;
    response.status(200);
    response.headers().put("A", "1");
    response.body("b");
    response.error("e");
    response.clear();
    EXPECT_EQ(0, response.status());
    EXPECT_TRUE(response.headers().fields().empty());
    EXPECT_EQ("", response.body());
    EXPECT_EQ("", response.error());
}

} // namespace
