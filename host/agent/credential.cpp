#include "host/agent/credential.h"

#include "qmrt/check.h"

#include <climits>
#include <cstring>
#include <memory>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/rand.h>
#include <vector>

namespace {

constexpr unsigned char VERSION = 1;
constexpr size_t SALT_SIZE = 16;
constexpr size_t NONCE_SIZE = 12;
constexpr size_t TAG_SIZE = 16;
constexpr size_t KEY_SIZE = 32;
// where the parts stand
constexpr size_t SALT = 1;
constexpr size_t NONCE = SALT + SALT_SIZE;
constexpr size_t TAG = NONCE + NONCE_SIZE;
constexpr size_t CIPHERTEXT = TAG + TAG_SIZE;
constexpr size_t MAX_SIZE = INT_MAX / 4; // the library counts in int, and base64 needs more

using Bytes = std::vector<unsigned char>;
using Context = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

/** A derived key; cleared at the end. */
struct Derived_Key {
    ~Derived_Key() { secure_memset(bytes, 0, sizeof bytes); }
    unsigned char bytes[KEY_SIZE];
};

bool derive(char const* key, size_t key_length, unsigned char const* salt, Derived_Key& result) {
    static char info[] = "zenbrak3 credential";
    static char digest[] = "SHA256";
    std::unique_ptr<EVP_KDF, decltype(&EVP_KDF_free)> const kdf(
        EVP_KDF_fetch(nullptr, "HKDF", nullptr), EVP_KDF_free);
    std::unique_ptr<EVP_KDF_CTX, decltype(&EVP_KDF_CTX_free)> const context(
        kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr, EVP_KDF_CTX_free);
    OSSL_PARAM const parameters[] = {
        OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest, 0),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, const_cast<char*>(key), key_length),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_SALT, const_cast<unsigned char*>(salt),
                                          SALT_SIZE),
        OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, info, sizeof info - 1),
        OSSL_PARAM_construct_end()};
    return context &&
           EVP_KDF_derive(context.get(), result.bytes, sizeof result.bytes, parameters) == 1;
}

/** Encrypts @a plain behind the head that @a message has already; fills in the tag. */
bool seal(std::string_view plain, Derived_Key const& key, Bytes& message) {
    Context const context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    int length = 0;
    return context &&
           EVP_EncryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.bytes,
                              &message[NONCE]) == 1 &&
           EVP_EncryptUpdate(context.get(), nullptr, &length, message.data(), TAG) == 1 &&
           (plain.empty() || // to the library, nothing in is the end
            EVP_EncryptUpdate(context.get(), message.data() + CIPHERTEXT, &length,
                              reinterpret_cast<unsigned char const*>(plain.data()),
                              static_cast<int>(plain.size())) == 1) &&
           EVP_EncryptFinal_ex(context.get(), message.data() + message.size(), &length) == 1 &&
           EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_GET_TAG, TAG_SIZE, &message[TAG]) == 1;
}

bool open(Bytes& message, Derived_Key const& key, secure_string& plain) {
    Context const context(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free);
    secure_string text(message.size() - CIPHERTEXT, '\0');
    auto* const out = reinterpret_cast<unsigned char*>(text.data());
    int length = 0;
    bool const authentic =
        context &&
        EVP_DecryptInit_ex(context.get(), EVP_aes_256_gcm(), nullptr, key.bytes, &message[NONCE]) ==
            1 &&
        EVP_DecryptUpdate(context.get(), nullptr, &length, message.data(), TAG) == 1 &&
        EVP_DecryptUpdate(context.get(), out, &length, message.data() + CIPHERTEXT,
                          static_cast<int>(text.size())) == 1 &&
        EVP_CIPHER_CTX_ctrl(context.get(), EVP_CTRL_GCM_SET_TAG, TAG_SIZE, &message[TAG]) == 1 &&
        EVP_DecryptFinal_ex(context.get(), out + text.size(), &length) == 1;
    if (authentic)
        plain = std::move(text);
    return authentic;
}

std::string to_base64(Bytes const& bytes) {
    std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
    int const length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

/** False for anything that to_base64() would not have written. */
bool from_base64(std::string_view text, Bytes& bytes) {
    if (text.empty() || text.size() % 4 != 0 || text.size() > MAX_SIZE)
        return false;
    bytes.resize(text.size() / 4 * 3);
    if (EVP_DecodeBlock(bytes.data(), reinterpret_cast<unsigned char const*>(text.data()),
                        static_cast<int>(text.size())) != static_cast<int>(bytes.size()))
        return false;
    // the library counts the padding as bytes of zeros
    bytes.resize(bytes.size() - (text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0));
    // it also passes over blanks and spare bits
    return to_base64(bytes) == text;
}

} // namespace

std::string encrypt_string(std::string_view plain, char const* key, size_t key_length) {
    if (QMRT_IS_NULL(key) || QMRT_IS_BELOW(key_length, 1))
        return "";
    Bytes message(CIPHERTEXT + plain.size());
    message[0] = VERSION;
    Derived_Key derived;
    if (plain.size() > MAX_SIZE || RAND_bytes(&message[SALT], SALT_SIZE + NONCE_SIZE) != 1 ||
        !derive(key, key_length, &message[SALT], derived) || !seal(plain, derived, message)) {
        QMRT_LOG(LM_ERROR, "Failed to encrypt a credential\n");
        return "";
    }
    return to_base64(message);
}

std::string encrypt_string(char const* plain, char const* key, size_t key_length) {
    if (QMRT_IS_NULL(plain))
        return "";
    return encrypt_string(std::string_view(plain), key, key_length);
}

bool decrypt_secure_string(std::string_view text, char const* key, size_t key_length,
                           secure_string& plain) {
    if (QMRT_IS_NULL(key) || QMRT_IS_BELOW(key_length, 1))
        return false;
    Bytes message;
    if (!from_base64(text, message) || message.size() < CIPHERTEXT || message[0] != VERSION) {
        QMRT_LOG(LM_ERROR, "Failed to decrypt a credential: it is not one, or was cut\n");
        return false;
    }
    Derived_Key derived;
    if (!derive(key, key_length, &message[SALT], derived) || !open(message, derived, plain)) {
        QMRT_LOG(LM_ERROR, "Failed to decrypt a credential: wrong key, or it was changed\n");
        return false;
    }
    return true;
}

secure_string decrypt_secure_string(std::string_view text, char const* key, size_t key_length) {
    secure_string plain;
    (void)decrypt_secure_string(text, key, key_length, plain);
    return plain;
}
