#include "host/mtf/backup_run.h"

#include <cerrno>
#include <cstring>

namespace MTF {

namespace {

/** File systems count time in steps of up to this. */
constexpr int64_t TIME_STEP_NS = 2000000000;

bool has_more_names(struct stat const& status) {
    return S_ISREG(status.st_mode) && status.st_nlink > 1;
}

} // namespace

Error_Code Backup_Run::run(std::vector<std::string> const& sources, std::optional<uid_t> owner) {
    for (std::string const& source : sources)
        if (!walk_source(source, *this, owner))
            return code_;
    return E_OK;
}

void Backup_Run::unreadable(std::string const& path, int error) {
    report_.skipped(path, error == ENOENT ? E_NOT_FOUND : E_GET_SOURCE_DATA, strerror(error));
}

std::string Backup_Run::saved_name(Source_Item const& item) {
    if (!has_more_names(item.status))
        return {};
    auto const found = names_.find({item.status.st_dev, item.status.st_ino});
    if (found == names_.end())
        return {};
    std::string name = found->second.first;
    if (--found->second.left == 0)
        names_.erase(found);
    return name;
}

void Backup_Run::remember_name(Source_Item const& item) {
    if (has_more_names(item.status))
        names_.emplace(File_Id(item.status.st_dev, item.status.st_ino),
                       Names{item.name, item.status.st_nlink - 1});
}

Catalogue_Entry const* Backup_Run::unchanged(Source_Item const& item,
                                             std::string const& hard_link) {
    Catalogue_Entry const* const old = prior_ ? prior_->find(item.name) : nullptr;
    if (!old || old->save_again)
        return nullptr;
    struct stat const& status = item.status;
    Entry_Type const type = hard_link.empty() ? *entry_type_of(status.st_mode) : ENTRY_HARD_LINK;
    // the change time moves with content, owner, mode, attributes and number of names alike
    bool const same = old->type == type && old->ctime_ns == to_ns(status.st_ctim) &&
                      old->mtime_ns == to_ns(status.st_mtim) &&
                      old->mode == (status.st_mode & 07777) && old->uid == status.st_uid &&
                      old->gid == status.st_gid &&
                      (type != ENTRY_FILE || old->size == static_cast<uint64_t>(status.st_size)) &&
                      (type != ENTRY_HARD_LINK || old->link == hard_link);
    return same ? old : nullptr;
}

Source_Visitor::Next Backup_Run::visit(Source_Item const& item) {
    if (report_.canceled()) {
        code_ = E_FAILED;
        return STOP;
    }
    if (!entry_type_of(item.status.st_mode)) // neither devices nor sockets hold any data
        return GO_ON;
    std::string const hard_link = saved_name(item);
    if (Catalogue_Entry const* const old = unchanged(item, hard_link)) {
        if (hard_link.empty())
            remember_name(item);
        return add(*old);
    }
    return save(item, hard_link);
}

Source_Visitor::Next Backup_Run::add(Catalogue_Entry const& entry) {
    if (catalogue_.add(entry))
        return GO_ON;
    code_ = report_.failed(E_ADD_TO_CATALOG, "Failed to write a temporary catalogue");
    return STOP;
}

Source_Visitor::Next Backup_Run::save(Source_Item const& item, std::string const& hard_link) {
    Catalogue_Entry entry;
    int64_t const now = clock_();
    switch (writer_.save(item, hard_link, entry)) {
    case Archive_Writer::LEFT_OUT:
        return PASS_OVER;
    case Archive_Writer::CANCELED:
        code_ = E_FAILED;
        return STOP;
    case Archive_Writer::FAILED:
        code_ =
            report_.failed(E_WRITE_TO_STORAGE, "Failed to write an archive, " + writer_.error());
        return STOP;
    case Archive_Writer::SAVED:
        break;
    }
    if (hard_link.empty())
        remember_name(item);
    entry.seq = seq_;
    entry.save_again = entry.save_again || entry.ctime_ns > now - TIME_STEP_NS;
    report_.add_entry(item.path);
    return add(entry);
}

} // namespace MTF
