#include "host/mtf/metadata.h"

#include "json_spirit/access.h"

namespace MTF {

json_spirit::Object Metadata::dump() const {
    using Text = json_spirit::Skip_Empty_Helper<std::string>;
    json_spirit::Object object;
    json_spirit::insert(object)("pool_uuid", Text(pool_uuid_))("host_uuid", Text(host_uuid_))(
        "definition_uuid", Text(definition_uuid_))("uuid", Text(uuid_))("agent", Text(agent_))(
        "host", Text(host_))("name", Text(name_))("type", Text(type_))(
        "resource_uuid", Text(resource_uuid_))("uid", Text(uid_));
    return object;
}

Metadata Metadata::load(json_spirit::Object const& object) {
    Metadata result;
    json_spirit::extract(object)("pool_uuid", result.pool_uuid_)("host_uuid", result.host_uuid_)(
        "definition_uuid", result.definition_uuid_)("uuid", result.uuid_)("agent", result.agent_)(
        "host", result.host_)("name", result.name_)("type", result.type_)(
        "resource_uuid", result.resource_uuid_)("uid", result.uid_);
    return result;
}

} // namespace MTF
