#include "host/storage/zstd_codec.h"

#include "qmrt/format.h"

#include <algorithm>
#include <cstring>
#include <lzo/lzoconf.h>
#include <string>
#include <vector>
#include <zstd.h>

namespace {

constexpr size_t TAG_SIZE = 8;
constexpr char HEAD[] = "\x5D\x2A\x4D\x18\x08\0\0\0zenbrak3";
constexpr size_t HEAD_SIZE = sizeof HEAD - 1;
constexpr char TAIL_BEGIN[] = "\x5E\x2A\x4D\x18\x14\0\0\0";
constexpr size_t TAIL_BEGIN_SIZE = sizeof TAIL_BEGIN - 1;
constexpr size_t TAIL_SIZE = TAIL_BEGIN_SIZE + sizeof(uint64_t) + sizeof(uint32_t) + TAG_SIZE;
constexpr char const* TAG = HEAD + HEAD_SIZE - TAG_SIZE;

constexpr int DEFAULT_LEVEL = 3;
constexpr unsigned char DATA_FRAME = 0x28; ///< the first byte of a frame that holds data

Storage_Result damaged(std::string const& why) {
    return {Storage_Result::FAILED, "damaged zstd data, " + why};
}

/** Appends a number, little endian. */
template <typename Number>
void append_number(std::string& text, Number value) {
    for (size_t i = 0; i < sizeof value; ++i)
        text += static_cast<char>(value >> (8 * i));
}

std::string tail_of(uint64_t size, uint32_t sum) {
    std::string tail(TAIL_BEGIN, TAIL_BEGIN_SIZE);
    append_number(tail, size);
    append_number(tail, sum);
    return tail.append(TAG, TAG_SIZE);
}

/** The size that a tail tells; UNKNOWN_SIZE when it is none. */
uint64_t size_of_tail(std::string const& tail) {
    if (tail.size() != TAIL_SIZE || tail.compare(0, TAIL_BEGIN_SIZE, TAIL_BEGIN, TAIL_BEGIN_SIZE) ||
        tail.compare(TAIL_SIZE - TAG_SIZE, TAG_SIZE, TAG, TAG_SIZE))
        return UNKNOWN_SIZE;
    uint64_t size = 0;
    for (size_t i = sizeof size; i-- > 0;)
        size = size << 8 | static_cast<unsigned char>(tail[TAIL_BEGIN_SIZE + i]);
    return size;
}

uint32_t add_to_sum(uint32_t sum, void const* data, size_t size) {
    return lzo_adler32(sum, static_cast<unsigned char const*>(data), size);
}

struct Context_Deleter {
    void operator()(ZSTD_CCtx* context) const { ZSTD_freeCCtx(context); }
    void operator()(ZSTD_DCtx* context) const { ZSTD_freeDCtx(context); }
};

class Zstd_Encoder : public Codec {
public:
    bool init(int level, uint64_t size, unsigned threads) {
        wanted_ = size;
        context_.reset(ZSTD_createCCtx());
        if (!context_)
            return false;
        ZSTD_CCtx* const context = context_.get();
        ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, level ? level : DEFAULT_LEVEL);
        ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
        // a library built without threads says no, and then works on the caller's
        if (threads > 1)
            ZSTD_CCtx_setParameter(context, ZSTD_c_nbWorkers, static_cast<int>(threads));
        if (size != UNKNOWN_SIZE)
            ZSTD_CCtx_setPledgedSrcSize(context, size);
        out_.resize(ZSTD_CStreamOutSize());
        return true;
    }
    Storage_Result feed(void const* data, size_t size, Codec_Sink const& sink) override {
        size_ += size;
        return code({data, size, 0}, ZSTD_e_continue, sink);
    }
    Storage_Result finish(Codec_Sink const& sink) override {
        Storage_Result const result = code({nullptr, 0, 0}, ZSTD_e_end, sink);
        if (!result)
            return result;
        if (wanted_ != UNKNOWN_SIZE && size_ != wanted_)
            return {Storage_Result::FAILED, "the source does not have the size it should have"};
        std::string const tail = tail_of(size_, sum_);
        return sink(tail.data(), tail.size());
    }

private:
    Storage_Result put(void const* data, size_t size, Codec_Sink const& sink) {
        sum_ = add_to_sum(sum_, data, size);
        return sink(data, size);
    }
    Storage_Result code(ZSTD_inBuffer in, ZSTD_EndDirective directive, Codec_Sink const& sink) {
        if (!headed_) {
            headed_ = true;
            if (Storage_Result result = put(HEAD, HEAD_SIZE, sink); !result)
                return result;
        }
        for (;;) {
            ZSTD_outBuffer out{out_.data(), out_.size(), 0};
            size_t const left = ZSTD_compressStream2(context_.get(), &out, &in, directive);
            if (ZSTD_isError(left))
                return {Storage_Result::FAILED,
                        std::string("zstd failed to compress, ") + ZSTD_getErrorName(left)};
            if (out.pos) {
                Storage_Result result = put(out_.data(), out.pos, sink);
                if (!result)
                    return result;
            }
            if (directive == ZSTD_e_end ? left == 0 : in.pos == in.size)
                return {};
        }
    }

    std::unique_ptr<ZSTD_CCtx, Context_Deleter> context_;
    std::vector<char> out_;
    uint64_t wanted_ = UNKNOWN_SIZE;
    uint64_t size_ = 0;
    uint32_t sum_ = 1; ///< Adler-32 of all that was put out
    bool headed_ = false;
};

