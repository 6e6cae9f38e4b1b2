#include "qmrt/names.h"

#include <algorithm>
#include <strings.h>
#include <vector>

namespace names {

namespace {

constexpr std::string_view PLAIN_FLAGS[] = {"-4", "-6", "-C", "-q"};

/** None of these starts a program on this machine, opens a port or weakens the check of host keys.
 */
constexpr char const* OPTION_NAMES[] = {"AddressFamily",
                                        "BatchMode",
                                        "BindAddress",
                                        "BindInterface",
                                        "CASignatureAlgorithms",
                                        "CertificateFile",
                                        "CheckHostIP",
                                        "Ciphers",
                                        "Compression",
                                        "ConnectTimeout",
                                        "ConnectionAttempts",
                                        "GlobalKnownHostsFile",
                                        "HostKeyAlgorithms",
                                        "HostKeyAlias",
                                        "IPQoS",
                                        "IdentitiesOnly",
                                        "IdentityFile",
                                        "KexAlgorithms",
                                        "LogLevel",
                                        "MACs",
                                        "Port",
                                        "PreferredAuthentications",
                                        "PubkeyAcceptedAlgorithms",
                                        "RekeyLimit",
                                        "ServerAliveCountMax",
                                        "ServerAliveInterval",
                                        "StrictHostKeyChecking",
                                        "TCPKeepAlive",
                                        "User",
                                        "UserKnownHostsFile"};

/** The bytes that no shell and no splitting of a command line changes. */
bool is_plain(std::string_view text) {
    return std::ranges::all_of(text, [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
               std::string_view("._-/:@,+%=").find(c) != std::string_view::npos;
    });
}

std::vector<std::string_view> words_of(std::string_view text) {
    std::vector<std::string_view> words;
    for (size_t begin = 0; begin < text.size();) {
        size_t const end = std::min(text.find(' ', begin), text.size());
        if (end > begin)
            words.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return words;
}

bool same_word(std::string_view one, char const* other) {
    std::string const text(one);
    return strcasecmp(text.c_str(), other) == 0;
}

/** Of what follows "-o". */
std::string fault_of_setting(std::string_view setting) {
    size_t const equals = setting.find('=');
    std::string_view const name = setting.substr(0, equals);
    if (equals == std::string_view::npos || equals + 1 == setting.size())
        return "has '" + shown(setting) + "' behind -o (expected NAME=VALUE)";
    if (std::ranges::none_of(OPTION_NAMES,
                             [name](char const* known) { return same_word(name, known); }))
        return "has the option '" + shown(name) +
               "', which is not accepted here; put it into the agent's own ssh configuration";
    std::string_view const value = setting.substr(equals + 1);
    if (same_word(name, "StrictHostKeyChecking") && !same_word(value, "yes") &&
        !same_word(value, "ask"))
        return "has StrictHostKeyChecking=" + shown(value) +
               ", which accepts unknown host keys; add the host's key to known_hosts instead";
    return "";
}

} // namespace

std::string fault_of_ssh_address(std::string_view address) {
    if (std::string fault = fault_of_line(address); !fault.empty())
        return fault;
    size_t const at = address.find('@');
    if (at == std::string_view::npos)
        return fault_of_host(address);
    std::string fault = fault_of_id(address.substr(0, at));
    return fault.empty() ? fault_of_host(address.substr(at + 1)) : "has an account that " + fault;
}

std::string fault_of_ssh_options(std::string_view options) {
    if (std::string fault = fault_of_line(options); !fault.empty())
        return fault;
    std::vector<std::string_view> const words = words_of(options);
    for (size_t at = 0; at < words.size(); ++at) {
        std::string_view const word = words[at];
        if (!is_plain(word))
            return "has '" + shown(word) + "' in it, which a shell or ssh changes";
        if (std::ranges::find(PLAIN_FLAGS, word) != std::end(PLAIN_FLAGS))
            continue;
        bool const has_next = at + 1 < words.size() && is_plain(words[at + 1]);
        if (word == "-i" && has_next && words[at + 1].front() == '/') {
            ++at;
        } else if (word == "-o" && has_next) {
            if (std::string fault = fault_of_setting(words[++at]); !fault.empty())
                return fault;
        } else if (word.starts_with("-o") && word.size() > 2) {
            if (std::string fault = fault_of_setting(word.substr(2)); !fault.empty())
                return fault;
        } else {
            return "has '" + shown(word) +
                   "' in it (expected -4, -6, -C, -q, -i /FILE or -o NAME=VALUE)";
        }
    }
    return "";
}

std::string fault_of_remote_commands(std::string_view commands) {
    std::string fault = fault_of_line(commands);
    if (fault.empty() && commands.find('\'') != std::string_view::npos)
        fault = "has a ' in it; use double quotes";
    return fault;
}

} // namespace names
