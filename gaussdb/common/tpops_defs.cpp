#include "gaussdb/common/tpops_defs.h"

#include "host/agent/credential.h"
#include "json_spirit/access.h"
#include "qmrt/key2_value.h"

#include <algorithm>
#include <strings.h>

namespace {

constexpr Key2_Value_T<TPOPS_Job_State> table[] = {
    {"running", 7, TPOPS_JOB_STATE_RUNNING},     {"building", 8, TPOPS_JOB_STATE_BUILDING},
    {"completed", 9, TPOPS_JOB_STATE_COMPLETED}, {"failed", 6, TPOPS_JOB_STATE_ERROR},
    {"none", 4, TPOPS_JOB_STATE_NONE},
};

} // namespace

char const* tpops_state_to_string(TPOPS_Job_State state, int* len) {
    auto const* row = std::find_if(std::begin(table), std::end(table),
                                   [&](auto const& candidate) { return candidate.value == state; });
    if (row == std::end(table))
        --row; // "none"
    if (len)
        *len = static_cast<int>(row->len);
    return row->key;
}

TPOPS_Job_State tpops_state_from_string(char const* str, int len) {
    size_t const length = str && len > 0 ? static_cast<size_t>(len) : 0;
    for (auto const& row : table)
        if (length == 0 || strncasecmp(row.key, str, length) == 0)
            return row.value;
    return TPOPS_JOB_STATE_NONE;
}

void TPOPS_Login::load(json_spirit::Object const& object) {
    secure_string enciphered;
    json_spirit::extract_or_throw(object)("tpops_host", host)("tpops_port", port)("tpops_ssl", ssl)(
        "username", username)("password", enciphered);
    password = decrypt_secure_string(enciphered, CREDENTIAL_KEY, CREDENTIAL_KEY_LENGTH);
}

bool TPOPS_Instance_Info::load(json_spirit::Value const& value) {
    json_spirit::extract_or_throw(value.get_obj())("id", id)("name", name)("status", status)(
        "type", type)("version", version, false)("node_count", node_count, false);
    return true;
}

json_spirit::Object TPOPS_Instance_Info::dump() const {
    return json_spirit::Object_Maker()("id", id)("name", name)("status", status)("type", type)(
        "version", version)("node_count", node_count);
}

bool GaussDB_TPOPS_Instance_Info::load(json_spirit::Value const& value) {
    json_spirit::extract_or_throw(value.get_obj())("tpops_host", tpops_host, false)(
        "tpops_port", tpops_port, false)("tpops_ssl", tpops_ssl, false)(
        "xbsa_host", xbsa_host, false)("xbsa_port", xbsa_port, false)("xbsa_ssl", xbsa_ssl, false)(
        "id", id, false)("name", name, false)("status", status, false)("type", type, false)(
        "version", version, false)("node_count", node_count, false);
    return true;
}

json_spirit::Object GaussDB_TPOPS_Instance_Info::dump() const {
    json_spirit::Object object = TPOPS_Instance_Info::dump();
    json_spirit::insert(object)("tpops_host", tpops_host)("tpops_port", int{tpops_port})(
        "tpops_ssl", tpops_ssl)("xbsa_host", xbsa_host)("xbsa_port", int{xbsa_port})("xbsa_ssl",
                                                                                     xbsa_ssl);
    return object;
}

bool TPOPS_Database_Info::load(json_spirit::Value const& value) {
    json_spirit::extract_or_throw(value.get_obj())("name", name)("owner", owner)("size", size)(
        "character_set", character_set)("collate_set", collate_set)("datctype", datctype);
    return true;
}

json_spirit::Object TPOPS_Database_Info::dump() const {
    return json_spirit::Object_Maker()("name", name)("owner", owner)("size", size)(
        "character_set", character_set)("collate_set", collate_set)("datctype", datctype);
}

json_spirit::Object Backup_Args::dump() const {
    json_spirit::Object object = json_spirit::Object_Maker()("instance_id", instance_id)(
        "name", name)("description", description)("backup_type", backup_type);
    json_spirit::Array const ids(depend_backup_ids.begin(), depend_backup_ids.end());
    json_spirit::insert(object)("depend_backupIds", json_spirit::Skip_Empty_Helper(ids));
    return object;
}

json_spirit::Object Restore_Args::dump() const {
    json_spirit::Object source = json_spirit::Object_Maker()("instance_id", source_id)(
        "backup_id", backup_id)("type", backup_type);
    if (restore_time != 0)
        json_spirit::insert(source)("restore_time", restore_time);
    return json_spirit::Object_Maker()("source", source)(
        "target", json_spirit::Object{{"instance_id", target_id}});
}
