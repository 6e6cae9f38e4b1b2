#ifndef HOST_MTF_MTF_BACKUP_H
#define HOST_MTF_MTF_BACKUP_H

#include "host/mtf/archive_store.h"
#include "host/mtf/event_handler.h"
#include "host/mtf/metadata.h"
#include "host/storage/client_io.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class ACE_Log_Msg_Callback;

namespace MTF {
class Work_Report;
}

/**
 * Backs files up into an archive in a storage pool.
 *
 * The archive is a compressed pax tar file, mtf_path(), and beside it stands its catalogue,
 * cat_path(). The catalogue is written last: where there is one, the archive is whole. Saved are
 * regular files, with their holes, directories, symbolic links, further names of one file, and
 * FIFOs, each with owner, mode, times, extended attributes and access control lists. Devices and
 * sockets are passed over. What cannot be read is left out, told by an event and a line at
 * LM_WARNING, and the backup goes on. Memory does not grow with the number of files or their size,
 * but with the largest directory and with the number of files that have several names. The archive
 * waits in a scratch file, below $TMPDIR or /var/tmp, until it is whole, and so takes disk space.
 *
 * An incremental backup saves only what is new or has another size, time or owner than in the
 * catalogue of the backup before. Its own catalogue tells of all files nevertheless, and in which
 * archive each lies. Where the catalogue before is not in the pool, or is no use, or an archive
 * that it tells of has gone, all that is missing by that is saved again.
 *
 * An object is for one backup and one thread.
 */
class MTF_Backup {
public:
    /**
     * @param handler       hears of the events; may be null
     * @param log_callback  gets the log lines, too; may be null
     */
    MTF_Backup(std::shared_ptr<MTF::Event_Handler> handler, MTF::Metadata const& metadata,
               std::shared_ptr<ACE_Log_Msg_Callback> log_callback);
    ~MTF_Backup();
    MTF_Backup(MTF_Backup const&) = delete;
    MTF_Backup& operator=(MTF_Backup const&) = delete;

    void pool_uuid(std::string const& value) { pool_uuid_ = value; }
    /** The device by which the pool is reached; "" for any. */
    void device_uuid(std::string const& value) { device_uuid_ = value; }
    void host_uuid(std::string const& value) { host_uuid_ = value; }
    void minor_resource_id(std::string const& value) { minor_resource_id_ = value; }
    /** The backup set's id. */
    void uuid(std::string const& value) { metadata_.uuid(value); }
    /** The number of the backup before, 0 when there was none: this one gets the next. */
    void seq(int64_t value) { seq_ = value; }
    void compression(MTF::Compression value) { compression_ = value; }
    /** 0 and less for the method's default; the best that zstd is asked for is 19. */
    void compression_level(int value) { compression_level_ = value; }
    void incremental(bool value) { incremental_ = value; }

    /** How the pool is accessed; the pool's own settings are added to it. */
    Client_IO_Base::Options& extra_client_io_opts() { return extra_client_io_opts_; }

    /** Keeps archive and catalogue in @a value and not in a pool. */
    void store(std::shared_ptr<MTF::Archive_Store> value) { store_ = std::move(value); }
    /** The time in nanoseconds since the epoch; the system's unless set. */
    void clock(std::function<int64_t()> value) { clock_ = std::move(value); }

    /** A file or a folder to back up, by its absolute path. A link given here is followed. */
    void add_source(std::string const& path) { sources_.push_back(path); }

    /**
     * The sources lie where this user can put anything: only what belongs to the user is saved, the
     * rest is left out as unreadable, and no link is followed, not even one given as a source.
     */
    void source_owner(uid_t value) { source_owner_ = value; }

    /**
     * Does the backup.
     * @param uri  folder below the pool's; "" for default_uri() of host_uuid and minor_resource_id
     * @return true when there is an archive in the pool now, also when it lacks files: then
     *         error_code() is E_END_WITH_SKIPPED_FILES. False when there is none; an error line has
     *         been logged, but for a cancel.
     */
    [[nodiscard]] bool backup(std::string const& uri);

    /** The outcome of backup(). */
    MTF::Error_Code error_code() const { return error_code_; }
    [[nodiscard]] bool canceled() const { return canceled_; }
    /** Entries and bytes of content that were saved into the archive. */
    uint64_t saved_entries() const { return saved_entries_; }
    uint64_t saved_bytes() const { return saved_bytes_; }
    /** Bytes that the archive takes in the pool. */
    uint64_t archive_size() const { return archive_size_; }

private:
    MTF::Error_Code backup_to(MTF::Archive_Store& store, std::string const& uri,
                              MTF::Work_Report& report);
    std::shared_ptr<MTF::Archive_Store> open_store(MTF::Work_Report& report) const;

    std::shared_ptr<MTF::Event_Handler> const handler_;
    MTF::Metadata metadata_;
    std::shared_ptr<ACE_Log_Msg_Callback> const log_callback_;
    std::string pool_uuid_;
    std::string device_uuid_;
    std::string host_uuid_;
    std::string minor_resource_id_;
    int64_t seq_ = 0;
    MTF::Compression compression_ = MTF::COMPRESSION_ZSTD;
    int compression_level_ = 0;
    bool incremental_ = false;
    std::vector<std::string> sources_;
    std::optional<uid_t> source_owner_;
    Client_IO_Base::Options extra_client_io_opts_;
    std::shared_ptr<MTF::Archive_Store> store_;
    std::function<int64_t()> clock_;

    MTF::Error_Code error_code_ = MTF::E_OK;
    bool canceled_ = false;
    uint64_t saved_entries_ = 0;
    uint64_t saved_bytes_ = 0;
    uint64_t archive_size_ = 0;
};

#endif
