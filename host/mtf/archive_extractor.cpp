#include "host/mtf/archive_extractor.h"

#include "host/mtf/archive_path.h"
#include "host/storage/codec.h"
#include "qmrt/format.h"

#include <archive.h>
#include <archive_entry.h>
#include <cinttypes>
#include <climits>
#include <cstring>
#include <unistd.h>

namespace MTF {

namespace {

constexpr size_t READ_AHEAD = 256 * 1024;
constexpr size_t DECODE_STEP = 1024;

/** Zeros are hashed in steps of this size, so that a cancel is seen between them. */
constexpr uint64_t ZERO_STEP = 64 * 1024 * 1024;

std::string name_of(archive_entry* header) {
    char const* const name = archive_entry_pathname(header);
    std::string text = name ? name : "";
    // a directory's name has a slash at its end in a tar file
    if (text.size() > 1 && text.back() == '/')
        text.pop_back();
    return text;
}

} // namespace

/**
 * An archive as it is read: the store's bytes, counted and summed, then decoded as their first ones
 * ask for, then taken apart by libarchive.
 */
struct Archive_Extractor::Source {
    Source(Archive_Store::Input& stored, int64_t number) : input(stored), seq(number) {}

    static la_ssize_t read(archive* reader, void* self, void const** data) {
        auto& source = *static_cast<Source*>(self);
        source.decoded.clear();
        while (source.decoded.size() < READ_AHEAD && !source.at_end)
            if (!source.advance()) {
                archive_set_error(reader, EIO, "%s", source.fault.c_str());
                return -1;
            }
        *data = source.decoded.data();
        return static_cast<la_ssize_t>(source.decoded.size());
    }

    /** Decodes a little more. @return false, with the fault, on a failure */
    bool advance() {
        if (left.empty() && !fill())
            return false;
        // little, because a few bytes may be made to become a thousand times as many
        std::string_view const piece = left.substr(0, DECODE_STEP);
        left.remove_prefix(piece.size());
        Storage_Result const result = at_end ? finish() : feed(piece);
        fault = result.text();
        return bool(result);
    }
    bool fill() {
        ssize_t const size = input.read(buffer.data(), buffer.size());
        unreadable = size == -1;
        at_end = size == 0;
        if (unreadable)
            return false;
        left = std::string_view(buffer.data(), static_cast<size_t>(size));
        sha256.update(left.data(), left.size());
        got.size += left.size();
        return true;
    }
    Storage_Result feed(std::string_view piece) {
        if (decoder)
            return decoder->feed(piece.data(), piece.size(), sink);
        begin += piece;
        return begin.size() < MARK_LENGTH ? Storage_Result() : start();
    }
    /** Begins to decode once there is enough to tell how. */
    Storage_Result start() {
        decoder = make_decoder(marked_method(begin.data(), begin.size()));
        if (!decoder)
            return Storage_Result(Storage_Result::FAILED, "out of memory");
        Storage_Result result = decoder->feed(begin.data(), begin.size(), sink);
        begin = std::string();
        return result;
    }
    Storage_Result finish() {
        Storage_Result result = decoder ? Storage_Result() : start();
        return result ? decoder->finish(sink) : result;
    }

    std::string error() const {
        char const* const text = archive_error_string(reader.get());
        return text ? text : "it cannot be read";
    }

    Archive_Store::Input& input;
    int64_t const seq;
    std::vector<char> buffer = std::vector<char>(READ_AHEAD);
    std::string_view left; ///< of the buffer
    std::string begin;     ///< of the archive, until its method is known
    std::string decoded;
    Codec_Sink const sink = [this](void const* data, size_t size) {
        decoded.append(static_cast<char const*>(data), size);
        return Storage_Result();
    };
    std::unique_ptr<Codec> decoder;
    Sha256 sha256;
    Catalogue_Archive got;
    bool at_end = false;
    bool unreadable = false;
    std::string fault;
    std::string at; ///< name of the entry in hand
    std::unique_ptr<archive, Free> reader;
};

class Archive_Extractor::Wanted {
public:
    Wanted(Catalogue_Reader& catalogue, int64_t seq, std::string const& below)
        : catalogue_(catalogue), seq_(seq), below_(below) {}

