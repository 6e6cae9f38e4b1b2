#ifndef GAUSSDB_INSTANCE_HANDLER_GAUSSDB_GUIDE_H
#define GAUSSDB_INSTANCE_HANDLER_GAUSSDB_GUIDE_H

#include "host/agent/database_guide.h"

/** What the agent and its people are told of GaussDB. Keeps nothing; thread-safe. */
class GaussDB_Guide : public Database_Guide {
public:
    std::vector<Database_Flavour> flavours() const override;
    Identity identify(Instance const& instance) const override;
    std::string fault_of_option(std::string const& key, std::string const& value) const override;
    /**
     * See GaussDB_Host_Check, GaussDB_Node_Check, GaussDB_T_Check and GaussDB_TPOPS_Check. To be
     * declared, an instance that is not reached from afar needs nothing.
     */
    std::vector<Instance_Check> check(Instance const& instance, Check_Scope scope) override;
    Backup_Outlook outlook(Instance const& instance, std::string const& pool,
                           std::string const& level,
                           json_spirit::Array const& usable) const override;
    std::vector<std::pair<std::string, std::string>>
    contents(json_spirit::Object const& set) const override;
    Loss restore_loss(json_spirit::Object const& set, std::string const& target,
                      std::vector<std::string> const& tables) const override;
    Loss backup_loss(json_spirit::Object const& set,
                     json_spirit::Array const& others) const override;
    Loss instance_loss(Instance const& instance) const override;
};

#endif
