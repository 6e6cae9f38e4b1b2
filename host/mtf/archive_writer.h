#ifndef HOST_MTF_ARCHIVE_WRITER_H
#define HOST_MTF_ARCHIVE_WRITER_H

#include "host/mtf/archive_store.h"
#include "host/mtf/catalogue.h"
#include "host/mtf/source_walker.h"
#include "host/mtf/work_report.h"
#include "host/storage/codec.h"

#include <vector>

struct archive;
struct archive_entry;

namespace MTF {

/**
 * Writes an archive: a tar file in the pax interchange format (POSIX.1-2001), by libarchive, with
 * names as the bytes that they are (hdrcharset=BINARY), extended attributes (SCHILY.xattr), access
 * control lists (SCHILY.acl) and sparse files (GNU.sparse 1.0). Devices and sockets have no place
 * in it. It is compressed as a whole, and what is stored is a valid file of the method's own
 * program: "zstd -dc NAME | tar t" reads it, for one. For one thread.
 */
class Archive_Writer {
public:
    enum Result {
        SAVED,
        LEFT_OUT, ///< told to the report
        CANCELED, ///< the archive is of no use any more
        FAILED    ///< the same; error() says why
    };

    Archive_Writer(Archive_Store& store, Work_Report& report);
    ~Archive_Writer();
    Archive_Writer(Archive_Writer const&) = delete;
    Archive_Writer& operator=(Archive_Writer const&) = delete;

    /** @param level  of the compression: 0 and less for its default, at most 19 for zstd */
    [[nodiscard]] bool open(std::string const& name, Compression compression, int level);

    /**
     * Saves an item.
     * @param hard_link  name of an entry in the backup that is the same file; "" for none
     * @param entry      all but seq is filled
     */
    Result save(Source_Item const& item, std::string const& hard_link, Catalogue_Entry& entry);

    /** Ends the archive, not yet to be seen in the store. */
    [[nodiscard]] bool close();
    /** Makes the closed archive appear. */
    [[nodiscard]] bool commit();

    /** What is in the store after close(). */
    Catalogue_Archive const& written() const { return written_; }
    /** Files that changed while they were read: what is saved may never have been their content. */
    uint64_t changed() const { return changed_; }
    std::string const& error() const { return error_; }

private:
    struct Free {
        void operator()(archive* writer) const;
        void operator()(archive_entry* entry) const;
    };
    static ssize_t write_to_store(archive*, void* self, void const* data, size_t size);
    Storage_Result store(void const* data, size_t size);
    [[nodiscard]] bool set_up_format();

    [[nodiscard]] bool open_source(Source_Item const& item, File_Descriptor& file,
                                   struct stat& status);
    [[nodiscard]] bool describe(Source_Item const& item, int fd, struct stat const& status,
                                std::string const& hard_link, Catalogue_Entry& entry);
    Result write_header(Source_Item const& item);
    Result write_content(Source_Item const& item, int fd, struct stat const& before,
                         Catalogue_Entry& entry);
    Result write_data(size_t size);
    Result fail();

    Archive_Store& store_;
    Work_Report& report_;
    std::unique_ptr<Archive_Store::Output> output_;
    std::unique_ptr<Codec> encoder_;
    /**
     * The store has failed, or nobody wants the archive any more: what libarchive still writes is
     * dropped. It is not told, as it frees its buffers only when it comes to its end.
     */
    bool given_up_ = false;
    std::unique_ptr<archive, Free> writer_;
    std::unique_ptr<archive, Free> disk_; ///< reads what libarchive knows of a file besides stat()
    std::unique_ptr<archive_entry, Free> header_;
    std::vector<char> buffer_;
    Sha256 sha256_;
    Catalogue_Archive written_;
    uint64_t changed_ = 0;
    std::string error_;
};

/** The kind of entry for a mode as stat() gives it; nothing for devices and sockets. */
std::optional<Entry_Type> entry_type_of(mode_t mode);

/** A time of stat() as a catalogue has it. */
int64_t to_ns(timespec const& time);

} // namespace MTF

#endif
