#ifndef QMRT_CONSTANTS_H
#define QMRT_CONSTANTS_H

#include <cstdint>

constexpr uint64_t BYTES_PER_KIB = 1024;
constexpr int64_t SECS_PER_DAY = 86400;

constexpr uint16_t DEFAULT_BACKUPD_PORT_HTTP = 50305;
constexpr uint16_t DEFAULT_BACKUPD_PORT_HTTPS = 60305;
constexpr uint16_t DEFAULT_STORAGED_PORT_HTTP = 50306;
constexpr uint16_t DEFAULT_STORAGED_PORT_HTTPS = 60306;

#endif
