#include "xbsa/library/xbsa_transfer.h"

#include <algorithm>

namespace {

/** What is digested is still in the cache when it is packed; and a limit never holds up much. */
constexpr size_t STEP = 128 * 1024;

/** Holds the reading of a stored object down to the session's limit. */
class Limited_Reader : public Storage_Reader {
public:
    Limited_Reader(std::unique_ptr<Storage_Reader> reader, Rate_Limiter& limiter)
        : reader_(std::move(reader)), limiter_(limiter) {}

    Storage_Entry const& entry() const override { return reader_->entry(); }
    Storage_Result read_at(uint64_t offset, void* buffer, size_t size, size_t& got) override {
        Storage_Result result = reader_->read_at(offset, buffer, size, got);
        limiter_.acquire(got);
        return result;
    }

private:
    std::unique_ptr<Storage_Reader> const reader_;
    Rate_Limiter& limiter_;
};

} // namespace

Xbsa_Result Xbsa_Upload::begin(Storage_Connection& connection, std::string const& name,
                               Xbsa_Packing const& packing) {
    Storage_Result result = connection.create(name, false, writer_);
    if (!result)
        return result;
    encoder_ = make_encoder(packing.method, packing.level, UNKNOWN_SIZE, 1);
    if (!encoder_)
        return {BSA_RC_ABORT_SYSTEM_ERROR, "memory is short"};
    return {};
}

Codec_Sink Xbsa_Upload::sink() {
    return [this](void const* data, size_t size) {
        if (limiters_.room) {
            Storage_Result const room = limiters_.room(size);
            if (!room)
                return room;
        }
        limiters_.destination.acquire(size);
        object_.stored_size += size;
        return writer_->write(data, size);
    };
}

Xbsa_Result Xbsa_Upload::send(void const* data, size_t size) {
    Codec_Sink const to_pool = sink();
    auto const* from = static_cast<char const*>(data);
    while (size > 0) {
        size_t const step = std::min(size, STEP);
        limiters_.source.acquire(step);
        digest_.update(from, step);
        Storage_Result const result = encoder_->feed(from, step, to_pool);
        if (!result)
            return result;
        object_.size += step;
        from += step;
        size -= step;
    }
    return {};
}

Xbsa_Result Xbsa_Upload::finish() {
    Storage_Result const result = encoder_->finish(sink());
    if (!result)
        return result;
    encoder_.reset();
    object_.digest = digest_.text();
    return {};
}

Xbsa_Result Xbsa_Upload::commit() {
    if (committed_)
        return {};
    // what fails at the very end may have put the data into their place
    committed_ = true;
    Storage_Result const result = writer_->commit();
    writer_.reset();
    return result;
}

Xbsa_Result Xbsa_Download::begin(Storage_Connection& connection, std::string const& name) {
    std::unique_ptr<Storage_Reader> reader;
    Storage_Result const result = connection.open(name, reader);
    if (!result)
        return result;
    if (reader->entry().size != object_.stored_size)
        return damaged("it is stored in " + std::to_string(reader->entry().size) +
                       " bytes instead of " + std::to_string(object_.stored_size));
    content_ = std::make_unique<Object_Content>(
        std::make_unique<Limited_Reader>(std::move(reader), limiters_.source), object_.compression,
        0);
    return {};
}

Xbsa_Result Xbsa_Download::damaged(std::string const& why) {
    failure_ = {BSA_RC_ABORT_SYSTEM_ERROR, "object '" + object_.file + "' is damaged: " + why};
    return failure_;
}

Xbsa_Result Xbsa_Download::verify_end() {
    char beyond = 0;
    size_t got = 0;
    Storage_Result const result = content_->read_at(at_, &beyond, 1, got);
    if (!result)
        return damaged(result.text());
    if (got != 0)
        return damaged("it is longer than it was");
    if (digest_.text() != object_.digest)
        return damaged("its content is not what was stored");
    ended_ = true;
    return {};
}

Xbsa_Result Xbsa_Download::receive(void* buffer, size_t size, size_t& got) {
    got = 0;
    if (!failure_ || ended_)
        return failure_;
    if (at_ == object_.size)
        return verify_end();
    size_t const wanted = static_cast<size_t>(std::min<uint64_t>(size, object_.size - at_));
    size_t read = 0;
    Storage_Result const result = content_->read_at(at_, buffer, wanted, read);
    if (!result)
        return damaged(result.text());
    if (read != wanted)
        return damaged("it is shorter than it was");
    digest_.update(buffer, read);
    limiters_.destination.acquire(read);
    at_ += read;
    if (at_ == object_.size) {
        Xbsa_Result verified = verify_end();
        if (!verified)
            return verified;
    }
    got = read;
    return {};
}
