#ifndef AGENT_CATALOG_SET_LEVEL_H
#define AGENT_CATALOG_SET_LEVEL_H

#include "json_spirit/value.h"

/**
 * Adds to the row of a set the "level" that was made, and in "level_reason" why it is not the one
 * that was asked for, which is the row's "type". An incremental set that builds on no other is
 * full: the backup tool chains its sets by "prior_backup_key". Sets of GaussDB T and TPOPS have the
 * right type already.
 */
void add_level(json_spirit::Object& row);

#endif
