#include "host/agent/listening_port.h"

#include "qmrt/file.h"
#include "qmrt/log.h"

#include <cstdio>

namespace {

/** One line of a table of proc(5): "  0: 0100007F:1F42 00000000:0000 0A ...", numbers in hex. */
bool is_listener_on(char const* line, unsigned short port) {
    constexpr unsigned int LISTEN = 0x0a;
    unsigned int local_port = 0;
    unsigned int state = 0;
    // the first line holds the names of the columns and does not fit
    return std::sscanf(line, " %*d: %*[0-9A-Fa-f]:%x %*[0-9A-Fa-f]:%*x %x", &local_port, &state) ==
               2 &&
           state == LISTEN && local_port == port;
}

} // namespace

bool check_port_listening(unsigned short port) {
    bool listening = false;
    bool read = false;
    // of the thread's own namespace; the second is missing where IPv6 is switched off
    for (char const* table : {"/proc/thread-self/net/tcp", "/proc/thread-self/net/tcp6"}) {
        int const result = read_each_line(table, [&](std::string_view line) {
            listening = is_listener_on(std::string(line).c_str(), port);
            return !listening;
        });
        read = read || result == 0;
        if (listening)
            return true;
    }
    if (!read)
        QMRT_LOG(LM_ERROR, "Failed to look for a listener on port %d, errno=%d, %m\n", port, errno);
    return false;
}
