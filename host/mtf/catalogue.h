#ifndef HOST_MTF_CATALOGUE_H
#define HOST_MTF_CATALOGUE_H

#include "host/mtf/archive_store.h"
#include "host/mtf/metadata.h"
#include "host/mtf/scratch_file.h"
#include "host/mtf/sha256.h"

#include <map>
#include <optional>

/**
 * The catalogue of a backup: which files there were, and which archive holds each.
 *
 * A text file of JSON objects, one a line. The first line has "format", "version", "seq" and
 * "metadata". Then comes a line for each entry, in the order of compare_entry_names(). The last but
 * one has the counts and, as "archives", the archives that the entries lie in, each with its size
 * and SHA-256. The last has the SHA-256 of all the lines before it, and nothing else. So a
 * catalogue that was cut or changed is noticed before anything of it is used.
 */
namespace MTF {

enum Entry_Type : char {
    ENTRY_FILE = 'f',
    ENTRY_DIRECTORY = 'd',
    ENTRY_SYMBOLIC_LINK = 'l',
    ENTRY_HARD_LINK = 'h', ///< another name of a file that stands before it
    ENTRY_FIFO = 'p'
};

struct Catalogue_Entry {
    std::string name; ///< as entry_name() gives it
    Entry_Type type = ENTRY_FILE;
    uint64_t size = 0;    ///< bytes of content; only a file has some
    int64_t mtime_ns = 0; ///< nanoseconds since the epoch
    int64_t ctime_ns = 0;
    mode_t mode = 0; ///< permission bits
    uid_t uid = 0;
    gid_t gid = 0;
    std::string link;    ///< a symbolic link's text, or the name of a hard link's file
    std::string sha256;  ///< of a file's content
    int64_t seq = 0;     ///< number of the backup whose archive holds the entry
    uint64_t offset = 0; ///< where the entry begins in the uncompressed archive
    /**
     * It was written to while it was read, or so shortly before that a later change could leave it
     * with the same times: the next backup saves it again.
     */
    bool save_again = false;
};

/** One archive that a catalogue's entries lie in. */
struct Catalogue_Archive {
    uint64_t size = 0;  ///< bytes as stored
    std::string sha256; ///< of the bytes as stored
};

using Catalogue_Archives = std::map<int64_t, Catalogue_Archive>; ///< by number of the backup

/** The sum of a catalogue. */
struct Catalogue_Summary {
    int64_t seq = 0;
    Metadata metadata;
    uint64_t entries = 0;
    uint64_t bytes = 0; ///< content of all files, wherever it lies
    Catalogue_Archives archives;
};

/** Writes a catalogue to a scratch file, and at last to its store. Logs nothing. */
class Catalogue_Writer {
public:
    [[nodiscard]] bool begin(int64_t seq, Metadata const& metadata);
    [[nodiscard]] bool add(Catalogue_Entry const& entry);
    /** @param archives  the archives of the entries; others are left out */
    [[nodiscard]] bool finish(Catalogue_Archives const& archives);
    /** Copies the finished catalogue. */
    [[nodiscard]] bool copy_to(Archive_Store::Output& output);

    uint64_t entries() const { return entries_; }

private:
    [[nodiscard]] bool write_line(json_spirit::Object const& object);

    Scratch_File file_;
    Sha256 sha256_;
    uint64_t entries_ = 0;
    uint64_t bytes_ = 0;
    std::map<int64_t, uint64_t> used_; ///< entries by number of their backup
};

/**
 * Reads a catalogue. fetch() has it all checked; after that next() cannot fail but for the scratch
 * file itself. Logs nothing.
 */
class Catalogue_Reader {
public:
    enum Result { OK, UNREADABLE, CORRUPT };

    /** Copies a catalogue to a scratch file and checks it. @param error  in words, on a failure */
    Result fetch(Archive_Store::Input& input, std::string& error);
    Catalogue_Summary const& summary() const { return summary_; }

    /** Goes back to the first entry. */
    [[nodiscard]] bool rewind();
    /** The next entry; nothing behind the last one. */
    [[nodiscard]] bool next(Catalogue_Entry& entry);

private:
    [[nodiscard]] bool copy_from(Archive_Store::Input& input, std::string& error);
    [[nodiscard]] bool check(std::string& error);
    [[nodiscard]] bool check_entries(std::string& line, std::string& error);
    [[nodiscard]] bool check_end(json_spirit::Object const& sum, std::string const& sha256,
                                 std::string& error);
    [[nodiscard]] bool read_line(std::string& line);

    Scratch_File file_;
    Catalogue_Summary summary_;
    uint64_t counted_bytes_ = 0;
    uint64_t counted_ = 0;
    std::map<int64_t, uint64_t> used_;
};

/** The line of an entry, and back. A line that is not sound leaves nothing. */
json_spirit::Object dump_entry(Catalogue_Entry const& entry);
std::optional<Catalogue_Entry> load_entry(json_spirit::Object const& object);

} // namespace MTF

#endif
