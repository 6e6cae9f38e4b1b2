#include "xbsa/library/xbsa_room.h"

#include "qmrt/utf8.h"

#include <algorithm>

namespace {

constexpr uint64_t PARTS = 16;

} // namespace

void Xbsa_Room::begin(Pool_Info const& pool) {
    limited_ = pool.available.has_value();
    granted_ = 0;
    if (limited_)
        granted_ = std::min(*pool.available, std::max(*pool.available / PARTS, SMALLEST));
}

Storage_Result Xbsa_Room::take(uint64_t bytes) {
    if (!limited_)
        return {};
    if (bytes > granted_) {
        Pool_Info pool;
        Xbsa_Result const asked = question_(pool);
        if (!asked)
            return {Storage_Result::FAILED, asked.text()};
        begin(pool);
        if (!limited_)
            return {};
        if (bytes > *pool.available)
            return {Storage_Result::NO_SPACE, "pool '" + qmrt::to_one_line(pool.name) +
                                                  "' has no room: its limit is used up but for " +
                                                  std::to_string(*pool.available) + " bytes"};
        granted_ = std::max(granted_, bytes);
    }
    granted_ -= bytes;
    return {};
}
