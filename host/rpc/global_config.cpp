#include "host/rpc/global_config.h"

#include <charconv>

Global_Config* Global_Config::instance() {
    static Global_Config config;
    return &config;
}

std::string Global_Config::get(std::string const& key, std::string const& fallback) const {
    std::lock_guard const guard(mutex_);
    auto const found = values_.find(key);
    return found == values_.end() ? fallback : found->second;
}

int64_t Global_Config::get_int(std::string const& key, int64_t fallback) const {
    std::string const text = get(key);
    int64_t number = 0;
    char const* const end = text.data() + text.size();
    auto const read = std::from_chars(text.data(), end, number);
    return read.ec == std::errc() && read.ptr == end ? number : fallback;
}

bool Global_Config::get_bool(std::string const& key, bool fallback) const {
    std::string const text = get(key);
    if (text == "true" || text == "yes" || text == "on" || text == "1")
        return true;
    if (text == "false" || text == "no" || text == "off" || text == "0")
        return false;
    return fallback;
}

void Global_Config::set(std::string const& key, std::string const& value) {
    std::lock_guard const guard(mutex_);
    values_[key] = value;
}

void Global_Config::remove(std::string const& key) {
    std::lock_guard const guard(mutex_);
    values_.erase(key);
}

std::map<std::string, std::string> Global_Config::all() const {
    std::lock_guard const guard(mutex_);
    return values_;
}
