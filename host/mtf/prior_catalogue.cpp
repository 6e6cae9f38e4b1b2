#include "host/mtf/prior_catalogue.h"

#include "host/mtf/archive_path.h"
#include "qmrt/log.h"

namespace MTF {

bool Prior_Catalogue::open(std::string const& name) {
    auto presence = Archive_Store::UNKNOWN;
    auto const input = store_.open(name, presence);
    if (!input && presence == Archive_Store::ABSENT) {
        QMRT_LOG(LM_INFO, "Saving all files because there is no catalogue %s\n", name.c_str());
        return false;
    }
    std::string error = input ? "" : store_.error();
    if (!input || reader_.fetch(*input, error) != Catalogue_Reader::OK) {
        QMRT_LOG(LM_WARNING, "Saving all files because catalogue %s is no use, %s\n", name.c_str(),
                 error.c_str());
        return false;
    }
    there_is_ = reader_.next(entry_);
    return true;
}

Catalogue_Entry const* Prior_Catalogue::find(std::string const& name) {
    while (there_is_ && compare_entry_names(entry_.name, name) < 0)
        there_is_ = reader_.next(entry_);
    return there_is_ && entry_.name == name && has_archive(entry_.seq) ? &entry_ : nullptr;
}

bool Prior_Catalogue::has_archive(int64_t seq) {
    auto const known = present_.find(seq);
    if (known != present_.end())
        return known->second;
    bool const present = store_.look(path_of_(seq)) == Archive_Store::PRESENT;
    if (!present)
        QMRT_LOG(LM_WARNING, "Saving again what is in archive %q because it has gone\n", seq);
    return present_[seq] = present;
}

} // namespace MTF
