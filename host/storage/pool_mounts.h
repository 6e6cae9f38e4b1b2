#ifndef HOST_STORAGE_POOL_MOUNTS_H
#define HOST_STORAGE_POOL_MOUNTS_H

#include <cstddef>

/** By these a mount of Mount_Fuse is known in the kernel's list. */
constexpr char POOL_MOUNT_SOURCE[] = "zenbrak3";
constexpr char POOL_MOUNT_SUBTYPE[] = "pool";

/**
 * Unmounts the pools whose agent has been killed: the kernel keeps such a mount, and every use of
 * it fails. Mounts that are in use, and those of other programs and users, stay. No-op unless run
 * by root. Logs what it does. Thread-safe.
 * @return how many were unmounted
 */
size_t unmount_dead_pools();

/**
 * Lets the kernel read 4 MiB ahead in the pools that root has mounted, in place of 128 KiB. The
 * kernel limits a new mount until it has answered its first request. No-op unless run by root where
 * /sys can be written. Thread-safe.
 */
void widen_read_ahead();

#endif
