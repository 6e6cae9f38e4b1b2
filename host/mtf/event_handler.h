#ifndef HOST_MTF_EVENT_HANDLER_H
#define HOST_MTF_EVENT_HANDLER_H

#include "host/mtf/error_code.h"

#include <cstdint>
#include <string>

namespace MTF {

/** Which events of type PROGRESS a handler wants; the other types always come. */
enum Progress_Report_Mode {
    PROGRESS_REPORT_NONE,    ///< none
    PROGRESS_REPORT_ENTRIES, ///< one after each entry
    PROGRESS_REPORT_BYTES    ///< that, and one after every 8 MiB within an entry
};

/** One thing that happened while an archive was written or read. */
struct Event {
    enum Type {
        BEGIN,    ///< the work begins
        PROGRESS, ///< some of it is done
        SKIPPED,  ///< an entry was left out; code says why
        WARNING,  ///< an entry is there, but not all is as it should be; text says what
        END       ///< the last event of the work; code is its outcome
    };

    Type type;
    Error_Code code = E_OK;
    std::string path = {}; ///< the file concerned, on this host; "" for none
    std::string text = {}; ///< in words; "" when the code says all
    uint64_t entries = 0;  ///< done so far
    uint64_t bytes = 0;    ///< content of files done so far
};

/**
 * The caller's side of a backup or a restore: hears what happens, and may have it canceled. Both
 * operations are called on the thread that does the work, and must not throw.
 */
class Event_Handler {
public:
    explicit Event_Handler(Progress_Report_Mode mode) : mode_(mode) {}
    virtual ~Event_Handler() = default;

    Progress_Report_Mode mode() const { return mode_; }

    /**
     * Asked before each entry and after each piece of its data: true ends the work soon. What was
     * written to the pool so far is dropped then; files restored so far stay.
     */
    [[nodiscard]] virtual bool canceling() { return false; }
    virtual void notify_event(Event const& event) { static_cast<void>(event); }

private:
    Progress_Report_Mode const mode_;
};

} // namespace MTF

#endif
