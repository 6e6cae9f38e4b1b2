#ifndef HOST_HTTP_PLATFORM_SETTINGS_H
#define HOST_HTTP_PLATFORM_SETTINGS_H

#include <chrono>
#include <string>

/**
 * The agent's configuration for REST calls of management platforms. The process has one. A plain
 * value.
 */
struct Platform_Settings {
    bool verify = true;  ///< verify certificates; without that any server can get the password
    std::string ca_file; ///< PEM; "" for the system's certificate authorities
    std::chrono::milliseconds timeout{60'000}; ///< of one request, the answer's body included

    /** The current ones. Thread-safe. */
    static Platform_Settings get();
    /** Takes effect with the next login. Thread-safe. */
    static void set(Platform_Settings const& value);
};

#endif
