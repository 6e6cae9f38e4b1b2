#include "agent/rpc/access_key.h"

#include <algorithm>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <strings.h>

using namespace std::chrono_literals;

namespace {
constexpr auto FORGOTTEN_AFTER = 10min;
constexpr std::string_view SCHEME = "Bearer ";
} // namespace

Access_Key::Access_Key(secure_string const& key) : empty_(key.empty()), digest_(digest(key)) {}

Access_Key::Digest Access_Key::digest(std::string_view text) {
    Digest result{};
    unsigned int size = 0;
    EVP_Digest(text.data(), text.size(), result.data(), &size, EVP_sha256(), nullptr);
    return result;
}

bool Access_Key::opens(std::string_view authorization) const {
    if (empty_ || authorization.size() <= SCHEME.size() ||
        ::strncasecmp(authorization.data(), SCHEME.data(), SCHEME.size()) != 0)
        return false;
    Digest const given = digest(authorization.substr(SCHEME.size()));
    return CRYPTO_memcmp(given.data(), digest_.data(), digest_.size()) == 0;
}

Rpc_Limits::Duration Denials::deny(std::string const& address, Time now) {
    auto const found = past_.find(address);
    if (found == past_.end() || now - found->second.last > FORGOTTEN_AFTER) {
        forget(now);
        past_[address] = {limits_.denied, now};
        return limits_.denied;
    }
    Past& past = found->second;
    past = {std::min(past.delay * 2, limits_.denied_most), now};
    return past.delay;
}

void Denials::forget(Time now) {
    if (past_.size() < MOST)
        return;
    std::erase_if(past_,
                  [now](auto const& one) { return now - one.second.last > FORGOTTEN_AFTER; });
    if (past_.size() < MOST)
        return;
    past_.erase(std::min_element(past_.begin(), past_.end(), [](auto const& a, auto const& b) {
        return a.second.last < b.second.last;
    }));
}
