#ifndef HOST_STORAGE_POOL_INFO_H
#define HOST_STORAGE_POOL_INFO_H

#include "host/storage/client_io.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/** A storage pool as it is on record. */
struct Pool_Info {
    std::string uuid;
    std::string name;
    std::string url;                       ///< of the pool's folder; callers may append to it
    std::vector<std::string> device_uuids; ///< the devices that the pool is on; empty: not told
    Compression_Method compression_method = COMPR_NONE; ///< what jobs use unless they say otherwise
    int compression_level = 0;
    Encryption_Method encryption = ENCRYPTION_NONE;
    secure_string key;
    secure_string iv;
    bool read_only = false; ///< restores only
    /** Bytes that its limit leaves; none when it has no limit, or when it is not told. */
    std::optional<uint64_t> available;
};

/** Where pools are on record. Operations may be called on several threads at once. */
class Pool_Backend {
public:
    virtual ~Pool_Backend() = default;

    /**
     * Finds a pool by its uuid.
     * @return NOT_FOUND when there is none; UNREACHABLE when the record cannot be asked now
     */
    virtual Storage_Result find(std::string const& uuid, Pool_Info& info) = 0;
};

/**
 * Finds a pool for a job; asks again while the record cannot be reached.
 * @param device_uuid  the device that the job wants the pool on; null or "" for any
 * @param for_restore  false: a pool that is read-only is refused
 * @param clock        by which it waits between two attempts
 * @return false, with @a info unchanged, after an error line
 */
[[nodiscard]] bool get_pool_info(std::string const& pool_uuid, char const* device_uuid,
                                 Pool_Info& info, bool for_restore, uint64_t max_seconds_retry,
                                 Storage_Clock& clock = Storage_Clock::system());

/**
 * Takes over what every client of a pool needs: its encryption, and its URL, so that nothing is
 * ever made in the place of a pool that is not mounted. The compression stays as it is.
 * @return false, with the options unchanged and nothing logged, for an encryption that has no key
 *         or initial vector, or that clients do not offer
 */
[[nodiscard]] bool set_options_by_pool(Client_IO_Base::Options& options, Pool_Info const& info);

/** Tells the back end that objects are written once and read once, front to back. */
void set_d2t_access_mode(Client_IO_Base::Options& options);

#endif
