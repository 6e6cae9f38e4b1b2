#include "host/mtf/mtf_backup.h"

#include "host/mtf/archive_path.h"
#include "host/mtf/backup_run.h"
#include "host/mtf/pool_store.h"
#include "host/process/log_callback_scope.h"
#include "qmrt/check.h"

#include <cinttypes>
#include <ctime>

using namespace MTF;

namespace {

int64_t system_time_ns() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return to_ns(now);
}

/** What a failed transfer means: a cancel makes it fail, too, and is no error. */
Error_Code transfer_failed(Work_Report& report, Error_Code code, std::string const& what,
                           std::string const& name, std::string const& error) {
    return report.was_canceled()
               ? E_FAILED
               : report.failed(code, "Failed to " + what + " " + name + ", " + error);
}

/** Makes archive and catalogue appear, so that there is never a catalogue without its archive. */
Error_Code commit(Archive_Store& store, Archive_Writer& writer, Catalogue_Writer& catalogue,
                  std::string const& archive_name, std::string const& catalogue_name,
                  Work_Report& report) {
    if (report.canceled())
        return E_FAILED;
    // one of a backup that was given up and had the same number
    if (!store.remove(catalogue_name))
        return transfer_failed(report, E_ADD_TO_CATALOG, "remove an old catalogue", catalogue_name,
                               store.error());
    if (!writer.commit())
        return transfer_failed(report, E_UPLOAD_MTF_FILE_ERROR, "commit archive", archive_name,
                               writer.error());
    auto const output = store.create(catalogue_name);
    if (output && catalogue.copy_to(*output) && output->commit())
        return E_OK;
    std::string const error = store.error();
    (void)store.remove(archive_name); // an archive without a catalogue is unusable
    return transfer_failed(report, E_ADD_TO_CATALOG, "write catalogue", catalogue_name, error);
}

} // namespace

MTF_Backup::MTF_Backup(std::shared_ptr<Event_Handler> handler, Metadata const& metadata,
                       std::shared_ptr<ACE_Log_Msg_Callback> log_callback)
    : handler_(std::move(handler)),
      metadata_(metadata),
      log_callback_(std::move(log_callback)),
      clock_(system_time_ns) {}

MTF_Backup::~MTF_Backup() = default;

bool MTF_Backup::backup(std::string const& uri) {
    Log_Callback_Scope const scope(log_callback_);
    Work_Report report(handler_);
    error_code_ = E_FAILED;
    if (QMRT_IS_EMPTY(minor_resource_id_) || QMRT_IS_EMPTY(sources_) || QMRT_IS_BELOW(seq_, 0))
        return false;
    if (uri.empty() && QMRT_IS_EMPTY(host_uuid_))
        return false;
    if (!store_ && QMRT_IS_EMPTY(pool_uuid_))
        return false;
    report.begin();
    std::string const folder = uri.empty() ? default_uri(host_uuid_, minor_resource_id_) : uri;
    auto const store = open_store(report);
    error_code_ = store ? backup_to(*store, folder, report) : E_GET_POOL_INFO;
    canceled_ = report.was_canceled();
    if (canceled_ && error_code_ != E_OK && error_code_ != E_END_WITH_SKIPPED_FILES)
        QMRT_LOG(LM_INFO, "The backup was canceled\n");
    saved_entries_ = report.entries();
    saved_bytes_ = report.bytes();
    report.end(error_code_);
    return error_code_ == E_OK || error_code_ == E_END_WITH_SKIPPED_FILES;
}

std::shared_ptr<Archive_Store> MTF_Backup::open_store(Work_Report& report) const {
    if (store_)
        return store_;
    return Pool_Store::connect(pool_uuid_, device_uuid_, false, extra_client_io_opts_,
                               [&report] { return !report.canceled(); });
}

Error_Code MTF_Backup::backup_to(Archive_Store& store, std::string const& uri,
                                 Work_Report& report) {
    std::vector<std::string> sources = sources_;
    std::string bad;
    if (!normalize_sources(sources, bad))
        return report.failed(E_GET_SOURCE_DATA, "Cannot back up \"" + bad + "\", it is no " +
                                                    "absolute path of a file or folder");
    int64_t const seq = seq_ + 1;
    std::string const archive_name = mtf_path(uri, minor_resource_id_, seq, 0);
    Prior_Catalogue prior(
        store, [&](int64_t number) { return mtf_path(uri, minor_resource_id_, number, 0); });
    bool const has_prior =
        incremental_ && seq_ > 0 && prior.open(cat_path(uri, minor_resource_id_, seq_, 0));

    Archive_Writer writer(store, report);
    Catalogue_Writer catalogue;
    if (!catalogue.begin(seq, metadata_))
        return report.failed(E_ADD_TO_CATALOG, "Failed to write a temporary catalogue");
    if (!writer.open(archive_name, compression_, compression_level_))
        return report.failed(E_WRITE_TO_STORAGE,
                             "Failed to create archive " + archive_name + ", " + writer.error());
    Backup_Run run(writer, catalogue, report, seq, has_prior ? &prior : nullptr, clock_);
    if (Error_Code const code = run.run(sources, source_owner_); code != E_OK)
        return code;
    if (catalogue.entries() == 0)
        return report.failed(E_NO_FILES_BACKUPED, "No files were backed up");
    if (!writer.close())
        return report.failed(E_WRITE_TO_STORAGE,
                             "Failed to write archive " + archive_name + ", " + writer.error());
    Catalogue_Archives archives = has_prior ? prior.archives() : Catalogue_Archives();
    archives[seq] = writer.written();
    archive_size_ = writer.written().size;
    if (!catalogue.finish(archives))
        return report.failed(E_ADD_TO_CATALOG, "Failed to write a temporary catalogue");
    Error_Code const code = commit(store, writer, catalogue, archive_name,
                                   cat_path(uri, minor_resource_id_, seq, 0), report);
    if (code != E_OK)
        return code;
    return report.left_out() + writer.changed() > 0 ? E_END_WITH_SKIPPED_FILES : E_OK;
}
