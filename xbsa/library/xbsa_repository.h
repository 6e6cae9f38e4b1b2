#ifndef XBSA_LIBRARY_XBSA_REPOSITORY_H
#define XBSA_LIBRARY_XBSA_REPOSITORY_H

#include "host/storage/storage_backend.h"
#include "host/storage/xbsa_layout.h"
#include "xbsa/library/xbsa_index.h"
#include "xbsa/library/xbsa_object.h"
#include "xbsa/library/xbsa_result.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/**
 * How the objects of a cluster lie in its pool:
 *
 *     <cluster>/xbsa/<set>/<readable name>.<copy id>[.zst|.lzo]       the data of one object
 *     <cluster>/xbsa/<set>/_transactions/<uuid>.json                  what one transaction has made
 *
 * An object is there when its data is and a transaction names it. So all objects of a transaction
 * come to be in the one step in which its file does, one object is removed by removing its data,
 * and data that no transaction names is what a killed process left. For one thread at a time.
 */
class Xbsa_Repository {
public:
    Xbsa_Repository(std::shared_ptr<Storage_Connection> connection, std::string const& cluster_id)
        : connection_(std::move(connection)), root_(xbsa_cluster_folder(cluster_id)) {}

    /** More objects than that one transaction cannot have. */
    static constexpr size_t MAX_OBJECTS = 65536;

    Storage_Connection& connection() const { return *connection_; }
    /** The name of an object's data in the pool. */
    std::string data_name(Xbsa_Object const& object) const;
    /** A name for what a new transaction has made. */
    std::string new_transaction_name(std::string const& set) const;

    /** The text of such a file. */
    static std::string transaction_text(std::vector<Xbsa_Object> const& objects);

    /** Asked for each object that is there; @return whether it is wanted */
    using Filter = std::function<bool(Xbsa_Object const& object)>;
    /** Asked for a set with objects that are wanted, or that cannot be read: whether it counts. */
    using Set_Filter = std::function<Xbsa_Result(std::string const& set, bool& counts)>;

    /**
     * Finds the objects that are wanted, in all sets that count, in no order.
     * @param hint  true of all of them: spares the reading of other sets
     */
    Xbsa_Result find(Xbsa_Hint const& hint, Filter const& filter, Set_Filter const& set_filter,
                     std::vector<Xbsa_Object>& objects);
    /** Removes an object, and its transaction's file when no other object of it is there. */
    Xbsa_Result remove(Xbsa_Object const& object) const;

private:
    struct Transaction {
        std::string name; ///< of its file in the pool
        std::vector<Xbsa_Object> objects;
    };
    using Objects = std::vector<Xbsa_Object>;

    /** Objects of transactions' files that are kept in memory. */
    static constexpr size_t MAX_REMEMBERED = 16384;

    std::string set_folder(std::string const& set) const { return root_ + "/" + set; }
    /** Reads what a set's transactions name, there or not. */
    Xbsa_Result read_set(std::string const& set, std::vector<Transaction>& transactions) const;
    Xbsa_Result read_transaction(std::string const& set, std::string const& name,
                                 Transaction& transaction) const;
    Xbsa_Result find_in_set(std::string const& set, Filter const& filter,
                            Set_Filter const& set_filter, std::vector<Xbsa_Object>& objects) const;
    Xbsa_Result choose_sets(Xbsa_Hint const& hint, std::vector<std::string>& sets);
    void remember(Transaction const& transaction) const;
    /** Lists the names in a folder; one that does not exist has none. */
    Storage_Result list(std::string const& folder, std::vector<Storage_Entry>& entries) const;

    std::shared_ptr<Storage_Connection> connection_;
    std::string root_;
    Xbsa_Index index_;
    /** Of the last files that were read, by their names: a file is written once. */
    mutable std::map<std::string, Objects> remembered_;
    mutable size_t remembered_objects_ = 0;
};

#endif
