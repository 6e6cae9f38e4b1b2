#include "host/storage/encryption.h"

bool can_encrypt(Encryption_Method method, secure_string const&, secure_string const&) {
    return method == ENCRYPTION_NONE;
}
