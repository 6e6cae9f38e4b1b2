#ifndef XBSA_LIBRARY_XBSA_ROOM_H
#define XBSA_LIBRARY_XBSA_ROOM_H

#include "host/storage/pool_info.h"
#include "xbsa/library/xbsa_result.h"

#include <cstdint>
#include <functional>

/**
 * What a pool's limit leaves a session to write. The agent is asked again before a sixteenth of
 * what it said has been written, so sessions that write at the same time go beyond the limit by no
 * more than that for each of them, or SMALLEST where that is more. For one thread at a time.
 */
class Xbsa_Room {
public:
    static constexpr uint64_t SMALLEST = 1024 * 1024;

    /** Asks the agent for the pool. */
    using Question = std::function<Xbsa_Result(Pool_Info& pool)>;

    explicit Xbsa_Room(Question question) : question_(std::move(question)) {}

    /** Takes over what the agent said when the session began. */
    void begin(Pool_Info const& pool);
    /**
     * To be called before that many bytes are written.
     * @return NO_SPACE, with a text that names the pool, when the limit does not leave them
     */
    Storage_Result take(uint64_t bytes);

private:
    Question const question_;
    bool limited_ = false;
    uint64_t granted_ = 0; ///< may be written before the next question
};

#endif
