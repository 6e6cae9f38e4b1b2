#ifndef TESTS_SUPPORT_XBSA_WORLD_H
#define TESTS_SUPPORT_XBSA_WORLD_H

#include "json_spirit/value.h"
#include "tests/support/temporary_directory.h"

#include <string>
#include <vector>

/**
 * What an XBSA library finds on a host of a database: a policy, an agent over HTTPS that stands
 * for the real one, and a pool. Only in a private root, since the policy and the agent's
 * certificate have their places. One object at a time.
 */
class Xbsa_World {
public:
    static constexpr char POLICY[] = "nightly";
    static constexpr char CLUSTER[] = "cluster-1";
    static constexpr char SET[] = "11111111-2222-3333-4444-555555555555";
    static constexpr char OLDER_SET[] = "01111111-2222-3333-4444-555555555555";
    static constexpr char KEY[] = "an access key";

    /** @param tls  false: the agent and the policy do without */
    explicit Xbsa_World(bool tls = true);
    ~Xbsa_World();

    /** What the policy says; save() it after a change. */
    json_spirit::Object policy;
    void save_policy(std::string const& name = POLICY) const;
    /** What the agent does, see xbsa_agent_main; save() it after a change. */
    json_spirit::Object agent;
    void save_agent() const;
    json_spirit::Object& pool() { return agent["pool"].get_obj(); }

    /** The params of all calls of a method so far. */
    std::vector<json_spirit::Object> calls(std::string const& method) const;

    std::string pool_path() const { return files_.path("pool"); }
    /** The folder of a set's objects. */
    std::string set_path(std::string const& set = SET) const;
    /** Files in the pool, also those that are never listed. */
    size_t files_in_pool() const;
    /** The data of objects, in the order of their names. */
    std::vector<std::string> data_files(std::string const& set = SET) const;
    std::string policy_path(std::string const& name = POLICY) const;
    Temporary_Directory const& files() const { return files_; }

private:
    Temporary_Directory files_;
    Temporary_Directory const& server_files_;
};

#endif
