#ifndef HOST_STORAGE_LZOP_FORMAT_H
#define HOST_STORAGE_LZOP_FORMAT_H

#include "host/storage/storage_backend.h"

#include <cstdint>
#include <string>

/** The pieces of the lzop file format; see lzop_codec.h. */
namespace lzop {

constexpr char MAGIC[] = "\x89LZO\0\r\n\x1a\n";
constexpr size_t MAGIC_SIZE = sizeof MAGIC - 1;
constexpr char OWN_NAME[] = "zenbrak3";
constexpr size_t OWN_NAME_SIZE = sizeof OWN_NAME - 1;
constexpr size_t OWN_NAME_OFFSET = 34; ///< in a header of our own; its length stands before it

constexpr uint32_t BLOCK_SIZE = 256 * 1024;
constexpr uint32_t MAX_BLOCK_SIZE = 64 * 1024 * 1024;

enum Method : uint8_t { LZO1X_1 = 1, LZO1X_1_15 = 2, LZO1X_999 = 3 };

/** What the header says that the blocks need. */
struct Header {
    Method method = LZO1X_1;
    uint8_t level = 0;
    uint32_t flags = 0;
    size_t length = 0; ///< bytes of the whole header
};

/** What stands before the data of a block. */
struct Block_Head {
    uint32_t size = 0; ///< 0: the end of the file
    uint32_t packed_size = 0;
    bool has_adler = false, has_crc = false, has_packed_adler = false, has_packed_crc = false;
    uint32_t adler = 0, crc = 0, packed_adler = 0, packed_crc = 0;
    size_t length = 0; ///< bytes of this head

    [[nodiscard]] bool stored() const { return packed_size == size; }
};

Storage_Result damaged(char const* why);

uint32_t adler32_of(void const* data, size_t size);
uint32_t crc32_of(void const* data, size_t size);

/** Appends a number, big endian. */
void append_number(std::string& text, uint32_t value, int bytes);

/** A header of our own. */
std::string make_header(Method method, uint8_t level);
/** The head of a block of our own. */
std::string make_block_head(void const* data, uint32_t size, void const* packed,
                            uint32_t packed_size);

/**
 * Reads a header from the beginning of a stream.
 * @param need_more  set when @a size bytes are too few to tell; success then means nothing yet
 */
Storage_Result read_header(char const* data, size_t size, Header& header, bool& need_more);
/** The same for the head of a block. */
Storage_Result read_block_head(char const* data, size_t size, Header const& header,
                               Block_Head& head, bool& need_more);

} // namespace lzop

#endif
