#include "host/catalog/catalog_operator.h"

#include "host/agent/host_services.h"
#include "json_spirit/access.h"
#include "qmrt/check.h"

namespace {

/** The catalog; null after an error line. */
std::shared_ptr<Catalog_Backend> backend(char const* operation) {
    std::shared_ptr<Catalog_Backend> catalog = Host_Services::instance().catalog();
    if (!catalog)
        QMRT_LOG(LM_ERROR, "No catalog is installed to %s\n", operation);
    return catalog;
}

} // namespace

bool Catalog_Operator::initialize(Backup_Set& set) {
    std::shared_ptr<Catalog_Backend> const catalog = backend("open a backup set in");
    return catalog && catalog->initialize(limits_, set);
}

bool Catalog_Operator::complete(Backup_Set& set) {
    std::shared_ptr<Catalog_Backend> const catalog = backend("complete a backup set in");
    return catalog && catalog->complete(limits_, set);
}

bool Catalog_Operator::commit(Backup_Set& set, bool overwrite) {
    std::shared_ptr<Catalog_Backend> const catalog = backend("commit a backup set to");
    return catalog && catalog->commit(limits_, set, overwrite);
}

bool Catalog_Operator::abort(std::string const& uuid, json_spirit::Array& pieces) {
    std::shared_ptr<Catalog_Backend> const catalog = backend("drop a backup set from");
    return catalog && catalog->abort(limits_, uuid, pieces);
}

bool Catalog_Operator::add_piece(std::string const& uuid, json_spirit::Array const& pieces) {
    std::shared_ptr<Catalog_Backend> const catalog = backend("add pieces to");
    return catalog && catalog->add_piece(limits_, uuid, pieces);
}

bool Catalog_Operator::get_view(char const* type, char const* view,
                                json_spirit::Object const& query, json_spirit::Value& result) {
    if (QMRT_IS_NULL_OR_EMPTY(type) || QMRT_IS_NULL_OR_EMPTY(view))
        return false;
    std::shared_ptr<Catalog_Backend> const catalog = backend("query");
    return catalog && catalog->get_view(limits_, type, view, query, result);
}

bool Catalog_Operator::get_first_view(char const* type, char const* view,
                                      json_spirit::Object const& query,
                                      json_spirit::Value& result) {
    json_spirit::Object first = query;
    json_spirit::insert(first)("limit", 1);
    first.erase("cmode");
    json_spirit::Value rows;
    if (!get_view(type, view, first, rows))
        return false;
    if (rows.type() != json_spirit::array_type) {
        QMRT_LOG(LM_ERROR, "The catalog gave no rows for view %s\n", view);
        return false;
    }
    result = rows.get_array().empty() ? json_spirit::Value() : rows.get_array().front();
    return true;
}
