#include "xbsa/library/xbsa_index.h"

#include "xbsa/library/xbsa_object.h"

#include <gtest/gtest.h>

namespace {

using Names = std::vector<std::string>;

constexpr time_t NOW = 1000000;

/** The times of a folder. */
struct Times {
    time_t modified = 0;
    int64_t changed = 0;
};

/** Sets of a pool, and how often each was listed. */
class Xbsa_Index_Test : public testing::Test {
protected:
    /** Gives a set a file of data for an object. */
    uint64_t add(std::string const& set, std::string const& path, std::string const& space = "",
                 Compression_Method compression = COMPR_NONE) {
        Xbsa_Object object;
        object.copy_id = ++last_id_;
        object.space = space;
        object.path = path;
        object.compression = compression;
        object.name_file();
        files_[set].push_back(object.file);
        times_.try_emplace(set, Times{NOW - 100, 0});
        return object.copy_id;
    }
    Xbsa_Result update() {
        std::vector<Storage_Entry> folders;
        for (auto const& [set, times] : times_)
            folders.push_back({set, 0, times.modified, times.changed, true});
        return index_.update(
            folders,
            [this](std::string const& set, std::vector<Storage_Entry>& files) -> Xbsa_Result {
                ++listed_[set];
                for (std::string const& file : files_[set])
                    files.push_back({file, 0, 0, 0, false});
                return set == broken_ ? Xbsa_Result(BSA_RC_ABORT_SYSTEM_ERROR, "broken")
                                      : Xbsa_Result();
            },
            NOW, Xbsa_Index::Clock::time_point(clock_));
    }
    Names with_path(std::string const& path) {
        EXPECT_TRUE(update());
        return index_.find({path});
    }
    Names with_copy(uint64_t id) {
        EXPECT_TRUE(update());
        return index_.find({"", id});
    }

    /** One that changed after the others, so that these are old by the pool's clock. */
    void SetUp() override { times_[NEWEST].modified = NOW - 50; }

