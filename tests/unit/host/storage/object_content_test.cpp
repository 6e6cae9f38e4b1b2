#include "host/storage/object_content.h"

#include "host/storage/codec.h"
#include "tests/unit/host/storage/stored_text.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>

namespace {

class Object_Content_Test : public testing::TestWithParam<Compression_Method> {
protected:
    /** Numbers in words: what packs, and is nowhere the same. */
    static std::string words(size_t size) {
        std::mt19937 random(1);
        std::string text;
        while (text.size() < size)
            text += std::to_string(random() % 100000) + " ";
        text.resize(size);
        return text;
    }
    static std::string packed(std::string const& text) {
        std::string result;
        Codec_Sink const sink = [&](void const* data, size_t size) {
            result.append(static_cast<char const*>(data), size);
            return Storage_Result();
        };
        auto const encoder = make_encoder(GetParam(), 1, UNKNOWN_SIZE, 1);
        EXPECT_TRUE(encoder->feed(text.data(), text.size(), sink));
        EXPECT_TRUE(encoder->finish(sink));
        return result;
    }
    std::unique_ptr<Object_Content> content(std::string const& stored, size_t window) {
        return std::make_unique<Object_Content>(std::make_unique<Text_Reader>(stored, &count_),
                                                GetParam(), window);
    }
    static std::string read(Object_Content& content, uint64_t offset, size_t size) {
        std::string text(size, '\0');
        size_t got = 0;
        EXPECT_TRUE(content.read_at(offset, text.data(), size, got));
        text.resize(got);
        return text;
    }

    uint64_t count_ = 0; ///< stored bytes that were read
    std::string const text_ = words(5 * 1024 * 1024 + 17);
    std::string const stored_ = packed(text_);
};

TEST_P(Object_Content_Test, all_comes_forward_without_a_window_in_pieces_of_any_size) {
    for (size_t piece : {size_t(4093), size_t(300000), size_t(1 << 20), text_.size() + 1}) {
        auto const content = this->content(stored_, 0);
        count_ = 0;
        std::string whole;
        for (std::string part = "x"; !part.empty(); whole += part)
            part = read(*content, whole.size(), piece);
        EXPECT_TRUE(whole == text_) << piece;
        EXPECT_EQ(stored_.size(), count_) << piece;
    }
}

TEST_P(Object_Content_Test, what_packs_to_nearly_nothing_comes_whole) {
    std::string text(60 * 1024 * 1024, '\0');
    text += "end";
    for (size_t window : {size_t(0), size_t(8) << 20}) {
        auto const content = this->content(packed(text), window);
        std::string whole;
        for (std::string part = "x"; !part.empty(); whole += part)
            part = read(*content, whole.size(), 1 << 20);
        EXPECT_TRUE(whole == text) << window;
    }
}

TEST_P(Object_Content_Test, going_back_within_the_window_reads_nothing_again) {
    auto const content = this->content(stored_, 1024 * 1024);
    constexpr uint64_t THERE = 4 * 1024 * 1024;
    read(*content, THERE, 1000);
    uint64_t const before = count_;
    EXPECT_EQ(text_.substr(THERE - 1000000, 1000), read(*content, THERE - 1000000, 1000));
    EXPECT_EQ(before, count_);
}

TEST_P(Object_Content_Test, going_back_farther_begins_anew) {
    auto const content = this->content(stored_, 0);
    EXPECT_EQ(text_.substr(4 << 20, 1000), read(*content, 4 << 20, 1000));
    EXPECT_EQ(text_.substr(0, 1000), read(*content, 0, 1000));
    EXPECT_EQ(text_.substr(2 << 20, 1000), read(*content, 2 << 20, 1000));
}

TEST_P(Object_Content_Test, the_last_bytes_of_what_is_damaged_are_not_given_out) {
    std::string stored = stored_;
    stored[stored.size() / 2] ^= 1;
    auto const content = this->content(stored, 0);
    std::string piece(4093, '\0');
    size_t got = 1;
    uint64_t at = 0;
    while (got > 0 && content->read_at(at, piece.data(), piece.size(), got))
        at += got;
    EXPECT_LT(at, text_.size());
    EXPECT_FALSE(content->read_at(at, piece.data(), piece.size(), got));
}

INSTANTIATE_TEST_SUITE_P(methods, Object_Content_Test, testing::Values(COMPR_ZSTD, COMPR_LZOP),
                         [](auto const& test) {
                             return std::string(compression_value_to_name(test.param));
                         });

} // namespace
