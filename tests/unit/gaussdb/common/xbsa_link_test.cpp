#include "gaussdb/common/xbsa_link.h"

#include "tests/support/log_capture.h"
#include "tests/support/product_directories.h"

#include <gtest/gtest.h>

namespace {

class Xbsa_Link_Test : public testing::Test {
protected:
    Product_Directories host_;
    Temporary_Directory files_;
    std::string const link_ = files_.path("libxbsa64.so");
};

TEST_F(Xbsa_Link_Test, a_link_to_the_products_library) {
    EXPECT_TRUE(place_xbsa_link("libxbsa64.so", link_.c_str()));
    EXPECT_EQ("/opt/quilmot/zenbrak3/lib/libxbsa64.so", host_.link_target(link_));
}

TEST_F(Xbsa_Link_Test, a_link_that_is_there_stays_wherever_it_points) {
    std::filesystem::create_symlink("/elsewhere", link_);
    EXPECT_TRUE(place_xbsa_link("libxbsa64.so", link_.c_str()));
    EXPECT_EQ("/elsewhere", host_.link_target(link_));
}

TEST_F(Xbsa_Link_Test, a_file_in_its_place_is_a_failure_and_stays) {
    files_.write("libxbsa64.so", "a library");
    EXPECT_FALSE(place_xbsa_link("libxbsa64.so", link_.c_str()));
    EXPECT_LOGGED(LM_ERROR, "Failed to link /opt/quilmot/zenbrak3/lib/libxbsa64.so to " + link_ +
                                ", errno=17, File exists\n");
    EXPECT_EQ("a library", files_.read("libxbsa64.so"));
}

TEST_F(Xbsa_Link_Test, a_missing_directory_is_a_failure) {
    std::string const link = files_.path("none/libxbsa64.so");
    EXPECT_FALSE(place_xbsa_link("libxbsa64.so", link.c_str()));
    EXPECT_LOGGED(LM_ERROR, " to " + link + ", errno=2, ");
}

TEST_F(Xbsa_Link_Test, the_systems_place_is_made_with_its_directory) {
    EXPECT_TRUE(place_system_xbsa_link("libxbsa64i.so"));
    EXPECT_EQ("/opt/quilmot/zenbrak3/lib/libxbsa64i.so", host_.link_target(host_.SYSTEM_LINK));
    EXPECT_EQ(0755u, host_.mode("/usr/openv/lib"));
}

TEST_F(Xbsa_Link_Test, a_directory_that_is_there_keeps_its_mode) {
    std::filesystem::create_directory("/usr/openv/lib");
    std::filesystem::permissions("/usr/openv/lib", std::filesystem::perms(0700));
    EXPECT_TRUE(place_system_xbsa_link("libxbsa64.so"));
    EXPECT_EQ(0700u, host_.mode("/usr/openv/lib"));
}

TEST_F(Xbsa_Link_Test, a_file_in_the_directorys_place_fails_at_the_link) {
    host_.write("/usr/openv/lib", "");
    EXPECT_FALSE(place_system_xbsa_link("libxbsa64.so"));
    EXPECT_LOGGED(LM_ERROR, "Failed to link /opt/quilmot/zenbrak3/lib/libxbsa64.so to "
                            "/usr/openv/lib/libxbsa64.so, errno=20, ");
}

TEST_F(Xbsa_Link_Test, a_directory_that_cannot_be_made_is_told) {
    Read_Only_Mount const guard("/usr/openv");
    EXPECT_FALSE(place_system_xbsa_link("libxbsa64.so"));
    EXPECT_LOGGED(LM_ERROR, "Failed to mkdir /usr/openv/lib, errno=30, Read-only file system\n");
}

} // namespace
