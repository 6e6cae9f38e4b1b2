#include "gaussdb/common/gaussdb_config_handler.h"

#include "host/xml/parse_xml.h"
#include "tests/support/log_capture.h"
#include "tests/support/recorded_output.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>

namespace {

using Strings = std::vector<std::string>;

class Config_Handler_Test : public testing::Test {
protected:
    /** Parses a file's body inside of its root. */
    bool parse(std::string const& body) {
        ACEXML_GaussDB_Config_Handler handler(info_);
        return parse_xml(files_.write("c.xml", "<ROOT>" + body + "</ROOT>").c_str(), handler);
    }
    /** Parses one device of these PARAM elements. */
    GaussDB_Device_Info device(std::string const& params) {
        EXPECT_TRUE(parse("<DEVICELIST><DEVICE>" + params + "</DEVICE></DEVICELIST>"));
        return info_.devices.back();
    }
    static std::string param(std::string const& name, std::string const& value) {
        return "<PARAM name=\"" + name + "\" value=\"" + value + "\"/>";
    }

    Temporary_Directory files_;
    GaussDB_Cluster_Info info_;
};

TEST_F(Config_Handler_Test, every_cluster_key_reaches_its_field) {
    EXPECT_TRUE(parse("<CLUSTER>" + param("clusterName", "c1") + param("nodeNames", "a,b") +
                      param("gaussdbAppPath", "/opt/app") + param("ServiceType", "SingleService") +
                      param("unknown", "x") + "</CLUSTER>"));
    EXPECT_EQ("c1", info_.name);
    EXPECT_EQ("a,b", info_.nodes);
    EXPECT_EQ("/opt/app", info_.app_path);
    EXPECT_EQ("SingleService", info_.service_type);
    EXPECT_TRUE(info_.devices.empty());
}

TEST_F(Config_Handler_Test, every_device_key_reaches_its_field) {
    GaussDB_Device_Info const found = device(
        param("name", "h") + param("cmsNum", "1") + param("cmServerPortBase", "2") +
        param("cmServerPortStandby", "3") + param("cmDir", "/cm") + param("gtmNum", "4") +
        param("gtmPortBase", "5") + param("gtmPortStandby", "6") + param("cooNum", "7") +
        param("cooPortBase", "8") + param("dataNum", "9") + param("dataPortBase", "10") +
        param("dataPortStandby", "11") + param("gtmListenIp1", "g") + param("cooListenIp1", "c") +
        param("dataListenIp", "d") + param("cooDir1", "/coo") + param("gtmDir1", "/gtm") +
        param("dataNode1", "/dn") + param("backIp1", "b") + param("sshIp1", "s"));
    EXPECT_EQ("h", found.name);
    EXPECT_EQ(1, found.cm_nodes.num);
    EXPECT_EQ(2, found.cm_nodes.port);
    EXPECT_EQ(3, found.cm_nodes.standby_port);
    EXPECT_EQ(Strings{"/cm"}, found.cm_nodes.dirs);
    EXPECT_EQ(4, found.gtm_nodes.num);
    EXPECT_EQ(5, found.gtm_nodes.port);
    EXPECT_EQ(6, found.gtm_nodes.standby_port);
    EXPECT_EQ("g", found.gtm_nodes.ip);
    EXPECT_EQ(Strings{"/gtm"}, found.gtm_nodes.dirs);
    EXPECT_EQ(7, found.coordinators.num);
    EXPECT_EQ(8, found.coordinators.port);
    EXPECT_EQ("c", found.coordinators.ip);
    EXPECT_EQ(Strings{"/coo"}, found.coordinators.dirs);
    EXPECT_EQ(9, found.data_nodes.num);
    EXPECT_EQ(10, found.data_nodes.port);
    EXPECT_EQ(11, found.data_nodes.standby_port);
    EXPECT_EQ("d", found.data_nodes.ip);
    EXPECT_EQ(Strings{"/dn"}, found.data_nodes.dirs);
    EXPECT_EQ(Strings{"b"}, found.back_ips);
    EXPECT_EQ(Strings{"s"}, found.ssh_ips);
}

TEST_F(Config_Handler_Test, a_value_before_its_name_is_dropped) {
    GaussDB_Device_Info const found =
        device("<PARAM value=\"h\" name=\"name\"/><PARAM value=\"x\"/><PARAM name=\"cmDir\"/>");
    EXPECT_EQ("", found.name);
    EXPECT_TRUE(found.cm_nodes.dirs.empty());
}

TEST_F(Config_Handler_Test, other_attributes_are_passed_over) {
    EXPECT_EQ("h", device("<PARAM id=\"1\" name=\"name\" unit=\"x\" value=\"h\"/>").name);
}

TEST_F(Config_Handler_Test, numbered_directories_keep_their_order) {
    GaussDB_Device_Info const found = device(param("cooDir1", "/a") + param("cooDir2", "/b"));
    EXPECT_EQ((Strings{"/a", "/b"}), found.coordinators.dirs);
}

TEST_F(Config_Handler_Test, a_repeated_cmDir_appends_each_time) {
    EXPECT_EQ((Strings{"/a", "/b"}),
              device(param("cmDir", "/a") + param("cmDir", "/b")).cm_nodes.dirs);
}

TEST_F(Config_Handler_Test, dataNum_is_no_directory_and_dataNode1_is) {
    GaussDB_Device_Info const found =
        device(param("dataNum", "2") + param("dataNode1", "/dn,host2,/dn2"));
    EXPECT_EQ(2, found.data_nodes.num);
    EXPECT_EQ(Strings{"/dn,host2,/dn2"}, found.data_nodes.dirs);
}

TEST_F(Config_Handler_Test, name_inside_of_the_cluster_is_passed_over) {
    EXPECT_TRUE(parse("<CLUSTER>" + param("name", "x") + "</CLUSTER>"));
    EXPECT_EQ("", info_.name);
}

TEST_F(Config_Handler_Test, numbers_beyond_the_range_and_words) {
    GaussDB_Device_Info const found = device(
        param("dataPortBase", "70000") + param("cooPortBase", "abc") + param("gtmPortBase", "-1") +
        param("cooNum", "99999999999") + param("dataNum", "3 nodes") + param("gtmNum", "-2"));
    EXPECT_EQ(65535, found.data_nodes.port);
    EXPECT_EQ(0, found.coordinators.port);
    EXPECT_EQ(65535, found.gtm_nodes.port);
    EXPECT_EQ(INT32_MAX, found.coordinators.num);
    EXPECT_EQ(3, found.data_nodes.num);
    EXPECT_EQ(-2, found.gtm_nodes.num);
}

TEST_F(Config_Handler_Test, a_param_before_the_first_device_is_ignored) {
    EXPECT_TRUE(
        parse("<DEVICELIST>" + param("name", "x") + param("cooDir1", "/a") + "</DEVICELIST>"));
    EXPECT_TRUE(info_.devices.empty());
}

TEST_F(Config_Handler_Test, a_param_before_cluster_and_devicelist_is_ignored) {
    EXPECT_TRUE(parse(param("clusterName", "x") + "<DEVICE>" + param("name", "y") + "</DEVICE>"));
    EXPECT_EQ("", info_.name);
    ASSERT_EQ(1u, info_.devices.size());
    EXPECT_EQ("", info_.devices[0].name);
}

TEST_F(Config_Handler_Test, nesting_does_not_matter_the_last_section_decides) {
    EXPECT_TRUE(parse("<CLUSTER><DEVICELIST><DEVICE>" + param("name", "h") +
                      "</DEVICE></DEVICELIST>" + param("name", "later") + "</CLUSTER>"));
    ASSERT_EQ(1u, info_.devices.size());
    EXPECT_EQ("later", info_.devices[0].name);
}

TEST_F(Config_Handler_Test, names_of_elements_are_exact) {
    EXPECT_TRUE(parse("<cluster>" + param("clusterName", "x") + "</cluster><CLUSTERS/>"));
    EXPECT_EQ("", info_.name);
}

TEST_F(Config_Handler_Test, of_duplicate_keys_the_last_counts) {
    EXPECT_EQ("b", device(param("name", "a") + param("name", "b")).name);
}

TEST_F(Config_Handler_Test, a_file_without_cluster_or_device_is_a_success) {
    EXPECT_TRUE(parse(""));
    EXPECT_EQ("", info_.name);
    EXPECT_TRUE(info_.devices.empty());
}

TEST_F(Config_Handler_Test, parsing_twice_appends_the_devices) {
    EXPECT_TRUE(parse("<DEVICE/>"));
    EXPECT_TRUE(parse("<DEVICE/>"));
    EXPECT_EQ(2u, info_.devices.size());
}

TEST_F(Config_Handler_Test, a_cut_file_leaves_what_came_before) {
    ACEXML_GaussDB_Config_Handler handler(info_);
    std::string const path = files_.write("c.xml", "<ROOT><CLUSTER>" + param("clusterName", "c1") +
                                                       "</CLUSTER><DEVICELIST><DEV");
    EXPECT_FALSE(parse_xml(path.c_str(), handler));
    EXPECT_LOGGED(LM_ERROR, "Failed to parse XML " + path);
    EXPECT_EQ("c1", info_.name);
}

TEST_F(Config_Handler_Test, ten_thousand_devices) {
    std::string body;
    for (int index = 0; index < 10000; ++index)
        body += "<DEVICE sn=\"" + std::to_string(index) + "\">" +
                param("name", "host" + std::to_string(index)) + param("cooDir1", "/a") +
                "</DEVICE>";
    EXPECT_TRUE(parse("<DEVICELIST>" + body + "</DEVICELIST>"));
    ASSERT_EQ(10000u, info_.devices.size());
    EXPECT_EQ("host9999", info_.devices.back().name);
}

TEST_F(Config_Handler_Test, every_published_file_has_a_name_and_devices_with_names) {
    for (Recorded_Output const& output : Recorded_Output::all("cluster_xml")) {
        GaussDB_Cluster_Info info;
        ACEXML_GaussDB_Config_Handler handler(info);
        // a file's XML declaration must be its first bytes
        size_t const begin = output.text.find('<');
        ASSERT_TRUE(parse_xml(files_.write("c.xml", output.text.substr(begin)).c_str(), handler))
            << output.name;
        EXPECT_NE("", info.name) << output.name;
        EXPECT_NE("", info.nodes) << output.name;
        EXPECT_NE("", info.app_path) << output.name;
        ASSERT_FALSE(info.devices.empty()) << output.name;
        for (GaussDB_Device_Info const& found : info.devices) {
            EXPECT_NE("", found.name) << output.name;
            EXPECT_FALSE(found.back_ips.empty()) << output.name;
        }
    }
}

TEST_F(Config_Handler_Test, a_published_file_of_three_nodes) {
    ACEXML_GaussDB_Config_Handler handler(info_);
    std::string const text = Recorded_Output::load("cluster_xml/om-template-3nodes-cm.txt").text;
    ASSERT_TRUE(parse_xml(files_.write("c.xml", text).c_str(), handler));
    EXPECT_EQ("Cluster_template", info_.name);
    EXPECT_EQ("node1_hostname,node2_hostname,node3_hostname", info_.nodes);
    EXPECT_EQ("/opt/huawei/install/app", info_.app_path);
    ASSERT_EQ(3u, info_.devices.size());
    GaussDB_Device_Info const& first = info_.devices[0];
    EXPECT_EQ("node1_hostname", first.name);
    EXPECT_EQ(15000, first.cm_nodes.port);
    EXPECT_EQ(1, first.data_nodes.num);
    EXPECT_EQ(15400, first.data_nodes.port);
    // the count of synchronous standbys begins like a directory's key, and is taken for one
    EXPECT_EQ((Strings{"/opt/huawei/install/data/dn,node2_hostname,/opt/huawei/install/data/dn,"
                       "node3_hostname,/opt/huawei/install/data/dn",
                       "0"}),
              first.data_nodes.dirs);
}

} // namespace
