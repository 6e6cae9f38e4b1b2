#ifndef HOST_PROCESS_CHILD_START_H
#define HOST_PROCESS_CHILD_START_H

#include <cstddef>
#include <sys/types.h>

/** The step at which a child could not become the program that was asked for. */
enum Child_Step {
    CHILD_STARTED, ///< none: the program runs
    CHILD_MAKE,    ///< no process could be made
    CHILD_STREAMS,
    CHILD_DESCRIPTORS,
    CHILD_GROUP,
    CHILD_USER,
    CHILD_DIRECTORY,
    CHILD_EXEC
};

/**
 * All that a new child does before it becomes its program, prepared so that the child needs neither
 * memory nor locks. Whoever fills it owns what the pointers point at.
 */
struct Child_Plan {
    /** Paths of the program, tried in turn as a search along PATH does; closed by a null. */
    char const* const* candidates = nullptr;
    char* const* argv = nullptr;
    char* const* envp = nullptr;

    /** What become descriptors 0, 1 and 2. DEVNULL is /dev/null; i itself keeps what is there. */
    int streams[3] = {DEVNULL, 1, 2};
    static constexpr int DEVNULL = -1;
    /** Close every other descriptor. Those marked close-on-exec are closed in any case. */
    bool close_others = false;

    /** A process group to go into, 0 for one of its own; -1 stays in the parent's. */
    pid_t process_group = -1;

    bool change_groups = false;
    /** Going on without the groups when the kernel refuses them: no other user is taken on. */
    bool groups_may_be_refused = false;
    gid_t const* groups = nullptr;
    size_t group_count = 0;
    bool change_ids = false;
    uid_t uid = 0;
    gid_t gid = 0;

    /** Null stays in the parent's. Entered as the new user. */
    char const* directory = nullptr;

    /** Out: where it failed, errno there, and for CHILD_EXEC the path that decided it, or null. */
    Child_Step failed_step = CHILD_STARTED;
    int error = 0;
    char const* failed_path = nullptr;
};

/**
 * Makes a child that carries out @a plan, and returns when its program runs or it has failed. The
 * child gets default signal handling and an empty signal mask.
 *
 * @return its process id; -1 when the program does not run: the plan says why, and no child is
 * left.
 *
 * The child borrows this process's memory until then, as with vfork(), so the price does not grow
 * with the process's size; only the calling thread waits. May be called on any thread.
 */
pid_t start_child(Child_Plan& plan);

#endif
