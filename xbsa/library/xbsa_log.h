#ifndef XBSA_LIBRARY_XBSA_LOG_H
#define XBSA_LIBRARY_XBSA_LOG_H

/**
 * Sees to it, at the first call, that the library's log lines disturb nobody: the process belongs
 * to the database. They go into the file that the environment's ZENBRAK3_XBSA_LOG names, which many
 * processes may share, and else nowhere. In a process that has an ACE log of its own, set up in any
 * way, they go there. On any thread.
 */
void xbsa_prepare_log();

#endif
