#ifndef HOST_STORAGE_CODEC_H
#define HOST_STORAGE_CODEC_H

#include "host/storage/compression.h"
#include "host/storage/storage_backend.h"

#include <functional>
#include <memory>

/** Takes a piece of output. A failure ends the coding and is what feed() or finish() returns. */
using Codec_Sink = std::function<Storage_Result(void const* data, size_t size)>;

/**
 * One half of a compression method, as a stream: feed() takes the input in pieces of any size and
 * hands on what comes out, in pieces of at most a few MiB; finish() tells that all of it has come.
 * What it keeps does not grow with the stream. After a failure it may only be destroyed. For one
 * thread at a time.
 */
class Codec {
public:
    virtual ~Codec() = default;
    virtual Storage_Result feed(void const* data, size_t size, Codec_Sink const& sink) = 0;
    /**
     * The same, but returns early once something has come out, so that a few bytes that stand for
     * gigabytes come out piece by piece. The rest of the input is to be fed again.
     * @param used  bytes of the input that have been taken, may be 0
     */
    virtual Storage_Result feed_some(void const* data, size_t size, size_t& used,
                                     Codec_Sink const& sink) {
        used = size;
        return feed(data, size, sink);
    }
    /** For a decoder an input that ends too early is a failure. */
    virtual Storage_Result finish(Codec_Sink const& sink) = 0;
};

/** The size of a stream that is not known when its encoder is made. */
constexpr uint64_t UNKNOWN_SIZE = UINT64_MAX;

/**
 * Makes an encoder. What it writes begins with a mark by which marked_method() knows it again,
 * and is a valid file of the method's own program all the same.
 * @param method   COMPR_NONE hands on what comes; COMPR_AUTO gives null
 * @param level    as of the method's program, 1 to 22 for zstd and 1 to 9 for lzop; 0 is 3
 * @param size     bytes that will be fed, or UNKNOWN_SIZE; other than that many are a failure
 * @param threads  over which zstd spreads its work; 1 is the caller's own
 * @return null when memory is short
 */
std::unique_ptr<Codec> make_encoder(Compression_Method method, int level, uint64_t size,
                                    unsigned threads);

/**
 * Makes a decoder, also of what the method's own program has written. It verifies all checksums
 * that are in the stream. A wrong one, a stream cut short and bytes behind its end are failures.
 * @param method  COMPR_NONE hands on what comes; COMPR_AUTO gives null
 * @return null when memory is short
 */
std::unique_ptr<Codec> make_decoder(Compression_Method method);

/** So many bytes of an object's beginning let marked_method() tell its method. */
constexpr size_t MARK_LENGTH = 42;

/**
 * The method whose mark an object begins with; COMPR_NONE when it is none. A mark with a few bytes
 * damaged counts too, so that the decoder refuses the object rather than that it is taken raw.
 */
Compression_Method marked_method(void const* begin, size_t size);

/**
 * The original size of a stored object without decoding all of it, for the methods and objects
 * that allow it: COMPR_NONE, every lzop object, and zstd objects of this system's own.
 * @param size  UNKNOWN_SIZE when only decoding could tell
 */
Storage_Result quick_original_size(Storage_Reader& object, Compression_Method method,
                                   uint64_t& size);

#endif
