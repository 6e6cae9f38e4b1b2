#ifndef AGENT_SERVICE_CHECK_DEADLINE_H
#define AGENT_SERVICE_CHECK_DEADLINE_H

#include "host/process/cancellation.h"

#include <chrono>
#include <memory>
#include <thread>

/**
 * Cancels the work of the calling thread when its time is over, or when the work that it belongs to
 * is cancelled: tools that it waits for are ended then.
 */
class Check_Deadline {
public:
    explicit Check_Deadline(std::chrono::milliseconds time);
    ~Check_Deadline();
    Check_Deadline(Check_Deadline const&) = delete;
    Check_Deadline& operator=(Check_Deadline const&) = delete;

private:
    void watch(std::chrono::milliseconds time);

    std::shared_ptr<Cancellation> const outer_ = Cancellation::current();
    std::shared_ptr<Cancellation> const limit_ =
        std::make_shared<Cancellation>("the time of the check is over");
    Cancellation done_;
    Cancellation_Scope const scope_{limit_};
    std::thread thread_;
};

#endif
