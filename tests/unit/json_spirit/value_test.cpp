#include "json_spirit/value.h"

#include "tests/unit/json_spirit/error_of.h"

#include <gtest/gtest.h>
#include <limits>

using namespace json_spirit;

namespace {

TEST(Value, the_numbers_of_the_types_are_known) {
    EXPECT_EQ(obj_type, Value(Object()).type());
    EXPECT_EQ(0, obj_type);
    EXPECT_EQ(array_type, Value(Array()).type());
    EXPECT_EQ(1, array_type);
    EXPECT_EQ(str_type, Value("x").type());
    EXPECT_EQ(str_type, Value(std::string("x")).type());
    EXPECT_EQ(2, str_type);
    EXPECT_EQ(secure_str_type, Value(secure_string("x")).type());
    EXPECT_EQ(3, secure_str_type);
    EXPECT_EQ(bool_type, Value(true).type());
    EXPECT_EQ(4, bool_type);
    EXPECT_EQ(int_type, Value(1).type());
    EXPECT_EQ(int_type, Value(1u).type());
    EXPECT_EQ(int_type, Value(int64_t{1}).type());
    EXPECT_EQ(int_type, Value(UINT64_MAX).type());
    EXPECT_EQ(5, int_type);
    EXPECT_EQ(real_type, Value(1.5).type());
    EXPECT_EQ(6, real_type);
    EXPECT_EQ(null_type, Value().type());
    EXPECT_EQ(null_type, Value(static_cast<char const*>(nullptr)).type());
    EXPECT_EQ(null_type, Value::null.type());
    EXPECT_EQ(7, null_type);
}

TEST(Value, whole_numbers_are_exact_at_both_ends) {
    EXPECT_EQ(INT64_MIN, Value(INT64_MIN).get_int64());
    EXPECT_EQ(INT64_MAX, Value(INT64_MAX).get_int64());
    EXPECT_EQ(UINT64_MAX, Value(UINT64_MAX).get_uint64());
    EXPECT_EQ(UINT64_MAX - 1, Value(UINT64_MAX - 1).get_uint64());
    EXPECT_EQ(INT64_MAX, Value(static_cast<uint64_t>(INT64_MAX)).get_int64());
    EXPECT_TRUE(Value(UINT64_MAX).is_uint64());
    EXPECT_FALSE(Value(static_cast<uint64_t>(INT64_MAX)).is_uint64());
    EXPECT_EQ(Value(uint64_t{5}), Value(5));
}

TEST(Value, a_number_that_the_result_cannot_hold_throws) {
    EXPECT_EQ("number 2147483648 is out of range", error_of([] { Value(2147483648).get_int(); }));
    EXPECT_EQ("number 18446744073709551615 is out of range",
              error_of([] { Value(UINT64_MAX).get_int64(); }));
    EXPECT_EQ("number -1 is out of range", error_of([] { Value(-1).get_uint64(); }));
    EXPECT_EQ(INT32_MIN, Value(INT32_MIN).get_int());
}

TEST(Value, a_real_can_be_read_from_a_whole_number) {
    EXPECT_EQ(2.0, Value(2).get_real());
    EXPECT_EQ(18446744073709551615.0, Value(UINT64_MAX).get_real());
    EXPECT_EQ("expected int, found real", error_of([] { Value(2.0).get_int(); }));
}

TEST(Value, the_wrong_accessor_names_both_types) {
    EXPECT_EQ("expected string, found int", error_of([] { Value(1).get_str(); }));
    EXPECT_EQ("expected object, found array", error_of([] { Value(Array()).get_obj(); }));
    EXPECT_EQ("expected array, found null", error_of([] { Value().get_array(); }));
    EXPECT_EQ("expected bool, found string", error_of([] { Value("x").get_bool(); }));
    EXPECT_EQ("expected string, found secure string",
              error_of([] { Value(secure_string("x")).get_str(); }));
    EXPECT_EQ("expected secure string, found string",
              error_of([] { Value("x").get_secure_str(); }));
    EXPECT_EQ("expected int, found object", error_of([] { Value(Object()).get_int64(); }));
    EXPECT_EQ("expected real, found bool", error_of([] { Value(true).get_real(); }));
}

TEST(Value, copies_are_deep_and_moves_leave_the_content) {
    Value original(Object{{"a", Array{1, 2}}});
    Value copy = original;
    copy.get_obj()["a"].get_array().push_back(3);
    EXPECT_EQ(2u, original.get_obj()["a"].get_array().size());
    Value const moved = std::move(copy);
    EXPECT_EQ(3u, moved.get_obj().at("a").get_array().size());
}

TEST(Value, equality_is_of_type_and_content) {
    EXPECT_EQ(Value(1), Value(1));
    EXPECT_FALSE(Value(1) == Value(1.0));
    EXPECT_FALSE(Value(1) == Value(true));
    EXPECT_FALSE(Value("x") == Value(secure_string("x")));
    EXPECT_EQ(Value(Object{{"a", 1}}), Value(Object{{"a", 1}}));
    EXPECT_FALSE(Value(Object{{"a", 1}}) == Value(Object{{"a", 2}}));
    EXPECT_EQ(Value(), Value::null);
}

} // namespace
