#ifndef AGENT_STORAGE_POOL_SWEEP_H
#define AGENT_STORAGE_POOL_SWEEP_H

#include "agent/storage/write_journal.h"

class SQLite_Catalog;
class SQLite_Pools;
class Storage_Backend;

/** What a sweep did. */
struct Sweep_Result {
    size_t removed = 0;    ///< objects that no complete set has
    size_t unfinished = 0; ///< files of objects that were never committed
    size_t put_off = 0;    ///< objects that stay noted: their pool or the catalog is out of reach
};

/**
 * Removes from the pools what the journal has and nobody writes: every object that no complete set
 * has, every such object of a folder that is noted as a whole, and in their folders what was left
 * unfinished, unless its writer still lives. What cannot be looked at now stays in the journal for
 * the next time: with a warning line when its pool is at fault, without one when the question is
 * not answered, or a living writer has something unfinished in a folder that is noted.
 * May be called on any thread; who wants to write an object waits while it is looked at.
 * @param pools  by which the pools are reached; plain files when there is none
 */
Sweep_Result sweep_pool_writes(Write_Journal& journal, Set_Question const& question,
                               Storage_Backend* pools = nullptr);
/** The same for some of what is noted. */
Sweep_Result sweep_pool_objects(std::vector<Pool_Object> const& objects, Write_Journal& journal,
                                Set_Question const& question, Storage_Backend* pools = nullptr);

/**
 * The question by the agent's own catalog. An object in a pool that is no longer on record counts
 * as named: it is nobody's to remove. Both live longer than what is returned.
 */
Set_Question ask_catalog(SQLite_Pools& pools, SQLite_Catalog& catalog);

#endif
