#include "json_spirit/access.h"

#include "tests/unit/json_spirit/error_of.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace json_spirit;

namespace {

class Access_Test : public testing::Test {
protected:
    Object object_ = Object_Maker()("text", "x")("flag", true)("port", 8002)("real", 1.5)(
        "none", Value())("obj", Object{{"a", 1}})("list", Array{1, "two", Object{{"k", 3}}})(
        "large", UINT64_MAX)("secret", secure_string("s"));
};

TEST_F(Access_Test, extract_reads_every_kind) {
    std::string text;
    bool flag = false;
    int port = 0;
    uint16_t small = 0;
    uint64_t large = 0;
    double real = 0;
    double whole = 0;
    Object obj;
    Array list;
    Value any;
    secure_string secret;
    secure_string from_plain;
    extract(object_)("text", text)("flag", flag)("port", port)("port", small)("large",
                                                                              large)("real", real)(
        "port", whole)("obj", obj)("list", list)("none", any)("secret", secret)("text", from_plain);
    EXPECT_EQ("x", text);
    EXPECT_TRUE(flag);
    EXPECT_EQ(8002, port);
    EXPECT_EQ(8002, small);
    EXPECT_EQ(UINT64_MAX, large);
    EXPECT_EQ(1.5, real);
    EXPECT_EQ(8002.0, whole);
    EXPECT_EQ(1, obj["a"].get_int());
    EXPECT_EQ(3u, list.size());
    EXPECT_TRUE(any.is_null());
    EXPECT_EQ("s", secret.plain());
    EXPECT_EQ("x", from_plain.plain());
}

TEST_F(Access_Test, extract_leaves_alone_what_is_absent_or_unfit) {
    std::string text = "old";
    int number = 7;
    uint8_t byte = 7;
    bool flag = true;
    extract(object_)("absent", text)("port", text)("secret", text)("text", number)("large", number)(
        "none", number)("real", number)("port", byte)("port", flag);
    EXPECT_EQ("old", text);
    EXPECT_EQ(7, number);
    EXPECT_EQ(7, byte);
    EXPECT_TRUE(flag);
}

TEST_F(Access_Test, a_pointer_points_into_the_object) {
    Object const* obj = nullptr;
    std::string const* text = nullptr;
    Array const* list = nullptr;
    Value const* value = nullptr;
    extract(object_)("obj", obj)("text", text)("list", list)("port", value);
    EXPECT_EQ(&object_["obj"].get_obj(), obj);
    EXPECT_EQ(&object_["text"].get_str(), text);
    EXPECT_EQ(&object_["list"].get_array(), list);
    EXPECT_EQ(&object_["port"], value);
}

TEST_F(Access_Test, a_writable_object_gives_writable_pointers) {
    Object* obj = nullptr;
    Array* list = nullptr;
    Value* value = nullptr;
    extract_or_throw(object_)("obj", obj, true)("list", list, true)("port", value, true);
    (*obj)["b"] = 2;
    list->clear();
    *value = 1;
    EXPECT_EQ(2u, object_["obj"].get_obj().size());
    EXPECT_TRUE(object_["list"].get_array().empty());
    EXPECT_EQ(1, object_["port"].get_int());
}

TEST_F(Access_Test, a_required_key_that_is_absent_throws_with_its_name) {
    std::string text;
    EXPECT_EQ("key 'absent' is missing",
              error_of([&] { extract_or_throw(object_)("absent", text, true); }));
}

TEST_F(Access_Test, an_optional_key_that_is_absent_is_left_alone) {
    std::string text = "old";
    EXPECT_EQ("", error_of([&] { extract_or_throw(object_)("absent", text, false); }));
    EXPECT_EQ("old", text);
}

TEST_F(Access_Test, the_wrong_kind_throws_also_when_optional) {
    int number = 7;
    for (bool const required : {true, false})
        EXPECT_EQ("key 'text': expected int, found string",
                  error_of([&] { extract_or_throw(object_)("text", number, required); }));
    EXPECT_EQ(7, number);
}

TEST_F(Access_Test, a_number_out_of_range_throws_with_its_name) {
    uint16_t port = 7;
    object_["port"] = 65536;
    EXPECT_EQ("key 'port': number 65536 is out of range",
              error_of([&] { extract_or_throw(object_)("port", port, true); }));
    object_["port"] = -1;
    EXPECT_EQ("key 'port': number -1 is out of range",
              error_of([&] { extract_or_throw(object_)("port", port, true); }));
    int8_t small = 7;
    object_["port"] = -129;
    EXPECT_NE("", error_of([&] { extract_or_throw(object_)("port", small, true); }));
    EXPECT_EQ(7, port);
    EXPECT_EQ(7, small);
}

TEST_F(Access_Test, what_was_read_before_a_throw_stays_read) {
    std::string text;
    int number = 7;
    EXPECT_NE("", error_of([&] {
                  extract_or_throw(object_)("text", text, true)("absent", number, true);
              }));
    EXPECT_EQ("x", text);
}

TEST_F(Access_Test, inserting_replaces) {
    Object object;
    insert(object)("a", 1)("b", "x")("a", 2);
    EXPECT_EQ((Object{{"a", 2}, {"b", "x"}}), object);
}

TEST_F(Access_Test, skip_helpers_leave_keys_out) {
    std::string const empty;
    std::string const text = "x";
    Array const no_list;
    Value const null;
    Value const one = 1;
    char const* const no_text = nullptr;
    Object object;
    insert(object)("a", Skip_Empty_Helper(empty))("b", Skip_Empty_Helper(text))(
        "c", Skip_Empty_Helper(no_list))("d", Skip_NULL_Helper(null))("e", Skip_NULL_Helper(one))(
        "f", Skip_NULL_Helper(no_text));
    EXPECT_EQ((Object{{"b", "x"}, {"e", 1}}), object);
}

TEST_F(Access_Test, makers_build_nested_values) {
    Value const value =
        Object_Maker()("list", Array_Maker()(1)("x")(Object_Maker()("k", true)))("n", Value());
    EXPECT_EQ(Value(Object{{"list", Array{1, "x", Object{{"k", true}}}}, {"n", Value()}}), value);
}

TEST_F(Access_Test, single_gets) {
    int port = 0;
    EXPECT_TRUE(object_get(object_, "port", port));
    EXPECT_EQ(8002, port);
    EXPECT_FALSE(object_get(object_, "text", port));
    EXPECT_FALSE(object_get(object_, "absent", port));
    EXPECT_EQ("x", object_get_str(object_, "text"));
    EXPECT_EQ("", object_get_str(object_, "port"));
    EXPECT_EQ("", object_get_str(object_, "absent"));
    EXPECT_EQ(&object_["port"], &object_get_any(object_, "port"));
    EXPECT_EQ(&Value::null, &object_get_any(object_, "absent"));
    EXPECT_EQ(&object_["port"], object_get_any_ptr(object_, "port"));
    EXPECT_EQ(nullptr, object_get_any_ptr(object_, "absent"));
    EXPECT_EQ(8002, object_get_int64_or_throw(object_, "port"));
    EXPECT_EQ("key 'absent' is missing",
              error_of([&] { object_get_int64_or_throw(object_, "absent"); }));
    EXPECT_EQ("key 'text': expected int, found string",
              error_of([&] { object_get_int64_or_throw(object_, "text"); }));
    EXPECT_EQ("key 'large': number 18446744073709551615 is out of range",
              error_of([&] { object_get_int64_or_throw(object_, "large"); }));
}

TEST_F(Access_Test, filtered_ranges) {
    Array const list{1, "a", Object{{"k", 1}}, Array{}, "b", Object{{"k", 2}}, secure_string("s")};
    int sum = 0;
    for (Object const& object : objects_of(list))
        sum += object.at("k").get_int();
    EXPECT_EQ(3, sum);
    std::string joined;
    for (std::string const& text : strings_of(list))
        joined += text;
    EXPECT_EQ("ab", joined);

    using boost::adaptors::filtered;
    using boost::adaptors::transformed;
    size_t arrays = 0;
    for (Array const& array :
         list | filtered(Type_Checker(array_type)) | transformed(Get_Array_Helper()))
        arrays += 1 + array.size();
    EXPECT_EQ(1u, arrays);
    std::string secrets;
    for (secure_string const& secret :
         list | filtered(Type_Checker(secure_str_type)) | transformed(Get_secure_string_Helper()))
        secrets += secret.plain();
    EXPECT_EQ("s", secrets);
}

TEST_F(Access_Test, partial_update_copies_only_the_named_key) {
    Object target{{"a", 1}, {"b", 2}};
    Object const changes{{"a", "new"}, {"b", 3}, {"c", 4}};
    update_json_partial(target, changes, "a");
    update_json_partial(target, changes, "absent");
    EXPECT_EQ((Object{{"a", "new"}, {"b", 2}}), target);
}

} // namespace
