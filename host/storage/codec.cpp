#include "host/storage/codec.h"

#include "host/storage/lzop_codec.h"
#include "host/storage/zstd_codec.h"

#include <new>

namespace {

class Plain_Codec : public Codec {
public:
    explicit Plain_Codec(uint64_t size) : wanted_(size) {}
    Storage_Result feed(void const* data, size_t size, Codec_Sink const& sink) override {
        seen_ += size;
        return size ? sink(data, size) : Storage_Result();
    }
    Storage_Result finish(Codec_Sink const&) override {
        if (wanted_ != UNKNOWN_SIZE && seen_ != wanted_)
            return {Storage_Result::FAILED, "the source does not have the size it should have"};
        return {};
    }

private:
    uint64_t const wanted_;
    uint64_t seen_ = 0;
};

} // namespace

std::unique_ptr<Codec> make_encoder(Compression_Method method, int level, uint64_t size,
                                    unsigned threads) {
    switch (method) {
    case COMPR_NONE:
        return std::unique_ptr<Codec>(new (std::nothrow) Plain_Codec(size));
    case COMPR_ZSTD:
        return make_zstd_encoder(level, size, threads);
    case COMPR_LZOP:
        return make_lzop_encoder(level, size);
    default:
        return nullptr;
    }
}

std::unique_ptr<Codec> make_decoder(Compression_Method method) {
    switch (method) {
    case COMPR_NONE:
        return std::unique_ptr<Codec>(new (std::nothrow) Plain_Codec(UNKNOWN_SIZE));
    case COMPR_ZSTD:
        return make_zstd_decoder();
    case COMPR_LZOP:
        return make_lzop_decoder();
    default:
        return nullptr;
    }
}

Compression_Method marked_method(void const* begin, size_t size) {
    if (has_zstd_mark(begin, size))
        return COMPR_ZSTD;
    return has_lzop_mark(begin, size) ? COMPR_LZOP : COMPR_NONE;
}

Storage_Result quick_original_size(Storage_Reader& object, Compression_Method method,
                                   uint64_t& size) {
    switch (method) {
    case COMPR_NONE:
        size = object.entry().size;
        return {};
    case COMPR_ZSTD:
        return quick_zstd_size(object, size);
    case COMPR_LZOP:
        return quick_lzop_size(object, size);
    default:
        size = UNKNOWN_SIZE;
        return {};
    }
}
