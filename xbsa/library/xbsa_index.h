#ifndef XBSA_LIBRARY_XBSA_INDEX_H
#define XBSA_LIBRARY_XBSA_INDEX_H

#include "host/storage/storage_backend.h"
#include "xbsa/library/xbsa_result.h"

#include <chrono>
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
 * The names in a set's folder are read once, and again when one of its times has changed. Times
 * have a grain, so a change can hide behind another one for up to GRAIN: the names in a folder that
 * may have changed so lately are read with every update. A folder is older than that when
 * - its time of modification is, by this host's clock and by that of the newest folder, since the
 *   pool's clock may be another one, or
 * - this object has seen the same times for so long.
 *
 * For one thread at a time.
 */
class Xbsa_Index {
public:
    using Clock = std::chrono::steady_clock;
    using Lister =
        std::function<Xbsa_Result(std::string const& set, std::vector<Storage_Entry>& files)>;

    /** The coarsest clock of a file system that is known. */
    static constexpr std::chrono::seconds GRAIN{2};

    /**
     * Brings the index up to date.
     * @param sets   the folders of the sets, listed just now
     * @param list   lists the names of a set's files
     * @param now    seconds since the epoch, by this host's clock
     * @param clock  time since some point, not before @a sets was listed
     */
    Xbsa_Result update(std::vector<Storage_Entry> const& sets, Lister const& list, time_t now,
                       Clock::time_point clock);

    /** The sets that may have it, of those in the last update(), in byte order. */
    std::vector<std::string> find(Xbsa_Hint const& hint) const;

private:
    struct Set {
        int64_t changed = -1; ///< the folder's times
        time_t modified = -1;
        Clock::time_point seen;       ///< when these times were seen first
        bool settled = false;         ///< a later change would show by another time
        bool named_always = true;     ///< has files that are not named as ours are
        std::vector<uint64_t> paths;  ///< keys, sorted
        std::vector<uint64_t> copies; ///< sorted
    };
    static Xbsa_Result read(std::string const& name, Lister const& list, Set& set);

    std::map<std::string, Set> sets_;
};

#endif
