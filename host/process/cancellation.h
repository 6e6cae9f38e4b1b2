#ifndef HOST_PROCESS_CANCELLATION_H
#define HOST_PROCESS_CANCELLATION_H

#include "qmrt/file.h"

#include <memory>
#include <mutex>

/**
 * A request to give up a piece of work: its caller has disconnected, the agent ends, or a run of a
 * job is to end at once. Thread-safe.
 *
 * The work runs in a Cancellation_Scope. A program that the thread waits for in that scope is ended
 * as soon as the work is cancelled, see Text_Process_Handler.
 */
class Cancellation {
public:
    static constexpr char NOBODY_WAITS[] = "nobody waits for its answer any more";

    /** @param reason  why programs are ended, for log lines; must outlive this object */
    explicit Cancellation(char const* reason = NOBODY_WAITS) : reason_(reason) {}

    char const* reason() const { return reason_; }
    /** Idempotent. */
    void cancel();
    [[nodiscard]] bool cancelled() const;
    /** Readable once it is cancelled, for poll(); -1 when there is no descriptor left. */
    int handle() const;

    /** Of the calling thread's innermost scope; null outside of any. */
    static std::shared_ptr<Cancellation> current();
    /** Makes it the calling thread's, until it ends or is given another. Null is none. */
    static void current(std::shared_ptr<Cancellation> cancellation);

private:
    char const* const reason_;
    mutable std::mutex mutex_;
    mutable File_Descriptor event_; ///< made when it is first asked for: few calls wait for a tool
    bool cancelled_ = false;
};

/** Makes a cancellation the calling thread's current one, until it is destroyed. Null is none. */
class Cancellation_Scope {
public:
    explicit Cancellation_Scope(std::shared_ptr<Cancellation> cancellation);
    ~Cancellation_Scope();
    Cancellation_Scope(Cancellation_Scope const&) = delete;
    Cancellation_Scope& operator=(Cancellation_Scope const&) = delete;

private:
    std::shared_ptr<Cancellation> outer_;
};

#endif
