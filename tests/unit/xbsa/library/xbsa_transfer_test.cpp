#include "xbsa/library/xbsa_transfer.h"

#include "host/storage/file_storage_backend.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/virtual_clock.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

namespace {

class Xbsa_Transfer_Test : public testing::Test {
protected:
    Xbsa_Transfer_Test() {
        EXPECT_TRUE(File_Storage_Backend().connect("file://" + pool_.path(), {}, connection_));
    }
    static Rate_Limits limits(uint64_t source, uint64_t destination) {
        Rate_Limits result;
        result.src = {{source, 0, 0}};
        result.dest = {{destination, 0, 0}};
        return result;
    }
    Xbsa_Object put(std::string const& content, Xbsa_Limiters& limiters,
                    Compression_Method method = COMPR_NONE) {
        std::filesystem::remove(pool_.path("object"));
        Xbsa_Object object;
        object.file = "object";
        object.compression = method;
        Xbsa_Upload upload(object, limiters);
        EXPECT_TRUE(upload.begin(*connection_, "object", {method, 1}));
        EXPECT_TRUE(upload.send(content.data(), content.size()));
        EXPECT_TRUE(upload.finish());
        EXPECT_TRUE(upload.commit());
        return upload.object();
    }
    Xbsa_Result get(Xbsa_Object const& object, Xbsa_Limiters& limiters, std::string& content) {
        Xbsa_Download download(object, limiters);
        Xbsa_Result result = download.begin(*connection_, "object");
        char piece[1000];
        size_t got = 1;
        while (result && got > 0) {
            result = download.receive(piece, sizeof piece, got);
            content.append(piece, got);
        }
        return result;
    }
    double seconds() { return static_cast<double>(clock_.steady_ns()) / NS_PER_SECOND; }

    Temporary_Directory pool_;
    std::shared_ptr<Storage_Connection> connection_;
    Virtual_Clock clock_;
    Xbsa_Limiters unlimited_{{}, clock_};
};

TEST_F(Xbsa_Transfer_Test, sizes_and_digest_are_told) {
    Xbsa_Object const object = put("abc", unlimited_);
    EXPECT_EQ(3u, object.size);
    EXPECT_EQ(3u, object.stored_size);
    EXPECT_EQ("06b05ab6733a618578af5f94892f3950", object.digest);
}

TEST_F(Xbsa_Transfer_Test, an_upload_that_is_not_committed_leaves_nothing) {
    {
        Xbsa_Upload upload(Xbsa_Object(), unlimited_);
        ASSERT_TRUE(upload.begin(*connection_, "folder/object", {COMPR_ZSTD, 1}));
        std::string const content(3000000, 'x');
        EXPECT_TRUE(upload.send(content.data(), content.size()));
        EXPECT_TRUE(upload.finish());
    }
    EXPECT_TRUE(std::filesystem::is_empty(pool_.path()));
}

TEST_F(Xbsa_Transfer_Test, what_is_sent_waits_for_the_limit_of_the_source) {
    Xbsa_Limiters limiters(limits(100000, 0), clock_);
    put(std::string(500000, 'x'), limiters, COMPR_ZSTD);
    EXPECT_NEAR(5.0, seconds(), 0.5);
}

TEST_F(Xbsa_Transfer_Test, what_is_stored_waits_for_the_limit_of_the_destination) {
    Xbsa_Limiters limiters(limits(0, 100000), clock_);
    put(std::string(500000, 'x'), limiters, COMPR_ZSTD);
    EXPECT_NEAR(0.0, seconds(), 0.2) << "it is packed to next to nothing";
    Xbsa_Limiters again(limits(0, 100000), clock_);
    double const before = seconds();
    put(std::string(500000, 'x'), again, COMPR_NONE);
    EXPECT_NEAR(5.0, seconds() - before, 0.5);
}

TEST_F(Xbsa_Transfer_Test, what_is_read_waits_for_both_limits) {
    Xbsa_Object const object = put(std::string(500000, 'x'), unlimited_);
    Xbsa_Limiters limiters(limits(100000, 0), clock_);
    std::string content;
    EXPECT_TRUE(get(object, limiters, content));
    EXPECT_NEAR(5.0, seconds(), 0.5);
    EXPECT_EQ(500000u, content.size());
    Xbsa_Limiters slow(limits(0, 50000), clock_);
    double const before = seconds();
    content.clear();
    EXPECT_TRUE(get(object, slow, content));
    EXPECT_NEAR(10.0, seconds() - before, 0.5);
}

TEST_F(Xbsa_Transfer_Test, another_object_of_the_same_size_is_not_taken_for_it) {
    Xbsa_Object object = put(std::string(5000, 'x'), unlimited_);
    object.digest = put(std::string(5000, 'y'), unlimited_, COMPR_NONE).digest;
    pool_.write("object", std::string(5000, 'z'));
    std::string content;
    Xbsa_Result const result = get(object, unlimited_, content);
    EXPECT_THAT(result.text(), HasSubstr("its content is not what was stored"));
    EXPECT_LT(content.size(), 5000u);
}

TEST_F(Xbsa_Transfer_Test, a_damaged_object_stays_damaged) {
    Xbsa_Object const object = put(std::string(5000, 'x'), unlimited_, COMPR_ZSTD);
    std::string stored = pool_.read("object");
    stored[stored.size() / 2] = static_cast<char>(stored[stored.size() / 2] ^ 1);
    pool_.write("object", stored);
    Xbsa_Download download(object, unlimited_);
    ASSERT_TRUE(download.begin(*connection_, "object"));
    char piece[10000];
    size_t got = 1;
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(download.receive(piece, sizeof piece, got));
        EXPECT_EQ(0u, got);
        EXPECT_FALSE(download.ended());
    }
}

} // namespace
