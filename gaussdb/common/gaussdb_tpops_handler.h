#ifndef GAUSSDB_COMMON_GAUSSDB_TPOPS_HANDLER_H
#define GAUSSDB_COMMON_GAUSSDB_TPOPS_HANDLER_H

#include "gaussdb/common/gaussdb_cluster_handler.h"
#include "gaussdb/common/tpops_defs.h"

#include <list>

/**
 * An instance that only its management platform can reach. Its description is the record in the
 * extend_attrs of info(): the keys of GaussDB_TPOPS_Instance_Info, and "username" and "password" of
 * the platform's user, the password in the form of encrypt_string(). Keeps no connection.
 */
class GaussDB_TPOPS_Handler : public GaussDB_Cluster_Handler {
public:
    GaussDB_TPOPS_Handler();

    /**
     * Reads the record of info(), again with each call. Sends nothing to the platform.
     * @param name  not used
     * @return false, logged, with the handler unchanged, if the record lacks a key of TPOPS_Login
     * or has a value of the wrong kind
     */
    [[nodiscard]] bool init(char const* name) override;

    /** The reference is valid as long as this object; a later login gets a new one. */
    TPOPS_Login const& get_login_info() const;
    GaussDB_TPOPS_Instance_Info get_instance_info() const;

    /**
     * A client with the login on record, or with this account if neither is null.
     * @param db  not used
     */
    GaussDB_Client_ptr create_client(char const* username, char const* password,
                                     char const* db) const override;

    /**
     * Logs in and asks the platform for the instance.
     * @param status    "running" when the platform says "normal" or nothing, and when it refuses
     * the account, which says nothing about the instance; else "error"
     * @param balanced  left alone
     * @return false when the platform gave no usable answer
     */
    [[nodiscard]] bool get_status(std::string& status, bool& balanced) const override;

    /** Like the base's; an account that logs on is used for this instance from then on. */
    [[nodiscard]] bool test_logon(char const* username, char const* password) override;

private:
    void take_login(TPOPS_Login login);

    mutable std::mutex login_mutex_;            ///< not held during requests
    GaussDB_TPOPS_Instance_Info instance_info_; ///< guarded by login_mutex_
    /** The last one is in use; earlier ones stay valid for references. Guarded by login_mutex_. */
    std::list<TPOPS_Login> login_info_;
};

#endif
