#ifndef HOST_STORAGE_POOL_NAMES_H
#define HOST_STORAGE_POOL_NAMES_H

#include "host/storage/compression.h"

#include <string>
#include <vector>

/**
 * How the files of a mounted pool are named as objects. Every file name stands for other objects
 * than any other file name.
 */

/** The object that a file at @a path is stored as. @a path without the "/" before it. */
std::string object_to_write(std::string const& path, Compression_Method method);

/** The objects that a file may be stored as, in the order in which they are looked for. */
std::vector<std::string> objects_to_read(std::string const& path);

#endif
