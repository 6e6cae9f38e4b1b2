#ifndef AGENT_CLI_PASSWORD_H
#define AGENT_CLI_PASSWORD_H

#include "json_spirit/secure_string.h"

#include <string>

/** Longer passwords are refused. */
constexpr size_t MAX_PASSWORD = 1024;

/**
 * Reads a password: from the terminal, with @a prompt and without an echo, when stdin is one; else
 * the first line of stdin.
 * @param error  on failure, what is wrong with it; "" when the user interrupted
 * @return false when there is none, or it cannot be one. The terminal is as it was before.
 */
[[nodiscard]] bool read_password(std::string const& prompt, secure_string& password,
                                 std::string& error);

#endif
