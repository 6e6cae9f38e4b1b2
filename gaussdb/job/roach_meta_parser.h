#ifndef GAUSSDB_JOB_ROACH_META_PARSER_H
#define GAUSSDB_JOB_ROACH_META_PARSER_H

#include "gaussdb/common/gaussdb_const.h"
#include "json_spirit/value.h"

#include <ace/Basic_Types.h>
#include <optional>
#include <string>
#include <sys/types.h>

/**
 * Reads the metadata file that the backup tool keeps beside its backups: "backups.ini", or
 * "backupset_nbu.ini" for the 100 series. It is the tool's own format, JSON on one line with an
 * array "BackupDetails" of {"BackupKey", "BackupSize"}, whose integers may carry the suffixes U and
 * UL of C. The file is never written here. For one thread at a time.
 */
class Roach_Meta_Parser {
public:
    /**
     * @param path   the directory of the file
     * @param owner  the file has to belong to this user; without a value to anybody. In either case
     *               it has to be a regular file of at most 16 MiB that no link leads to
     */
    Roach_Meta_Parser(std::string const& path, GAUSSDB_VERSION ver,
                      std::optional<uid_t> owner = std::nullopt);

    /** Reads in another directory from now on. */
    void set(std::string const& path);

    /**
     * Whether the file lists a backup of that key. Entries are looked at from the last to the
     * first.
     * @return false also for a file that is not there, with nothing logged, and for one that is not
     *         as it should be, with an error line.
     */
    [[nodiscard]] bool has_backup_key(std::string const& key);

    /**
     * Gets the size in bytes of the backup of that key; of two with the same key, the later one's.
     * @return false, logged unless the file cannot be read, when the size is not there or no size;
     *         true with @a size unchanged when there is no such backup.
     */
    [[nodiscard]] bool parse(std::string const& key, ACE_INT64& size);

private:
    [[nodiscard]] bool load_meta(json_spirit::Value& value);

    std::string file_;
    GAUSSDB_VERSION ver_;
    std::optional<uid_t> owner_;
};

#endif
