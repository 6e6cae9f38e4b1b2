#ifndef QMRT_UUID_H
#define QMRT_UUID_H

#include <string>

/** 16 bytes of a uuid (RFC 4122), in the order in which its text form shows them. */
using uuid_binary = unsigned char[16];

/** A new random uuid as text: 36 characters, lower case. */
std::string uuid_string();

/** The text form, 36 characters, lower case. */
std::string uuid_binary_to_string(uuid_binary const& uuid);

/**
 * Reads the 36-character text form, in either case.
 * @return false, with @a uuid all zeros, for any other text.
 */
bool uuid_string_to_binary(std::string const& text, uuid_binary& uuid);

#endif
