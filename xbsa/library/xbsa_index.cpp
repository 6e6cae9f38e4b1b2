#include "xbsa/library/xbsa_index.h"

#include "xbsa/library/xbsa_object.h"

#include <algorithm>
#include <xxhash.h>

namespace {

uint64_t key_of(std::string const& readable) {
    return XXH3_64bits(readable.data(), readable.size());
}

} // namespace

Xbsa_Result Xbsa_Index::read(std::string const& name, Lister const& list, Set& set) {
    std::vector<Storage_Entry> files;
    Xbsa_Result const result = list(name, files);
    if (!result)
        return result;
    set.named_always = false;
    set.paths.clear();
    set.copies.clear();
    for (Storage_Entry const& file : files) {
        std::string path;
        uint64_t copy_id = 0;
        if (file.is_folder)
            continue;
        if (!Xbsa_Object::parse_file(file.name, path, copy_id)) {
            set.named_always = true;
            continue;
        }
        set.paths.push_back(key_of(path));
        set.copies.push_back(copy_id);
    }
    std::ranges::sort(set.paths);
    std::ranges::sort(set.copies);
    return {};
}

Xbsa_Result Xbsa_Index::update(std::vector<Storage_Entry> const& sets, Lister const& list,
                               time_t now, Clock::time_point clock) {
    time_t newest = 0;
    for (Storage_Entry const& folder : sets)
        newest = std::max(newest, folder.modified);
    time_t const old = std::min(now, newest) - GRAIN.count();
    std::map<std::string, Set> known = std::move(sets_);
    sets_.clear();
    for (Storage_Entry const& folder : sets) {
        if (!folder.is_folder)
            continue;
        Set& set = sets_[folder.name];
        if (auto const before = known.find(folder.name); before != known.end())
            set = std::move(before->second);
        bool const is_same = set.changed == folder.changed && set.modified == folder.modified;
        if (is_same && set.settled)
            continue;
        if (!is_same)
            set.seen = clock;
        // the times are from before the names are read
        set.changed = folder.changed;
        set.modified = folder.modified;
        set.settled = folder.modified <= old || clock - set.seen >= GRAIN;
        if (Xbsa_Result const result = read(folder.name, list, set); !result) {
            set = Set();
            return result;
        }
    }
    return {};
}

std::vector<std::string> Xbsa_Index::find(Xbsa_Hint const& hint) const {
    uint64_t const path = key_of(Xbsa_Object::readable_path(hint.path));
    std::vector<std::string> found;
    for (auto const& [name, set] : sets_)
        if (set.named_always || hint.empty() ||
            (hint.copy_id != 0 ? std::ranges::binary_search(set.copies, hint.copy_id)
                               : std::ranges::binary_search(set.paths, path)))
            found.push_back(name);
    return found;
}
