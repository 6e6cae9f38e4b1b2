#include "host/storage/lzop_codec.h"

#include "host/storage/lzop_format.h"

#include <algorithm>
#include <cstring>
#include <lzo/lzo1x.h>
#include <utility>
#include <vector>

namespace {

constexpr int DEFAULT_LEVEL = 3;
constexpr int BEST_FROM_LEVEL = 7;
constexpr int BEST_LEVEL = 9;

lzop::Method method_of(int level) {
    if (level >= BEST_FROM_LEVEL)
        return lzop::LZO1X_999;
    return level == 1 ? lzop::LZO1X_1_15 : lzop::LZO1X_1;
}

size_t work_size(lzop::Method method) {
    switch (method) {
    case lzop::LZO1X_1_15:
        return LZO1X_1_15_MEM_COMPRESS;
    case lzop::LZO1X_999:
        return LZO1X_999_MEM_COMPRESS;
    default:
        return LZO1X_1_MEM_COMPRESS;
    }
}

class Lzop_Encoder : public Codec {
public:
    Lzop_Encoder(int level, uint64_t size)
        : level_(std::clamp(level ? level : DEFAULT_LEVEL, 1, BEST_LEVEL)),
          method_(method_of(level_)),
          wanted_(size),
          work_(work_size(method_)),
          // what cannot be packed grows by up to so much
          packed_(lzop::BLOCK_SIZE + lzop::BLOCK_SIZE / 16 + 64 + 3) {
        block_.reserve(lzop::BLOCK_SIZE);
    }

    Storage_Result feed(void const* data, size_t size, Codec_Sink const& sink) override {
        auto const* at = static_cast<unsigned char const*>(data);
        for (Storage_Result result; size > 0;) {
            size_t const piece = std::min<size_t>(size, lzop::BLOCK_SIZE - block_.size());
            block_.insert(block_.end(), at, at + piece);
            at += piece;
            size -= piece;
            if (block_.size() == lzop::BLOCK_SIZE)
                result = write_block(sink);
            if (!result)
                return result;
        }
        return {};
    }
    Storage_Result finish(Codec_Sink const& sink) override {
        Storage_Result result = block_.empty() ? write_header(sink) : write_block(sink);
        if (result && wanted_ != UNKNOWN_SIZE && written_ != wanted_)
            return {Storage_Result::FAILED, "the source does not have the size it should have"};
        return result ? sink("\0\0\0", 4) : result;
    }

private:
    Storage_Result write_header(Codec_Sink const& sink) {
        if (headed_)
            return {};
        headed_ = true;
        std::string const header = lzop::make_header(method_, static_cast<uint8_t>(level_));
        return sink(header.data(), header.size());
    }
    Storage_Result write_block(Codec_Sink const& sink) {
        Storage_Result result = write_header(sink);
        if (!result)
            return result;
        auto const size = static_cast<uint32_t>(block_.size());
        lzo_uint packed_size = 0;
        pack(packed_size);
        bool const stored = packed_size >= size;
        unsigned char const* const data = stored ? block_.data() : packed_.data();
        uint32_t const length = stored ? size : static_cast<uint32_t>(packed_size);
        std::string const head = lzop::make_block_head(block_.data(), size, data, length);
        result = sink(head.data(), head.size());
        if (result)
            result = sink(data, length);
        written_ += size;
        block_.clear();
        return result;
    }
    void pack(lzo_uint& size) {
        if (method_ == lzop::LZO1X_1_15)
            lzo1x_1_15_compress(block_.data(), block_.size(), packed_.data(), &size, work_.data());
        else if (method_ == lzop::LZO1X_1)
            lzo1x_1_compress(block_.data(), block_.size(), packed_.data(), &size, work_.data());
        else
            lzo1x_999_compress_level(block_.data(), block_.size(), packed_.data(), &size,
                                     work_.data(), nullptr, 0, nullptr, level_);
    }

    int const level_;
    lzop::Method const method_;
    uint64_t const wanted_;
    std::vector<unsigned char> work_;
    std::vector<unsigned char> packed_;
    std::vector<unsigned char> block_;
    uint64_t written_ = 0;
    bool headed_ = false;
};

class Lzop_Decoder : public Codec {
public:
    Storage_Result feed(void const* data, size_t size, Codec_Sink const& sink) override {
        in_.append(static_cast<char const*>(data), size);
        Storage_Result result;
        for (bool came_out = true; result && came_out;)
            result = unpack_one(came_out, sink);
        return result;
    }
    Storage_Result feed_some(void const* data, size_t size, size_t& used,
                             Codec_Sink const& sink) override {
        bool came_out = false;
        Storage_Result const result = unpack_one(came_out, sink);
        used = result && !came_out ? size : 0;
        if (used)
            in_.append(static_cast<char const*>(data), size);
        return result;
    }
    Storage_Result finish(Codec_Sink const& sink) override {
        Storage_Result const result = feed(nullptr, 0, sink);
        if (!result)
            return result;
        // a whole file, or several, ends with nothing left over
        if (state_ == HEADER && files_ > 0 && at_ == in_.size())
            return {};
        return lzop::damaged("it ends too early");
    }

private:
    enum State { HEADER, BLOCK_HEAD, BLOCK };

