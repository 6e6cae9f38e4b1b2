#ifndef HOST_MTF_METADATA_H
#define HOST_MTF_METADATA_H

#include "json_spirit/value.h"

#include <string>

namespace MTF {

/**
 * What an archive says about where it comes from: ids as text, all of them optional. Kept in the
 * archive's catalogue. A plain record, for one thread at a time.
 */
class Metadata {
public:
    void pool_uuid(std::string const& value) { pool_uuid_ = value; }
    std::string const& pool_uuid() const { return pool_uuid_; }
    void host_uuid(std::string const& value) { host_uuid_ = value; }
    std::string const& host_uuid() const { return host_uuid_; }
    /** The job definition's id. */
    void definition_uuid(std::string const& value) { definition_uuid_ = value; }
    std::string const& definition_uuid() const { return definition_uuid_; }
    /** The backup set's id. */
    void uuid(std::string const& value) { uuid_ = value; }
    std::string const& uuid() const { return uuid_; }
    void agent(std::string const& value) { agent_ = value; }
    std::string const& agent() const { return agent_; }
    void host(std::string const& value) { host_ = value; }
    std::string const& host() const { return host_; }
    void name(std::string const& value) { name_ = value; }
    std::string const& name() const { return name_; }
    /** The level of the backup: "full", "incremental". */
    void type(std::string const& value) { type_ = value; }
    std::string const& type() const { return type_; }
    void resource_uuid(std::string const& value) { resource_uuid_ = value; }
    std::string const& resource_uuid() const { return resource_uuid_; }
    /** The user's id. */
    void uid(std::string const& value) { uid_ = value; }
    std::string const& uid() const { return uid_; }

    /** One key for each text that is not empty. */
    json_spirit::Object dump() const;
    /** Reads what dump() gave. Keys that are absent, or are no texts, leave their text empty. */
    static Metadata load(json_spirit::Object const& object);

private:
    std::string pool_uuid_;
    std::string host_uuid_;
    std::string definition_uuid_;
    std::string uuid_;
    std::string agent_;
    std::string host_;
    std::string name_;
    std::string type_;
    std::string resource_uuid_;
    std::string uid_;
};

} // namespace MTF

#endif
