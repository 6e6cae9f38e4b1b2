#include "host/mtf/mtf_restore.h"

#include "host/mtf/archive_extractor.h"
#include "host/mtf/archive_path.h"
#include "host/mtf/pool_store.h"
#include "host/process/log_callback_scope.h"
#include "qmrt/check.h"
#include "qmrt/file.h"
#include "qmrt/format.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <set>

using namespace MTF;

namespace {

/** The archives that hold something of what is asked for. */
bool archives_needed(Catalogue_Reader& catalogue, std::string const& below,
                     std::set<int64_t>& needed) {
    Catalogue_Entry entry;
    uint64_t read = 0;
    if (!catalogue.rewind())
        return false;
    for (; catalogue.next(entry); ++read)
        if (is_at_or_below(entry.name, below))
            needed.insert(entry.seq);
    return read == catalogue.summary().entries;
}

} // namespace

MTF_Restore::MTF_Restore(std::shared_ptr<Event_Handler> handler,
                         std::shared_ptr<ACE_Log_Msg_Callback> log_callback)
    : handler_(std::move(handler)), log_callback_(std::move(log_callback)) {}

MTF_Restore::~MTF_Restore() = default;

bool MTF_Restore::restore(std::string const& path) {
    Log_Callback_Scope const scope(log_callback_);
    Work_Report report(handler_);
    error_code_ = E_FAILED;
    if (QMRT_IS_EMPTY(backup_minor_resource_id_) || QMRT_IS_EMPTY(target_location_) ||
        QMRT_IS_BELOW(seq_, 1))
        return false;
    if (uri_.empty() && QMRT_IS_EMPTY(backup_host_uuid_))
        return false;
    if (!store_ && QMRT_IS_EMPTY(pool_uuid_))
        return false;
    report.begin();
    auto const store = open_store(report);
    error_code_ = store ? restore_from(*store, path, report) : E_GET_POOL_INFO;
    canceled_ = report.was_canceled();
    if (canceled_ && error_code_ == E_FAILED)
        QMRT_LOG(LM_INFO, "The restore was canceled\n");
    restored_entries_ = report.entries();
    restored_bytes_ = report.bytes();
    report.end(error_code_);
    return error_code_ == E_OK || error_code_ == E_END_WITH_SKIPPED_FILES;
}

std::shared_ptr<Archive_Store> MTF_Restore::open_store(Work_Report& report) const {
    if (store_)
        return store_;
    return Pool_Store::connect(pool_uuid_, "", for_reading_, extra_client_io_opts_,
                               [&report] { return !report.canceled(); });
}

Error_Code MTF_Restore::fetch_catalogue(Archive_Store& store, std::string const& uri,
                                        Catalogue_Reader& catalogue, Work_Report& report) {
    std::string const name = cat_path(uri, backup_minor_resource_id_, seq_, 0);
    auto presence = Archive_Store::UNKNOWN;
    auto const input = store.open(name, presence);
    if (!input)
        return report.failed(presence == Archive_Store::ABSENT ? E_NOT_FOUND : E_DOWNLOAD_CAT_ERROR,
                             "Failed to open catalogue " + name + ", " + store.error());
    std::string error;
    auto const result = catalogue.fetch(*input, error);
    if (result == Catalogue_Reader::OK && catalogue.summary().seq != seq_)
        return report.failed(E_CORRUPT, "Catalogue " + name + " is that of another backup");
    if (result == Catalogue_Reader::OK)
        return E_OK;
    if (result == Catalogue_Reader::CORRUPT)
        return report.failed(E_CORRUPT, "Catalogue " + name + " is corrupt, " + error);
    return report.failed(E_DOWNLOAD_CAT_ERROR,
                         "Failed to fetch catalogue " + name + ", " + error + ", " + store.error());
}

Error_Code MTF_Restore::make_target(std::string& folder, Work_Report& report) const {
    if (target_location_.front() != '/')
        return report.failed(E_MKDIR,
                             "Cannot restore to " + target_location_ + ", it is not absolute");
    if (mkdir_p(target_location_.c_str(), 0755) == -1)
        return report.failed(E_MKDIR,
                             "Failed to mkdir " + target_location_ + ", " + strerror(errno));
    std::unique_ptr<char, void (*)(void*)> const real(realpath(target_location_.c_str(), nullptr),
                                                      free);
    if (!real)
        return report.failed(E_MKDIR,
                             "Failed to find " + target_location_ + ", " + strerror(errno));
    folder = real.get();
    return E_OK;
}

Error_Code MTF_Restore::restore_from(Archive_Store& store, std::string const& path,
                                     Work_Report& report) {
    std::string const below = entry_name(path);
    if (!path.empty() && below.empty() && path != "/")
        return report.failed(E_NOT_FOUND,
                             "Cannot restore \"" + path + "\", it is no absolute path");
    std::string const uri =
        uri_.empty() ? default_uri(backup_host_uuid_, backup_minor_resource_id_) : uri_;
    Catalogue_Reader catalogue;
    if (Error_Code const code = fetch_catalogue(store, uri, catalogue, report); code != E_OK)
        return code;
    metadata_ = catalogue.summary().metadata;
    QMRT_LOG(LM_DEBUG, "Restoring backup %s, number %q, for definition %s\n",
             metadata_.uuid().c_str(), seq_, definition_uuid_.c_str());
    std::set<int64_t> needed;
    if (!archives_needed(catalogue, below, needed))
        return report.failed(E_FAILED, "Failed to read a temporary catalogue");
    if (needed.empty())
        return report.failed(E_NO_FILES_RESTORED, "The backup holds nothing of \"" + path + "\"");
    std::string folder;
    if (Error_Code const code = make_target(folder, report); code != E_OK)
        return code;
    Archive_Extractor extractor(folder, store, report);
    if (!extractor.open())
        return report.failed(E_FAILED, "Failed to begin a restore");
    for (int64_t const seq : needed) {
        std::string const name = mtf_path(uri, backup_minor_resource_id_, seq, 0);
        auto presence = Archive_Store::UNKNOWN;
        auto const input = store.open(name, presence);
        if (!input)
            return report.failed(presence == Archive_Store::ABSENT ? E_NOT_FOUND : E_OPEN_MEDIA,
                                 "Failed to open archive " + name + ", " + store.error());
        if (Error_Code const code = extractor.extract(*input, catalogue, seq, below); code != E_OK)
            return code;
    }
    bool const closed = extractor.close();
    if (report.entries() == 0)
        return report.failed(E_NO_FILES_RESTORED, "No files were restored");
    return !closed || report.left_out() > 0 ? E_END_WITH_SKIPPED_FILES : E_OK;
}