    /** Takes up to one block of data from the input. */
    Storage_Result unpack_one(bool& came_out, Codec_Sink const& sink) {
        came_out = false;
        Storage_Result result;
        for (bool need_more = false; result && !need_more && !came_out;)
            result = step(need_more, came_out, sink);
        if (!came_out)
            in_.erase(0, std::exchange(at_, 0));
        return result;
    }
    /** Takes one piece of the format. */
    Storage_Result step(bool& need_more, bool& came_out, Codec_Sink const& sink) {
        char const* const data = in_.data() + at_;
        size_t const size = in_.size() - at_;
        if (state_ == HEADER) {
            if (size == 0) {
                need_more = true;
                return {};
            }
            Storage_Result result = lzop::read_header(data, size, header_, need_more);
            if (result && !need_more)
                go_on(header_.length, BLOCK_HEAD);
            return result;
        }
        if (state_ == BLOCK_HEAD) {
            Storage_Result result = lzop::read_block_head(data, size, header_, head_, need_more);
            if (result && !need_more)
                go_on(head_.length, head_.size ? BLOCK : HEADER);
            if (result && !need_more && !head_.size)
                ++files_;
            return result;
        }
        need_more = size < head_.packed_size;
        if (need_more)
            return {};
        go_on(head_.packed_size, BLOCK_HEAD);
        came_out = true;
        return unpack(data, sink);
    }
    void go_on(size_t length, State state) {
        at_ += length;
        state_ = state;
    }
    Storage_Result unpack(char const* data, Codec_Sink const& sink) {
        if ((head_.has_packed_adler &&
             lzop::adler32_of(data, head_.packed_size) != head_.packed_adler) ||
            (head_.has_packed_crc && lzop::crc32_of(data, head_.packed_size) != head_.packed_crc))
            return lzop::damaged("wrong checksum of a packed block");
        char const* plain = data;
        if (!head_.stored()) {
            out_.resize(std::max<size_t>(out_.size(), head_.size));
            lzo_uint size = head_.size;
            if (lzo1x_decompress_safe(reinterpret_cast<unsigned char const*>(data),
                                      head_.packed_size, out_.data(), &size, nullptr) != LZO_E_OK ||
                size != head_.size)
                return lzop::damaged("a block that cannot be unpacked");
            plain = reinterpret_cast<char const*>(out_.data());
        }
        if ((head_.has_adler && lzop::adler32_of(plain, head_.size) != head_.adler) ||
            (head_.has_crc && lzop::crc32_of(plain, head_.size) != head_.crc))
            return lzop::damaged("wrong checksum of a block");
        return sink(plain, head_.size);
    }

    State state_ = HEADER;
    lzop::Header header_;
    lzop::Block_Head head_;
    std::string in_;
    size_t at_ = 0; ///< so much of in_ has been used
    std::vector<unsigned char> out_;
    uint64_t files_ = 0; ///< that have been read to their ends
};

} // namespace

std::unique_ptr<Codec> make_lzop_encoder(int level, uint64_t size) {
    if (lzo_init() != LZO_E_OK)
        return nullptr;
    return std::unique_ptr<Codec>(new (std::nothrow) Lzop_Encoder(level, size));
}

std::unique_ptr<Codec> make_lzop_decoder() {
    if (lzo_init() != LZO_E_OK)
        return nullptr;
    return std::unique_ptr<Codec>(new (std::nothrow) Lzop_Decoder);
}

bool has_lzop_mark(void const* begin, size_t size) {
    constexpr size_t ENOUGH = (lzop::MAGIC_SIZE + lzop::OWN_NAME_SIZE) * 3 / 4;
    auto const* const data = static_cast<char const*>(begin);
    if (size < lzop::OWN_NAME_OFFSET + lzop::OWN_NAME_SIZE)
        return false;
    size_t same = 0;
    for (size_t i = 0; i < lzop::MAGIC_SIZE; ++i)
        same += data[i] == lzop::MAGIC[i];
    for (size_t i = 0; i < lzop::OWN_NAME_SIZE; ++i)
        same += data[lzop::OWN_NAME_OFFSET + i] == lzop::OWN_NAME[i];
    return same >= ENOUGH;
}

Storage_Result quick_lzop_size(Storage_Reader& object, uint64_t& size) {
    char buffer[512];
    size_t got = 0;
    uint64_t total = 0;
    lzop::Header header;
    size = UNKNOWN_SIZE;
    for (uint64_t at = 0; at < object.entry().size;) {
        bool need_more = false;
        Storage_Result result = object.read_at(at, buffer, sizeof buffer, got);
        if (result)
            result = lzop::read_header(buffer, got, header, need_more);
        if (!result || need_more)
            return result; // a header longer than the buffer is left to decoding
        at += header.length;
        for (lzop::Block_Head head;; total += head.size) {
            result = object.read_at(at, buffer, sizeof buffer, got);
            if (result)
                result = lzop::read_block_head(buffer, got, header, head, need_more);
            if (!result || need_more)
                return result ? lzop::damaged("it ends too early") : result;
            at += head.length + head.packed_size;
            if (head.size == 0)
                break;
        }
    }
    size = total;
    return {};
}
