#include "xbsa/library/xbsa_digest.h"

#include "qmrt/format.h"

#include <new>
#include <xxhash.h>

void Xbsa_Digest::Free::operator()(XXH3_state_s* state) const {
    XXH3_freeState(state);
}

Xbsa_Digest::Xbsa_Digest() : state_(XXH3_createState()) {
    if (!state_)
        throw std::bad_alloc();
    XXH3_128bits_reset(state_.get());
}

Xbsa_Digest::~Xbsa_Digest() = default;

void Xbsa_Digest::update(void const* data, size_t size) {
    XXH3_128bits_update(state_.get(), data, size);
}

std::string Xbsa_Digest::text() const {
    XXH128_hash_t const hash = XXH3_128bits_digest(state_.get());
    return string_sprintf("%016llx%016llx", static_cast<unsigned long long>(hash.high64),
                          static_cast<unsigned long long>(hash.low64));
}
