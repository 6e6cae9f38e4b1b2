#ifndef TESTS_SUPPORT_CLUSTER_XML_H
#define TESTS_SUPPORT_CLUSTER_XML_H

#include <string>
#include <utility>
#include <vector>

/** Keys and values of one section of a cluster's XML file, in the order of the file. */
using Xml_Params = std::vector<std::pair<std::string, std::string>>;

/** The text of a cluster's XML file. */
inline std::string cluster_xml(Xml_Params const& cluster, std::vector<Xml_Params> const& devices) {
    auto const add = [](std::string& text, Xml_Params const& params) {
        for (auto const& [key, value] : params)
            text.append("<PARAM name=\"")
                .append(key)
                .append("\" value=\"")
                .append(value)
                .append("\"/>\n");
    };
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ROOT>\n<CLUSTER>\n";
    add(text, cluster);
    text += "</CLUSTER>\n<DEVICELIST>\n";
    for (size_t number = 0; number < devices.size(); ++number) {
        text.append("<DEVICE sn=\"").append(std::to_string(1000001 + number)).append("\">\n");
        add(text, devices[number]);
        text += "</DEVICE>\n";
    }
    return text + "</DEVICELIST>\n</ROOT>\n";
}

#endif
