#include "xbsa/library/xbsa_object.h"

#include "host/http/http_encode.h"
#include "host/storage/storage_backend.h"
#include "json_spirit/access.h"
#include "qmrt/format.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr int64_t MICROSECONDS = 1000000;

/** JSON has UTF-8 alone, and names of objects may be any bytes. */
std::string escaped(std::string const& text) {
    return http_encode_string(text, HUT_FLAG_UPPERCASE);
}

std::string unescaped(json_spirit::Object const& object, char const* key) {
    std::string text, result;
    json_spirit::extract_or_throw(object)(key, text);
    if (!http_decode_string(text, 0, result))
        throw json_spirit::Error(std::string("'") + key + "' has a broken escape");
    return result;
}

uint64_t hexadecimal(json_spirit::Object const& object, char const* key) {
    std::string text;
    json_spirit::extract_or_throw(object)(key, text);
    char* end = nullptr;
    errno = 0;
    uint64_t const number = strtoull(text.c_str(), &end, 16);
    if (text.size() != 16 || *end || errno)
        throw json_spirit::Error(std::string("'") + key + "' is no number");
    return number;
}

std::string hexadecimal(uint64_t number) {
    return string_sprintf("%016llx", static_cast<unsigned long long>(number));
}

constexpr unsigned FILE_NAME_FLAGS = HUT_FLAG_SLASH | HUT_FLAG_UPPERCASE;

/** How much of a name a file's name has: its end. */
constexpr size_t READABLE = 160;

/** How much of a path is looked at to tell files apart: less than READABLE without an escape. */
constexpr size_t TOLD_APART = 100;

/** The end of what stands in a file's name for a path, in the one form for all files of it. */
std::string readable_end(std::string end) {
    if (end.starts_with("%2E")) // a dot at the beginning of a file's name is escaped
        end.replace(0, 3, ".");
    return end.substr(end.size() - std::min(end.size(), TOLD_APART));
}

bool is_zero(tm const& time) {
    return time.tm_year == 0 && time.tm_mon == 0 && time.tm_mday == 0 && time.tm_hour == 0 &&
           time.tm_min == 0 && time.tm_sec == 0;
}

/** The bound that a time of a query sets; none when it is all zeros. */
bool read_bound(tm const& time, int64_t& bound) {
    if (is_zero(time))
        return true;
    if (time.tm_year < 0 || time.tm_year > 8099 || time.tm_mon < 0 || time.tm_mon > 11 ||
        time.tm_mday < 1 || time.tm_mday > 31 || time.tm_hour < 0 || time.tm_hour > 23 ||
        time.tm_min < 0 || time.tm_min > 59 || time.tm_sec < 0 || time.tm_sec > 60)
        return false;
    tm copy = time;
    bound = timegm(&copy);
    return true;
}

/** Takes over an owner; two empty texts are the session's. False for a text that does not end. */
bool read_owner(BSA_ObjectOwner const& owner, BSA_ObjectOwner const& session, std::string& bsa,
                std::string& app) {
    if (!xbsa_text(owner.bsa_ObjectOwner, bsa) || !xbsa_text(owner.app_ObjectOwner, app))
        return false;
    return !bsa.empty() || !app.empty() ||
           (xbsa_text(session.bsa_ObjectOwner, bsa) && xbsa_text(session.app_ObjectOwner, app));
}

/** Takes over an enumeration's value, if it is one of them. */
template <typename Enum>
bool read_enum(Enum const& from, int least, int most, Enum& to) {
    int const number = xbsa_number(from);
    if (number < least || number > most)
        return false;
    to = static_cast<Enum>(number);
    return true;
}

} // namespace

bool Xbsa_Object::read(BSA_ObjectDescriptor const& descriptor, BSA_ObjectOwner const& owner) {
    info.assign(reinterpret_cast<char const*>(descriptor.objectInfo), BSA_MAX_OBJECTINFO);
    info.erase(info.find_last_not_of('\0') + 1);
    restore_order = descriptor.restoreOrder;
    estimated_size = descriptor.estimatedSize;
    return read_owner(descriptor.objectOwner, owner, bsa_owner, app_owner) &&
           xbsa_text(descriptor.objectName.objectSpaceName, space) &&
           xbsa_text(descriptor.objectName.pathName, path) && !(space + path).empty() &&
           xbsa_text(descriptor.resourceType, resource_type) &&
           xbsa_text(descriptor.objectDescription, description) &&
           read_enum(descriptor.copyType, BSA_CopyType_ARCHIVE, BSA_CopyType_BACKUP, copy_type) &&
           read_enum(descriptor.objectType, BSA_ObjectType_FILE, BSA_ObjectType_OTHER, object_type);
}

