#ifndef GAUSSDB_COMMON_GAUSSDB_CLUSTER_HANDLER_H
#define GAUSSDB_COMMON_GAUSSDB_CLUSTER_HANDLER_H

#include "gaussdb/common/gaussdb_client.h"
#include "gaussdb/common/gaussdb_cluster_info.h"
#include "gaussdb/common/gaussdb_const.h"
#include "gaussdb/common/gaussdb_env.h"

#include <ace/Recursive_Thread_Mutex.h>
#include <ace/Refcounted_Auto_Ptr.h>

#include <mutex>
#include <string>
#include <vector>

/**
 * One database cluster as this module sees it: its flavour and version, the user and the
 * environment to run its tools with, its topology, how to ask its state, and the SQL client that
 * fits. A derived class for each flavour.
 *
 * Made, then init() once, then read by any number of threads; jobs share one by
 * GaussDB_Cluster_Handler_var. Operations that run tools block the calling thread, and no lock is
 * held meanwhile that any accessor wants.
 */
class GaussDB_Cluster_Handler {
public:
    enum Cluster_Type {
        TYPE_NONE = 0,
        TYPE_SINGLE = 1,  ///< a lone instance
        TYPE_HA2NODE = 2, ///< a pair
        TYPE_HA = 3
    };

    /** @param env  copied  @param os_user  whose the cluster is; "" when it is not on this host */
    GaussDB_Cluster_Handler(GaussDB_Env const& env, std::string const& os_user,
                            GaussDB_Version const& version);
    virtual ~GaussDB_Cluster_Handler();
    GaussDB_Cluster_Handler(GaussDB_Cluster_Handler const&) = delete;
    GaussDB_Cluster_Handler& operator=(GaussDB_Cluster_Handler const&) = delete;

    /**
     * Makes the handler ready: finds the topology, the ports and what else the flavour needs, and
     * places the link by which the database's tools find the product's XBSA library.
     *
     * It is done at most once, unless a derived class says otherwise: any later call returns true
     * and does nothing, even after a failure, and a call beside a running one waits for it.
     * @return false after an error line; the handler is then of no use.
     */
    [[nodiscard]] virtual bool init(char const* name) = 0;

    /**
     * A client for one thread's SQL statements. It refers to this handler's environment and must
     * not outlive the handler. Null pointers count as "".
     * @param db  the flavours that always log on to one database take no notice of it
     * @return null, with ENOMEM, when there is no memory
     */
    virtual GaussDB_Client_ptr create_client(char const* username, char const* password,
                                             char const* db) const = 0;

    /**
     * Asks the cluster for its state.
     * @param status    the tool's own word, such as "Normal"
     * @param balanced  left alone when the tool does not say
     * @return false when no state was told
     */
    [[nodiscard]] virtual bool get_status(std::string& status, bool& balanced) const;

    /** True when that account can log on. */
    [[nodiscard]] virtual bool test_logon(char const* username, char const* password);

    /** Appends the names of the cluster's databases. @return false when they cannot be listed. */
    [[nodiscard]] bool list_database(char const* username, char const* password,
                                     std::vector<std::string>& databases) const;
    /** The server's own word for its version; "" when it cannot be asked. */
    std::string get_database_version() const;

    GaussDB_Env const& env() const { return env_; }
    std::string const& user() const { return os_user_; }
    /** Path of the cluster's XML file; "" for a flavour without one. */
    std::string const& conf() const { return conf_; }
    Cluster_Type type() const { return type_; }
    GaussDB_Version const& get_gaussdb_version() const { return gaussdb_version_; }

    /** A copy of the topology: it may be replaced while another thread uses the handler. */
    GaussDB_Cluster_Info info() const;
    /** Replaces it, for a cluster that is described by a record and not by a file. */
    void info(GaussDB_Cluster_Info const& value);

    /** How many machines the cluster has. */
    size_t nodes() const;
    /** True on the first machine of the cluster; false when it has none. */
    [[nodiscard]] bool is_first_device() const;

protected:
    /** This host's entry in info_; null when there is none. Valid until info_ is replaced. */
    GaussDB_Device_Info const* find_local_device() const;
    /**
     * Reads the XML file conf_ into info_.
     * @return false, with info_ as it was, after an error line.
     */
    [[nodiscard]] bool parse_cluster_info();

    Cluster_Type type_ = TYPE_HA;
    GaussDB_Env const env_;
    std::string const os_user_;
    std::string conf_;
    GaussDB_Version const gaussdb_version_;
    GaussDB_Device_Info const* local_device_ = nullptr; ///< this host's; into info_
    GaussDB_Cluster_Info info_;                         ///< guarded by info_mutex_
    mutable std::mutex info_mutex_;
    bool inited_ = false;   ///< set on entry to init(); no statement of success
    std::mutex init_mutex_; ///< held during init(), and guards inited_
};

using GaussDB_Cluster_Handler_var =
    ACE_Refcounted_Auto_Ptr<GaussDB_Cluster_Handler, ACE_Recursive_Thread_Mutex>;

#endif
