#include "gaussdb/common/tpops_record.h"

#include "json_spirit/access.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using json_spirit::Object;
using testing::StartsWith;

TEST(fault_of_tpops_record, takes_what_platforms_have) {
    EXPECT_EQ("", fault_of_tpops_record(Object()));
    EXPECT_EQ("", fault_of_tpops_record({{"tpops_host", "tpops.example"},
                                         {"xbsa_host", "fe80::1"},
                                         {"id", "7e01ac5ac5274957ba506f3851d11d51in14"},
                                         {"name", "orders-1"},
                                         {"status", "normal"},
                                         {"type", "Ha"},
                                         {"version", "505.1.0"}}));
}

TEST(fault_of_tpops_record, leaves_empty_texts_and_other_kinds_to_their_readers) {
    EXPECT_EQ("", fault_of_tpops_record({{"tpops_host", ""}, {"id", ""}, {"name", ""}}));
    EXPECT_EQ("", fault_of_tpops_record({{"id", 7}, {"version", json_spirit::Value()}}));
}

TEST(fault_of_tpops_record, names_the_key) {
    for (auto const& [key, value] : Object{{"tpops_host", "h/x"},
                                           {"xbsa_host", "-h"},
                                           {"id", "../i"},
                                           {"name", "a b"},
                                           {"status", "a\nb"},
                                           {"type", "\x1b[2J"},
                                           {"version", std::string(5000, '1')}})
        EXPECT_THAT(fault_of_tpops_record({{key, value}}), StartsWith(key + " '"));
}

} // namespace
