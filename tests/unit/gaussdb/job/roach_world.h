#ifndef TESTS_UNIT_GAUSSDB_JOB_ROACH_WORLD_H
#define TESTS_UNIT_GAUSSDB_JOB_ROACH_WORLD_H

#include "gaussdb/job/roach_source.h"
#include "host/agent/host_manager.h"
#include "host/agent/host_services.h"
#include "host/storage/pool_info.h"
#include "qmrt/file.h"
#include "qmrt/path.h"
#include "tests/support/fake_catalog.h"
#include "tests/support/fake_upstream_backend.h"
#include "tests/support/file_pool.h"
#include "tests/support/log_capture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

/** One pool on record, "pool-1". */
class One_Pool : public Pool_Backend {
public:
    explicit One_Pool(std::string const& url) {
        info.uuid = "pool-1";
        info.name = "first";
        info.url = url;
    }
    Storage_Result find(std::string const& uuid, Pool_Info& found) override {
        if (uuid != info.uuid)
            return {Storage_Result::NOT_FOUND, "no pool " + uuid};
        found = info;
        return {};
    }

    Pool_Info info;
};

/**
 * A host "here" with a pool, a catalog and a backup server, in directories of the test's own: run
 * with a private root.
 */
class Roach_World : public testing::Test {
protected:
    static constexpr char ROOT[] = "/var/cache/quilmot/zenbrak3/gaussdb";
    static constexpr char USER[] = "daemon";

    void SetUp() override {
        Host_Manager::instance()->uuid("here");
        Host_Manager::instance()->access_key("the key of this host");
        Host_Services::instance().pools(pools_);
    }
    void TearDown() override {
        Host_Services::instance().pools(nullptr);
        rm_rf("/var/cache/quilmot/zenbrak3");
    }

    Roach_Source source(GAUSSDB_VERSION flavour = GAUSSDB_200, unsigned major = 8,
                        Compression_Method compression = COMPR_NONE,
                        std::string const& policy_name = "policy-1") const {
        return {"cluster-1",
                "device-1",
                "pool-1",
                "set-1",
                compression,
                3,
                USER,
                0,
                4096,
                Rate_Limits(),
                GaussDB_Version(flavour, major, 1, 1),
                true,
                policy_name};
    }
    static std::string root(std::string const& name) { return std::string(ROOT) + "/" + name; }
    static std::string content(std::string const& path) {
        std::string text;
        return read_file(path.c_str(), text, 1 << 20) == 0 ? text : "";
    }
    static void write(std::string const& path, std::string const& text) {
        EXPECT_EQ(0, mkdir_p(dirname_string(path).c_str(), 0755));
        EXPECT_EQ(0, write_file_atomically(path.c_str(), text, 0644));
        // what the tool or the database has made is its user's
        for (std::string const& owned : {root("meta"), root("dn1")})
            if (path.starts_with(owned)) {
                EXPECT_EQ(0, chown_r(owned.c_str(), USER));
            }
    }
    static bool exists(std::string const& path) {
        return std::filesystem::exists(std::filesystem::symlink_status(path));
    }
    /** Starts one of the tool's programs as the owner of the policy. */
    static pid_t start_tool() {
        struct stat status;
        EXPECT_EQ(0, stat(root("policy-1").c_str(), &status));
        write(root("gs_roach"), "echo > " + root("meta/ready") + "\nsleep 1000\n");
        pid_t const tool = fork();
        if (tool == 0) {
            if (setuid(status.st_uid) == 0)
                execl("/bin/sh", "sh", root("gs_roach").c_str(), nullptr);
            _exit(127);
        }
        while (!exists(root("meta/ready")))
            usleep(5000);
        return tool;
    }

    File_Pool pool_;
    std::shared_ptr<One_Pool> pools_ = std::make_shared<One_Pool>(pool_.url());
    Fake_Catalog catalog_;
    Scoped_Fake_Upstream upstream_;
};

#endif
