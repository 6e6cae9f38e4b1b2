#include "agent/storage/write_journal.h"

#include "tests/support/file_size_limit.h"
#include "tests/support/temporary_directory.h"

#include <atomic>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

namespace {

class Write_Journal_Test : public testing::Test {
protected:
    std::unique_ptr<Write_Journal> open() {
        auto journal = Write_Journal::open(path_, error_);
        EXPECT_TRUE(journal) << error_;
        return journal;
    }
    void begin(Write_Journal& journal, std::string const& name) {
        EXPECT_TRUE(journal.begin({"/pool", name}, error_)) << error_;
    }
    /** What a new start finds. */
    std::string left() {
        std::string text;
        std::string const copy = directory_.write("copy", directory_.read("journal"));
        auto const journal = Write_Journal::open(copy, error_);
        for (Pool_Object const& object : journal->left())
            text += (text.empty() ? "" : "|") + object.pool_path + ":" + object.name;
        return text;
    }

    Temporary_Directory directory_;
    std::string path_ = directory_.path("journal");
    std::string error_;
};

TEST_F(Write_Journal_Test, what_was_begun_is_known_after_a_death) {
    auto const journal = open();
    begin(*journal, "f/a");
    begin(*journal, "b");
    journal->end({"/pool", "b"}, true);
    EXPECT_EQ("/pool:b|/pool:f/a", left());
    struct stat status;
    ASSERT_EQ(0, stat(path_.c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 0777u);
}

TEST_F(Write_Journal_Test, what_left_nothing_is_forgotten_with_its_last_writer) {
    auto const journal = open();
    begin(*journal, "a");
    begin(*journal, "a");
    journal->end({"/pool", "a"}, false);
    EXPECT_EQ("/pool:a", left());
    journal->end({"/pool", "a"}, false);
    EXPECT_EQ("", left());
    begin(*journal, "a");
    begin(*journal, "a");
    journal->end({"/pool", "a"}, true);
    journal->end({"/pool", "a"}, false);
    EXPECT_EQ("/pool:a", left());
}

TEST_F(Write_Journal_Test, what_was_removed_is_forgotten_unless_it_is_written_again) {
    auto const journal = open();
    begin(*journal, "a");
    journal->end({"/pool", "a"}, true);
    begin(*journal, "a");
    journal->removed({"/pool", "a"});
    EXPECT_EQ("/pool:a", left());
    journal->end({"/pool", "a"}, true);
    journal->removed({"/pool", "a"});
    EXPECT_EQ("", left());
    journal->removed({"/pool", "never begun"});
}

TEST_F(Write_Journal_Test, names_and_pools_may_hold_any_byte) {
    std::string const name = "a b/\n+ % ;\xff/\xc3\xa9";
    auto const journal = open();
    ASSERT_TRUE(journal->begin({"/my pool;\n", name}, error_));
    EXPECT_EQ("/my pool;\n:" + name, left());
}

TEST_F(Write_Journal_Test, a_line_that_is_cut_short_was_not_written) {
    directory_.write("journal", "+ /pool a ;\nnonsense\n\n+ /pool dir/other ;\n+ /pool dir/na");
    EXPECT_EQ("/pool:a|/pool:dir/other", left());
    directory_.write("journal", "+ /pool a ;\n- /pool a");
    EXPECT_EQ("/pool:a", left());
    directory_.write("journal", std::string("\0\xff\0", 3) + std::string(100000, 'x'));
    EXPECT_EQ("", left());
}

TEST_F(Write_Journal_Test, a_full_disk_lets_nothing_begin_and_spoils_no_line) {
    auto const journal = open();
    begin(*journal, "a");
    {
        File_Size_Limit const full(std::filesystem::file_size(path_) + 5);
        EXPECT_FALSE(journal->begin({"/pool", "b"}, error_));
        EXPECT_NE(std::string::npos, error_.find("journal")) << error_;
    }
    begin(*journal, "c");
    EXPECT_EQ("/pool:a|/pool:c", left());
}

TEST_F(Write_Journal_Test, settling_drops_what_complete_sets_have) {
    auto const journal = open();
    for (char const* const name : {"named", "nobody's", "unknown", "written"})
        begin(*journal, name);
    for (char const* const name : {"named", "nobody's", "unknown"})
        journal->end({"/pool", name}, true);
    std::string asked;
    journal->settle([&](Pool_Object const& object, bool& named) {
        asked += object.name + " ";
        named = object.name == "named";
        return object.name != "unknown";
    });
    EXPECT_EQ("named nobody's unknown ", asked);
    EXPECT_EQ("/pool:nobody's|/pool:unknown|/pool:written", left());
}

TEST_F(Write_Journal_Test, settling_leaves_what_is_begun_anew_meanwhile) {
    auto const journal = open();
    begin(*journal, "a");
    journal->end({"/pool", "a"}, true);
    journal->settle([&](Pool_Object const& object, bool& named) {
        begin(*journal, object.name);
        journal->end(object, true);
        return named = true;
    });
    EXPECT_EQ("/pool:a", left());
}

TEST_F(Write_Journal_Test, what_is_held_is_written_by_nobody) {
    auto const journal = open();
    Pool_Object const object{"/pool", "a"};
    EXPECT_FALSE(journal->hold(object)) << "it is not noted";
    begin(*journal, "a");
    EXPECT_FALSE(journal->hold(object)) << "somebody writes it";
    journal->end(object, true);
    ASSERT_TRUE(journal->hold(object));
    EXPECT_FALSE(journal->hold(object)) << "somebody else holds it";
    std::atomic<bool> begun = false;
    std::thread writer([&] {
        begin(*journal, "a");
        begun = true;
    });
    begin(*journal, "b"); // of others nothing is held
    EXPECT_FALSE(begun);
    journal->removed(object);
    journal->release(object);
    writer.join();
    EXPECT_TRUE(begun);
    EXPECT_EQ("/pool:a|/pool:b", left());
}

TEST_F(Write_Journal_Test, what_is_noted_is_known_after_a_death_and_written_by_nobody) {
    auto const journal = open();
    ASSERT_TRUE(journal->note({"/pool", "f/"}, error_)) << error_;
    EXPECT_EQ(1u, journal->left().size());
    EXPECT_EQ("/pool:f/", left());
}

TEST_F(Write_Journal_Test, the_file_stays_small_however_much_is_written) {
    auto const journal = open();
    begin(*journal, "kept");
    for (int number = 0; number < 1200; ++number) {
        Pool_Object const object{"/pool", "object " + std::to_string(number)};
        ASSERT_TRUE(journal->begin(object, error_));
        journal->end(object, false);
    }
    EXPECT_LT(std::filesystem::file_size(path_), 50000u);
    EXPECT_EQ("/pool:kept", left());
}

TEST_F(Write_Journal_Test, a_link_and_a_missing_directory_are_refused) {
    ASSERT_EQ(0, symlink("elsewhere", path_.c_str()));
    EXPECT_FALSE(Write_Journal::open(path_, error_));
    EXPECT_NE(std::string::npos, error_.find(path_)) << error_;
    EXPECT_FALSE(directory_.exists("elsewhere"));
    EXPECT_FALSE(Write_Journal::open(directory_.path("missing/journal"), error_));
}

TEST_F(Write_Journal_Test, several_threads_note_at_once) {
    auto const journal = open();
    auto const work = [&](std::string const& name) {
        std::string error;
        for (int number = 0; number < 100; ++number) {
            Pool_Object const object{"/pool", name + std::to_string(number)};
            EXPECT_TRUE(journal->begin(object, error));
            journal->end(object, number % 2 == 0);
        }
    };
    std::thread other(work, "b");
    work("a");
    other.join();
    EXPECT_EQ(100u, open()->left().size());
}

} // namespace
