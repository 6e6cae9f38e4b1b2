#include "xbsa/xbsa_mem_map_handle.h"

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class Xbsa_Mem_Map_Handle_Test : public testing::Test {
protected:
    struct stat status() const {
        struct stat result {};
        EXPECT_EQ(0, stat(path_.c_str(), &result));
        return result;
    }

    Temporary_Directory files_;
    std::string path_ = files_.path("tpops_1_act");
    Xbsa_Mem_Map_Handle handle_;
};

TEST_F(Xbsa_Mem_Map_Handle_Test, an_empty_path_is_refused) {
    EXPECT_EQ(-1, handle_.open("", "root"));
    EXPECT_LOGGED(LM_ERROR, "Xbsa info path is empty\n");
    EXPECT_EQ(-1, handle_.open(nullptr, "root"));
    EXPECT_LOGGED(LM_ERROR, "Xbsa info path is empty\n");
    EXPECT_FALSE(handle_);
}

TEST_F(Xbsa_Mem_Map_Handle_Test, a_handle_that_was_never_opened_is_false) {
    EXPECT_FALSE(handle_);
}

TEST_F(Xbsa_Mem_Map_Handle_Test, a_new_file_is_4096_bytes_of_zeros) {
    ASSERT_EQ(0, handle_.open(path_.c_str(), nullptr));
    EXPECT_TRUE(handle_);
    EXPECT_EQ(4096, status().st_size);
    EXPECT_EQ(0u, handle_->current_size);
    EXPECT_EQ(0u, handle_->original_size);
    EXPECT_EQ(0u, handle_->storage_size);
    EXPECT_EQ(std::string(4096, '\0'), files_.read("tpops_1_act"));
}

TEST_F(Xbsa_Mem_Map_Handle_Test, the_counts_stand_at_their_offsets_in_the_file) {
    ASSERT_EQ(0, handle_.open(path_.c_str(), ""));
    handle_->current_size = 0x0102030405060708;
    handle_->original_size = 2;
    handle_->storage_size = 3;
    std::string const file = files_.read("tpops_1_act");
    EXPECT_EQ(std::string("\x08\x07\x06\x05\x04\x03\x02\x01", 8), file.substr(0, 8));
    EXPECT_EQ(std::string("\x02\0\0\0\0\0\0\0", 8), file.substr(8, 8));
    EXPECT_EQ(std::string("\x03\0\0\0\0\0\0\0", 8), file.substr(16, 8));
    EXPECT_EQ(std::string(4072, '\0'), file.substr(24));
}

TEST_F(Xbsa_Mem_Map_Handle_Test, the_first_count_is_read_from_the_file) {
    EXPECT_EQ(std::nullopt, handle_.current_size());
    ASSERT_EQ(0, handle_.open(path_.c_str(), ""));
    EXPECT_EQ(0u, handle_.current_size());
    handle_->current_size = 77;
    EXPECT_EQ(77u, handle_.current_size());
}

TEST_F(Xbsa_Mem_Map_Handle_Test, a_file_that_its_owner_truncates_has_no_count) {
    ASSERT_EQ(0, handle_.open(path_.c_str(), ""));
    EXPECT_TRUE(handle_.is_whole());
    for (off_t const size : {7, 0}) {
        ASSERT_EQ(0, truncate(path_.c_str(), size));
        EXPECT_EQ(std::nullopt, handle_.current_size());
        EXPECT_FALSE(handle_.is_whole());
    }
    ASSERT_EQ(0, truncate(path_.c_str(), 4096));
    EXPECT_EQ(0u, handle_.current_size());
}

TEST_F(Xbsa_Mem_Map_Handle_Test, a_directory_or_a_pipe_in_its_place_is_refused) {
    ASSERT_EQ(0, mkfifo(path_.c_str(), 0600));
    EXPECT_EQ(-1, handle_.open(path_.c_str(), nullptr));
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
    EXPECT_EQ(-1, handle_.open(path_.c_str(), nullptr));
    EXPECT_EQ(2u, Log_Capture::instance().claim_all(LM_ERROR, "Failed to memory map "));
    EXPECT_FALSE(handle_);
    EXPECT_EQ(std::nullopt, handle_.current_size());
}

TEST_F(Xbsa_Mem_Map_Handle_Test, an_existing_file_keeps_its_counts) {
    {
        Xbsa_Mem_Map_Handle first;
        ASSERT_EQ(0, first.open(path_.c_str(), nullptr));
        first->current_size = 77;
    }
    ASSERT_EQ(0, handle_.open(path_.c_str(), nullptr));
    EXPECT_EQ(77u, handle_->current_size);
}

TEST_F(Xbsa_Mem_Map_Handle_Test, without_an_owner_the_file_stays_ours) {
    ASSERT_EQ(0, handle_.open(path_.c_str(), nullptr));
    EXPECT_EQ(geteuid(), status().st_uid);
}

TEST_F(Xbsa_Mem_Map_Handle_Test, the_file_is_given_to_its_owner) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a file away";
    ASSERT_EQ(0, handle_.open(path_.c_str(), "daemon"));
    EXPECT_EQ(1u, status().st_uid);
    EXPECT_EQ(1u, status().st_gid);
    EXPECT_EQ(0u, status().st_mode & 0777 & ~0640u);
}

TEST_F(Xbsa_Mem_Map_Handle_Test, an_unknown_owner_is_no_failure) {
    EXPECT_EQ(0, handle_.open(path_.c_str(), "nobody-of-that-name"));
    EXPECT_TRUE(handle_);
    EXPECT_EQ(geteuid(), status().st_uid);
}

TEST_F(Xbsa_Mem_Map_Handle_Test, remove_takes_the_file_away) {
    ASSERT_EQ(0, handle_.open(path_.c_str(), nullptr));
    EXPECT_EQ(0, handle_.remove());
    EXPECT_FALSE(files_.exists("tpops_1_act"));
    EXPECT_FALSE(handle_);
}

TEST_F(Xbsa_Mem_Map_Handle_Test, a_file_that_cannot_be_made_is_logged) {
    EXPECT_EQ(-1, handle_.open("/nonexistent/tpops_1_act", "daemon"));
    EXPECT_LOGGED(LM_ERROR, "Failed to memory map /nonexistent/tpops_1_act, errno=2,");
    EXPECT_FALSE(handle_);
}

TEST_F(Xbsa_Mem_Map_Handle_Test, the_files_lie_beside_the_policies) {
    EXPECT_EQ("/var/cache/quilmot/zenbrak3/gaussdb/tpops_1_act",
              Xbsa_Mem_Map_Handle::path_of("tpops_1_act"));
}

TEST_F(Xbsa_Mem_Map_Handle_Test, a_child_does_not_inherit_the_file) {
    ASSERT_EQ(0, handle_.open(path_.c_str(), nullptr));
    int found = 0;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(entry, ignored) != path_)
            continue;
        ++found;
        EXPECT_TRUE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC);
    }
    EXPECT_EQ(1, found);
}

} // namespace
