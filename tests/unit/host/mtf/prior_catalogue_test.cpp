#include "host/mtf/prior_catalogue.h"

#include "tests/support/log_capture.h"
#include "tests/support/memory_archive_store.h"

#include <gtest/gtest.h>

using namespace MTF;

namespace {

class Prior_Catalogue_Test : public testing::Test {
protected:
    void SetUp() override {
        Catalogue_Writer writer;
        ASSERT_TRUE(writer.begin(2, {}));
        for (auto const& [name, seq] :
             {std::pair("a", 1), std::pair("a/b", 2), std::pair("c", 1)}) {
            Catalogue_Entry entry;
            entry.name = name;
            entry.type = ENTRY_DIRECTORY;
            entry.seq = seq;
            ASSERT_TRUE(writer.add(entry));
        }
        std::string const digest(64, '0');
        ASSERT_TRUE(writer.finish({{1, {1, digest}}, {2, {2, digest}}}));
        auto const output = store_.create("cat");
        ASSERT_TRUE(writer.copy_to(*output) && output->commit());
        store_.objects["archive 1"] = "x";
        store_.objects["archive 2"] = "y";
    }

    Memory_Archive_Store store_;
    Prior_Catalogue prior_{store_, [](int64_t seq) { return "archive " + std::to_string(seq); }};
};

TEST_F(Prior_Catalogue_Test, FindsNamesInOrder) {
    ASSERT_TRUE(prior_.open("cat"));
    EXPECT_EQ(nullptr, prior_.find("0"));
    ASSERT_NE(nullptr, prior_.find("a"));
    EXPECT_EQ(1, prior_.find("a")->seq);
    ASSERT_NE(nullptr, prior_.find("a/b"));
    EXPECT_EQ(nullptr, prior_.find("b"));
    ASSERT_NE(nullptr, prior_.find("c"));
    EXPECT_EQ(nullptr, prior_.find("d"));
    EXPECT_EQ(2u, prior_.archives().size());
}

TEST_F(Prior_Catalogue_Test, WhatLiesInAMissingArchiveIsNotFound) {
    store_.objects.erase("archive 1");
    ASSERT_TRUE(prior_.open("cat"));
    EXPECT_EQ(nullptr, prior_.find("a"));
    EXPECT_NE(nullptr, prior_.find("a/b"));
    EXPECT_EQ(nullptr, prior_.find("c"));
    EXPECT_EQ(1u, Log_Capture::instance().claim_all(LM_WARNING, "what is in archive 1"));
}

TEST_F(Prior_Catalogue_Test, NoCatalogueIsNoFault) {
    EXPECT_FALSE(prior_.open("none"));
    EXPECT_EQ(nullptr, prior_.find("a"));
}

TEST_F(Prior_Catalogue_Test, ACatalogueThatCannotBeOpenedIsToldAndDoneWithout) {
    store_.fail_open = "cat";
    EXPECT_FALSE(prior_.open("cat"));
    EXPECT_LOGGED(LM_WARNING, "catalogue cat is no use, injected");
    EXPECT_EQ(nullptr, prior_.find("a"));
}

TEST_F(Prior_Catalogue_Test, ACorruptCatalogueIsToldAndDoneWithout) {
    store_.objects["cat"].pop_back();
    store_.objects["cat"].pop_back();
    EXPECT_FALSE(prior_.open("cat"));
    EXPECT_LOGGED(LM_WARNING, "catalogue cat is no use, its checksum");
    EXPECT_EQ(nullptr, prior_.find("a"));
}

} // namespace
