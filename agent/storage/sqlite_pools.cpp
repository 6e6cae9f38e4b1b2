#include "agent/storage/sqlite_pools.h"

#include "agent/storage/pool_path.h"

#include "host/process/password_file_entry.h"
#include "host/storage/xbsa_folder.h"
#include "qmrt/file.h"
#include "qmrt/format.h"
#include "qmrt/names.h"
#include "qmrt/path.h"
#include "qmrt/utf8.h"
#include "qmrt/uuid.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

char const POOL_TABLES[] = R"(
CREATE TABLE pool(
    uuid TEXT NOT NULL PRIMARY KEY,
    name TEXT NOT NULL UNIQUE,
    path TEXT NOT NULL UNIQUE,
    compression INTEGER NOT NULL,
    compression_level INTEGER NOT NULL,
    byte_limit INTEGER NOT NULL,
    read_only INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
)";

namespace {

Storage_Result refuse(std::string const& text) {
    return {Storage_Result::FAILED, text};
}

Storage_Result not_found(std::string const& pool) {
    return {Storage_Result::NOT_FOUND, "pool " + qmrt::to_one_line(pool) + " does not exist"};
}

Storage_Result unreachable() {
    return {Storage_Result::UNREACHABLE, "the record of pools cannot be read; the log says why"};
}

/** The directory itself, whatever links lead to it; "" with errno when it is not there. */
std::string real_path(std::string const& path) {
    std::unique_ptr<char, decltype(&free)> const real(realpath(path.c_str(), nullptr), &free);
    return real ? real.get() : "";
}

Storage_Result check_name(std::string const& name) {
    std::string const fault = names::fault_of_title(name);
    if (fault.empty())
        return {};
    return {Storage_Result::BAD_NAME,
            "invalid pool name '" + names::shown(name) + "': it " + fault};
}

/** By writing a file: a mode says nothing to root, nor on a file system that is read-only. */
Storage_Result check_writable(std::string const& path) {
    std::string name = path + "/" + UNFINISHED_PREFIX + "XXXXXX";
    File_Descriptor const file(mkostemp(name.data(), O_CLOEXEC));
    if (!file)
        return refuse("the directory " + path + " cannot be written: " + strerror(errno) +
                      "; give it to the agent's user, or make the pool read-only");
    unlink(name.c_str());
    return {};
}

std::string user_text(uid_t uid) {
    Password_File_Entry entry;
    return entry.get_by_uid(uid) == 0 ? entry.name() : string_sprintf("#%u", uid);
}

/** Nobody but root may be able to put something else in the place of the pool's directory. */
Storage_Result check_way_to(std::string const& real) {
    for (std::string way = dirname_string(real);; way = dirname_string(way)) {
        struct stat status;
        if (stat(way.c_str(), &status) == -1)
            return refuse("the directory " + way + " cannot be looked at: " + strerror(errno));
        if (status.st_uid != 0 && status.st_uid != geteuid())
            return refuse("the directory " + real + " could be replaced by the user " +
                          user_text(status.st_uid) + ", whose " + way + " is; choose another");
        // in a sticky directory everybody removes what is theirs, and the pool is root's
        if (status.st_mode & (S_IWGRP | S_IWOTH) && !(status.st_mode & S_ISVTX))
            return refuse("the directory " + real +
                          " could be replaced by other users, who can "
                          "write to " +
                          way + "; choose another, or chmod go-w " + way);
        if (way == "/")
            return {};
    }
}

/** What a pool's directory holds that no pool makes; "" for nothing. */
std::string foreign_entry(std::string const& path, bool& empty) {
    empty = true;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(path, error), end; !error && entry != end;
         entry.increment(error)) {
        std::string const name = entry->path().filename();
        uuid_binary uuid;
        if (name == "lost+found" || name.starts_with(UNFINISHED_PREFIX))
            continue;
        empty = false;
        if (!uuid_string_to_binary(name, uuid) || !is_directory(entry->path().c_str()))
            return name;
    }
    return "";
}

/** That the directory may be taken over: its owner and mode change, and so does who can enter. */
Storage_Result check_content(std::string const& path) {
    struct stat status;
    if (stat(path.c_str(), &status) == -1)
        return refuse("the directory " + path + " cannot be looked at: " + strerror(errno));
    bool empty = true;
    std::string const foreign = foreign_entry(path, empty);
    if (!foreign.empty())
        return refuse("the directory " + path + " has something else in it, " +
                      qmrt::to_one_line(foreign) + "; make an empty one for the pool");
    if (!empty && status.st_uid != 0 && status.st_uid != geteuid())
        return refuse("the directory " + path + " is not empty and belongs to the user " +
                      user_text(status.st_uid) + "; give it to root, or make another");
    return {};
}

