#include "host/mtf/backup_run.h"

#include "tests/unit/host/mtf/mtf_fixture.h"

using namespace MTF;

namespace {

/** One run after the other, each upon the catalogue that the one before has left. */
class Backup_Run_Test : public testing::Test {
protected:
    static constexpr int64_t LATER = int64_t(4000000000) * 1000000000;

    /** The entries that run number seq + 1 leaves in its catalogue. */
    std::map<std::string, Catalogue_Entry> run(int64_t now = LATER) {
        auto const path_of = [](int64_t seq) { return "archive " + std::to_string(seq); };
        ++seq_;
        Prior_Catalogue prior(store_, path_of);
        bool const has_prior = seq_ > 1 && prior.open("cat " + std::to_string(seq_ - 1));
        Archive_Writer writer(store_, report_);
        EXPECT_TRUE(writer.open(path_of(seq_), COMPRESSION_NONE, 0));
        Catalogue_Writer catalogue;
        EXPECT_TRUE(catalogue.begin(seq_, {}));
        Backup_Run run(writer, catalogue, report_, seq_, has_prior ? &prior : nullptr,
                       [now] { return now; });
        EXPECT_EQ(E_OK, run.run({tree_.path()}));
        EXPECT_TRUE(writer.close() && writer.commit());
        Catalogue_Archives archives = has_prior ? prior.archives() : Catalogue_Archives();
        archives[seq_] = writer.written();
        EXPECT_TRUE(catalogue.finish(archives));
        auto const output = store_.create("cat " + std::to_string(seq_));
        EXPECT_TRUE(catalogue.copy_to(*output) && output->commit());
        return entries();
    }
    std::map<std::string, Catalogue_Entry> entries() {
        auto presence = Archive_Store::UNKNOWN;
        Catalogue_Reader reader;
        std::string error;
        EXPECT_EQ(Catalogue_Reader::OK,
                  reader.fetch(*store_.open("cat " + std::to_string(seq_), presence), error))
            << error;
        std::map<std::string, Catalogue_Entry> result;
        for (Catalogue_Entry entry; reader.next(entry);)
            result[entry.name.substr(std::min(entry.name.size(), tree_.path().size()))] = entry;
        return result;
    }

    Temporary_Directory tree_;
    Memory_Archive_Store store_;
    Work_Report report_{nullptr};
    int64_t seq_ = 0;
};

TEST_F(Backup_Run_Test, AnEntryStaysInTheArchiveThatHasIt) {
    tree_.write("old", "x");
    EXPECT_EQ(1, run().at("old").seq);
    tree_.write("new", "y");
    auto const second = run();
    EXPECT_EQ(1, second.at("old").seq);
    EXPECT_EQ(2, second.at("new").seq);
    EXPECT_EQ(1, run().at("old").seq);
}

TEST_F(Backup_Run_Test, AnotherModeIsAChange) {
    std::string const path = tree_.write("f", "x");
    run();
    chmod(path.c_str(), 0400);
    auto const second = run();
    EXPECT_EQ(2, second.at("f").seq);
    EXPECT_EQ(0400u, second.at("f").mode);
}

TEST_F(Backup_Run_Test, AFileThatBecameALinkIsAChange) {
    std::string const path = tree_.write("f", "x");
    run();
    unlink(path.c_str());
    ASSERT_EQ(0, symlink("elsewhere", path.c_str()));
    auto const second = run();
    EXPECT_EQ(ENTRY_SYMBOLIC_LINK, second.at("f").type);
    EXPECT_EQ(2, second.at("f").seq);
}

TEST_F(Backup_Run_Test, TheFirstNameHasTheContentAndOthersPointToIt) {
    std::string const path = tree_.write("b", "x");
    ASSERT_EQ(0, link(path.c_str(), tree_.path("a").c_str()));
    ASSERT_EQ(0, link(path.c_str(), tree_.path("c").c_str()));
    auto const first = run();
    EXPECT_EQ(ENTRY_FILE, first.at("a").type);
    EXPECT_EQ(ENTRY_HARD_LINK, first.at("b").type);
    EXPECT_EQ(first.at("a").name, first.at("b").link);
    EXPECT_EQ(first.at("a").name, first.at("c").link);
}

TEST_F(Backup_Run_Test, WhenTheFirstNameGoesTheNextOneGetsTheContent) {
    std::string const path = tree_.write("b", "x");
    ASSERT_EQ(0, link(path.c_str(), tree_.path("a").c_str()));
    run();
    unlink(tree_.path("a").c_str());
    auto const second = run();
    EXPECT_EQ(ENTRY_FILE, second.at("b").type);
    EXPECT_EQ(2, second.at("b").seq);
}

TEST_F(Backup_Run_Test, UnchangedNamesOfOneFileStayWhereTheyAre) {
    std::string const path = tree_.write("b", "x");
    ASSERT_EQ(0, link(path.c_str(), tree_.path("a").c_str()));
    run();
    auto const second = run();
    EXPECT_EQ(1, second.at("a").seq);
    EXPECT_EQ(1, second.at("b").seq);
    EXPECT_EQ(second.at("a").name, second.at("b").link);
}

TEST_F(Backup_Run_Test, WhatWasWrittenWithinTwoSecondsIsSavedAgain) {
    tree_.write("f", "x");
    struct stat status;
    ASSERT_EQ(0, stat(tree_.path("f").c_str(), &status));
    int64_t const written = to_ns(status.st_ctim);
    EXPECT_TRUE(run(written + 1999999999).at("f").save_again);
    EXPECT_EQ(2, run(written + 2000000000).at("f").seq);
    EXPECT_FALSE(entries().at("f").save_again);
    EXPECT_EQ(2, run().at("f").seq);
}

} // namespace
