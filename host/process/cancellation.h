#ifndef HOST_PROCESS_CANCELLATION_H
#define HOST_PROCESS_CANCELLATION_H

#include "qmrt/file.h"

#include <memory>
#include <mutex>

/**
 * A request to give up a piece of work: its caller has disconnected, or the agent ends.
 * Thread-safe.
 *
 * Work that belongs to a caller runs in a Cancellation_Scope. A tool that the thread waits for in
 * that scope is ended as soon as the work is cancelled, see Text_Process_Handler.
 */
class Cancellation {
public:
    /** Idempotent. */
    void cancel();
    bool cancelled() const;
    /** Readable once it is cancelled, for poll(); -1 when there is no descriptor left. */
    int handle() const;

    /** Of the calling thread's innermost scope; null outside of any. */
    static std::shared_ptr<Cancellation> current();

private:
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