class Zstd_Decoder : public Codec {
public:
    bool init() {
        context_.reset(ZSTD_createDCtx());
        out_.resize(ZSTD_DStreamOutSize());
        return context_ != nullptr;
    }
    Storage_Result feed(void const* data, size_t size, Codec_Sink const& sink) override {
        auto const* at = static_cast<char const*>(data);
        Storage_Result result;
        for (size_t used = 0; result && size > 0; at += used, size -= used)
            result = feed_some(at, size, used, sink);
        return result;
    }
    Storage_Result feed_some(void const* data, size_t size, size_t& used,
                             Codec_Sink const& sink) override {
        ZSTD_inBuffer in{data, size, 0};
        Storage_Result result;
        for (bool came_out = false; result && !came_out && in.pos < in.size;)
            result = decode(in, came_out, sink);
        used = in.pos;
        return result ? look(static_cast<char const*>(data), used) : result;
    }
    Storage_Result finish(Codec_Sink const& sink) override {
        Storage_Result result;
        ZSTD_inBuffer none{nullptr, 0, 0};
        for (bool came_out = true; result && left_ != 0 && came_out;)
            result = decode(none, came_out, sink);
        if (!result)
            return result;
        if (left_ != 0 || !has_data_)
            return damaged("it ends too early");
        if (head_.compare(0, HEAD_SIZE, HEAD, HEAD_SIZE) != 0 || tail_ == tail_of(size_, sum_))
            return {};
        return damaged(size_of_tail(tail_) == UNKNOWN_SIZE ? "it ends too early"
                                                           : "its size or checksum is wrong");
    }

private:
    /** Keeps the beginning and the end of the input, which tell what it should be. */
    Storage_Result look(char const* data, size_t size) {
        if (head_.size() < HEAD_SIZE) {
            head_.append(data, std::min(size, HEAD_SIZE - head_.size()));
            if (head_.size() == HEAD_SIZE && has_zstd_mark(head_.data(), HEAD_SIZE) &&
                head_.compare(0, HEAD_SIZE, HEAD, HEAD_SIZE) != 0)
                return damaged("its mark is broken");
        }
        size_t const kept = std::min(size, TAIL_SIZE);
        size_t const gone = tail_.size() + kept - std::min(TAIL_SIZE, tail_.size() + kept);
        sum_ = add_to_sum(sum_, tail_.data(), gone);
        sum_ = add_to_sum(sum_, data, size - kept);
        tail_.erase(0, gone).append(data + size - kept, kept);
        return {};
    }
    Storage_Result decode(ZSTD_inBuffer& in, bool& came_out, Codec_Sink const& sink) {
        if (left_ == 0 && static_cast<unsigned char const*>(in.src)[in.pos] == DATA_FRAME)
            has_data_ = true;
        ZSTD_outBuffer out{out_.data(), out_.size(), 0};
        left_ = ZSTD_decompressStream(context_.get(), &out, &in);
        if (ZSTD_isError(left_))
            return damaged(ZSTD_getErrorName(left_));
        size_ += out.pos;
        came_out = out.pos > 0;
        return came_out ? sink(out_.data(), out.pos) : Storage_Result();
    }

    std::unique_ptr<ZSTD_DCtx, Context_Deleter> context_;
    std::vector<char> out_;
    std::string head_;
    std::string tail_;
    uint64_t size_ = 0;
    uint32_t sum_ = 1; ///< Adler-32 of the input but for what is in tail_
    size_t left_ = 0;  ///< 0 between two frames
    bool has_data_ = false;
};

} // namespace

std::unique_ptr<Codec> make_zstd_encoder(int level, uint64_t size, unsigned threads) {
    std::unique_ptr<Zstd_Encoder> encoder(new (std::nothrow) Zstd_Encoder);
    if (!encoder || !encoder->init(level, size, threads))
        return nullptr;
    return encoder;
}

std::unique_ptr<Codec> make_zstd_decoder() {
    std::unique_ptr<Zstd_Decoder> decoder(new (std::nothrow) Zstd_Decoder);
    if (!decoder || !decoder->init())
        return nullptr;
    return decoder;
}

bool has_zstd_mark(void const* begin, size_t size) {
    constexpr size_t ENOUGH = HEAD_SIZE * 3 / 4;
    if (size < HEAD_SIZE)
        return false;
    size_t same = 0;
    for (size_t i = 0; i < HEAD_SIZE; ++i)
        same += static_cast<char const*>(begin)[i] == HEAD[i];
    return same >= ENOUGH;
}

Storage_Result quick_zstd_size(Storage_Reader& object, uint64_t& size) {
    size = UNKNOWN_SIZE;
    uint64_t const stored = object.entry().size;
    if (stored < HEAD_SIZE + TAIL_SIZE)
        return {};
    char head[HEAD_SIZE];
    std::string tail(TAIL_SIZE, '\0');
    size_t got = 0;
    Storage_Result result = object.read_at(0, head, HEAD_SIZE, got);
    if (!result || got != HEAD_SIZE || std::memcmp(head, HEAD, HEAD_SIZE) != 0)
        return result;
    result = object.read_at(stored - TAIL_SIZE, tail.data(), TAIL_SIZE, got);
    if (result && got == TAIL_SIZE)
        size = size_of_tail(tail);
    return result;
}
