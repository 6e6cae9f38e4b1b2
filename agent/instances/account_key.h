#ifndef AGENT_INSTANCES_ACCOUNT_KEY_H
#define AGENT_INSTANCES_ACCOUNT_KEY_H

#include "json_spirit/secure_string.h"

#include <optional>
#include <string>

/**
 * The key under which this agent keeps the passwords of accounts: random bytes in a file of their
 * own, so that neither a copy of the database nor the program alone is enough to read one.
 */
class Account_Key {
public:
    static constexpr size_t SIZE = 32;

    /**
     * Reads the key; makes a file with mode 0600 and a new key when there is none.
     * @param error  why there is no key, and what to do. Refused, and left as it is: what is no
     *               regular file, a link to one too, belongs to another user, may be read by
     *               others, or is not of SIZE bytes
     */
    static std::optional<Account_Key> load(std::string const& path, std::string& error);

    char const* data() const { return bytes_.data(); }
    size_t size() const { return bytes_.size(); }

private:
    Account_Key() = default;

    secure_string bytes_;
};

#endif
