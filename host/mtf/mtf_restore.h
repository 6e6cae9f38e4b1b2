#ifndef HOST_MTF_MTF_RESTORE_H
#define HOST_MTF_MTF_RESTORE_H

#include "host/mtf/archive_store.h"
#include "host/mtf/catalogue.h"
#include "host/mtf/event_handler.h"
#include "host/storage/client_io.h"

#include <memory>
#include <string>

class ACE_Log_Msg_Callback;

namespace MTF {
class Work_Report;
}

/**
 * Restores files from the archives of a backup by MTF_Backup: those of the backup itself, and, for
 * an incremental one, of the backups before that it builds upon.
 *
 * Each file comes to the place that its absolute path has below the target location. Nothing is
 * written elsewhere, whatever the archive holds. Content is compared with the checksums in the
 * catalogue. A corrupt archive ends the restore with the name of the entry and the place in the
 * archive; files that were restored until then stay, and they are as they were backed up. Files
 * already there are replaced. Memory does not grow with the number of files or their size.
 *
 * An object is for one restore and one thread.
 */
class MTF_Restore {
public:
    /**
     * @param handler       hears of the events; may be null
     * @param log_callback  gets the log lines, too; may be null
     */
    MTF_Restore(std::shared_ptr<MTF::Event_Handler> handler,
                std::shared_ptr<ACE_Log_Msg_Callback> log_callback);
    ~MTF_Restore();
    MTF_Restore(MTF_Restore const&) = delete;
    MTF_Restore& operator=(MTF_Restore const&) = delete;

    /** The job definition on whose behalf files are restored; it is shown in the log. */
    void definition_uuid(std::string const& value) { definition_uuid_ = value; }
    /** The folder to restore below, absolute; it is made when it does not exist. */
    void target_location(std::string const& value) { target_location_ = value; }
    void backup_minor_resource_id(std::string const& value) { backup_minor_resource_id_ = value; }
    /** @param for_reading  the pool is looked up for a restore */
    void pool_uuid(std::string const& value, bool for_reading) {
        pool_uuid_ = value;
        for_reading_ = for_reading;
    }
    /** The host that was backed up. */
    void backup_host_uuid(std::string const& value) { backup_host_uuid_ = value; }
    /** The number of the backup itself, which is one more than its MTF_Backup::seq(). */
    void seq(int64_t value) { seq_ = value; }
    /** Folder of the archives below the pool's, when it was given to the backup. */
    void uri(std::string const& value) { uri_ = value; }

    /** How the pool is accessed; the pool's own settings are added to it. */
    Client_IO_Base::Options& extra_client_io_opts() { return extra_client_io_opts_; }

    /** Takes archive and catalogue from @a value and not from a pool. */
    void store(std::shared_ptr<MTF::Archive_Store> value) { store_ = std::move(value); }

    /**
     * Does the restore.
     * @param path  what to restore, by the absolute path that it had: a file, or a folder with all
     *              that is below it; "" for everything
     * @return true when all of it is there now, but for entries that were left out: then
     *         error_code() is E_END_WITH_SKIPPED_FILES. False, with an error line but for a cancel,
     *         in all other cases.
     */
    [[nodiscard]] bool restore(std::string const& path);

    /** The outcome of restore(). */
    MTF::Error_Code error_code() const { return error_code_; }
    [[nodiscard]] bool canceled() const { return canceled_; }
    /** What the backup said about itself; empty before the catalogue was read. */
    MTF::Metadata const& metadata() const { return metadata_; }
    uint64_t restored_entries() const { return restored_entries_; }
    uint64_t restored_bytes() const { return restored_bytes_; }

private:
    MTF::Error_Code restore_from(MTF::Archive_Store& store, std::string const& path,
                                 MTF::Work_Report& report);
    MTF::Error_Code fetch_catalogue(MTF::Archive_Store& store, std::string const& uri,
                                    MTF::Catalogue_Reader& catalogue, MTF::Work_Report& report);
    MTF::Error_Code make_target(std::string& folder, MTF::Work_Report& report) const;
    std::shared_ptr<MTF::Archive_Store> open_store(MTF::Work_Report& report) const;

    std::shared_ptr<MTF::Event_Handler> const handler_;
    std::shared_ptr<ACE_Log_Msg_Callback> const log_callback_;
    std::string definition_uuid_;
    std::string target_location_;
    std::string backup_minor_resource_id_;
    std::string pool_uuid_;
    bool for_reading_ = true;
    std::string backup_host_uuid_;
    int64_t seq_ = 0;
    std::string uri_;
    Client_IO_Base::Options extra_client_io_opts_;
    std::shared_ptr<MTF::Archive_Store> store_;

    MTF::Error_Code error_code_ = MTF::E_OK;
    bool canceled_ = false;
    MTF::Metadata metadata_;
    uint64_t restored_entries_ = 0;
    uint64_t restored_bytes_ = 0;
};

#endif
