#ifndef GAUSSDB_JOB_ROACH_PROGRESS_HANDLER_H
#define GAUSSDB_JOB_ROACH_PROGRESS_HANDLER_H

#include <cstdint>
#include <map>

class Job_Event_Handler;

/**
 * Makes one percentage for a job of the percentages that the backup tool prints for each node of
 * the cluster, over one or more steps. For one thread at a time.
 */
class Roach_Progress_Handler {
public:
    /** Percent by node number. */
    using map_type = std::map<int, int>;

    /**
     * @param num      nodes of the cluster, by which a node's share is divided; 0 counts as 1
     * @param handler  gets the job's percentage; may be null; must outlive this object
     * @param steps    into how many steps the job is divided; 0 counts as 1
     */
    Roach_Progress_Handler(int num, Job_Event_Handler* handler, int steps);

    /**
     * A node's percentage in the current step: it counts until the node gives another one.
     * @return false, with an LM_EMERGENCY line and nothing changed, when it is above 100.
     */
    bool update(int node, int progress);

    /**
     * The whole cluster's percentage in the current step. The nodes' own stay as they are.
     * @return false, with an LM_EMERGENCY line and nothing told, when it is above 100 or below 0.
     */
    bool update(int progress);

    /** The current step is done: the next one begins with no node known. */
    void next_step();

private:
    void report(int64_t total);

    int num_;
    Job_Event_Handler* handler_;
    int steps_;
    int current_step_ = 0; ///< steps that are done
    map_type nodes_;
};

#endif
