#ifndef XBSA_LIBRARY_XBSA_COUNTER_H
#define XBSA_LIBRARY_XBSA_COUNTER_H

#include "xbsa/xbsa_mem_map_handle.h"

#include <string>

/**
 * Counts what passes in the job's counter file, if the job has one. Many processes may count in one
 * file at once. Without a file, and with one that cannot be used, nothing is counted: the counts
 * are for a progress figure only. One object is for one thread at a time.
 */
class Xbsa_Counter {
public:
    /** Looks for the file; never makes one. */
    explicit Xbsa_Counter(std::string const& path);

    /** Bytes of content that have just passed, to or from the database. */
    void add_current(uint64_t bytes);
    /** An object that is in its backup for good, or that has been read to its end. */
    void add_object(uint64_t size, uint64_t stored_size);

private:
    Xbsa_Mem_Map_Handle file_;
};

#endif