Storage_Result check_directory(Pool_Record const& record) {
    struct stat status;
    if (stat(record.path.c_str(), &status) == -1)
        return refuse("the directory " + record.path + " cannot be used: " + strerror(errno) +
                      "; make it, or mount it, first");
    if (!S_ISDIR(status.st_mode))
        return refuse(record.path + " is no directory");
    if (real_path(record.path) == "/")
        return refuse("the root directory cannot be a pool");
    return record.read_only ? Storage_Result() : check_writable(record.path);
}

/** Whether the directory may become a pool's own. */
Storage_Result check_separable(Pool_Record const& record) {
    Storage_Result const result = check_way_to(real_path(record.path));
    return result ? check_content(record.path) : result;
}

Storage_Result check_compression(Pool_Record const& record) {
    int const most = record.compression == COMPR_ZSTD   ? 22
                     : record.compression == COMPR_LZOP ? 9
                                                        : 0;
    if (record.compression_level < 0 || record.compression_level > most)
        return refuse(string_sprintf("the compression level of this method is 0 to %d", most));
    return {};
}

/** True for two directories of which one is the other or in it. */
bool overlap(std::string const& left, std::string const& right) {
    std::string rest;
    return path_within(left, right, rest) || path_within(right, left, rest);
}

Storage_Result apply(Pool_Settings const& settings, Pool_Record& record) {
    std::string error;
    if (settings.name)
        record.name = *settings.name;
    if (settings.url && !pool_path_of_url(*settings.url, record.path, error))
        return {Storage_Result::BAD_NAME, "invalid URL of the pool: " + error};
    if (settings.compression) {
        std::string const& text = *settings.compression;
        record.compression =
            compression_name_to_value(text.c_str(), static_cast<ssize_t>(text.size()));
        if (record.compression == COMPR_NONE && !text.empty() && text != "none")
            return refuse("there is no compression " + qmrt::to_one_line(text) +
                          "; it is none, zstd, lzop or auto");
        if (!settings.compression_level)
            record.compression_level = 0;
    }
    if (settings.compression_level) {
        if (*settings.compression_level < 0 || *settings.compression_level > 100)
            return refuse("the compression level is out of range");
        record.compression_level = static_cast<int>(*settings.compression_level);
    }
    if (settings.limit) {
        if (*settings.limit < 0)
            return refuse("the limit of a pool is a number of bytes, or 0 for none");
        record.limit = static_cast<uint64_t>(*settings.limit);
    }
    if (settings.read_only)
        record.read_only = *settings.read_only;
    return {};
}

} // namespace

Pool_Info Pool_Record::info() const {
    Pool_Info info;
    info.uuid = uuid;
    info.name = name;
    info.url = url_of_pool_path(path);
    info.compression_method = compression;
    info.compression_level = compression_level;
    info.read_only = read_only;
    return info;
}

Storage_Result SQLite_Pools::read(std::string const& condition, std::string const& value,
                                  std::vector<Pool_Record>& records) {
    std::vector<Pool_Record> found;
    bool const done = database_.read("read the pools", [&](SQLite::Database& database) {
        SQLite::Statement row(database, "SELECT uuid, name, path, compression, compression_level, "
                                        "byte_limit, read_only FROM pool WHERE " +
                                            condition + " ORDER BY name");
        row.bind(1, value);
        while (row.executeStep())
            found.push_back({row.getColumn(0).getString(), row.getColumn(1).getString(),
                             row.getColumn(2).getString(),
                             static_cast<Compression_Method>(row.getColumn(3).getInt()),
                             row.getColumn(4).getInt(),
                             static_cast<uint64_t>(row.getColumn(5).getInt64()),
                             row.getColumn(6).getInt() != 0});
        return true;
    });
    if (!done)
        return unreachable();
    records = std::move(found);
    return {};
}

Storage_Result SQLite_Pools::find(std::string const& uuid, Pool_Info& info) {
    std::vector<Pool_Record> found;
    Storage_Result const result = read("uuid = ?", uuid, found);
    if (!result)
        return result;
    if (found.empty())
        return not_found(uuid);
    info = found.front().info();
    return {};
}

Storage_Result SQLite_Pools::find_record(std::string const& pool, Pool_Record& record) {
    std::vector<Pool_Record> found;
    Storage_Result const result = read("?1 IN (uuid, name)", pool, found);
    if (!result)
        return result;
    if (found.empty())
        return not_found(pool);
    record = found.front();
    return {};
}

