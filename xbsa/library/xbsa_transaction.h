#ifndef XBSA_LIBRARY_XBSA_TRANSACTION_H
#define XBSA_LIBRARY_XBSA_TRANSACTION_H

#include "xbsa/library/xbsa_agent.h"
#include "xbsa/library/xbsa_counter.h"
#include "xbsa/library/xbsa_repository.h"
#include "xbsa/library/xbsa_transfer.h"

#include <memory>
#include <optional>
#include <vector>

/**
 * What is to happen together: objects that have been written, and objects to be removed. A
 * transaction that is destroyed without a commit() leaves nothing of what it wrote. For one thread
 * at a time.
 */
class Xbsa_Transaction {
public:
    /** What a transaction does; its first call that succeeds decides. */
    enum Kind { MODIFIES, RETRIEVES };

    /** @param repository, agent, counter  must live as long as the transaction */
    Xbsa_Transaction(Xbsa_Repository const& repository, Xbsa_Agent& agent, Xbsa_Counter& counter)
        : repository_(repository), agent_(agent), counter_(counter) {}
    ~Xbsa_Transaction();
    Xbsa_Transaction(Xbsa_Transaction const&) = delete;
    Xbsa_Transaction& operator=(Xbsa_Transaction const&) = delete;

    [[nodiscard]] bool fits(Kind kind) const { return kind_.value_or(kind) == kind; }
    void become(Kind kind) { kind_ = kind; }

    size_t objects() const { return uploads_.size(); }
    /** Takes an object whose data have all come. On a failure it is dropped. */
    Xbsa_Result add(std::unique_ptr<Xbsa_Upload> upload);
    /** Has an object removed at commit(). */
    void remove(Xbsa_Object object) { removals_.push_back(std::move(object)); }
    /** Something in it has failed: it can only be aborted now. */
    void fail() { failed_ = true; }

    /**
     * Makes it happen. The data go into their places first, then the catalog gets them as pieces,
     * and last comes the file that makes them objects; removals are made behind that.
     * @return BSA_RC_TRANSACTION_ABORTED when nothing of it happened. When a removal fails, the
     *         rest has happened, and the result is that of the removal.
     */
    Xbsa_Result commit();

private:
    /** So many objects keep their files open until the commit; of more, the data go to their
     *  places at once, where nobody looks for them yet. */
    static constexpr size_t MAX_OPEN = 64;

    Xbsa_Result commit_objects();
    Xbsa_Result add_to_catalog(std::string const& name, size_t size);
    /** Removes what has been put into its place. */
    void roll_back();

    Xbsa_Repository const& repository_;
    Xbsa_Agent& agent_;
    Xbsa_Counter& counter_;
    std::vector<std::unique_ptr<Xbsa_Upload>> uploads_;
    std::vector<Xbsa_Object> removals_;
    bool failed_ = false;
    std::optional<Kind> kind_;
};

#endif
