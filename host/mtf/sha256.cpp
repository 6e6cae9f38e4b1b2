#include "host/mtf/sha256.h"

#include <algorithm>
#include <openssl/evp.h>

namespace MTF {

void Sha256::Free::operator()(evp_md_ctx_st* context) const {
    EVP_MD_CTX_free(context);
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
    begin();
}

Sha256::~Sha256() = default;

void Sha256::begin() {
    good_ = context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1;
}

void Sha256::update(void const* data, size_t size) {
    good_ = good_ && EVP_DigestUpdate(context_.get(), data, size) == 1;
}

void Sha256::update_zeros(uint64_t size) {
    static char const zeros[64 * 1024] = {};
    for (; size > 0; size -= std::min<uint64_t>(size, sizeof(zeros)))
        update(zeros, std::min<uint64_t>(size, sizeof(zeros)));
}

std::string Sha256::finish() {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    good_ = good_ && EVP_DigestFinal_ex(context_.get(), digest, &length) == 1;
    std::string text;
    if (good_)
        for (unsigned at = 0; at < length; ++at) {
            text += "0123456789abcdef"[digest[at] >> 4];
            text += "0123456789abcdef"[digest[at] & 15];
        }
    begin();
    return text;
}

} // namespace MTF
