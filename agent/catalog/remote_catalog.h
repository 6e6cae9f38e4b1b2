#ifndef AGENT_CATALOG_REMOTE_CATALOG_H
#define AGENT_CATALOG_REMOTE_CATALOG_H

#include "host/catalog/catalog_backend.h"

#include <string>

/**
 * The catalog of the backup server, reached through the Upstream_Backend of Host_Services by the
 * methods of serve_catalog_call(). Paths and texts that are no UTF-8 do not survive the way.
 *
 * An operation whose answer is lost has failed here, and may have been done there.
 */
class Remote_Catalog : public Catalog_Backend {
public:
    [[nodiscard]] bool initialize(Catalog_Limits const& limits, Backup_Set const& set) override;
    [[nodiscard]] bool complete(Catalog_Limits const& limits, Backup_Set const& set) override;
    [[nodiscard]] bool commit(Catalog_Limits const& limits, Backup_Set const& set,
                              bool overwrite) override;
    [[nodiscard]] bool abort(Catalog_Limits const& limits, std::string const& uuid,
                             json_spirit::Array& pieces) override;
    [[nodiscard]] bool add_piece(Catalog_Limits const& limits, std::string const& uuid,
                                 json_spirit::Array const& pieces) override;
    [[nodiscard]] bool get_view(Catalog_Limits const& limits, std::string const& type,
                                std::string const& view, json_spirit::Object const& query,
                                json_spirit::Value& result) override;

private:
    /** Logs what fails. @param result  the method's, an object */
    [[nodiscard]] static bool call(char const* operation, Catalog_Limits const& limits,
                                   json_spirit::Object params, json_spirit::Object& result);
    [[nodiscard]] static bool send(char const* operation, Catalog_Limits const& limits,
                                   Backup_Set const& set, bool overwrite);
};

#endif
