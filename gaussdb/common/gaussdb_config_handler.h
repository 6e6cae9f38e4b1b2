#ifndef GAUSSDB_COMMON_GAUSSDB_CONFIG_HANDLER_H
#define GAUSSDB_COMMON_GAUSSDB_CONFIG_HANDLER_H

#include "gaussdb/common/gaussdb_cluster_info.h"

#include <ACEXML/common/DefaultHandler.h>

/**
 * Fills a cluster's description from the events of its XML file: elements CLUSTER, DEVICELIST,
 * DEVICE and PARAM name="..." value="...". What it does not know it passes over. Serves one parse;
 * the description is not cleared before.
 */
class ACEXML_GaussDB_Config_Handler : public ACEXML_DefaultHandler {
public:
    explicit ACEXML_GaussDB_Config_Handler(GaussDB_Cluster_Info& cluster) : cluster_(cluster) {}
    ~ACEXML_GaussDB_Config_Handler() override = default;

    void startElement(ACEXML_Char const* uri, ACEXML_Char const* name, ACEXML_Char const* qname,
                      ACEXML_Attributes* atts) override;

private:
    enum State { PARSE_ROOT = 0, PARSE_CLUSTER = 1, PARSE_DEVICE = 2 };

    void parse_param(ACEXML_Attributes& atts);
    void parse_cluster_param(ACEXML_Char const* key, ACEXML_Char const* value);
    void parse_device_param(ACEXML_Char const* key, ACEXML_Char const* value);

    GaussDB_Cluster_Info& cluster_;
    State state_ = PARSE_ROOT;
};

#endif
