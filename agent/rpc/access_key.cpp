#include "agent/rpc/access_key.h"

#include <algorithm>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <strings.h>

using namespace std::chrono_literals;

namespace {
constexpr auto FORGOTTEN_AFTER = 10min;
constexpr std::string_view SCHEME = "Bearer ";
constexpr std::string_view DIGITS = "0123456789abcdef";
} // namespace

Key_Digest key_digest(std::string_view key) {
    Key_Digest result{};
    unsigned int size = 0;
    EVP_Digest(key.data(), key.size(), result.data(), &size, EVP_sha256(), nullptr);
    return result;
}

std::string key_digest_text(Key_Digest const& digest) {
    std::string text;
    for (unsigned char const byte : digest) {
        text += DIGITS[byte >> 4];
        text += DIGITS[byte & 15];
    }
    return text;
}

bool read_key_digest(std::string_view text, Key_Digest& digest) {
    if (text.size() != 2 * digest.size())
        return false;
    for (size_t i = 0; i < text.size(); ++i) {
        size_t const digit = DIGITS.find(text[i]);
        if (digit == DIGITS.npos)
            return false;
        unsigned char& byte = digest[i / 2];
        byte = static_cast<unsigned char>(i % 2 ? byte * 16 + digit : digit);
    }
    return true;
}

std::string_view bearer_key(std::string_view authorization) {
    if (authorization.size() <= SCHEME.size() ||
        ::strncasecmp(authorization.data(), SCHEME.data(), SCHEME.size()) != 0)
        return {};
    return authorization.substr(SCHEME.size());
}

Access_Key::Access_Key(secure_string const& key) : empty_(key.empty()), digest_(key_digest(key)) {}

bool Access_Key::opens(std::string_view authorization) const {
    std::string_view const key = bearer_key(authorization);
    if (empty_ || key.empty())
        return false;
    Key_Digest const given = key_digest(key);
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
