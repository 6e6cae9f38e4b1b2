#include "host/storage/codec.h"

#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"
#include "tests/unit/host/storage/stored_text.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <zstd.h>

namespace {

constexpr size_t MIB = 1024 * 1024;

/** Text that compresses, always the same for a size. */
std::string text_of(size_t size) {
    std::string text;
    for (unsigned i = 0; text.size() < size; ++i)
        text += "line " + std::to_string(i * 2654435761u % 1000) + "\n";
    text.resize(size);
    return text;
}

std::string noise_of(size_t size) {
    std::mt19937 random(1);
    std::string text(size, '\0');
    for (char& c : text)
        c = static_cast<char>(random());
    return text;
}

/** Runs a stream through a codec in pieces. */
Storage_Result run(Codec& codec, std::string const& in, size_t piece, std::string& out) {
    out.clear();
    Codec_Sink const sink = [&](void const* data, size_t size) {
        EXPECT_GT(size, 0u);
        out.append(static_cast<char const*>(data), size);
        return Storage_Result();
    };
    Storage_Result result;
    for (size_t at = 0; result && at < in.size(); at += piece)
        result = codec.feed(in.data() + at, std::min(piece, in.size() - at), sink);
    return result ? codec.finish(sink) : result;
}

std::string encoded(Compression_Method method, std::string const& in, size_t piece = MIB,
                    int level = 0, unsigned threads = 1, uint64_t size = UNKNOWN_SIZE) {
    std::string out;
    Storage_Result const result = run(*make_encoder(method, level, size, threads), in, piece, out);
    EXPECT_TRUE(result) << result.text();
    return out;
}

/** The decoded text, or the failure's text in "<>". */
std::string decoded(Compression_Method method, std::string const& in, size_t piece = MIB) {
    std::string out;
    Storage_Result const result = run(*make_decoder(method), in, piece, out);
    return result ? out : "<" + result.text() + ">";
}

uint64_t quick_size(Compression_Method method, std::string const& stored) {
    Text_Reader reader(stored);
    uint64_t size = 0;
    EXPECT_TRUE(quick_original_size(reader, method, size));
    return size;
}

class codec : public testing::TestWithParam<Compression_Method> {
protected:
    Temporary_Directory directory_;

