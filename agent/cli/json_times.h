#ifndef AGENT_CLI_JSON_TIMES_H
#define AGENT_CLI_JSON_TIMES_H

#include "json_spirit/value.h"

/**
 * The agent's answer as the command prints it as JSON: numbers of seconds under the keys of times
 * become ISO 8601 texts in UTC, and 0 becomes null.
 */
json_spirit::Value with_iso_times(json_spirit::Value const& value);

#endif
