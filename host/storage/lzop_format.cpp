#include "host/storage/lzop_format.h"

#include <cstring>
#include <lzo/lzoconf.h>

namespace lzop {

namespace {

constexpr uint16_t VERSION = 0x1040;
constexpr uint16_t VERSION_NEEDED = 0x0940;
constexpr uint16_t OLDEST_VERSION = 0x0900;
constexpr uint16_t FULL_HEADER_VERSION = 0x0940; ///< from here on a header has all its fields

enum Flags : uint32_t {
    ADLER32_D = 0x1,
    ADLER32_C = 0x2,
    H_EXTRA_FIELD = 0x40,
    CRC32_D = 0x100,
    CRC32_C = 0x200,
    MULTIPART = 0x400,
    H_FILTER = 0x800,
    H_CRC32 = 0x1000,
    OS_UNIX = 0x03000000
};

constexpr uint32_t FILE_MODE = 0100640;
constexpr uint32_t MAX_EXTRA_FIELD = 64 * 1024;

/** Reads numbers one after the other, and knows when the data did not suffice. */
class Number_Reader {
public:
    Number_Reader(char const* data, size_t size) : data_(data), size_(size) {}

    uint32_t number(size_t bytes) {
        uint32_t value = 0;
        if (char const* const at = skip(bytes))
            for (size_t i = 0; i < bytes; ++i)
                value = value << 8 | static_cast<unsigned char>(at[i]);
        return value;
    }
    /** Gives what is skipped; null when there is too little. */
    char const* skip(size_t bytes) {
        if (short_ || size_ - at_ < bytes) {
            short_ = true;
            return nullptr;
        }
        at_ += bytes;
        return data_ + at_ - bytes;
    }
    bool is_short() const { return short_; }
    size_t at() const { return at_; }

private:
    char const* data_;
    size_t size_;
    size_t at_ = 0;
    bool short_ = false;
};

Storage_Result check_fields(uint32_t version, uint32_t needed, uint32_t method, uint32_t flags) {
    if (version < OLDEST_VERSION || needed > VERSION)
        return damaged("a version that is not known");
    if (method < LZO1X_1 || method > LZO1X_999)
        return damaged("a method that is not known");
    if (flags & (H_FILTER | MULTIPART))
        return damaged("it has filters or parts");
    return {};
}

} // namespace

Storage_Result damaged(char const* why) {
    return {Storage_Result::FAILED, std::string("damaged lzop data, ") + why};
}

uint32_t adler32_of(void const* data, size_t size) {
    return lzo_adler32(1, static_cast<unsigned char const*>(data), size);
}

uint32_t crc32_of(void const* data, size_t size) {
    return lzo_crc32(0, static_cast<unsigned char const*>(data), size);
}

void append_number(std::string& text, uint32_t value, int bytes) {
    for (int i = bytes; i-- > 0;)
        text += static_cast<char>(value >> (8 * i));
}

std::string make_header(Method method, uint8_t level) {
    std::string header(MAGIC, MAGIC_SIZE);
    append_number(header, VERSION, 2);
    append_number(header, lzo_version() & 0xffff, 2);
    append_number(header, VERSION_NEEDED, 2);
    append_number(header, method, 1);
    append_number(header, level, 1);
    append_number(header, ADLER32_D | ADLER32_C | OS_UNIX, 4);
    append_number(header, FILE_MODE, 4);
    append_number(header, 0, 4); // no time: the same content gives the same object
    append_number(header, 0, 4);
    append_number(header, OWN_NAME_SIZE, 1);
    header.append(OWN_NAME, OWN_NAME_SIZE);
    append_number(header, adler32_of(header.data() + MAGIC_SIZE, header.size() - MAGIC_SIZE), 4);
    return header;
}

std::string make_block_head(void const* data, uint32_t size, void const* packed,
                            uint32_t packed_size) {
    std::string head;
    append_number(head, size, 4);
    append_number(head, packed_size, 4);
    append_number(head, adler32_of(data, size), 4);
    if (packed_size != size)
        append_number(head, adler32_of(packed, packed_size), 4);
    return head;
}

Storage_Result read_header(char const* data, size_t size, Header& header, bool& need_more) {
    Number_Reader in(data, size);
    char const* const magic = in.skip(MAGIC_SIZE);
    if (magic && std::memcmp(magic, MAGIC, MAGIC_SIZE) != 0)
        return damaged("it does not begin as such");
    uint32_t const version = in.number(2);
    in.number(2);
    bool const full = version >= FULL_HEADER_VERSION;
    uint32_t const needed = full ? in.number(2) : 0;
    uint32_t const method = in.number(1);
    header.level = static_cast<uint8_t>(full ? in.number(1) : 0);
    header.flags = in.number(4);
    if (header.flags & H_FILTER)
        in.number(4);
    in.number(4);
    in.number(4);
    if (full)
        in.number(4);
    in.skip(in.number(1));
    size_t const summed = in.at();
    uint32_t const sum = in.number(4);
    need_more = in.is_short();
    if (need_more)
        return {};
    uint32_t const real_sum = header.flags & H_CRC32
                                  ? crc32_of(data + MAGIC_SIZE, summed - MAGIC_SIZE)
                                  : adler32_of(data + MAGIC_SIZE, summed - MAGIC_SIZE);
    if (sum != real_sum)
        return damaged("wrong checksum of the header");
    Storage_Result result = check_fields(version, needed, method, header.flags);
    if (!result)
        return result;
    if (header.flags & H_EXTRA_FIELD) {
        uint32_t const length = in.number(4);
        if (length > MAX_EXTRA_FIELD)
            return damaged("an extra field that is too long");
        in.skip(length);
        in.number(4);
    }
    need_more = in.is_short();
    header.method = static_cast<Method>(method);
    header.length = in.at();
    return {};
}

Storage_Result read_block_head(char const* data, size_t size, Header const& header,
                               Block_Head& head, bool& need_more) {
    Number_Reader in(data, size);
    Block_Head read;
    read.size = in.number(4);
    if (read.size != 0) {
        read.packed_size = in.number(4);
        bool const packed = !read.stored();
        read.has_adler = header.flags & ADLER32_D;
        read.has_crc = header.flags & CRC32_D;
        read.has_packed_adler = packed && header.flags & ADLER32_C;
        read.has_packed_crc = packed && header.flags & CRC32_C;
        read.adler = read.has_adler ? in.number(4) : 0;
        read.crc = read.has_crc ? in.number(4) : 0;
        read.packed_adler = read.has_packed_adler ? in.number(4) : 0;
        read.packed_crc = read.has_packed_crc ? in.number(4) : 0;
    }
    need_more = in.is_short();
    if (need_more)
        return {};
    if (read.size > MAX_BLOCK_SIZE || read.packed_size > read.size ||
        (read.size != 0 && read.packed_size == 0))
        return damaged("a block of an impossible size");
    read.length = in.at();
    head = read;
    return {};
}

} // namespace lzop
