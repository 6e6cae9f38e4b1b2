#include "host/storage/codec.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr size_t MOST_OUTPUT = 4 * 1024 * 1024;

struct Outcome {
    bool done = false;
    std::string output;
};

/** An object of a pool, in memory. */
class Memory_Reader : public Storage_Reader {
public:
    explicit Memory_Reader(std::string_view content) : content_(content) {
        entry_.size = content.size();
    }
    Storage_Entry const& entry() const override { return entry_; }
    Storage_Result read_at(uint64_t offset, void* buffer, size_t size, size_t& got) override {
        got = 0;
        if (offset < content_.size())
            got = std::min<size_t>(size, content_.size() - offset);
        if (got > 0)
            std::memcpy(buffer, content_.data() + offset, got);
        return {};
    }

private:
    std::string_view const content_;
    Storage_Entry entry_;
};

Codec_Sink sink_into(std::string& output) {
    return [&output](void const* data, size_t size) -> Storage_Result {
        if (output.size() + size > MOST_OUTPUT)
            return {Storage_Result::NO_SPACE, "enough"};
        output.append(static_cast<char const*>(data), size);
        return {};
    };
}

Outcome decode(Compression_Method method, std::string_view input, size_t piece) {
    Outcome outcome;
    auto const codec = make_decoder(method);
    Codec_Sink const sink = sink_into(outcome.output);
    for (; !input.empty(); input.remove_prefix(std::min(piece, input.size())))
        if (!codec->feed(input.data(), std::min(piece, input.size()), sink))
            return outcome;
    outcome.done = static_cast<bool>(codec->finish(sink));
    return outcome;
}

/** As the data of an object is served: piece by piece of what comes out. */
Outcome decode_some(Compression_Method method, std::string_view input) {
    Outcome outcome;
    auto const codec = make_decoder(method);
    Codec_Sink const sink = sink_into(outcome.output);
    while (!input.empty()) {
        size_t used = 0;
        size_t const before = outcome.output.size();
        if (!codec->feed_some(input.data(), input.size(), used, sink))
            return outcome;
        if (used > input.size() || (used == 0 && outcome.output.size() == before))
            std::abort(); // it would go on for ever
        input.remove_prefix(used);
    }
    outcome.done = static_cast<bool>(codec->finish(sink));
    return outcome;
}

} // namespace

/**
 * The first byte says the method and the size of the pieces. However the rest is fed, the same
 * comes out; what is a whole object of ours has the size that it tells.
 */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    if (size < 1)
        return 0;
    Compression_Method const method = data[0] & 1 ? COMPR_ZSTD : COMPR_LZOP;
    size_t const piece = 1 + (data[0] >> 1);
    std::string_view const input(reinterpret_cast<char const*>(data) + 1, size - 1);
    Outcome const whole = decode(method, input, input.size() + 1);
    Outcome const pieces = decode(method, input, piece);
    Outcome const some = decode_some(method, input);
    // of a frame that tells a wrong size, libzstd minds only when it gets it whole
    bool const is_own = marked_method(input.data(), input.size()) == method;
    if ((is_own || method == COMPR_LZOP) && (whole.done != pieces.done || whole.done != some.done))
        std::abort();
    if ((whole.done && pieces.done && whole.output != pieces.output) ||
        (whole.done && some.done && whole.output != some.output))
        std::abort();
    Memory_Reader reader(input);
    uint64_t told = UNKNOWN_SIZE;
    if (quick_original_size(reader, method, told) && told != UNKNOWN_SIZE && whole.done && is_own &&
        told != whole.output.size())
        std::abort();
    return 0;
}
