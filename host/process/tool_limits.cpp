#include "host/process/tool_limits.h"

#include <mutex>

namespace {

std::mutex setting_mutex;
Tool_Limits setting;

} // namespace

Tool_Limits Tool_Limits::get() {
    std::lock_guard const guard(setting_mutex);
    return setting;
}

void Tool_Limits::set(Tool_Limits const& limits) {
    std::lock_guard const guard(setting_mutex);
    setting = limits;
}
