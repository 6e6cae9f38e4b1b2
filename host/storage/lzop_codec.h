#ifndef HOST_STORAGE_LZOP_CODEC_H
#define HOST_STORAGE_LZOP_CODEC_H

#include "host/storage/codec.h"

/**
 * The file format of the lzop program, 1.0x: a header, then blocks of up to 256 KiB, each packed by
 * itself (LZO1X, by liblzo2) with Adler-32 sums of both its forms. All numbers are big endian.
 *
 *     header  89 "LZO" 00 0D 0A 1A 0A; u16 version, library, version needed; u8 method, level;
 *             u32 flags, mode, time low, time high; u8 length and name; u32 sum of all but the
 * magic block   u32 size, packed size; u32 sum of the data, of the packed data unless it is stored
 *             as it came (then both sizes are the same); the packed data
 *     end     u32 0; another header may follow, as of files that were joined
 *
 * An object of our own bears the name "zenbrak3" in its header. Of objects of others filters and
 * methods but LZO1X are refused; blocks may have up to 64 MiB.
 */
std::unique_ptr<Codec> make_lzop_encoder(int level, uint64_t size);
std::unique_ptr<Codec> make_lzop_decoder();

/** True when an object begins with our header, or with most of it. */
[[nodiscard]] bool has_lzop_mark(void const* begin, size_t size);

/** See quick_original_size(); reads the blocks' heads. */
Storage_Result quick_lzop_size(Storage_Reader& object, uint64_t& size);

#endif
