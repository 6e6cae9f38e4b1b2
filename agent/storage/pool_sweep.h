#ifndef AGENT_STORAGE_POOL_SWEEP_H
#define AGENT_STORAGE_POOL_SWEEP_H

#include "agent/storage/write_journal.h"

class SQLite_Catalog;
class SQLite_Pools;

/** What a sweep did. */
struct Sweep_Result {
    size_t removed = 0;    ///< objects that no complete set has
    size_t unfinished = 0; ///< files of objects that were never committed
    size_t put_off = 0;    ///< objects that stay noted: their pool or the catalog is out of reach
};

/**
 * Removes from the pools what the agent was writing when it died: every object of the journal that
 * no complete set has, and in their folders what was left unfinished, unless its writer still
 * lives. To be called at the agent's start, before anything writes. What cannot be looked at now
 * stays in the journal for the next time, with a warning line.
 */
Sweep_Result sweep_pool_writes(Write_Journal& journal, Set_Question const& question);

/**
 * The question by the agent's own catalog. An object in a pool that is no longer on record counts
 * as named: it is nobody's to remove. Both live longer than what is returned.
 */
Set_Question ask_catalog(SQLite_Pools& pools, SQLite_Catalog& catalog);

#endif
