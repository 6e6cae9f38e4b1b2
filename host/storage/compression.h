#ifndef HOST_STORAGE_COMPRESSION_H
#define HOST_STORAGE_COMPRESSION_H

#include <string>
#include <sys/types.h>

/** How the objects of a pool are compressed. The numbers are persisted. */
enum Compression_Method : int {
    COMPR_NONE = 0,
    /**
     * As the object's name says: ".zst" is zstd, ".lzo" is lzop. Any other name is stored as it
     * comes; read, it is taken as it is too, unless it begins with the mark that this system's
     * encoders set, for then it was stored by a method of its own.
     */
    COMPR_AUTO = 1,
    COMPR_LZOP = 2, ///< the container of the lzop program
    COMPR_ZSTD = 3  ///< Zstandard frames, RFC 8878
};

namespace MTF {

/** How the data within an archive is compressed. */
enum Compression : int { COMPRESSION_NONE = 0, COMPRESSION_LZOP = 1, COMPRESSION_ZSTD = 2 };

} // namespace MTF

/** These functions log nothing and may be used on any thread. */

/**
 * The method of a name: "zstd", "lzop", "auto", in lower case.
 * @param length  bytes of @a text; -1 when it ends with a NUL
 * @return COMPR_NONE for "none", for a null or empty text and for every unknown one
 */
Compression_Method compression_name_to_value(char const* text, ssize_t length);

/** The name of a method; null for COMPR_NONE and for a value that is no method. */
char const* compression_value_to_name(Compression_Method method);

/**
 * What an object's name ends with when it is stored by a method: ".zst", ".lzo".
 * "" for COMPR_NONE, for a value that is no method, and for COMPR_AUTO: a name with this suffix,
 * written with COMPR_AUTO, is then stored as it comes.
 */
char const* compression_value_to_suffix(Compression_Method method);

/** The method within an archive; COMPRESSION_NONE for COMPR_AUTO too, as an archive has no suffix.
 */
MTF::Compression compression_to_mtf(Compression_Method method);

/** The method that a name's suffix stands for; COMPR_NONE for other names. */
Compression_Method compression_of_name(std::string const& name);

/** A name without its compression suffix; a name that is nothing but a suffix stays as it is. */
std::string uncompressed_name(std::string const& name);

#endif