void Xbsa_Object::write(BSA_ObjectDescriptor& descriptor, bool newest) const {
    std::memset(&descriptor, 0, sizeof descriptor);
    xbsa_put_text(bsa_owner, descriptor.objectOwner.bsa_ObjectOwner);
    xbsa_put_text(app_owner, descriptor.objectOwner.app_ObjectOwner);
    xbsa_put_text(space, descriptor.objectName.objectSpaceName);
    xbsa_put_text(path, descriptor.objectName.pathName);
    time_t const seconds = created / MICROSECONDS;
    gmtime_r(&seconds, &descriptor.createTime);
    descriptor.copyType = copy_type;
    descriptor.copyId = copy_id;
    descriptor.restoreOrder = restore_order;
    descriptor.estimatedSize = estimated_size;
    xbsa_put_text(resource_type, descriptor.resourceType);
    descriptor.objectType = object_type;
    descriptor.objectStatus =
        newest ? BSA_ObjectStatus_MOST_RECENT : BSA_ObjectStatus_NOT_MOST_RECENT;
    xbsa_put_text(description, descriptor.objectDescription);
    std::memcpy(descriptor.objectInfo, info.data(),
                std::min<size_t>(info.size(), BSA_MAX_OBJECTINFO));
}

void Xbsa_Object::name_file() {
    std::string readable = http_encode_string(space, FILE_NAME_FLAGS) +
                           (space.empty() || path.empty() ? "" : ",") +
                           http_encode_string(path, FILE_NAME_FLAGS);
    // the end of a long path tells more than its beginning, and is not to begin within an escape
    if (readable.size() > READABLE) {
        size_t at = readable.size() - READABLE;
        for (size_t back = 1; back <= std::min<size_t>(2, at); ++back)
            if (readable[at - back] == '%') {
                at += 3 - back;
                break;
            }
        readable.erase(0, at);
    }
    if (readable.front() == '.')
        readable.replace(0, 1, "%2E");
    file = readable + "." + hexadecimal(copy_id) + compression_value_to_suffix(compression);
}

bool Xbsa_Object::parse_file(std::string const& file, std::string& path, uint64_t& copy_id) {
    constexpr size_t DIGITS = 16;
    std::string name = file;
    for (Compression_Method const method : {COMPR_LZOP, COMPR_ZSTD})
        if (std::string const suffix = compression_value_to_suffix(method);
            name.ends_with(suffix)) {
            name.erase(name.size() - suffix.size());
            break;
        }
    if (name.size() < DIGITS + 2 || name[name.size() - DIGITS - 1] != '.')
        return false;
    char* end = nullptr;
    copy_id = strtoull(name.c_str() + name.size() - DIGITS, &end, 16);
    name.erase(name.size() - DIGITS - 1);
    // the comma between space and path is the only one that is not escaped
    path = readable_end(name.substr(name.rfind(',') + 1));
    return *end == '\0' && copy_id != 0;
}

std::string Xbsa_Object::readable_path(std::string const& path) {
    return readable_end(http_encode_string(path, FILE_NAME_FLAGS));
}

json_spirit::Object Xbsa_Object::to_json() const {
    char const* const method = compression_value_to_name(compression);
    return json_spirit::Object_Maker()("copy_id", hexadecimal(copy_id))("created", created)(
        "bsa_owner", escaped(bsa_owner))("app_owner", escaped(app_owner))("space", escaped(space))(
        "path", escaped(path))("copy_type", static_cast<int>(copy_type))(
        "object_type", static_cast<int>(object_type))("restore_order", restore_order)(
        "estimated_size", estimated_size)("resource_type", escaped(resource_type))(
        "description", escaped(description))("info", escaped(info))("size", size)(
        "stored_size", stored_size)("xxh3", digest)("compression", method ? method : "")("file",
                                                                                         file);
}

