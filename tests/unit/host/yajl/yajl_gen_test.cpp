#include "host/yajl/yajl_gen.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <functional>
#include <gtest/gtest.h>

namespace {

TEST(YAJL_Gen, writes_every_kind_of_value) {
    YAJL_Gen gen;
    {
        YAJL_Map_Guard const map(gen);
        gen << "str" << YAJL_Gen::Str{"abcdef", 3};
        gen << std::string("string") << std::string("a\0b", 3);
        gen << "bool" << true << "int" << -1 << "unsigned" << UINT_MAX;
        gen << "unsigned long" << ULONG_MAX << "int64" << int64_t{INT64_MIN} << "double" << 0.5;
        gen << "null";
        gen.null();
    }
    EXPECT_TRUE(gen.good());
    EXPECT_EQ("{\"str\":\"abc\",\"string\":\"a\\u0000b\",\"bool\":true,\"int\":-1,"
              "\"unsigned\":4294967295,\"unsigned long\":18446744073709551615,"
              "\"int64\":-9223372036854775808,\"double\":0.5,\"null\":null}",
              gen.text());
}

TEST(YAJL_Gen, guards_nest_and_close_at_the_end_of_their_scope) {
    YAJL_Gen gen;
    {
        YAJL_Array_Guard const array(gen);
        gen << 1;
        {
            YAJL_Map_Guard const map(gen);
            gen << "a";
            YAJL_Array_Guard const inner(gen);
        }
        gen << 2;
    }
    EXPECT_EQ("[1,{\"a\":[]},2]", gen.text());
}

TEST(YAJL_Gen, works_on_the_callers_generator_and_leaves_it_alive) {
    yajl_gen const raw = yajl_gen_alloc(nullptr);
    {
        YAJL_Map_Guard const map(raw);
        YAJL_Gen gen(raw);
        gen << "entries";
        YAJL_Array_Guard const array(raw);
        gen << "gaussdb/a";
    }
    EXPECT_EQ("{\"entries\":[\"gaussdb/a\"]}", YAJL_Gen(raw).text());
    EXPECT_EQ(raw, YAJL_Gen(raw).get());
    yajl_gen_free(raw);
}

TEST(YAJL_Gen, a_null_pointer_is_null) {
    YAJL_Gen gen;
    gen << static_cast<char const*>(nullptr);
    EXPECT_EQ("null", gen.text());
}

TEST(YAJL_Gen, bytes_that_are_no_utf8_become_the_replacement_character) {
    YAJL_Gen gen;
    gen << "a\xFF\xC3\xA4";
    EXPECT_TRUE(gen.good());
    EXPECT_EQ("\"a\xEF\xBF\xBD\xC3\xA4\"", gen.text());
}

TEST(YAJL_Gen, what_is_no_number_is_null) {
    YAJL_Gen gen;
    {
        YAJL_Array_Guard const array(gen);
        gen << std::nan("") << HUGE_VAL << 1.0;
    }
    EXPECT_TRUE(gen.good());
    EXPECT_EQ("[null,null,1.0]", gen.text());
}

TEST(YAJL_Gen, a_key_that_is_no_text_is_remembered_as_a_failure) {
    YAJL_Gen gen;
    YAJL_Map_Guard const map(gen);
    gen << 1;
    EXPECT_FALSE(gen.good());
    EXPECT_EQ(yajl_gen_keys_must_be_strings, gen.status());
    gen << "key" << 1;
    EXPECT_EQ(yajl_gen_keys_must_be_strings, gen.status());
    EXPECT_EQ("{", gen.text()) << "nothing is written after a failure";
}

TEST(YAJL_Gen, nesting_too_deeply_is_a_failure_and_what_was_opened_is_closed) {
    YAJL_Gen gen;
    std::function<void(int)> const nest = [&](int depth) {
        YAJL_Array_Guard const array(gen);
        if (depth > 1)
            nest(depth - 1);
    };
    nest(1000);
    EXPECT_FALSE(gen.good());
    EXPECT_EQ(yajl_max_depth_exceeded, gen.status());
    std::string const text = gen.text();
    EXPECT_EQ(std::string(text.size() / 2, '[') + std::string(text.size() / 2, ']'), text);
    EXPECT_LE(100u, text.size() / 2);
}

TEST(YAJL_Gen, a_second_value_is_a_failure) {
    YAJL_Gen gen;
    gen << 1 << 2;
    EXPECT_FALSE(gen.good());
    EXPECT_EQ("1", gen.text());
}

} // namespace
