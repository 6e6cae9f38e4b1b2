#ifndef HOST_PROCESS_PROCESS_TREE_H
#define HOST_PROCESS_PROCESS_TREE_H

#include "qmrt/file.h"

#include <csignal>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <sys/types.h>

/** Programs of one user, as end_programs() looks for them. */
struct User_Programs {
    uid_t user = 0;
    /** File names; of the program itself, or of the script that an interpreter runs. */
    std::set<std::string> names;
    time_t max_age = 0; ///< in seconds: what was started earlier is left alone
};

/**
 * Ends the programs of a user and all that they have started: SIGTERM, and SIGKILL for what is left
 * after @a grace_seconds. Whose children they are does not matter. Programs of root are left alone.
 * @return false when some were still running two seconds after SIGKILL
 */
[[nodiscard]] bool end_programs(User_Programs const& programs, time_t grace_seconds);

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
    /** A tree without a root, for add_programs(). */
    Process_Tree() : root_(NO_ROOT) {}

    /**
     * Adds the descendants that there are now, of the root and of what was added before.
     * @param root_lives  false: the root has been waited for, and its id may be another's
     */
    void add_descendants(bool root_lives = true);
    /** Adds who holds one of the pipes and belongs to @a user. @param pipes  their inode numbers */
    void add_holders(std::set<ino_t> const& pipes, uid_t user);
    /** Adds the programs of a user. */
    void add_programs(User_Programs const& programs);
    /** Sends a signal to all that were added, without the root. */
    void kill(int signal = SIGKILL);
    /** True when all that were added have ended, and have let go of their files. */
    [[nodiscard]] bool has_ended();
    /** Waits for that, up to a limit. @return false at the limit */
    [[nodiscard]] bool await_end(time_t seconds);

private:
    static constexpr pid_t NO_ROOT = -1;

    [[nodiscard]] bool add(pid_t pid);
    void forget_ended();

    pid_t const root_;
    std::map<pid_t, File_Descriptor> found_; ///< with its pidfd; none where the kernel has none
};

#endif
