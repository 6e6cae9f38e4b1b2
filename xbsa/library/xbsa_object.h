#ifndef XBSA_LIBRARY_XBSA_OBJECT_H
#define XBSA_LIBRARY_XBSA_OBJECT_H

#include "host/storage/compression.h"
#include "json_spirit/value.h"
#include "xbsa/library/xbsa.h"

#include <cstdint>
#include <cstring>
#include <string>

/** One object as it is kept: what its creator said of it, and how it is stored. */
struct Xbsa_Object {
    uint64_t copy_id = 0; ///< random, never 0
    int64_t created = 0;  ///< microseconds since the epoch
    std::string bsa_owner;
    std::string app_owner;
    std::string space;
    std::string path;
    BSA_CopyType copy_type = BSA_CopyType_BACKUP;
    BSA_ObjectType object_type = BSA_ObjectType_OTHER;
    uint64_t restore_order = 0;
    uint64_t estimated_size = 0;
    std::string resource_type;
    std::string description;
    std::string info; ///< BSA_MAX_OBJECTINFO bytes, less the zeros at their end

    uint64_t size = 0;        ///< of the content
    uint64_t stored_size = 0; ///< in the pool
    std::string digest;       ///< of the content; see Xbsa_Digest
    Compression_Method compression = COMPR_NONE;
    std::string set;  ///< the backup set that it is in
    std::string file; ///< its data's name in the set's folder

    /**
     * Takes over what a caller says; false for texts that do not end and for unknown types.
     * @param owner  the session's, for an object without one
     */
    [[nodiscard]] bool read(BSA_ObjectDescriptor const& descriptor, BSA_ObjectOwner const& owner);
    /** Fills a descriptor. @param newest  whether it is the most recent copy */
    void write(BSA_ObjectDescriptor& descriptor, bool newest) const;

    /** Names the data's file: readable for people, with the copy's id for the machine. */
    void name_file();
    /**
     * Takes such a name apart.
     * @param path  gets readable_path() of the object's path
     * @return false for a file that is not named like that
     */
    [[nodiscard]] static bool parse_file(std::string const& file, std::string& path,
                                         uint64_t& copy_id);
    /** What a file's name has of a path; equal for equal paths, and seldom for others. */
    static std::string readable_path(std::string const& path);

    /** As it stands in the index; without the set. */
    json_spirit::Object to_json() const;
    /** Reads that; throws json_spirit::Error for what cannot be an object. */
    static Xbsa_Object from_json(json_spirit::Object const& object);
};

/** What a caller looks for, in a form that can be asked. */
class Xbsa_Query {
public:
    /**
     * False for texts that do not end, an empty path name, unknown types and invalid times.
     * @param owner  the session's, for a query without one
     */
    [[nodiscard]] bool read(BSA_QueryDescriptor const& descriptor, BSA_ObjectOwner const& owner);

    /** The path name of all that is wanted; "" when it is a pattern or any. */
    std::string exact_path() const;
    /** Whether owner and name are wanted. */
    [[nodiscard]] bool wants_name(Xbsa_Object const& object) const;
    /** Whether the rest is wanted. @param newest  whether it is the most recent copy */
    [[nodiscard]] bool wants(Xbsa_Object const& object, bool newest) const;

private:
    std::string bsa_owner_, app_owner_, space_, path_;
    int64_t created_from_ = INT64_MIN; ///< seconds since the epoch
    int64_t created_to_ = INT64_MAX;
    BSA_CopyType copy_type_ = BSA_CopyType_ANY;
    BSA_ObjectType object_type_ = BSA_ObjectType_ANY;
    BSA_ObjectStatus status_ = BSA_ObjectStatus_ANY;
};

/** Whether a text matches a pattern of BSA_QueryDescriptor. */
[[nodiscard]] bool xbsa_matches(std::string const& pattern, std::string const& text);

/** The number that an enumeration in a caller's memory has, whatever it is. */
template <typename Enum>
int xbsa_number(Enum const& value) {
    static_assert(sizeof(Enum) == sizeof(int));
    int number = 0;
    std::memcpy(&number, &value, sizeof number);
    return number;
}

/** Reads a text out of an array; false when it does not end there. */
template <size_t Size>
[[nodiscard]] bool xbsa_text(char const (&array)[Size], std::string& text) {
    std::string const all(array, Size);
    size_t const end = all.find('\0');
    if (end == std::string::npos)
        return false;
    text = all.substr(0, end);
    return true;
}

/** Writes a text into an array, cut to what fits, and zeros behind it. */
template <size_t Size>
void xbsa_put_text(std::string const& text, char (&array)[Size]) {
    for (size_t i = 0; i < Size; ++i)
        array[i] = i < text.size() && i + 1 < Size ? text[i] : '\0';
}

#endif
