#include "agent/catalog/recorded_set.h"

#include "json_spirit/access.h"

Recorded_Set::Recorded_Set(std::string const& kind, json_spirit::Object dump)
    : Backup_Set(kind.c_str()), dump_(std::move(dump)) {
    uuid = json_spirit::object_get_str(dump_, "uuid");
}