Storage_Result SQLite_Pools::find_by_path(std::string const& path, Pool_Record& record) {
    std::vector<Pool_Record> found;
    Storage_Result const result = read("path = ?", path, found);
    if (!result)
        return result;
    if (found.empty())
        return not_found(path);
    record = found.front();
    return {};
}

Storage_Result SQLite_Pools::list(std::vector<Pool_Record>& records) {
    return read("?1 = ?1", "all", records);
}

Storage_Result SQLite_Pools::check(Pool_Record const& record, bool place_changed) {
    Storage_Result result = check_name(record.name);
    if (result)
        result = check_compression(record);
    if (result && place_changed)
        result = check_directory(record);
    std::vector<Pool_Record> others;
    if (result)
        result = list(others);
    if (!result)
        return result;
    std::string const real = real_path(record.path);
    for (Pool_Record const& other : others) {
        if (other.uuid == record.uuid)
            continue;
        if (other.name == record.name)
            return {Storage_Result::EXISTS, "there is a pool " + record.name + " already"};
        std::string const other_real = real_path(other.path);
        if (place_changed && (overlap(record.path, other.path) ||
                              (!other_real.empty() && overlap(real, other_real))))
            return {Storage_Result::EXISTS, "the directory " + record.path +
                                                " is, contains or lies in that of pool " +
                                                other.name + "; give each pool one of its own"};
    }
    return place_changed && !record.read_only ? check_separable(record) : Storage_Result();
}

bool SQLite_Pools::write(char const* purpose, char const* sql, Pool_Record const& record) {
    return database_.change(purpose, [&](SQLite::Database& database) {
        SQLite::Statement statement(database, sql);
        statement.bind(1, record.uuid);
        statement.bind(2, record.name);
        statement.bind(3, record.path);
        statement.bind(4, static_cast<int>(record.compression));
        statement.bind(5, record.compression_level);
        statement.bind(6, static_cast<int64_t>(record.limit));
        statement.bind(7, record.read_only ? 1 : 0);
        return statement.exec() == 1;
    });
}

Storage_Result SQLite_Pools::create(Pool_Settings const& settings, Pool_Record& record) {
    if (!settings.name || !settings.url)
        return refuse("a pool needs a name and a URL");
    std::lock_guard const guard(changing_);
    Pool_Record made;
    made.uuid = uuid_string();
    Storage_Result result = apply(settings, made);
    if (result)
        result = check(made, true);
    if (result && !made.read_only)
        result = separate_pool(made.path);
    if (!result)
        return result;
    if (!write("record a pool",
               "INSERT INTO pool(uuid, name, path, compression, compression_level, byte_limit, "
               "read_only) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7)",
               made))
        return unreachable();
    record = made;
    return {};
}

Storage_Result SQLite_Pools::update(std::string const& pool, Pool_Settings const& settings,
                                    Pool_Record& record) {
    std::lock_guard const guard(changing_);
    Pool_Record before;
    Storage_Result result = find_record(pool, before);
    if (!result)
        return result;
    Pool_Record changed = before;
    result = apply(settings, changed);
    if (result)
        result =
            check(changed, changed.path != before.path || (before.read_only && !changed.read_only));
    bool const moved = changed.path != before.path;
    if (result && !changed.read_only && (moved || settings.separate))
        result = separate_pool(changed.path);
    if (!result)
        return result;
    if (!write("change a pool",
               "UPDATE pool SET name = ?2, path = ?3, compression = ?4, compression_level = ?5, "
               "byte_limit = ?6, read_only = ?7 WHERE uuid = ?1",
               changed))
        return unreachable();
    record = changed;
    return {};
}

Storage_Result SQLite_Pools::remove(std::string const& pool) {
    std::lock_guard const guard(changing_);
    Pool_Record record;
    Storage_Result const result = find_record(pool, record);
    if (!result)
        return result;
    std::vector<Resource_Usage> usage;
    if (!usage_(record.uuid, usage))
        return unreachable();
    uint64_t sets = 0;
    for (Resource_Usage const& resource : usage)
        sets += resource.sets;
    if (sets > 0)
        return refuse(string_sprintf("pool %s has %" PRIu64 " backup sets; remove them first",
                                     record.name.c_str(), sets));
    bool const done = database_.change("forget a pool", [&](SQLite::Database& database) {
        SQLite::Statement statement(database, "DELETE FROM pool WHERE uuid = ?");
        statement.bind(1, record.uuid);
        return statement.exec() == 1;
    });
    return done ? Storage_Result() : unreachable();
}
