#include "host/http/http_method.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(http_method, the_numbers_are_fixed) {
    EXPECT_EQ(3, HTTP_METHOD_GET);
    EXPECT_EQ(0, HTTP_METHOD_UNKNOWN);
}

TEST(http_method, every_method_has_its_name_and_the_name_its_method) {
    std::pair<int, char const*> const methods[] = {
        {HTTP_METHOD_CONNECT, "CONNECT"}, {HTTP_METHOD_DELETE, "DELETE"},
        {HTTP_METHOD_GET, "GET"},         {HTTP_METHOD_HEAD, "HEAD"},
        {HTTP_METHOD_OPTIONS, "OPTIONS"}, {HTTP_METHOD_PATCH, "PATCH"},
        {HTTP_METHOD_POST, "POST"},       {HTTP_METHOD_PUT, "PUT"},
        {HTTP_METHOD_TRACE, "TRACE"},
    };
    for (auto const& [method, name] : methods) {
        EXPECT_STREQ(name, http_method_name(method));
        EXPECT_EQ(method, http_method_value(name));
    }
}

TEST(http_method, a_number_that_is_no_method_is_called_unknown) {
    for (int const number : {-1, 0, 10, 1000000})
        EXPECT_STREQ("UNKNOWN", http_method_name(number));
}

TEST(http_method, names_are_case_sensitive_and_unknown_is_no_name) {
    for (char const* name : {"get", "GET ", "", "UNKNOWN"})
        EXPECT_EQ(HTTP_METHOD_UNKNOWN, http_method_value(name)) << name;
}

TEST(http_method, only_post_patch_and_connect_are_not_idempotent) {
    for (int const method : std::initializer_list<int>{HTTP_METHOD_POST, HTTP_METHOD_PATCH,
                                                       HTTP_METHOD_CONNECT, 0, 99, -7})
        EXPECT_FALSE(http_method_idempotent(method)) << method;
    for (int const method : {HTTP_METHOD_DELETE, HTTP_METHOD_GET, HTTP_METHOD_HEAD,
                             HTTP_METHOD_OPTIONS, HTTP_METHOD_PUT, HTTP_METHOD_TRACE})
        EXPECT_TRUE(http_method_idempotent(method)) << method;
}

} // namespace
