#ifndef AGENT_RPC_ACCESS_KEY_H
#define AGENT_RPC_ACCESS_KEY_H

#include "agent/rpc/rpc_limits.h"
#include "json_spirit/secure_string.h"

#include <array>
#include <map>
#include <string>
#include <string_view>

/** The key that network clients have to know. For any thread. */
class Access_Key {
public:
    explicit Access_Key(secure_string const& key);

    /**
     * @param authorization  the field's value: "Bearer KEY" (RFC 6750), the scheme in either case
     * @return true for the right key; takes the same time for every wrong one of a length
     */
    bool opens(std::string_view authorization) const;

private:
    using Digest = std::array<unsigned char, 32>;
    static Digest digest(std::string_view text);

    bool const empty_; ///< an empty key opens nothing
    Digest const digest_;
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
