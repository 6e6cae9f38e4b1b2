#include "gaussdb/common/gaussdb_non_intrusive_record.h"

#include "json_spirit/access.h"
#include "qmrt/names.h"

#include <cstdint>

namespace {

struct Record_Rule {
    char const* key;
    names::Rule rule;
};

constexpr Record_Rule RECORD_RULES[] = {{"address", names::fault_of_ssh_address},
                                        {"meta_path", names::fault_of_bare_path},
                                        {"source_commands", names::fault_of_remote_commands},
                                        {"ssh_options", names::fault_of_ssh_options}};

std::string fault_of_text_member(json_spirit::Object const& record, Record_Rule const& row) {
    json_spirit::Value const* const value = json_spirit::object_get_any_ptr(record, row.key);
    if (!value)
        return "";
    if (value->type() != json_spirit::str_type)
        return std::string(row.key) + " is not a text";
    std::string const& text = value->get_str();
    std::string const fault = row.rule(text);
    return fault.empty() ? "" : std::string(row.key) + " '" + names::shown(text) + "' " + fault;
}

} // namespace

std::string fault_of_non_intrusive_record(json_spirit::Object const& record) {
    for (Record_Rule const& row : RECORD_RULES)
        if (std::string fault = fault_of_text_member(record, row); !fault.empty())
            return fault;
    uint16_t port = 0;
    if (json_spirit::object_get_any_ptr(record, "backup_port") &&
        !json_spirit::object_get(record, "backup_port", port))
        return "backup_port is not a number from 0 to 65535";
    return "";
}
