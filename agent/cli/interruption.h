#ifndef AGENT_CLI_INTERRUPTION_H
#define AGENT_CLI_INTERRUPTION_H

#include <chrono>

/**
 * Ctrl-C while something is waited for. Until install() it ends the program as it always does;
 * afterwards it is noted here, so that the one who waits can say what it leaves behind. The second
 * one ends the program.
 */
class Interruption {
public:
    static void install();
    /** Readable from the first interruption on; -1 before install(). For poll(). */
    static int fd();
    [[nodiscard]] static bool happened();
    /** Waits that long. @return false at once when an interruption comes, or has come */
    [[nodiscard]] static bool sleep(std::chrono::milliseconds time);
};

#endif