    /** The shell command's output; "<failed>" when it fails. */
    std::string shell(std::string const& command) {
        bool const good =
            std::system(("cd " + directory_.path() + " && (" + command + ") >out 2>err").c_str()) ==
            0;
        return good ? directory_.read("out") : "<failed> " + directory_.read("err");
    }
};

class packing : public codec {};

TEST_P(codec, gives_back_what_it_was_given) {
    for (size_t size : {size_t{0}, size_t{1}, size_t{1000}, 256 * 1024 - size_t{1},
                        size_t{256 * 1024}, 256 * 1024 + size_t{1}, 3 * MIB + 7}) {
        EXPECT_TRUE(text_of(size) == decoded(GetParam(), encoded(GetParam(), text_of(size))))
            << size;
        EXPECT_TRUE(noise_of(size) == decoded(GetParam(), encoded(GetParam(), noise_of(size))))
            << size;
    }
}

TEST_P(codec, does_not_depend_on_the_pieces) {
    std::string const text = text_of(300000);
    std::string const whole = encoded(GetParam(), text);
    for (size_t piece : {1u, 7u, 4096u}) {
        EXPECT_TRUE(text == decoded(GetParam(), encoded(GetParam(), text, piece))) << piece;
        EXPECT_TRUE(text == decoded(GetParam(), whole, piece)) << piece;
    }
}

TEST_P(codec, a_size_that_was_told_has_to_be_right) {
    std::string const text = text_of(500000);
    EXPECT_EQ(text, decoded(GetParam(), encoded(GetParam(), text, MIB, 0, 1, text.size())));
    for (uint64_t wrong : {text.size() - 1, text.size() + 1, uint64_t{0}}) {
        std::string out;
        EXPECT_FALSE(run(*make_encoder(GetParam(), 0, wrong, 1), text, 1000, out)) << wrong;
    }
    std::string out;
    EXPECT_FALSE(run(*make_encoder(GetParam(), 0, 5, 1), "", 1, out));
}

TEST_P(codec, a_failing_sink_ends_it_with_its_own_failure) {
    Codec_Sink const full = [](void const*, size_t) {
        return Storage_Result(Storage_Result::NO_SPACE, "full");
    };
    std::string const text = noise_of(4 * MIB);
    EXPECT_EQ(
        "full",
        make_encoder(GetParam(), 0, UNKNOWN_SIZE, 1)->feed(text.data(), text.size(), full).text());
    std::string const stored = encoded(GetParam(), text);
    EXPECT_EQ("full", make_decoder(GetParam())->feed(stored.data(), stored.size(), full).text());
}

TEST_P(codec, the_original_size_is_known_without_decoding) {
    for (size_t size : {size_t{0}, size_t{1}, size_t{262144}, 2 * MIB + 3})
        EXPECT_EQ(size, quick_size(GetParam(), encoded(GetParam(), noise_of(size)))) << size;
}

TEST_P(packing, knows_its_mark) {
    for (size_t size : {0u, 1u, 300000u}) {
        std::string const stored = encoded(GetParam(), text_of(size));
        EXPECT_EQ(GetParam(), marked_method(stored.data(), std::min(stored.size(), MARK_LENGTH)));
    }
}

TEST_P(packing, every_level_packs_and_unpacks) {
    std::string const text = text_of(100000);
    for (int level : {-1, 0, 1, 2, 3, 6, 7, 8, 9, 12, 19, 25}) {
        std::string const stored = encoded(GetParam(), text, MIB, level);
        EXPECT_LT(stored.size(), text.size() / 2) << level;
        EXPECT_TRUE(text == decoded(GetParam(), stored)) << level;
    }
}

TEST_P(packing, several_threads_give_a_stream_that_is_as_good) {
    std::string const text = text_of(20 * MIB);
    std::string const stored = encoded(GetParam(), text, MIB, 1, 4);
    EXPECT_TRUE(text == decoded(GetParam(), stored));
    EXPECT_EQ(text.size(), quick_size(GetParam(), stored));
}

TEST_P(packing, the_same_content_gives_the_same_object) {
    EXPECT_EQ(encoded(GetParam(), text_of(70000), 999), encoded(GetParam(), text_of(70000), 12345));
}

TEST_P(packing, a_cut_at_any_byte_is_noticed) {
    for (size_t size : {0u, 5u, 3000u}) {
        std::string const stored = encoded(GetParam(), noise_of(size));
        for (size_t cut = 0; cut < stored.size(); ++cut)
            EXPECT_EQ("<damaged", decoded(GetParam(), stored.substr(0, cut)).substr(0, 8))
                << cut << " of " << stored.size();
    }
    std::string const stored = encoded(GetParam(), text_of(3 * MIB));
    for (size_t cut = 0; cut < stored.size(); cut += 19997)
        EXPECT_EQ("<damaged", decoded(GetParam(), stored.substr(0, cut)).substr(0, 8)) << cut;
}

TEST_P(packing, a_flipped_bit_anywhere_is_noticed) {
    std::string stored = encoded(GetParam(), text_of(2000) + noise_of(300));
    for (size_t bit = 0; bit < stored.size() * 8; ++bit) {
        char& byte = stored[bit / 8];
        char const before = byte;
        byte = static_cast<char>(byte ^ (1 << bit % 8));
        EXPECT_EQ("<damaged", decoded(GetParam(), stored).substr(0, 8)) << "bit " << bit;
        EXPECT_EQ(GetParam(), marked_method(stored.data(), MARK_LENGTH)) << "bit " << bit;
        byte = before;
    }
}

TEST_P(packing, bytes_behind_the_end_are_damage) {
    std::string const stored = encoded(GetParam(), "text");
    for (std::string const& more : {std::string("x"), std::string("\0", 1), noise_of(1000)})
        EXPECT_EQ("<damaged", decoded(GetParam(), stored + more).substr(0, 8));
}

TEST_P(packing, what_is_something_else_is_damage) {
    for (std::string const& other :
         {std::string(), std::string("x"), std::string(100000, '\0'), text_of(100000),
          noise_of(100000), encoded(GetParam() == COMPR_ZSTD ? COMPR_LZOP : COMPR_ZSTD, "x")})
        EXPECT_EQ("<damaged", decoded(GetParam(), other).substr(0, 8)) << other.size();
}

TEST_P(packing, the_methods_own_program_reads_what_is_written) {
    std::string const tool = compression_value_to_name(GetParam());
    std::string const name = std::string("o") + compression_value_to_suffix(GetParam());
    for (int level : {0, 1, 9})
        for (size_t size : {size_t{0}, size_t{1}, 256 * 1024 + size_t{5}, 2 * MIB}) {
            for (std::string const& text : {text_of(size), noise_of(size)}) {
                directory_.write(name, encoded(GetParam(), text, MIB, level));
                EXPECT_EQ("", shell(tool + " -t -q " + name)) << size;
                EXPECT_TRUE(text == shell(tool + " -d -c " + name)) << size;
            }
        }
}

TEST_P(packing, what_the_methods_own_program_writes_is_read) {
    std::string const tool = compression_value_to_name(GetParam());
    for (size_t size : {size_t{0}, size_t{1}, 2 * MIB + 5})
        for (std::string const& text : {text_of(size), noise_of(size)})
            for (char const* level : {"-1", "-3", "-9"}) {
                std::string const path = directory_.write("plain", text);
                std::string const stored = shell(tool + " -c " + level + " <" + path);
                EXPECT_TRUE(text == decoded(GetParam(), stored)) << level;
                EXPECT_EQ(COMPR_NONE, marked_method(stored.data(), stored.size()));
            }
}

TEST_P(packing, joined_files_are_read_as_one) {
    std::string const tool = compression_value_to_name(GetParam());
    directory_.write("a", "first\n");
    directory_.write("b", text_of(500000));
    std::string const stored = shell(tool + " -c a; " + tool + " -c b");
    EXPECT_TRUE("first\n" + text_of(500000) == decoded(GetParam(), stored));
}

INSTANTIATE_TEST_SUITE_P(methods, codec, testing::Values(COMPR_NONE, COMPR_ZSTD, COMPR_LZOP),
                         [](auto const& one) {
                             char const* const name = compression_value_to_name(one.param);
                             return std::string(name ? name : "none");
                         });
INSTANTIATE_TEST_SUITE_P(methods, packing, testing::Values(COMPR_ZSTD, COMPR_LZOP),
                         [](auto const& one) { return compression_value_to_name(one.param); });

TEST(codecs, automatic_is_no_codec) {
    EXPECT_EQ(nullptr, make_encoder(COMPR_AUTO, 0, UNKNOWN_SIZE, 1));
    EXPECT_EQ(nullptr, make_decoder(COMPR_AUTO));
}

TEST(codecs, lzop_reads_all_kinds_of_checksums) {
    Temporary_Directory directory;
    std::string const text = text_of(300000);
    std::string const path = directory.write("plain", text);
    for (char const* options : {"", "-F", "--crc32", "--no-checksum", "-C", "-CC"}) {
        std::string const command = std::string("lzop -c ") + options + " " + path + " >" +
                                    directory.path("o") + " 2>/dev/null";
        if (std::system(command.c_str()) != 0)
            continue; // an older program does not know all of them
        EXPECT_TRUE(text == decoded(COMPR_LZOP, directory.read("o"))) << options;
    }
}

TEST(codecs, a_zstd_stream_of_others_has_no_quick_size) {
    std::string stored(1000, '\0');
    stored.resize(ZSTD_compress(stored.data(), stored.size(), "text", 4, 1));
    EXPECT_EQ(UNKNOWN_SIZE, quick_size(COMPR_ZSTD, stored));
    EXPECT_EQ("text", decoded(COMPR_ZSTD, stored));
}

TEST(codecs, zstd_frames_without_any_data_are_damage) {
    std::string const mark = encoded(COMPR_ZSTD, "").substr(0, 16);
    EXPECT_EQ("<damaged", decoded(COMPR_ZSTD, mark).substr(0, 8));
    EXPECT_EQ("<damaged", decoded(COMPR_ZSTD, mark + mark).substr(0, 8));
}

TEST(codecs, a_zstd_window_that_would_take_all_memory_is_refused) {
    // a frame header with a window of 2 TiB and no content size, then a block
    std::string const bomb("\x28\xB5\x2F\xFD\x00\xF8\x01\x00\x00", 9);
    EXPECT_EQ("<damaged", decoded(COMPR_ZSTD, bomb).substr(0, 8));
}

TEST(codecs, an_lzop_block_that_would_take_all_memory_is_refused) {
    std::string const header = encoded(COMPR_LZOP, "").substr(0, 46);
    std::string const bomb =
        header + std::string("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xF0", 8) + std::string(100, '\0');
    EXPECT_EQ("<damaged lzop data, a block of an impossible size>", decoded(COMPR_LZOP, bomb));
    std::string const grows =
        header + std::string("\0\0\0\x01\0\0\0\x02", 8) + std::string(99, 'x');
    EXPECT_EQ("<damaged lzop data, a block of an impossible size>", decoded(COMPR_LZOP, grows));
}

TEST(codecs, a_damaged_lzop_object_has_no_size) {
    std::string stored = encoded(COMPR_LZOP, noise_of(300000));
    Text_Reader reader(stored.substr(0, stored.size() - 5));
    uint64_t size = 0;
    EXPECT_FALSE(quick_original_size(reader, COMPR_LZOP, size));
}

} // namespace