Xbsa_Object Xbsa_Object::from_json(json_spirit::Object const& object) {
    Xbsa_Object made;
    int copy_type = 0, object_type = 0;
    std::string compression;
    made.copy_id = hexadecimal(object, "copy_id");
    made.bsa_owner = unescaped(object, "bsa_owner");
    made.app_owner = unescaped(object, "app_owner");
    made.space = unescaped(object, "space");
    made.path = unescaped(object, "path");
    made.resource_type = unescaped(object, "resource_type");
    made.description = unescaped(object, "description");
    made.info = unescaped(object, "info");
    json_spirit::extract_or_throw(object)("created", made.created)("copy_type", copy_type)(
        "object_type", object_type)("restore_order", made.restore_order)(
        "estimated_size", made.estimated_size)("size", made.size)("stored_size", made.stored_size)(
        "xxh3", made.digest)("compression", compression)("file", made.file);
    // the name leads into the set's folder and to nowhere else
    if (copy_type < BSA_CopyType_ARCHIVE || copy_type > BSA_CopyType_BACKUP ||
        object_type < BSA_ObjectType_FILE || object_type > BSA_ObjectType_OTHER ||
        made.copy_id == 0 || made.file.find('/') != std::string::npos ||
        !check_object_name(made.file))
        throw json_spirit::Error("it names no object");
    made.copy_type = static_cast<BSA_CopyType>(copy_type);
    made.object_type = static_cast<BSA_ObjectType>(object_type);
    made.compression = compression_name_to_value(compression.c_str(), -1);
    return made;
}

bool Xbsa_Query::read(BSA_QueryDescriptor const& descriptor, BSA_ObjectOwner const& owner) {
    return read_owner(descriptor.objectOwner, owner, bsa_owner_, app_owner_) &&
           xbsa_text(descriptor.objectName.objectSpaceName, space_) &&
           xbsa_text(descriptor.objectName.pathName, path_) && !path_.empty() &&
           read_bound(descriptor.createTime_from, created_from_) &&
           read_bound(descriptor.createTime_to, created_to_) &&
           read_enum(descriptor.copyType, BSA_CopyType_ANY, BSA_CopyType_BACKUP, copy_type_) &&
           read_enum(descriptor.objectType, BSA_ObjectType_ANY, BSA_ObjectType_OTHER,
                     object_type_) &&
           read_enum(descriptor.objectStatus, BSA_ObjectStatus_ANY,
                     BSA_ObjectStatus_NOT_MOST_RECENT, status_);
}

std::string Xbsa_Query::exact_path() const {
    return path_.find_first_of("*?\\") == std::string::npos ? path_ : "";
}

bool Xbsa_Query::wants_name(Xbsa_Object const& object) const {
    return xbsa_matches(path_, object.path) && xbsa_matches(space_, object.space) &&
           xbsa_matches(bsa_owner_, object.bsa_owner) && xbsa_matches(app_owner_, object.app_owner);
}

bool Xbsa_Query::wants(Xbsa_Object const& object, bool newest) const {
    int64_t const created = object.created / MICROSECONDS;
    return created >= created_from_ && created <= created_to_ &&
           (copy_type_ == BSA_CopyType_ANY || copy_type_ == object.copy_type) &&
           (object_type_ == BSA_ObjectType_ANY || object_type_ == object.object_type) &&
           (status_ == BSA_ObjectStatus_ANY || newest == (status_ == BSA_ObjectStatus_MOST_RECENT));
}

bool xbsa_matches(std::string const& pattern, std::string const& text) {
    // goes back to the last "*" only, so no pattern takes more than length times length steps
    size_t p = 0, t = 0, star = std::string::npos, star_text = 0;
    while (t < text.size()) {
        bool const literal = p + 1 < pattern.size() && pattern[p] == '\\';
        if (p < pattern.size() && !literal && pattern[p] == '*') {
            star = p++;
            star_text = t;
        } else if (p < pattern.size() && (literal ? pattern[p + 1] == text[t]
                                                  : pattern[p] == '?' || pattern[p] == text[t])) {
            p += literal ? 2 : 1;
            ++t;
        } else if (star != std::string::npos) {
            p = star + 1;
            t = ++star_text;
        } else
            return false;
    }
    while (p < pattern.size() && pattern[p] == '*')
        ++p;
    return p == pattern.size();
}
