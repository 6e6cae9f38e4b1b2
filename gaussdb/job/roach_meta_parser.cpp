#include "gaussdb/job/roach_meta_parser.h"

#include "gaussdb/job/gaussdb_utils.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"
#include "qmrt/log.h"

#include <algorithm>
#include <boost/regex.hpp>
#include <cerrno>
#include <exception>

using json_spirit::extract_or_throw;

namespace {

constexpr uint64_t MAX_SIZE = 16 * 1024 * 1024;

// a suffix of C behind a whole number, which JSON does not have
boost::regex const META_DIGITS_RE("(\":\\d+)UL?");

json_spirit::Array const& backups_of(json_spirit::Value const& meta) {
    json_spirit::Array const* details = nullptr;
    extract_or_throw(meta.get_obj())("BackupDetails", details, true);
    return *details;
}

/** The entry of a key, looked for from the last one; null when there is none. */
json_spirit::Object const* find_backup(json_spirit::Array const& backups, std::string const& key) {
    for (auto entry = backups.rbegin(); entry != backups.rend(); ++entry) {
        std::string const* entry_key = nullptr;
        extract_or_throw(entry->get_obj())("BackupKey", entry_key, true);
        if (*entry_key == key)
            return &entry->get_obj();
    }
    return nullptr;
}

} // namespace

Roach_Meta_Parser::Roach_Meta_Parser(std::string const& path, GAUSSDB_VERSION ver,
                                     std::optional<uid_t> owner)
    : ver_(ver), owner_(owner) {
    set(path);
}

void Roach_Meta_Parser::set(std::string const& path) {
    file_ = string_sprintf("%s/%s", path.c_str(),
                           ver_ == GAUSSDB_100 ? "backupset_nbu.ini" : "backups.ini");
}

bool Roach_Meta_Parser::load_meta(json_spirit::Value& value) {
    std::string text;
    if (read_guarded(file_.c_str(), text, {.max_size = MAX_SIZE, .owner = owner_}) == -1) {
        // a file that is not there, or not yet, is an answer
        if (errno == ELOOP || errno == EPERM || errno == EINVAL || errno == EFBIG)
            QMRT_LOG(LM_ERROR, "Failed to read %s: %s\n", file_.c_str(),
                     refusal_text(errno).c_str());
        return false;
    }
    if (text.empty())
        return false;
    text.erase(std::min(text.find('\n'), text.size()));
    text = boost::regex_replace(text, META_DIGITS_RE, "$1");
    return loads_json(text.c_str(), text.size(), value, 1);
}

bool Roach_Meta_Parser::has_backup_key(std::string const& key) {
    try {
        json_spirit::Value meta;
        return load_meta(meta) && find_backup(backups_of(meta), key);
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to parse %s, %s\n", file_.c_str(), error.what());
        return false;
    }
}

bool Roach_Meta_Parser::parse(std::string const& key, ACE_INT64& size) {
    try {
        json_spirit::Value meta;
        if (!load_meta(meta) || backups_of(meta).empty())
            return false;
        json_spirit::Object const* const backup = find_backup(backups_of(meta), key);
        if (!backup)
            return true;
        if (ver_ == GAUSSDB_200) {
            int64_t bytes = 0;
            extract_or_throw (*backup)("BackupSize", bytes, true);
            if (bytes < 0) {
                QMRT_LOG(LM_ERROR, "BackupSize(%s) is invalid.\n", std::to_string(bytes).c_str());
                return false;
            }
            size = bytes;
            return true;
        }
        std::string text;
        extract_or_throw (*backup)("BackupSize", text, true);
        int64_t bytes = 0;
        if (!to_byte(text, bytes)) {
            QMRT_LOG(LM_ERROR, "BackupSize(%s) is invalid.\n", text.c_str());
            return false;
        }
        size = bytes;
        return true;
    } catch (std::exception const& error) {
        QMRT_LOG(LM_ERROR, "Failed to parse %s, %s\n", file_.c_str(), error.what());
        return false;
    }
}
