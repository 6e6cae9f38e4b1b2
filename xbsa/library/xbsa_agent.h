#ifndef XBSA_LIBRARY_XBSA_AGENT_H
#define XBSA_LIBRARY_XBSA_AGENT_H

#include "host/http/json_restful_client.h"
#include "host/storage/pool_info.h"
#include "host/storage/storage_clock.h"
#include "json_spirit/value.h"
#include "xbsa/library/xbsa_policy.h"

#include <algorithm>

/**
 * The agent whose job the policy is of, asked over its web port: each call is a POST of one
 * JSON-RPC 2.0 request to RPC_PATH, with the policy's access key as bearer token.
 *
 * A call that cannot be delivered, or is answered by an agent that is busy, is made again for as
 * long as the policy says, after 1, 2, 4 and up to 30 seconds; all of them may be made twice. What
 * fails is a result: BSA_RC_AUTHENTICATION_FAILURE when the agent does not accept the key,
 * BSA_RC_OBJECT_NOT_FOUND for what it does not know, BSA_RC_ACCESS_FAILURE for what it refuses,
 * BSA_RC_ABORT_SYSTEM_ERROR for anything else. For one thread at a time.
 */
class Xbsa_Agent {
public:
    static constexpr char RPC_PATH[] = "/d2/r/v2/rpc";
    /** What the agent publishes for its hosts to know it by. Without it the system's authorities
     *  are asked. */
    static constexpr char CERTIFICATE[] = "/var/opt/quilmot/zenbrak3/agent/backupd.crt";

    /** @param policy, clock  must live as long as the agent */
    Xbsa_Agent(Xbsa_Policy const& policy, Storage_Clock& clock);

    /** Finds the policy's pool. */
    Xbsa_Result find_pool(Pool_Info& info);
    /** Adds pieces to the policy's backup set: all of them, or none. */
    Xbsa_Result add_pieces(json_spirit::Array pieces);
    /** Tells whether the catalog has a backup set. */
    Xbsa_Result has_set(std::string const& uuid, bool& has);

private:
    Xbsa_Result call(char const* method, json_spirit::Object params, json_spirit::Value& result);
    /** One attempt. @param transient  set when another may succeed */
    Xbsa_Result call_once(char const* method, json_spirit::Object const& params,
                          json_spirit::Value& result, bool& transient);

    Xbsa_Policy const& policy_;
    Storage_Clock& clock_;
    JSON_RESTful_Client client_{true};
    int64_t last_id_ = 0;
};

/**
 * Does something until it succeeds, fails for good, or @a max_seconds are over.
 * @param step  returns an Xbsa_Result and sets its argument when another attempt may succeed
 */
template <typename Step>
Xbsa_Result xbsa_retry(Storage_Clock& clock, uint64_t max_seconds, Step step) {
    constexpr int64_t LONGEST_WAIT = 30 * NS_PER_SECOND;
    int64_t const start = clock.steady_ns();
    auto const allowed = static_cast<double>(max_seconds) * static_cast<double>(NS_PER_SECOND);
    for (int64_t wait = NS_PER_SECOND;; wait = std::min(2 * wait, LONGEST_WAIT)) {
        bool transient = false;
        Xbsa_Result result = step(transient);
        double const left = allowed - static_cast<double>(clock.steady_ns() - start);
        if (result || !transient || left <= 0)
            return result;
        clock.sleep_ns(static_cast<int64_t>(std::min(left, static_cast<double>(wait))));
    }
}

#endif
