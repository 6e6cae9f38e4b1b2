#ifndef HOST_JOB_MINOR_RESOURCE_ID_H
#define HOST_JOB_MINOR_RESOURCE_ID_H

#include <string>

/**
 * The id of one kind of content of a resource: a name-based uuid (RFC 4122, version 5) as text, the
 * same for the same arguments on every host and for ever, since pools are laid out by it.
 * @return false, with @a result unchanged, for an empty @a resource_id
 */
[[nodiscard]] bool compute_minor_resource_id(std::string const& resource_id,
                                             std::string const& text, std::string& result);

#endif
