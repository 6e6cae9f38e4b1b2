#include "qmrt/mem_map_handle.h"

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

struct Record {
    uint64_t first;
    uint64_t second;
};
struct Record_Path {
    static constexpr char const* prefix = "/var/records";
};
using Handle = Mem_Map_Handle<Record, Record_Path, 4096>;

class Mem_Map_Handle_Test : public testing::Test {
protected:
    Temporary_Directory files_;
    std::string path_ = files_.path("record");
    Handle handle_;
};

TEST_F(Mem_Map_Handle_Test, a_new_file_has_the_size_and_is_all_zeros) {
    EXPECT_FALSE(handle_);
    ASSERT_EQ(0, handle_.open_i(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC));
    EXPECT_TRUE(handle_);
    EXPECT_EQ(0u, handle_->first);
    EXPECT_EQ(0u, handle_->second);
    EXPECT_EQ(std::string(4096, '\0'), files_.read("record"));
    struct stat status;
    stat(path_.c_str(), &status);
    EXPECT_EQ(0u, status.st_mode & 0777 & ~0640u);
}

TEST_F(Mem_Map_Handle_Test, two_handles_see_one_record) {
    Handle other;
    ASSERT_EQ(0, handle_.open_i(path_.c_str(), O_RDWR | O_CREAT));
    ASSERT_EQ(0, other.open_i(path_.c_str(), O_RDONLY));
    handle_->second = 42;
    EXPECT_EQ(42u, other->second);
}

TEST_F(Mem_Map_Handle_Test, an_existing_file_is_seen_as_it_stands) {
    {
        Handle first;
        ASSERT_EQ(0, first.open_i(path_.c_str(), O_RDWR | O_CREAT));
        first->first = 7;
    }
    ASSERT_EQ(0, handle_.open_i(path_.c_str(), O_RDWR | O_CREAT));
    EXPECT_EQ(7u, handle_->first);
}

TEST_F(Mem_Map_Handle_Test, close_on_exec_when_asked_for) {
    ASSERT_EQ(0, handle_.open_i(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC));
    bool found = false;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(entry, ignored) != path_)
            continue;
        found = true;
        EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_TRUE(found);
}

TEST_F(Mem_Map_Handle_Test, remove_deletes_the_file) {
    ASSERT_EQ(0, handle_.open_i(path_.c_str(), O_RDWR | O_CREAT));
    EXPECT_EQ(0, handle_.remove());
    EXPECT_FALSE(files_.exists("record"));
    EXPECT_FALSE(handle_);
}

TEST_F(Mem_Map_Handle_Test, a_file_that_cannot_be_mapped_is_logged) {
    EXPECT_EQ(-1, handle_.open_i("/nonexistent/record", O_RDWR | O_CREAT));
    EXPECT_LOGGED(LM_ERROR, "Failed to memory map /nonexistent/record, errno=2,");
    EXPECT_FALSE(handle_);
}

TEST_F(Mem_Map_Handle_Test, path_of_joins_the_prefix) {
    EXPECT_EQ("/var/records/x", Handle::path_of("x"));
}

} // namespace
