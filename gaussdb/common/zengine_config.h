#ifndef GAUSSDB_COMMON_ZENGINE_CONFIG_H
#define GAUSSDB_COMMON_ZENGINE_CONFIG_H

#include <cstdint>

/**
 * Reads the port that a GaussDB T listens at, LSNR_PORT, out of its zengine.ini. The first line
 * that sets it counts; the case of the name does not. The file is opened by read_guarded_lines()
 * with the rights of the calling thread.
 * @return 0 for a file that cannot be read or is larger than 1 MiB, without such a line, and for a
 *         value that is not a number; 65535 for a number beyond a port's range
 */
uint16_t read_lsnr_port(char const* path);

#endif
