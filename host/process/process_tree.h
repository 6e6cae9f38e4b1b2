#ifndef HOST_PROCESS_PROCESS_TREE_H
#define HOST_PROCESS_PROCESS_TREE_H

#include "qmrt/file.h"

#include <map>
#include <set>
#include <sys/types.h>

/**
 * The processes that a child of this process has brought into being, to be ended with it. A process
 * is found by its parents, in whatever session or process group it is, as long as the line of its
 * parents up to the child is alive; one that has cut that line is found by the pipe that it holds.
 *
 * A process of another user that merely holds the pipe is left alone: a descriptor can be sent to
 * anybody. So is every other child of this process. For one thread at a time.
 */
class Process_Tree {
public:
    /** @param root  a child of this process that nobody has waited for yet */
    explicit Process_Tree(pid_t root) : root_(root) {}

    /**
     * Adds the descendants that there are now, of the root and of what was added before.
     * @param root_lives  false: the root has been waited for, and its id may be another's
     */
    void add_descendants(bool root_lives = true);
    /** Adds who holds one of the pipes and belongs to @a user. @param pipes  their inode numbers */
    void add_holders(std::set<ino_t> const& pipes, uid_t user);
    /** Kills all that were added, without the root. */
    void kill();

private:
    bool add(pid_t pid);
    void forget_ended();

    pid_t const root_;
    std::map<pid_t, File_Descriptor> found_; ///< with its pidfd; none where the kernel has none
};

#endif
