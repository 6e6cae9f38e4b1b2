#ifndef AGENT_RPC_RUN_KEYS_H
#define AGENT_RPC_RUN_KEYS_H

#include "agent/rpc/access_key.h"
#include "agent/rpc/rpc_caller.h"
#include "json_spirit/secure_string.h"

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

/**
 * The keys of the runs that are on, by their hashes: of this agent's own runs and, in the backup
 * server, of its members'. In memory only, so no key outlives the agent. For any thread.
 */
class Run_Keys {
public:
    using Clock = std::chrono::steady_clock;
    /** How long a host's keys stay valid after its connection is lost. */
    static constexpr std::chrono::minutes LOST_HOST{15};
    /** Keys of one host at most; the agent itself runs far fewer jobs at once. */
    static constexpr size_t MOST_OF_A_HOST = 1024;

    struct Entry {
        Key_Digest digest;
        Run_Scope scope;

        /** {"key": the digest as text, and what Run_Scope::dump() gives} */
        json_spirit::Object dump() const;
        /** @return false for an object that dump() did not make */
        [[nodiscard]] bool read(json_spirit::Object const& object);
    };

    /** A new key: 64 hexadecimal digits; "" without random bytes. */
    static secure_string make();

    /** Adds a key. One that is there already keeps its scope. @return false when there are too many
     */
    [[nodiscard]] bool add(Entry entry);
    /** Removes the keys of a run of a host. */
    void end(std::string const& host_uuid, std::string const& run_id);
    /** Exchanges all keys of a host: it has joined, and these of its runs are on. */
    void replace(std::string const& host_uuid, std::vector<Entry> entries);
    /** A host's connection is lost; its keys end with replace() or after LOST_HOST. */
    void host_lost(std::string const& host_uuid, Clock::time_point now = Clock::now());

    /** What a key is for; null for one that is not known, or no longer. */
    std::shared_ptr<Run_Scope const> find(Key_Digest const& digest,
                                          Clock::time_point now = Clock::now()) const;
    /** What a running run is about; null for one that has ended, is not known, or has no key. */
    std::shared_ptr<Run_Scope const> find_run(std::string const& host_uuid,
                                              std::string const& run_id,
                                              Clock::time_point now = Clock::now()) const;
    /** The keys of a host's runs. */
    std::vector<Entry> of_host(std::string const& host_uuid) const;

private:
    [[nodiscard]] bool is_lost(std::string const& host_uuid, Clock::time_point now) const;

    mutable std::mutex mutex_;
    std::map<Key_Digest, std::shared_ptr<Run_Scope const>> keys_;
    std::map<std::string, Clock::time_point> lost_; ///< hosts that have gone, and when
};

#endif
