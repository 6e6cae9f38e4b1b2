#ifndef AGENT_CATALOG_CATALOG_CALLS_H
#define AGENT_CATALOG_CATALOG_CALLS_H

#include "json_spirit/value.h"

#include <string>

class Catalog_Backend;

/**
 * The catalog over JSON-RPC, for the members of a group and for the data path of the databases:
 * methods "catalog." and one of these operations, with one object of parameters each. "timeout" and
 * "max_seconds_retry" (Catalog_Limits) may be added to each, -1 when they are missing.
 *
 *     initialize  {"kind", "set"}                -> {}             "set" is Backup_Set::dump()
 *     complete    {"kind", "set"}                -> {}
 *     commit      {"kind", "set", "overwrite"?}  -> {}
 *     abort       {"uuid"}                       -> {"pieces": [..]}
 *     add_piece   {"uuid", "pieces": [..]}       -> {}
 *     get_view    {"type", "view", "query"}      -> {"result": ..}
 *
 * Carries out one of them. May be called on any thread. Logs nothing itself; @a catalog does.
 * @param operation  without "catalog."
 * @param result     of the method, when true
 * @param message    when false: "Invalid params: ..." for what the caller did wrong, else that the
 *                   catalog could not do it
 */
[[nodiscard]] bool serve_catalog_call(Catalog_Backend& catalog, std::string const& operation,
                                      json_spirit::Object const& params, json_spirit::Value& result,
                                      std::string& message);

#endif
