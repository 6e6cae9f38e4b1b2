#include "host/http/platform_settings.h"

#include <mutex>

namespace {

std::mutex platform_settings_mutex;

Platform_Settings& current_platform_settings() {
    static Platform_Settings settings; ///< guarded by platform_settings_mutex
    return settings;
}

} // namespace

Platform_Settings Platform_Settings::get() {
    std::lock_guard const guard(platform_settings_mutex);
    return current_platform_settings();
}

void Platform_Settings::set(Platform_Settings const& value) {
    std::lock_guard const guard(platform_settings_mutex);
    current_platform_settings() = value;
}
