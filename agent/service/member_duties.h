#ifndef AGENT_SERVICE_MEMBER_DUTIES_H
#define AGENT_SERVICE_MEMBER_DUTIES_H

#include "qmrt/thread_helper.h"

#include <atomic>
#include <ctime>
#include <memory>
#include <mutex>
#include <set>
#include <string>

class Group_Link;
class SQLite_Instances;

/**
 * What a member of a group does whenever its connection to the backup server comes to be: the first
 * time it has the sets dropped that a killed predecessor left open, and each time it tells which
 * instances it has, since the server may not have heard of all. In between it asks the
 * server to drop the sets that its own failed runs leave open.
 */
class Member_Duties {
public:
    /** All live longer. */
    Member_Duties(Group_Link& link, SQLite_Instances& instances, std::string host_uuid);
    /** Calls stop(). */
    ~Member_Duties();
    Member_Duties(Member_Duties const&) = delete;
    Member_Duties& operator=(Member_Duties const&) = delete;

    void start();
    void stop();

    /** Notes the set of a failed run to be dropped. Does not wait. Thread-safe. */
    void drop_set_of(std::string const& run_id);

private:
    void run();
    [[nodiscard]] bool drop_open_sets();
    void drop_failed();
    void announce_instances();

    Group_Link& link_;
    SQLite_Instances& instances_;
    std::string const host_uuid_;
    time_t const started_;
    bool dropped_ = false;
    std::mutex mutex_;
    std::set<std::string> failed_; ///< runs; guarded by mutex_
    std::atomic<bool> ended_ = false;
    Thread_Helper thread_;
};

#endif
