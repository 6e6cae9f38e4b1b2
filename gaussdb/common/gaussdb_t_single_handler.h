#ifndef GAUSSDB_COMMON_GAUSSDB_T_SINGLE_HANDLER_H
#define GAUSSDB_COMMON_GAUSSDB_T_SINGLE_HANDLER_H

#include "gaussdb/common/gaussdb_cluster_handler.h"

#include <cstdint>

/** A lone instance of GaussDB T. All that is known of it are the variables of its environment. */
class GaussDB_T_Single_Handler : public GaussDB_Cluster_Handler {
public:
    /** @param env  with GSDB_HOME, GSDB_DATA and LSNR_PORT */
    GaussDB_T_Single_Handler(GaussDB_Env const& env, std::string const& os_user);

    /** @param name  the instance's. @return false, logged, without GSDB_DATA or LSNR_PORT. */
    [[nodiscard]] bool init(char const* name) override;
    GaussDB_Client_ptr create_client(char const* username, char const* password,
                                     char const* db) const override;
    /**
     * "running" when somebody listens on the instance's port, else "error". Always true; balanced
     * is left alone.
     */
    [[nodiscard]] bool get_status(std::string& status, bool& balanced) const override;

private:
    std::string data_dir_;
    uint16_t port_ = 0;
};

#endif