    bool begin() { return catalogue_.rewind() && advance(); }
    /** Goes to the next entry. @return false when the catalogue cannot be read to its end */
    bool advance() {
        for (there_is_ = false; read_ < catalogue_.summary().entries;) {
            if (!catalogue_.next(entry_))
                return false;
            ++read_;
            there_is_ = entry_.seq == seq_ && is_at_or_below(entry_.name, below_);
            if (there_is_)
                break;
        }
        return true;
    }
    Catalogue_Entry const* entry() const { return there_is_ ? &entry_ : nullptr; }

private:
    Catalogue_Reader& catalogue_;
    int64_t const seq_;
    std::string const& below_;
    uint64_t read_ = 0;
    Catalogue_Entry entry_;
    bool there_is_ = false;
};

void Archive_Extractor::Free::operator()(archive* object) const {
    archive_free(object);
}

Archive_Extractor::Archive_Extractor(std::string const& folder, Archive_Store& store,
                                     Work_Report& report)
    : folder_(folder), store_(store), report_(report) {}

Archive_Extractor::~Archive_Extractor() = default;

bool Archive_Extractor::open() {
    disk_.reset(archive_write_disk_new());
    int const owner = geteuid() == 0 ? ARCHIVE_EXTRACT_OWNER : 0;
    return disk_ &&
           archive_write_disk_set_options(
               disk_.get(), ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_ACL |
                                ARCHIVE_EXTRACT_XATTR | ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                                ARCHIVE_EXTRACT_SECURE_NODOTDOT | owner) == ARCHIVE_OK &&
           archive_write_disk_set_standard_lookup(disk_.get()) == ARCHIVE_OK;
}

bool Archive_Extractor::close() {
    if (archive_write_close(disk_.get()) == ARCHIVE_OK)
        return true;
    report_.warning(folder_, error_of_disk());
    return false;
}

std::string Archive_Extractor::error_of_disk() const {
    char const* const text = archive_error_string(disk_.get());
    return text ? text : "it cannot be written";
}

Error_Code Archive_Extractor::corrupt(Source const& source, std::string const& what) {
    if (source.unreadable)
        return report_.failed(E_OPEN_MEDIA,
                              string_sprintf("Failed to read archive %" PRId64 " at byte %" PRIu64
                                             ", %s",
                                             source.seq, source.got.size, store_.error().c_str()));
    return report_.failed(E_CORRUPT, string_sprintf("Archive %" PRId64
                                                    " is corrupt near byte %" PRIu64 ", %s%s%s",
                                                    source.seq, source.got.size, source.at.c_str(),
                                                    source.at.empty() ? "" : ": ", what.c_str()));
}

Error_Code Archive_Extractor::extract(Archive_Store::Input& input, Catalogue_Reader& catalogue,
                                      int64_t seq, std::string const& below) {
    Source source(input, seq);
    source.reader.reset(archive_read_new());
    Wanted wanted(catalogue, seq, below);
    archive* const reader = source.reader.get();
    // only what archives of this system are made of: the less is known, the less can be abused
    if (!reader || archive_read_support_format_tar(reader) != ARCHIVE_OK || !wanted.begin())
        return report_.failed(E_FAILED, "Failed to begin reading an archive");
    if (archive_read_open2(reader, &source, nullptr, Source::read, nullptr, nullptr) < ARCHIVE_WARN)
        return corrupt(source, source.error());
    Error_Code const result = walk(source, wanted);
    return result == E_OK ? check_rest(source, catalogue.summary().archives.at(seq)) : result;
}

Error_Code Archive_Extractor::walk(Source& source, Wanted& wanted) {
    while (Catalogue_Entry const* const entry = wanted.entry()) {
        if (report_.canceled())
            return E_FAILED;
        archive_entry* header = nullptr;
        int const result = archive_read_next_header(source.reader.get(), &header);
        if (result == ARCHIVE_EOF)
            return corrupt(source, "it ends before " + entry->name);
        if (result < ARCHIVE_WARN)
            return corrupt(source, source.error());
        source.at = name_of(header);
        int const order = compare_entry_names(source.at, entry->name);
        if (order > 0)
            return corrupt(source, "it does not hold " + entry->name);
        if (order < 0)
            continue;
        Error_Code const outcome = extract_entry(source, header, *entry);
        if (outcome != E_OK)
            return outcome;
        if (!wanted.advance())
            return report_.failed(E_FAILED, "Failed to read the catalogue");
    }
    source.at.clear();
    return E_OK;
}

bool Archive_Extractor::matches(archive_entry* header, Catalogue_Entry const& entry) const {
    char const* const hard_link = archive_entry_hardlink(header);
    char const* const symlink = archive_entry_symlink(header);
    mode_t const type = archive_entry_filetype(header);
    switch (entry.type) {
    case ENTRY_HARD_LINK:
        return hard_link && entry.link == hard_link;
    case ENTRY_SYMBOLIC_LINK:
        return !hard_link && type == AE_IFLNK && symlink && entry.link == symlink;
    case ENTRY_FILE:
        return !hard_link && type == AE_IFREG &&
               static_cast<uint64_t>(archive_entry_size(header)) == entry.size &&
               archive_entry_perm(header) == entry.mode;
    case ENTRY_DIRECTORY:
        return !hard_link && type == AE_IFDIR && archive_entry_perm(header) == entry.mode;
    case ENTRY_FIFO:
        return !hard_link && type == AE_IFIFO;
    }
    return false;
}

Error_Code Archive_Extractor::extract_entry(Source& source, archive_entry* header,
                                            Catalogue_Entry const& entry) {
    if (!matches(header, entry))
        return corrupt(source, "it is not what the catalogue says");
    std::string const path = folder_ + "/" + entry.name;
    // libarchive would change the directory of the whole process for such a path
    if (path.size() >= PATH_MAX || folder_.size() + entry.link.size() + 1 >= PATH_MAX) {
        report_.skipped(path, E_SKIP, strerror(ENAMETOOLONG));
        return E_OK;
    }
    archive_entry_copy_pathname(header, path.c_str());
    if (entry.type == ENTRY_HARD_LINK) {
        archive_entry_copy_hardlink(header, (folder_ + "/" + entry.link).c_str());
        archive_entry_unset_size(header);
    }
    int const result = archive_write_header(disk_.get(), header);
    if (result == ARCHIVE_FATAL)
        return report_.failed(E_FAILED, "Failed to restore " + path + ", " + error_of_disk());
    if (result == ARCHIVE_FAILED) {
        report_.skipped(path, E_SKIP, error_of_disk());
        return E_OK;
    }
    if (result == ARCHIVE_WARN)
        report_.warning(path, error_of_disk());
    Error_Code const outcome =
        entry.type == ENTRY_FILE ? extract_content(source, entry, path) : E_OK;
    if (outcome != E_OK)
        return outcome;
    if (archive_write_finish_entry(disk_.get()) != ARCHIVE_OK)
        report_.warning(path, error_of_disk());
    report_.add_entry(path);
    return E_OK;
}

Error_Code Archive_Extractor::extract_content(Source& source, Catalogue_Entry const& entry,
                                              std::string const& path) {
    Sha256 sha256;
    Error_Code outcome = write_blocks(source, entry, path, sha256);
    if (outcome == E_OK && sha256.finish() != entry.sha256)
        outcome = corrupt(source, "its content has another checksum");
    if (outcome != E_OK)
        unlink(path.c_str());
    return outcome;
}

Error_Code Archive_Extractor::write_blocks(Source& source, Catalogue_Entry const& entry,
                                           std::string const& path, Sha256& sha256) {
    uint64_t done = 0;
    auto const fill_hole = [&](uint64_t end) {
        while (done < end && !report_.canceled()) {
            uint64_t const size = std::min(end - done, ZERO_STEP);
            sha256.update_zeros(size);
            done += size;
        }
        return done >= end;
    };
    for (;;) {
        void const* data = nullptr;
        size_t size = 0;
        la_int64_t offset = 0;
        int const result = archive_read_data_block(source.reader.get(), &data, &size, &offset);
        if (result == ARCHIVE_EOF)
            break;
        if (result < ARCHIVE_WARN)
            return corrupt(source, source.error());
        auto const begin = static_cast<uint64_t>(offset);
        if (offset < 0 || begin < done || begin > entry.size || size > entry.size - begin)
            return corrupt(source, "its data do not fit its size");
        if (size > 0 && archive_write_data_block(disk_.get(), data, size, offset) < ARCHIVE_WARN)
            return report_.failed(E_FAILED, "Failed to restore " + path + ", " + error_of_disk());
        if (!fill_hole(begin) || report_.canceled())
            return E_FAILED;
        sha256.update(data, size);
        done += size;
        report_.add_bytes(path, size);
    }
    return fill_hole(entry.size) ? E_OK : E_FAILED;
}

Error_Code Archive_Extractor::check_rest(Source& source, Catalogue_Archive const& expected) {
    while (!source.at_end) {
        source.decoded.clear();
        if (!source.advance())
            return corrupt(source, source.fault);
        if (source.left.empty() && report_.canceled())
            return E_FAILED;
    }
    if (source.got.size == expected.size && source.sha256.finish() == expected.sha256)
        return E_OK;
    return corrupt(source, string_sprintf("it has another checksum than when it was written, or "
                                          "another size than %" PRIu64,
                                          expected.size));
}

} // namespace MTF
