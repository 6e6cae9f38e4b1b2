#include "agent/jobs/job_schedule_text.h"

#include <cstdlib>
#include <iterator>
#include <string_view>

/** The first byte is the type: any text is a schedule with a next time, or is told why not. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    static constexpr char const* TYPES[] = {"once",   "hourly",   "daily",
                                            "weekly", "monthly",  "continuous",
                                            "none",   "ondemand", "calendar"};
    if (size < 1)
        return 0;
    std::string const at(reinterpret_cast<char const*>(data) + 1, size - 1);
    char const* const type = TYPES[data[0] % std::size(TYPES)];
    Job_Schedule_Text schedule;
    std::string error;
    if (!Job_Schedule_Text::parse(type, at, schedule, error)) {
        if (error.empty())
            std::abort();
        return 0;
    }
    for (time_t const after : {time_t{0}, time_t{1795269600}, time_t{4102444800}}) {
        time_t const next = schedule.next_run(after);
        if (next != 0 && next <= after)
            std::abort();
    }
    return 0;
}
