#ifndef HOST_RPC_GLOBAL_CONFIG_H
#define HOST_RPC_GLOBAL_CONFIG_H

#include <cstdint>
#include <map>
#include <mutex>
#include <string>

/**
 * The agent's settings, key and value as text, for whoever in the process needs one. Not for
 * passwords and keys. May be used on any thread.
 */
class Global_Config {
public:
    /** Never null, never destroyed. */
    static Global_Config* instance();

    /** The value; @a fallback when there is none. */
    std::string get(std::string const& key, std::string const& fallback = "") const;
    /** The value as a whole number; @a fallback when there is none or it is no such number. */
    int64_t get_int(std::string const& key, int64_t fallback) const;
    /** True for "true", "yes", "on" and "1", false for "false", "no", "off" and "0", else @a
     * fallback. */
    [[nodiscard]] bool get_bool(std::string const& key, bool fallback) const;

    void set(std::string const& key, std::string const& value);
    void remove(std::string const& key);
    std::map<std::string, std::string> all() const;

private:
    Global_Config() = default;

    mutable std::mutex mutex_;
    std::map<std::string, std::string> values_;
};

#endif
