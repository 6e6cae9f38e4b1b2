#include "gaussdb/common/tpops_record.h"

#include "qmrt/names.h"

namespace {

struct Tpops_Text {
    char const* key;
    names::Rule rule;
};
constexpr Tpops_Text TPOPS_TEXTS[] = {
    {"tpops_host", names::fault_of_host}, {"xbsa_host", names::fault_of_host},
    {"id", names::fault_of_id},           {"name", names::fault_of_instance},
    {"status", names::fault_of_line},     {"type", names::fault_of_line},
    {"version", names::fault_of_line},
};

} // namespace

std::string fault_of_tpops_record(json_spirit::Object const& record) {
    for (Tpops_Text const& text : TPOPS_TEXTS) {
        auto const found = record.find(text.key);
        if (found == record.end() || found->second.type() != json_spirit::str_type ||
            found->second.get_str().empty())
            continue;
        if (std::string const fault = text.rule(found->second.get_str()); !fault.empty())
            return std::string(text.key) + " '" + names::shown(found->second.get_str()) + "' " +
                   fault;
    }
    return "";
}
