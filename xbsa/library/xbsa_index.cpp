#include "xbsa/library/xbsa_index.h"

#include "xbsa/library/xbsa_object.h"

#include <algorithm>
#include <xxhash.h>

namespace {

/** In seconds: times of modification are whole seconds, and may be those of a coarse clock. */
constexpr time_t UNTRUSTED = 2;

uint64_t key_of(std::string const& readable) {
    return XXH3_64bits(readable.data(), readable.size());
}

template <typename Entries, typename Take>
void each_of(Entries const& entries, uint64_t key, Take take) {
    auto const first =
        std::lower_bound(entries.begin(), entries.end(), std::pair(key, uint32_t{0}));
    for (auto at = first; at != entries.end() && at->first == key; ++at)
        take(at->second);
}

} // namespace

Xbsa_Result Xbsa_Index::add(std::string const& name, time_t modified, Lister const& list) {
    std::vector<Storage_Entry> files;
    Xbsa_Result const result = list(name, files);
    if (!result)
        return result;
    auto const [at, is_new] = sets_.try_emplace(name);
    Set& set = at->second;
    if (is_new) {
        set.number = static_cast<uint32_t>(names_.size());
        names_.push_back(name);
    }
    set.modified = modified;
    set.named_always = false;
    for (Storage_Entry const& file : files) {
        std::string path;
        uint64_t copy_id = 0;
        if (file.is_folder)
            continue;
        if (!Xbsa_Object::parse_file(file.name, path, copy_id)) {
            set.named_always = true;
            continue;
        }
        paths_.emplace_back(key_of(path), set.number);
        copies_.emplace_back(copy_id, set.number);
    }
    return {};
}

Xbsa_Result Xbsa_Index::update(std::vector<Storage_Entry> const& sets, Lister const& list,
                               time_t now) {
    time_t newest = 0;
    for (Storage_Entry const& set : sets)
        newest = std::max(newest, set.modified);
    listed_.clear();
    always_.clear();
    bool changed = false;
    for (Storage_Entry const& set : sets) {
        if (!set.is_folder)
            continue;
        listed_.push_back(set.name);
        auto const known = sets_.find(set.name);
        if (set.modified + UNTRUSTED > std::min(now, newest)) {
            always_.push_back(set.name);
            continue;
        }
        if (known == sets_.end() || known->second.modified != set.modified) {
            Xbsa_Result const result = add(set.name, set.modified, list);
            if (!result)
                return result;
            changed = true;
        }
        if (sets_.at(set.name).named_always)
            always_.push_back(set.name);
    }
    for (Entries* const entries : {&paths_, &copies_}) {
        if (!changed)
            break;
        std::sort(entries->begin(), entries->end());
        entries->erase(std::unique(entries->begin(), entries->end()), entries->end());
    }
    return {};
}

std::vector<std::string> Xbsa_Index::find(Xbsa_Hint const& hint) const {
    std::vector<std::string> found = always_;
    auto const take = [&](uint32_t number) {
        if (std::binary_search(listed_.begin(), listed_.end(), names_[number]))
            found.push_back(names_[number]);
    };
    if (hint.copy_id != 0)
        each_of(copies_, hint.copy_id, take);
    else if (!hint.path.empty())
        each_of(paths_, key_of(Xbsa_Object::readable_path(hint.path)), take);
    else
        found = listed_;
    std::sort(found.begin(), found.end());
    found.erase(std::unique(found.begin(), found.end()), found.end());
    return found;
}
