#ifndef HOST_STORAGE_ENCRYPTION_H
#define HOST_STORAGE_ENCRYPTION_H

#include "json_spirit/secure_string.h"

/** How the objects of a pool are encrypted. The numbers are persisted. */
enum Encryption_Method : int { ENCRYPTION_NONE = 0, ENCRYPTION_AES_256 = 1 };

/**
 * True when clients can carry out a pool's encryption. They refuse any other, so that nothing is
 * ever stored in the clear where encryption was asked for. So far that is ENCRYPTION_NONE alone.
 */
[[nodiscard]] bool can_encrypt(Encryption_Method method, secure_string const& key,
                               secure_string const& iv);

#endif
