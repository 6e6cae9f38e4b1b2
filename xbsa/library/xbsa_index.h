#ifndef XBSA_LIBRARY_XBSA_INDEX_H
#define XBSA_LIBRARY_XBSA_INDEX_H

#include "host/storage/storage_backend.h"
#include "xbsa/library/xbsa_result.h"

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <vector>

/** What is known of the objects that are wanted; a set without such an object need not be read. */
struct Xbsa_Hint {
    std::string path;     ///< their path name; "" for any
    uint64_t copy_id = 0; ///< the copy; 0 for any

    [[nodiscard]] bool empty() const { return path.empty() && copy_id == 0; }
};

/**
 * Tells which sets may have an object, by the names of the files of data, so that a query reads the
 * sets that have what it wants and not all that were ever kept. It may name a set without the
 * object, and never leaves out one with it.
 *
 * A set's folder is listed once, and again when its time of modification has changed. Folders that
 * were modified within the last seconds are not trusted, since that time has whole seconds: they
 * are always named. The pool's clock may differ from this host's, so "the last seconds" are those
 * before the newest modification as well as those before now. For one thread at a time.
 */
class Xbsa_Index {
public:
    using Lister =
        std::function<Xbsa_Result(std::string const& set, std::vector<Storage_Entry>& files)>;

    /**
     * Brings the index up to date.
     * @param sets  the folders of the sets, listed just now
     * @param list  lists the files of a set
     * @param now   seconds since the epoch
     */
    Xbsa_Result update(std::vector<Storage_Entry> const& sets, Lister const& list, time_t now);

    /** The sets that may have it, of those in the last update(), in byte order. */
    std::vector<std::string> find(Xbsa_Hint const& hint) const;

private:
    struct Set {
        uint32_t number = 0; ///< in names_
        time_t modified = 0;
        bool named_always = false; ///< has files that are not named as ours are
    };
    using Entries = std::vector<std::pair<uint64_t, uint32_t>>; ///< key and set, sorted

    Xbsa_Result add(std::string const& name, time_t modified, Lister const& list);

    std::map<std::string, Set> sets_;
    std::vector<std::string> names_;
    Entries paths_;
    Entries copies_;
    std::vector<std::string> listed_; ///< in the last update
    std::vector<std::string> always_; ///< of these, those that are always named
};

#endif
