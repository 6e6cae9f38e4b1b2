#include "agent/service/access_key_file.h"

#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

class Access_Key_File_Test : public testing::Test {
protected:
    bool load(bool make = false) {
        error_.clear();
        return load_access_key(path_, make, key_, error_);
    }
    void write(std::string const& text) {
        directory_.write("access.key", text);
        chmod(path_.c_str(), 0600);
    }
    void expect_refused(char const* words) {
        key_ = "before";
        EXPECT_FALSE(load(true));
        EXPECT_EQ("before", key_);
        EXPECT_NE(std::string::npos, error_.find(words)) << error_;
        EXPECT_NE(std::string::npos, error_.find(path_)) << error_;
    }
    Temporary_Directory directory_;
    std::string path_ = directory_.path("access.key");
    secure_string key_;
    std::string error_;
};

TEST_F(Access_Key_File_Test, is_made_once_for_its_owner_alone) {
    EXPECT_FALSE(load());
    ASSERT_TRUE(load(true)) << error_;
    EXPECT_EQ(64u, key_.size());
    secure_string const first = key_;
    struct stat status;
    ASSERT_EQ(0, stat(path_.c_str(), &status));
    EXPECT_EQ(0600u, status.st_mode & 0777u);
    ASSERT_TRUE(load(true));
    EXPECT_EQ(first, key_);
    ASSERT_TRUE(load_access_key(directory_.path("other.key"), true, key_, error_)) << error_;
    EXPECT_NE(first, key_);
}

TEST_F(Access_Key_File_Test, a_key_of_ones_own_with_and_without_a_line_break) {
    write("0123456789abcdef");
    ASSERT_TRUE(load()) << error_;
    EXPECT_EQ("0123456789abcdef", key_);
    write("0123456789abcdeF\n");
    ASSERT_TRUE(load()) << error_;
    EXPECT_EQ("0123456789abcdeF", key_);
}

TEST_F(Access_Key_File_Test, what_is_no_key_is_refused) {
    for (std::string const& text :
         {std::string(), std::string("short"), std::string(600, 'x'),
          std::string("0123456789 abcdef"), std::string("0123456789abcdef\n\n"),
          std::string("0123456789abcdef\0x", 18)}) {
        write(text);
        expect_refused("16 to 512");
    }
}

TEST_F(Access_Key_File_Test, a_key_that_others_can_read_is_refused) {
    write("0123456789abcdef");
    chmod(path_.c_str(), 0640);
    expect_refused("may be read by others");
}

TEST_F(Access_Key_File_Test, a_directory_in_its_place_is_refused) {
    mkdir(path_.c_str(), 0700);
    expect_refused("");
}

} // namespace
