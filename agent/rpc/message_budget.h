#ifndef AGENT_RPC_MESSAGE_BUDGET_H
#define AGENT_RPC_MESSAGE_BUDGET_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

/**
 * Bounds the memory of all messages that have begun to come in and are not answered yet. Small
 * messages are free: others may be as many as there are connections. Thread-safe.
 */
class Message_Budget : public std::enable_shared_from_this<Message_Budget> {
public:
    static constexpr size_t FREE_BYTES = 64 * 1024; ///< of each message

    explicit Message_Budget(size_t bytes) : bytes_(bytes) {}

    /** What one message takes, given back when this is destroyed. For one thread at a time. */
    class Charge {
    public:
        explicit Charge(std::shared_ptr<Message_Budget> budget) : budget_(std::move(budget)) {}
        ~Charge() { budget_->taken_ -= taken_; }
        Charge(Charge const&) = delete;
        Charge& operator=(Charge const&) = delete;

        /**
         * The message is so long by now.
         * @return false when the budget is used up; logs one line a minute at LM_WARNING
         */
        [[nodiscard]] bool grow_to(size_t size);

    private:
        std::shared_ptr<Message_Budget> const budget_;
        size_t taken_ = 0;
    };

    std::shared_ptr<Charge> begin() { return std::make_shared<Charge>(shared_from_this()); }
    size_t taken() const { return taken_; }

private:
    size_t const bytes_;
    std::atomic<size_t> taken_ = 0;
    std::atomic<int64_t> told_at_ = 0; ///< seconds of the monotonic clock; 0 for never
};

#endif
