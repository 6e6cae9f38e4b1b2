#ifndef AGENT_RPC_ACCESS_KEY_H
#define AGENT_RPC_ACCESS_KEY_H

#include "agent/rpc/rpc_limits.h"
#include "json_spirit/secure_string.h"

#include <array>
#include <map>
#include <string>
#include <string_view>

/** The SHA-256 of a key: what is kept of those that are only checked. */
using Key_Digest = std::array<unsigned char, 32>;
Key_Digest key_digest(std::string_view key);
/** 64 hexadecimal digits, and back. @return false for another text */
std::string key_digest_text(Key_Digest const& digest);
[[nodiscard]] bool read_key_digest(std::string_view text, Key_Digest& digest);
/** The key in the value of an Authorization field, "Bearer KEY" (RFC 6750), the scheme in either
 * case; "" for any other. */
std::string_view bearer_key(std::string_view authorization);

/** The administrator's key. For any thread. */
class Access_Key {
public:
    explicit Access_Key(secure_string const& key);

    /**
     * @param authorization  as for bearer_key()
     * @return true for the right key; takes the same time for every wrong one of a length
     */
    [[nodiscard]] bool opens(std::string_view authorization) const;

private:
    bool const empty_; ///< an empty key opens nothing
    Key_Digest const digest_;
};

/**
 * How long those wait who came with a wrong key: Rpc_Limits::denied, and twice as long with each
 * time after that from the same address, up to Rpc_Limits::denied_most. Ten minutes after its last
 * time an address begins anew. One object is for one thread at a time.
 */
class Denials {
public:
    using Time = std::chrono::steady_clock::time_point;
    /** Addresses that are remembered at most; the one that came longest ago is forgotten first. */
    static constexpr size_t MOST = 4096;

    explicit Denials(Rpc_Limits const& limits) : limits_(limits) {}

    /** Notes one more wrong key. @return how long it has to wait for its answer */
    Rpc_Limits::Duration deny(std::string const& address, Time now);

private:
    struct Past {
        Rpc_Limits::Duration delay;
        Time last;
    };
    void forget(Time now);

    Rpc_Limits const limits_;
    std::map<std::string, Past> past_;
};

#endif
