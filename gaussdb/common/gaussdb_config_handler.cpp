#include "gaussdb/common/gaussdb_config_handler.h"

#include "qmrt/key2_value.h"
#include "qmrt/natoi.h"

#include <boost/algorithm/string/predicate.hpp>
#include <cstring>

namespace {

enum ELEMENT {
    ELEMENT_NONE = 0,
    ELEMENT_CLUSTER_NAME = 1,
    ELEMENT_NODE_NAMES = 2,
    ELEMENT_APP_PATH = 3,
    ELEMENT_NAME = 4,
    ELEMENT_CM_NUM = 5,
    ELEMENT_CM_PORT = 6,
    ELEMENT_CM_STANDBY_PORT = 7,
    ELEMENT_CM_DIR = 8,
    ELEMENT_GTM_NUM = 9,
    ELEMENT_GTM_PORT = 10,
    ELEMENT_GTM_STANDBY_PORT = 11,
    ELEMENT_COO_NUM = 12,
    ELEMENT_COO_PORT = 13,
    ELEMENT_DATA_NUM = 14,
    ELEMENT_DATA_PORT = 15,
    ELEMENT_DATA_STANDBY_PORT = 16,
    ELEMENT_GTM_IP = 17,
    ELEMENT_CN_IP = 18,
    ELEMENT_DN_IP = 19,
    ELEMENT_SERVICE_TYPE = 20
};

using key_value_type = Key2_Value_T<ELEMENT>;

template <size_t N>
constexpr key_value_type row(char const (&key)[N], ELEMENT value) {
    return {key, N - 1, value};
}

constexpr key_value_type cluster_param_table[] = {
    row("clusterName", ELEMENT_CLUSTER_NAME),
    row("nodeNames", ELEMENT_NODE_NAMES),
    row("gaussdbAppPath", ELEMENT_APP_PATH),
    row("ServiceType", ELEMENT_SERVICE_TYPE),
    {nullptr, 0, ELEMENT_NONE},
};

constexpr key_value_type device_param_table[] = {
    row("name", ELEMENT_NAME),
    row("cmsNum", ELEMENT_CM_NUM),
    row("cmServerPortBase", ELEMENT_CM_PORT),
    row("cmServerPortStandby", ELEMENT_CM_STANDBY_PORT),
    row("cmDir", ELEMENT_CM_DIR),
    row("gtmNum", ELEMENT_GTM_NUM),
    row("gtmPortBase", ELEMENT_GTM_PORT),
    row("gtmPortStandby", ELEMENT_GTM_STANDBY_PORT),
    row("cooNum", ELEMENT_COO_NUM),
    row("cooPortBase", ELEMENT_COO_PORT),
    row("dataNum", ELEMENT_DATA_NUM),
    row("dataPortBase", ELEMENT_DATA_PORT),
    row("dataPortStandby", ELEMENT_DATA_STANDBY_PORT),
    row("gtmListenIp1", ELEMENT_GTM_IP),
    row("cooListenIp1", ELEMENT_CN_IP),
    row("dataListenIp", ELEMENT_DN_IP),
    {nullptr, 0, ELEMENT_NONE},
};

ELEMENT find_element(key_value_type const* table, char const* key) {
    while (table->key && std::strcmp(table->key, key) != 0)
        ++table;
    return table->value;
}

/** Where a key that is numbered in the file, such as "cooDir2", belongs; null when nowhere. */
std::vector<std::string>* find_numbered(GaussDB_Device_Info& device, char const* key) {
    if (boost::starts_with(key, "cooDir"))
        return &device.coordinators.dirs;
    if (boost::starts_with(key, "gtmDir"))
        return &device.gtm_nodes.dirs;
    if (boost::starts_with(key, "dataNode"))
        return &device.data_nodes.dirs;
    if (boost::starts_with(key, "backIp"))
        return &device.back_ips;
    if (boost::starts_with(key, "sshIp"))
        return &device.ssh_ips;
    return nullptr;
}

template <typename Number>
void set_number(Number& field, char const* value) {
    field = natoi<Number>(value);
}

} // namespace

