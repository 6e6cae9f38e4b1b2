#ifndef HOST_MTF_POOL_STORE_H
#define HOST_MTF_POOL_STORE_H

#include "host/mtf/archive_store.h"
#include "host/storage/client_io_ex.h"

#include <functional>

namespace MTF {

/**
 * Archives in a storage pool, through a client of the pool: with its rate limits, its retries and
 * the pool's encryption, but stored as they come, as an archive is compressed by itself. What is
 * written waits in a scratch file for its commit(), which takes the disk space of the archive.
 */
class Pool_Store : public Archive_Store {
public:
    /**
     * Finds a pool and connects to it.
     * @param device_uuid  the device that the pool must be on; "" for any
     * @param for_restore  a pool that is read-only will do
     * @param options      of the client; the pool's own settings are added, and the compression
     *                     does not count
     * @param go_on        asked during transfers: false ends them, and they have failed then
     * @return null after an error line
     */
    static std::unique_ptr<Pool_Store> connect(std::string const& pool_uuid,
                                               std::string const& device_uuid, bool for_restore,
                                               Client_IO_Base::Options options,
                                               std::function<bool()> go_on);

    std::unique_ptr<Output> create(std::string const& name) override;
    std::unique_ptr<Input> open(std::string const& name, Presence& presence) override;
    Presence look(std::string const& name) override;
    [[nodiscard]] bool remove(std::string const& name) override;

private:
    class Pool_Output;
    class Pool_Input;

    explicit Pool_Store(std::function<bool()> go_on) : go_on_(std::move(go_on)) {}

    std::function<bool()> const go_on_;
    Client_IO_Ex client_;
};

} // namespace MTF

#endif
