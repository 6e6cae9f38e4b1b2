#include "host/http/http_query_string_builder_t.h"

#include "host/http/http_request.h"

#include <climits>
#include <gtest/gtest.h>
#include <sstream>

namespace {

class HTTP_Query_String_Builder_Test : public testing::Test {
protected:
    std::string text_;
    HTTP_Query_String_Builder builder_{std::back_inserter(text_), false};
};

TEST_F(HTTP_Query_String_Builder_Test, the_flags_are_slash_and_space) {
    EXPECT_EQ(3, HTTP_Query_String_Builder::ENCODE_FLAGS);
}

TEST_F(HTTP_Query_String_Builder_Test, keys_after_the_first_are_led_in_by_an_ampersand) {
    builder_("instance_id", "i1", true, true, nullptr)("begin_time", "b", true, true, nullptr);
    builder_("limit", 100u, true, nullptr);
    EXPECT_EQ("instance_id=i1&begin_time=b&limit=100", text_);
}

TEST_F(HTTP_Query_String_Builder_Test, an_ampersand_leads_in_the_first_key_when_told_so) {
    HTTP_Query_String_Builder(std::back_inserter(text_), true)("a", "1");
    EXPECT_EQ("&a=1", text_);
}

TEST_F(HTTP_Query_String_Builder_Test, a_null_or_empty_key_writes_nothing_at_all) {
    builder_(nullptr, "1")("", "2")(nullptr, 3u)("", 4u)("a", "5")("", "6")("b", "7");
    EXPECT_EQ("a=5&b=7", text_);
}

TEST_F(HTTP_Query_String_Builder_Test, a_null_value_writes_no_equals_sign) {
    builder_("a", static_cast<char const*>(nullptr))("b", "1");
    EXPECT_EQ("a&b=1", text_);
}

TEST_F(HTTP_Query_String_Builder_Test, an_empty_value_writes_the_equals_sign) {
    builder_("a", "")("b", "1");
    EXPECT_EQ("a=&b=1", text_);
}

TEST_F(HTTP_Query_String_Builder_Test, keys_and_values_are_encoded_each_as_told) {
    builder_("k/ 1", "v:+ /", true, true, nullptr)("k/2", "v:", false, true, nullptr);
    builder_("k/3", "v:", true, false, nullptr)("k/4", "v:", false, false, nullptr);
    EXPECT_EQ("k%2f+1=v%3a%2b+%2f&k/2=v%3a&k%2f3=v:&k/4=v:", text_);
}

TEST_F(HTTP_Query_String_Builder_Test, the_prefix_goes_with_the_key) {
    builder_("k", "v", true, true, "p/")("k", "v", false, true, "p/")("n", 1u, true, "p.");
    EXPECT_EQ("p%2fk=v&p/k=v&p.n=1", text_);
}

TEST_F(HTTP_Query_String_Builder_Test, a_prefix_without_a_key_writes_nothing) {
    builder_("", "v", true, true, "p");
    EXPECT_EQ("", text_);
}

TEST_F(HTTP_Query_String_Builder_Test, numbers_over_the_whole_range) {
    builder_("a", 0u)("b", UINT_MAX);
    EXPECT_EQ("a=0&b=4294967295", text_);
}

TEST_F(HTTP_Query_String_Builder_Test, appends_to_the_query_of_a_request) {
    HTTP_Request request(HTTP_METHOD_GET, "/rds/v3/instances?", true);
    HTTP_Query_String_Builder(std::back_inserter(request.query_string_buffer()),
                              false)("instance_id", "a b");
    EXPECT_EQ("/rds/v3/instances?instance_id=a+b", request.target());
}

TEST(HTTP_Query_String_Builder_T, writes_through_any_output_iterator) {
    std::ostringstream stream;
    HTTP_Query_String_Builder_T(std::ostreambuf_iterator<char>(stream), false)("a", "b c")("d", 1u);
    EXPECT_EQ("a=b+c&d=1", stream.str());
}

} // namespace