void ACEXML_GaussDB_Config_Handler::startElement(ACEXML_Char const*, ACEXML_Char const* name,
                                                 ACEXML_Char const*, ACEXML_Attributes* atts) {
    if (std::strcmp(name, "CLUSTER") == 0)
        state_ = PARSE_CLUSTER;
    else if (std::strcmp(name, "DEVICELIST") == 0)
        state_ = PARSE_DEVICE;
    else if (std::strcmp(name, "DEVICE") == 0)
        cluster_.devices.emplace_back();
    else if (std::strcmp(name, "PARAM") == 0 && atts)
        parse_param(*atts);
}

void ACEXML_GaussDB_Config_Handler::parse_param(ACEXML_Attributes& atts) {
    ACEXML_Char const* key = nullptr;
    for (size_t index = 0; index < atts.getLength(); ++index) {
        ACEXML_Char const* const attribute = atts.getQName(index);
        if (std::strcmp(attribute, "name") == 0)
            key = atts.getValue(index);
        else if (std::strcmp(attribute, "value") == 0 && state_ == PARSE_CLUSTER)
            parse_cluster_param(key, atts.getValue(index));
        else if (std::strcmp(attribute, "value") == 0 && state_ == PARSE_DEVICE)
            parse_device_param(key, atts.getValue(index));
    }
}

void ACEXML_GaussDB_Config_Handler::parse_cluster_param(ACEXML_Char const* key,
                                                        ACEXML_Char const* value) {
    if (key == nullptr || value == nullptr)
        return;
    switch (find_element(cluster_param_table, key)) {
    case ELEMENT_CLUSTER_NAME:
        cluster_.name = value;
        break;
    case ELEMENT_NODE_NAMES:
        cluster_.nodes = value;
        break;
    case ELEMENT_APP_PATH:
        cluster_.app_path = value;
        break;
    case ELEMENT_SERVICE_TYPE:
        cluster_.service_type = value;
        break;
    default:
        break;
    }
}

void ACEXML_GaussDB_Config_Handler::parse_device_param(ACEXML_Char const* key,
                                                       ACEXML_Char const* value) {
    // a PARAM before the first DEVICE has no machine to belong to
    if (key == nullptr || value == nullptr || cluster_.devices.empty())
        return;
    GaussDB_Device_Info& device = cluster_.devices.back();
    switch (find_element(device_param_table, key)) {
    case ELEMENT_NAME:
        device.name = value;
        break;
    case ELEMENT_CM_NUM:
        set_number(device.cm_nodes.num, value);
        break;
    case ELEMENT_CM_PORT:
        set_number(device.cm_nodes.port, value);
        break;
    case ELEMENT_CM_STANDBY_PORT:
        set_number(device.cm_nodes.standby_port, value);
        break;
    case ELEMENT_CM_DIR:
        device.cm_nodes.dirs.push_back(value);
        break;
    case ELEMENT_GTM_NUM:
        set_number(device.gtm_nodes.num, value);
        break;
    case ELEMENT_GTM_PORT:
        set_number(device.gtm_nodes.port, value);
        break;
    case ELEMENT_GTM_STANDBY_PORT:
        set_number(device.gtm_nodes.standby_port, value);
        break;
    case ELEMENT_COO_NUM:
        set_number(device.coordinators.num, value);
        break;
    case ELEMENT_COO_PORT:
        set_number(device.coordinators.port, value);
        break;
    case ELEMENT_DATA_NUM:
        set_number(device.data_nodes.num, value);
        break;
    case ELEMENT_DATA_PORT:
        set_number(device.data_nodes.port, value);
        break;
    case ELEMENT_DATA_STANDBY_PORT:
        set_number(device.data_nodes.standby_port, value);
        break;
    case ELEMENT_GTM_IP:
        device.gtm_nodes.ip = value;
        break;
    case ELEMENT_CN_IP:
        device.coordinators.ip = value;
        break;
    case ELEMENT_DN_IP:
        device.data_nodes.ip = value;
        break;
    default:
        if (auto* const list = find_numbered(device, key))
            list->push_back(value);
        break;
    }
}
