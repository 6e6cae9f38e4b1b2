#ifndef HOST_STORAGE_ZSTD_CODEC_H
#define HOST_STORAGE_ZSTD_CODEC_H

#include "host/storage/codec.h"

/**
 * Zstandard (RFC 8878) by libzstd. An object of our own is a skippable frame with a mark, one
 * frame with its checksum, and a skippable frame with the original size and the Adler-32 sum of all
 * that stands before it, which covers the bits to which the format itself is indifferent:
 *
 *     5D 2A 4D 18  08 00 00 00  "zenbrak3"
 *     the data's frame
 *     5E 2A 4D 18  14 00 00 00  size, 8 bytes, sum, 4 bytes, both little endian  "zenbrak3"
 *
 * Other objects may have any frames; windows of more than 128 MiB are refused.
 */
std::unique_ptr<Codec> make_zstd_encoder(int level, uint64_t size, unsigned threads);
std::unique_ptr<Codec> make_zstd_decoder();

/** True when an object begins with our mark, or with most of it. */
[[nodiscard]] bool has_zstd_mark(void const* begin, size_t size);

/** See quick_original_size(). */
Storage_Result quick_zstd_size(Storage_Reader& object, uint64_t& size);

#endif
