#ifndef QMRT_LOG_H
#define QMRT_LOG_H

#include <ace/Log_Msg.h>

#include <cerrno>

/**
 * Logs one line through the ACE log: QMRT_LOG(LM_ERROR, "Failed to open %s, errno=%d, %m\n", ...).
 *
 * The format is ACE's, not printf's: %N is the source file, %l the line, %m the text of errno, %? a
 * stack trace, %s a text, %d an int, %u an unsigned, %Q an unsigned 64-bit and %q a signed 64-bit
 * number. It is a string literal, or it does not compile: no text from outside can be a format.
 * tools/check_log_formats compares it with the arguments. errno is the same after the line as
 * before it, so a caller may log and then return -1. May be used on any thread.
 */
#define QMRT_LOG(priority, ...)                                                                    \
    do {                                                                                           \
        int const qmrt_log_errno = errno;                                                          \
        ACE_ERROR((priority, "" __VA_ARGS__));                                                     \
        errno = qmrt_log_errno;                                                                    \
    } while (0)

#endif
