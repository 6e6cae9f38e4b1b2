#ifndef XBSA_LIBRARY_XBSA_SESSION_H
#define XBSA_LIBRARY_XBSA_SESSION_H

#include "xbsa/library/xbsa_room.h"
#include "xbsa/library/xbsa_transaction.h"

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

/**
 * One session of the API, from BSAInit() to BSATerminate(): the calls of xbsa.h by the same rules,
 * with their pointers checked by the caller. A session that is destroyed aborts its transaction.
 * For one thread at a time.
 */
class Xbsa_Session {
public:
    /**
     * Opens a session: reads the policy, asks its agent for the pool and connects to that.
     * @param environment  texts "KEYWORD=value"
     */
    static Xbsa_Result open(BSA_ObjectOwner const& owner, std::vector<std::string> environment,
                            std::unique_ptr<Xbsa_Session>& session);

    /**
     * Opens another session that has this one's owner and environment, with changes. Not in a
     * transaction.
     * @param changes  texts "KEYWORD=value"
     */
    Xbsa_Result reopen(std::vector<std::string> changes,
                       std::unique_ptr<Xbsa_Session>& session) const;

    BSA_ObjectOwner const& owner() const { return owner_; }
    std::vector<std::string> const& environment() const { return environment_; }

    Xbsa_Result begin_transaction();
    Xbsa_Result end_transaction(BSA_Vote vote);

    Xbsa_Result create(BSA_ObjectDescriptor& descriptor);
    Xbsa_Result send(void const* data, size_t size);
    Xbsa_Result end_data();
    Xbsa_Result remove(uint64_t copy_id);

    Xbsa_Result query(BSA_QueryDescriptor const& query, BSA_ObjectDescriptor& descriptor);
    Xbsa_Result next_object(BSA_ObjectDescriptor& descriptor);
    Xbsa_Result get(uint64_t copy_id);
    /** @param got  0 only with BSA_RC_NO_MORE_DATA, or when @a size is */
    Xbsa_Result receive(void* buffer, size_t size, size_t& got);

private:
    Xbsa_Session(Xbsa_Policy policy, BSA_ObjectOwner const& owner,
                 std::vector<std::string> environment);

    Xbsa_Result connect();
    Xbsa_Result connect_pool(Pool_Info const& pool);
    /** Whether something of that kind can begin now. */
    Xbsa_Result may_begin(Xbsa_Transaction::Kind kind);
    /** What forbids to write with this policy; success when nothing does. */
    Xbsa_Result may_write() const;
    Xbsa_Packing packing() const;

    /** One object of an answer. */
    struct Found {
        Xbsa_Object object;
        bool newest;
    };
    /** Whether the objects of a set are to be seen. */
    Xbsa_Result counts(std::string const& set, bool& does);
    Xbsa_Result find(Xbsa_Hint const& hint, Xbsa_Repository::Filter const& filter,
                     std::vector<Xbsa_Object>& objects);
    Xbsa_Result find_copy(uint64_t copy_id, Xbsa_Object& object);
    static std::vector<Found> answer(Xbsa_Query const& wanted, std::vector<Xbsa_Object> objects);

    Xbsa_Policy policy_;
    BSA_ObjectOwner owner_;
    std::vector<std::string> environment_;
    Storage_Clock& clock_ = Storage_Clock::system();
    Xbsa_Agent agent_;
    Xbsa_Counter counter_;
    Xbsa_Limiters limiters_;
    Xbsa_Room room_;
    Pool_Info pool_;
    std::unique_ptr<Xbsa_Repository> repository_;

    std::unique_ptr<Xbsa_Transaction> transaction_;
    std::unique_ptr<Xbsa_Upload> upload_;
    std::unique_ptr<Xbsa_Download> download_;

    std::set<std::string> known_sets_; ///< that the catalog has
    std::vector<Found> found_;         ///< by the last query
    size_t next_ = 0;                  ///< the first that has not been given
    bool queried_ = false;
};

#endif
