#include "host/storage/pool_info.h"

#include "host/agent/host_services.h"
#include "qmrt/log.h"

#include <algorithm>

namespace {

constexpr int64_t RETRY_WAIT_NS = 5 * NS_PER_SECOND;

Storage_Result find(std::string const& uuid, Pool_Info& info) {
    auto const backend = Host_Services::instance().pools();
    if (!backend)
        return {Storage_Result::FAILED, "no record of pools"};
    return backend->find(uuid, info);
}

Storage_Result check_use(Pool_Info const& info, char const* device_uuid, bool for_restore) {
    std::string const device = device_uuid ? device_uuid : "";
    auto const& devices = info.device_uuids;
    if (!device.empty() && !devices.empty() &&
        std::find(devices.begin(), devices.end(), device) == devices.end())
        return {Storage_Result::FAILED, "it is not on device " + device};
    if (info.read_only && !for_restore)
        return {Storage_Result::FAILED, "it is read-only"};
    return {};
}

} // namespace

bool get_pool_info(std::string const& pool_uuid, char const* device_uuid, Pool_Info& info,
                   bool for_restore, uint64_t max_seconds_retry, Storage_Clock& clock) {
    Pool_Info found;
    int64_t const start = clock.steady_ns();
    auto const allowed = static_cast<int64_t>(
        std::min<uint64_t>(max_seconds_retry, INT64_MAX / NS_PER_SECOND) * NS_PER_SECOND);
    Storage_Result result;
    for (;;) {
        result = find(pool_uuid, found);
        int64_t const left = allowed - (clock.steady_ns() - start);
        if (result.code() != Storage_Result::UNREACHABLE || left <= 0)
            break;
        clock.sleep_ns(std::min(RETRY_WAIT_NS, left));
    }
    if (result)
        result = check_use(found, device_uuid, for_restore);
    if (!result) {
        QMRT_LOG(LM_ERROR, "Pool %s cannot be used, %s\n", pool_uuid.c_str(),
                 result.text().c_str());
        return false;
    }
    info = std::move(found);
    return true;
}

bool set_options_by_pool(Client_IO_Base::Options& options, Pool_Info const& info) {
    if (!can_encrypt(info.encryption, info.key, info.iv))
        return false;
    options.encryption = info.encryption;
    options.encryption_key = info.key;
    options.encryption_iv = info.iv;
    options.set_extra_option(Storage_Access::POOL_URL, info.url);
    return true;
}

void set_d2t_access_mode(Client_IO_Base::Options& options) {
    options.set_extra_option(Storage_Access::ACCESS_MODE, Storage_Access::ACCESS_MODE_D2T);
}
