#include "host/storage/compression.h"

#include <string_view>

namespace {

struct Codec_Row {
    Compression_Method method;
    char const* name;
    char const* suffix;
    MTF::Compression mtf;
};

constexpr Codec_Row CODECS[] = {
    {COMPR_AUTO, "auto", "", MTF::COMPRESSION_NONE},
    {COMPR_LZOP, "lzop", ".lzo", MTF::COMPRESSION_LZOP},
    {COMPR_ZSTD, "zstd", ".zst", MTF::COMPRESSION_ZSTD},
};

Codec_Row const* find(Compression_Method method) {
    for (Codec_Row const& row : CODECS)
        if (row.method == method)
            return &row;
    return nullptr;
}

/** The codec whose suffix stands behind a name of its own, also in the last part of a path. */
Codec_Row const* find_by_suffix(std::string_view name) {
    for (Codec_Row const& row : CODECS) {
        std::string_view const suffix = row.suffix;
        if (suffix.empty() || !name.ends_with(suffix) || name.size() == suffix.size())
            continue;
        if (name[name.size() - suffix.size() - 1] != '/')
            return &row;
    }
    return nullptr;
}

} // namespace

Compression_Method compression_name_to_value(char const* text, ssize_t length) {
    if (!text)
        return COMPR_NONE;
    std::string_view const name =
        length < 0 ? std::string_view(text) : std::string_view(text, static_cast<size_t>(length));
    for (Codec_Row const& row : CODECS)
        if (name == row.name)
            return row.method;
    return COMPR_NONE;
}

char const* compression_value_to_name(Compression_Method method) {
    Codec_Row const* const row = find(method);
    return row ? row->name : nullptr;
}

char const* compression_value_to_suffix(Compression_Method method) {
    Codec_Row const* const row = find(method);
    return row ? row->suffix : "";
}

MTF::Compression compression_to_mtf(Compression_Method method) {
    Codec_Row const* const row = find(method);
    return row ? row->mtf : MTF::COMPRESSION_NONE;
}

Compression_Method compression_of_name(std::string const& name) {
    Codec_Row const* const row = find_by_suffix(name);
    return row ? row->method : COMPR_NONE;
}

std::string uncompressed_name(std::string const& name) {
    Codec_Row const* const row = find_by_suffix(name);
    return row ? name.substr(0, name.size() - std::string_view(row->suffix).size()) : name;
}
