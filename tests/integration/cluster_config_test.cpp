#include "gaussdb/common/gaussdb_config_handler.h"
#include "gaussdb/common/gaussdb_config_reader.h"
#include "gaussdb/common/gaussdb_env.h"
#include "host/process/password_file_entry.h"
#include "host/xml/parse_xml.h"
#include "tests/support/log_capture.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/zombies.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

/** From a binary configuration file to the cluster's description, by the product's own script. */
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/** A stand-in of the database's own reader, with the shape that the script wants. */
char const READER[] = R"(
class Instance(object):
    def __init__(self, mirror, kind, port, directory):
        self.mirrorId, self.instanceType, self.port = mirror, kind, port
        self.datadir, self.listenIps = directory, ["10.0.0.1"]
class Node(object):
    name, backIps, sshIps, cmDataDir = "node-1", ["10.1.0.1"], ["10.2.0.1"], "/cm"
    cmservers = [Instance(1, 0, 5000, "/cm/cm_server")]
    gtms = [Instance(2, 0, 6000, "/gtm")]
    coordinators = [Instance(3, -1, 8000, "/coo")]
    datanodes = [Instance(4, 0, 40000, "/dn1")]
class dbClusterInfo(object):
    def initFromStaticConfig(self, user, path):
        print("noise")
        if open(path).read() != "binary of " + user:
            raise Exception("broken file")
        self.name, self.appPath, self.dbNodes = "c1", "/app", [Node()]
)";

class Cluster_Config : public testing::Test {
protected:
    Cluster_Config() : xml_(files_.path("c1.xml")) {
        if (geteuid() == 0)
            owner_.get("nobody");
        else
            owner_.get_by_uid(geteuid());
        env_.set_env("GPHOME", files_.path("gp"));
        // for the cluster's user, as whom the script runs
        std::filesystem::permissions(files_.path(), std::filesystem::perms(0755));
        files_.write("gp/script/gspylib/__init__.py", "");
        files_.write("gp/script/gspylib/common/__init__.py", "");
        files_.write("gp/script/gspylib/common/DbClusterInfo.py", READER);
        // where the module looks for it, which this test's own mount namespace has
        std::filesystem::create_directories("/opt/quilmot/zenbrak3/bin");
        std::filesystem::copy_file(ZENBRAK3_PROBE_GAUSSDB_CONFIG,
                                   "/opt/quilmot/zenbrak3/bin/probe_gaussdb_config",
                                   std::filesystem::copy_options::overwrite_existing);
    }
    void TearDown() override { EXPECT_THAT(children_in_proc(), IsEmpty()); }

    bool generate(std::string const& binary) {
        return generate_gaussdb_config(env_, owner_.name().c_str(), xml_.c_str(),
                                       files_.write("config", binary).c_str(), true);
    }

    Temporary_Directory files_;
    std::string xml_;
    Password_File_Entry owner_;
    GaussDB_Env env_;
};

TEST_F(Cluster_Config, a_binary_file_becomes_the_clusters_description) {
    ASSERT_TRUE(generate("binary of " + owner_.name()));
    GaussDB_Cluster_Info cluster;
    ACEXML_GaussDB_Config_Handler handler(cluster);
    ASSERT_TRUE(parse_xml(xml_.c_str(), handler));
    EXPECT_EQ("c1", cluster.name);
    EXPECT_EQ("node-1", cluster.nodes);
    EXPECT_EQ("/app", cluster.app_path);
    ASSERT_EQ(1u, cluster.devices.size());
    GaussDB_Device_Info const& device = cluster.devices.front();
    EXPECT_EQ("node-1", device.name);
    EXPECT_THAT(device.ssh_ips, ElementsAre("10.2.0.1"));
    EXPECT_EQ(8000, device.coordinators.port);
    EXPECT_THAT(device.data_nodes.dirs, ElementsAre("/dn1"));
    struct stat status = {};
    ASSERT_EQ(0, stat(xml_.c_str(), &status));
    EXPECT_EQ(owner_.uid(), status.st_uid);
    EXPECT_FALSE(files_.exists("gp/script/gspylib/__pycache__"));
    EXPECT_FALSE(files_.exists("gp/script/gspylib/common/__pycache__"));
}

TEST_F(Cluster_Config, a_file_that_the_reader_refuses_leaves_no_description_behind) {
    ASSERT_TRUE(generate("binary of " + owner_.name()));
    EXPECT_FALSE(generate("something else"));
    EXPECT_FALSE(files_.exists("c1.xml"));
    EXPECT_LOGGED(LM_WARNING, "broken file");
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
}

TEST_F(Cluster_Config, what_the_cluster_brings_along_runs_as_its_user) {
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can run as another user";
    std::string const who = files_.path("who");
    files_.write("who", "");
    ASSERT_EQ(0, chmod(who.c_str(), 0666));
    files_.write("gp/script/gspylib/common/DbClusterInfo.py",
                 "import os\nopen('" + who + "', 'a').write('%d ' % os.geteuid())\n" + READER);
    ASSERT_TRUE(generate("binary of " + owner_.name()));
    EXPECT_EQ(std::to_string(owner_.uid()) + " ", files_.read("who"));
}

TEST_F(Cluster_Config, a_database_without_its_scripts_is_a_failure) {
    env_.set_env("GPHOME", files_.path("elsewhere"));
    EXPECT_FALSE(generate("binary of " + owner_.name()));
    EXPECT_LOGGED(LM_WARNING,
                  "no reader of the cluster's configuration in " + files_.path("elsewhere/script"));
    EXPECT_LOGGED(LM_ERROR, "Failed to generate GaussDB xml config\n");
}

} // namespace
