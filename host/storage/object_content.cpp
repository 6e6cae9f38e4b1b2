#include "host/storage/object_content.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t STEP = 256 * 1024;

} // namespace

Storage_Result method_to_read(Storage_Reader& object, std::string const& name,
                              Compression_Method asked, Compression_Method& method) {
    method = asked == COMPR_AUTO ? compression_of_name(name) : asked;
    if (asked != COMPR_AUTO || method != COMPR_NONE)
        return {};
    char begin[MARK_LENGTH];
    size_t got = 0;
    Storage_Result result = object.read_at(0, begin, sizeof begin, got);
    if (result)
        method = marked_method(begin, got);
    return result;
}

Compression_Method method_to_write(std::string const& name, Compression_Method asked) {
    return asked == COMPR_AUTO ? compression_of_name(name) : asked;
}

Object_Content::Object_Content(std::unique_ptr<Storage_Reader> object, Compression_Method method,
                               size_t window)
    : object_(std::move(object)), method_(method), kept_(std::max(window, STEP)) {}

Storage_Result Object_Content::open(Storage_Connection& connection, std::string const& name,
                                    Compression_Method asked,
                                    std::unique_ptr<Object_Content>& content) {
    std::unique_ptr<Storage_Reader> object;
    Compression_Method method = COMPR_NONE;
    Storage_Result result = connection.open(name, object);
    if (result)
        result = method_to_read(*object, name, asked, method);
    if (result)
        content = std::make_unique<Object_Content>(std::move(object), method);
    return result;
}

Storage_Result Object_Content::size(uint64_t& size) {
    Storage_Result result;
    if (size_ == UNKNOWN_SIZE)
        result = quick_original_size(*object_, method_, size_);
    if (result && size_ == UNKNOWN_SIZE) {
        wanted_ = UINT64_MAX;
        result = unpack_beyond(UINT64_MAX);
        size_ = unpacked_;
    }
    size = size_;
    return result;
}

Storage_Result Object_Content::read_at(uint64_t offset, void* buffer, size_t size, size_t& got) {
    if (method_ == COMPR_NONE)
        return object_->read_at(offset, buffer, size, got);
    got = 0;
    auto* to = static_cast<char*>(buffer);
    while (got < size) {
        size_t const wanted = std::min(size - got, STEP);
        size_t piece = 0;
        Storage_Result result = read_piece(offset + got, to + got, wanted, piece);
        if (!result || piece == 0)
            return result;
        got += piece;
    }
    return {};
}

Storage_Result Object_Content::read_piece(uint64_t offset, char* to, size_t size, size_t& got) {
    if (offset < unpacked_ - window_.size())
        begin_anew();
    wanted_ = offset;
    Storage_Result result = unpack_beyond(offset);
    // the end is given out only when it is known to be sound
    if (result && !finished_ && unpacked_ - offset <= size)
        result = unpack_beyond(unpacked_);
    if (!result || offset >= unpacked_)
        return result;
    uint64_t const back = unpacked_ - offset;
    got = static_cast<size_t>(std::min<uint64_t>(size, back));
    std::memcpy(to, window_.data() + (window_.size() - back), got);
    return {};
}

void Object_Content::begin_anew() {
    decoder_.reset();
    window_.clear();
    in_.clear();
    used_ = 0;
    read_ = unpacked_ = 0;
    finished_ = false;
    failure_ = {};
}

Storage_Result Object_Content::unpack_beyond(uint64_t end) {
    if (!decoder_) {
        decoder_ = make_decoder(method_);
        if (!decoder_)
            return {Storage_Result::FAILED, "memory is short"};
    }
    Codec_Sink const sink = [&](void const* data, size_t size) {
        // one step may bring much, of which the beginning is wanted
        if (window_.size() > 2 * kept_)
            window_.erase(0, std::min<uint64_t>(window_.size() - kept_,
                                                wanted_ - (unpacked_ - window_.size())));
        window_.append(static_cast<char const*>(data), size);
        unpacked_ += size;
        return Storage_Result();
    };
    while (failure_ && !finished_ && unpacked_ <= end)
        failure_ = unpack_some(sink);
    return failure_;
}

Storage_Result Object_Content::unpack_some(Codec_Sink const& sink) {
    if (used_ == in_.size()) {
        size_t got = 0;
        used_ = 0;
        in_.resize(STEP);
        Storage_Result result = object_->read_at(read_, in_.data(), in_.size(), got);
        in_.resize(got);
        read_ += got;
        if (!result)
            return result;
        if (got == 0) {
            finished_ = true;
            return decoder_->finish(sink);
        }
    }
    size_t used = 0;
    Storage_Result result = decoder_->feed_some(in_.data() + used_, in_.size() - used_, used, sink);
    used_ += used;
    return result;
}
