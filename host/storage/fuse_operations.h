#ifndef HOST_STORAGE_FUSE_OPERATIONS_H
#define HOST_STORAGE_FUSE_OPERATIONS_H

#define FUSE_USE_VERSION 35
#include <fuse3/fuse.h>
#include <mutex>

class Pool_File_System;

/** What the operations of a mount have to know; their private data. */
struct Fuse_Context {
    Pool_File_System* file_system = nullptr;
    bool async_read = true;
    bool big_write = true;
    std::once_flag first_open;
};

/** libfuse's operations, each handed on to the file system of the mount's Fuse_Context. */
fuse_operations const& pool_fuse_operations();

#endif
