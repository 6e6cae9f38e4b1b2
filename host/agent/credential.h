#ifndef HOST_AGENT_CREDENTIAL_H
#define HOST_AGENT_CREDENTIAL_H

#include "json_spirit/secure_string.h"

#include <cstddef>
#include <string>
#include <string_view>

/**
 * Stored credentials: a text form of an encrypted password, for options and files.
 *
 * The form is base64 (RFC 4648, padded, one line) of: a version byte, 1; 16 bytes of salt; a nonce
 * of 12 bytes; a tag of 16 bytes; the ciphertext, as long as the plain text. It is AES-256-GCM
 * (NIST SP 800-38D) under a key that HKDF with SHA-256 (RFC 5869) derives from the given key and
 * the salt; version, salt and nonce are authenticated as well. Salt and nonce are random, so one
 * password never looks the same twice.
 */

/**
 * The key under which instance options keep their passwords. It is the same everywhere, so it
 * keeps a password from being read by chance, and from a change that goes unnoticed; who has the
 * program can read it. Files that hold such texts still belong to root alone.
 */
constexpr char CREDENTIAL_KEY[] = "zb3#Cred!7Kw@2nQxE";
constexpr size_t CREDENTIAL_KEY_LENGTH = sizeof CREDENTIAL_KEY - 1;
static_assert(CREDENTIAL_KEY_LENGTH == 18);

/**
 * @param key  any text, @a key_length bytes, at least 1
 * @return the text form; "" after an error line for a null @a plain or @a key, or when OpenSSL
 *         fails. An empty plain text has a text form too.
 */
std::string encrypt_string(std::string_view plain, char const* key, size_t key_length);
std::string encrypt_string(char const* plain, char const* key, size_t key_length);

/**
 * Reads a text form.
 * @return false, with @a plain unchanged and an error line that shows no part of either, for a
 *         wrong key, a text that was changed or cut, and one that is no text form at all.
 */
[[nodiscard]] bool decrypt_secure_string(std::string_view text, char const* key, size_t key_length,
                                         secure_string& plain);
/** The same; "" on failure. */
secure_string decrypt_secure_string(std::string_view text, char const* key, size_t key_length);

#endif
