#ifndef AGENT_SERVICE_ACCESS_KEY_FILE_H
#define AGENT_SERVICE_ACCESS_KEY_FILE_H

#include "json_spirit/secure_string.h"

#include <string>

/**
 * The key that clients on the network have to know, in a file for its owner alone: one line of
 * printable text without blanks.
 * @param make   make a file with a new random key when there is none
 * @param error  when false: which file, what is wrong with it, and what to do
 * @return false, with @a key unchanged, for a file that is not there, cannot be read, may be read
 *         by others, or has no such line of 16 to 512 bytes
 */
[[nodiscard]] bool load_access_key(std::string const& path, bool make, secure_string& key,
                                   std::string& error);

#endif
