#include "host/mtf/metadata.h"

#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <gtest/gtest.h>

using MTF::Metadata;

namespace {

TEST(MTF_Metadata, EveryTextSurvives) {
    Metadata metadata;
    metadata.pool_uuid("1");
    metadata.host_uuid("2");
    metadata.definition_uuid("3");
    metadata.uuid("4");
    metadata.agent("5");
    metadata.host("6");
    metadata.name("7");
    metadata.type("8");
    metadata.resource_uuid("9");
    metadata.uid("10");
    json_spirit::Object const dump = metadata.dump();
    EXPECT_EQ(10u, dump.size());
    Metadata const loaded = Metadata::load(dump);
    EXPECT_EQ("1", loaded.pool_uuid());
    EXPECT_EQ("2", loaded.host_uuid());
    EXPECT_EQ("3", loaded.definition_uuid());
    EXPECT_EQ("4", loaded.uuid());
    EXPECT_EQ("5", loaded.agent());
    EXPECT_EQ("6", loaded.host());
    EXPECT_EQ("7", loaded.name());
    EXPECT_EQ("8", loaded.type());
    EXPECT_EQ("9", loaded.resource_uuid());
    EXPECT_EQ("10", loaded.uid());
}

TEST(MTF_Metadata, AnEmptyTextHasNoKey) {
    Metadata metadata;
    EXPECT_TRUE(metadata.dump().empty());
    metadata.name("n");
    EXPECT_EQ(1u, metadata.dump().size());
}

TEST(MTF_Metadata, WhatIsNoTextLoadsAsEmpty) {
    json_spirit::Object const object = json_spirit::Object_Maker()("name", 5)("host", "h");
    EXPECT_EQ("", Metadata::load(object).name());
    EXPECT_EQ("h", Metadata::load(object).host());
}

} // namespace
