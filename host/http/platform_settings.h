#ifndef HOST_HTTP_PLATFORM_SETTINGS_H
#define HOST_HTTP_PLATFORM_SETTINGS_H

#include <chrono>
#include <string>

/**
 * How management platforms are reached over REST: what the agent's configuration says. One for the
 * process. A plain value.
 */
struct Platform_Settings {
    bool verify = true;  ///< certificates; false trusts whoever answers with the password
    std::string ca_file; ///< PEM; "" for the system's certificate authorities
    std::chrono::milliseconds timeout{60'000}; ///< of one request, the answer's body included

    /** The current ones. Thread-safe. */
    static Platform_Settings get();
    /** Counts for all logins from now on. Thread-safe. */
    static void set(Platform_Settings const& value);
};

#endif