    static constexpr char NEWEST[] = "newest";
    Xbsa_Index index_;
    std::map<std::string, Names> files_;
    std::map<std::string, Times> times_;
    std::map<std::string, int> listed_;
    std::chrono::nanoseconds clock_{0};
    std::string broken_;
    uint64_t last_id_ = 0x1000;
};

TEST_F(Xbsa_Index_Test, the_sets_that_have_an_object_are_found) {
    uint64_t const first = add("set-1", "/dn_6001/data");
    uint64_t const second = add("set-2", "/dn_6001/data", "space", COMPR_ZSTD);
    add("set-3", "/dn_6002/data", "", COMPR_LZOP);
    EXPECT_EQ((Names{"set-1", "set-2"}), with_path("/dn_6001/data"));
    EXPECT_EQ((Names{"set-3"}), with_path("/dn_6002/data"));
    EXPECT_EQ((Names{}), with_path("/dn_6003/data"));
    EXPECT_EQ((Names{"set-1"}), with_copy(first));
    EXPECT_EQ((Names{"set-2"}), with_copy(second));
    EXPECT_EQ((Names{}), with_copy(1));
}

TEST_F(Xbsa_Index_Test, names_of_every_length_and_of_any_bytes_are_found) {
    Names paths{".", "..x", ".hidden", "a,b", "%2E", "a b\xff\n", "\\*?"};
    for (size_t length : {98u, 99u, 100u, 101u, 102u, 157u, 158u, 159u, 160u, 161u, 162u, 1000u}) {
        paths.push_back(std::string(length, 'x'));
        paths.push_back("." + std::string(length, 'x'));
        paths.push_back(std::string(length / 2, '/') + "," + std::string(length / 2, '.'));
    }
    for (std::string const& space : {std::string(), std::string("space"), std::string(155, 's')})
        for (std::string const& path : paths)
            add("set " + std::to_string(files_.size()), path, space);
    for (auto const& [set, files] : files_)
        ASSERT_EQ(1u, files.size());
    size_t number = 0;
    for (int space = 0; space < 3; ++space)
        for (std::string const& path : paths) {
            Names const found = with_path(path);
            EXPECT_TRUE(std::ranges::count(found, "set " + std::to_string(number++))) << path;
        }
}

TEST_F(Xbsa_Index_Test, a_set_is_listed_once_and_again_when_it_has_changed) {
    add("set-1", "/a");
    with_path("/a");
    with_path("/b");
    EXPECT_EQ(1, listed_["set-1"]);
    add("set-1", "/b");
    EXPECT_EQ((Names{}), with_path("/b")) << "its time tells nothing new";
    ++times_["set-1"].changed; // its time of modification was set back
    EXPECT_EQ((Names{"set-1"}), with_path("/b"));
    add("set-1", "/c");
    ++times_["set-1"].modified;
    EXPECT_EQ((Names{"set-1"}), with_path("/c"));
    EXPECT_EQ(3, listed_["set-1"]);
}

TEST_F(Xbsa_Index_Test, what_a_set_has_no_longer_is_not_found) {
    uint64_t const copy = add("set-1", "/a");
    EXPECT_EQ((Names{"set-1"}), with_copy(copy));
    files_["set-1"].clear();
    ++times_["set-1"].changed;
    EXPECT_EQ((Names{}), with_path("/a"));
    EXPECT_EQ((Names{}), with_copy(copy));
}

TEST_F(Xbsa_Index_Test, a_change_is_seen_that_hides_behind_a_change_of_just_now) {
    for (time_t const modified : {NOW, NOW - 1, NOW + 1000}) {
        times_["set-1"].modified = modified;
        with_path("/a");
        add("set-1", "/a");
        EXPECT_EQ((Names{"set-1"}), with_path("/a")) << modified;
        files_["set-1"].clear();
    }
}

TEST_F(Xbsa_Index_Test, a_change_is_seen_that_hides_behind_the_newest_by_whatever_clock) {
    times_["set-1"].modified = times_[NEWEST].modified = NOW - 10000;
    with_path("/a");
    add("set-1", "/a");
    EXPECT_EQ((Names{"set-1"}), with_path("/a"));
}

TEST_F(Xbsa_Index_Test, a_time_that_stays_the_same_for_long_enough_is_trusted) {
    add("set-1", "/a");
    times_["set-1"] = times_[NEWEST];
    with_path("/a");
    clock_ += Xbsa_Index::GRAIN - std::chrono::nanoseconds(1);
    with_path("/a");
    EXPECT_EQ(2, listed_["set-1"]);
    clock_ += std::chrono::nanoseconds(1);
    with_path("/a");
    EXPECT_EQ(3, listed_["set-1"]) << "what came within the grain has to be read once more";
    with_path("/a");
    EXPECT_EQ(3, listed_["set-1"]);
    ++times_["set-1"].changed;
    with_path("/a");
    with_path("/a");
    EXPECT_EQ(5, listed_["set-1"]) << "the time is counted from the last change";
}

TEST_F(Xbsa_Index_Test, a_set_that_is_gone_is_not_named) {
    add("set-1", "/a");
    EXPECT_EQ((Names{"set-1"}), with_path("/a"));
    times_.erase("set-1");
    EXPECT_EQ((Names{}), with_path("/a"));
}

TEST_F(Xbsa_Index_Test, a_set_with_files_of_other_names_is_always_named) {
    add("set-1", "/a");
    files_["set-1"].push_back("a file");
    EXPECT_EQ((Names{"set-1"}), with_path("/elsewhere"));
}

TEST_F(Xbsa_Index_Test, a_set_that_cannot_be_listed_fails_the_update) {
    add("set-1", "/a");
    broken_ = "set-1";
    EXPECT_FALSE(update());
    broken_ = "";
    EXPECT_EQ((Names{"set-1"}), with_path("/a"));
}

TEST_F(Xbsa_Index_Test, without_a_hint_all_are_named) {
    add("set-1", "/a");
    EXPECT_TRUE(update());
    EXPECT_EQ((Names{NEWEST, "set-1"}), index_.find({}));
}

} // namespace
