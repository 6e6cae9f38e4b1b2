#ifndef AGENT_STORAGE_SET_FILES_H
#define AGENT_STORAGE_SET_FILES_H

#include "agent/storage/write_journal.h"

#include <string>
#include <vector>

class SQLite_Catalog;
class SQLite_Pools;
class Storage_Backend;
struct Dropped_Set;

/**
 * What backup sets have in the pools, when they are to go. First it is noted in the journal, so
 * that it goes in the end whatever happens, then the catalog drops the set, then the files are
 * removed: those that another complete set has stay. May be used on any thread.
 */
class Set_Files {
public:
    /** All live longer. */
    Set_Files(SQLite_Pools& pools, SQLite_Catalog& catalog, Write_Journal& journal,
              Storage_Backend& storage)
        : pools_(pools), catalog_(catalog), journal_(journal), storage_(storage) {}

    /**
     * Notes what a set has in its pools: its pieces, and what the backup tool may have put there
     * that the catalog has not heard of.
     * @param noted  gets it added
     * @return false, with a warning line for each, when something could not be noted
     */
    [[nodiscard]] bool note(Dropped_Set const& set, std::vector<Pool_Object>& noted);
    /** Removes what was noted; what cannot be removed now stays noted for later. */
    void remove(std::vector<Pool_Object> const& noted);

private:
    /** What a set has in a pool; of one that is out of reach, what it is said to have. */
    std::vector<std::string> objects_in(std::string const& pool_path, Dropped_Set const& set);

    SQLite_Pools& pools_;
    SQLite_Catalog& catalog_;
    Write_Journal& journal_;
    Storage_Backend& storage_;
};

#endif
