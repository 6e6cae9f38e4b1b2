#include "gaussdb/job/client_io_options.h"

#include "host/agent/host_manager.h"
#include "host/job/job_definition.h"

#include <gtest/gtest.h>

namespace {

TEST(client_io_options, a_jobs_own_settings_with_its_limits_shared) {
    Job_Definition definition;
    definition.max_seconds_retry(30);
    definition.resumption_buffer_size(4096);
    auto const limits = std::make_shared<Rate_Limits>();
    limits->dest = {{1000, 0, 0}};
    definition.rate_limits(limits);
    Client_IO_Base::Options options;
    set_options_by_job_def(options, definition, 4);
    EXPECT_EQ(30u, options.max_seconds_retry);
    EXPECT_EQ(4096u, options.resumption_buffer_size);
    ASSERT_EQ(1u, options.rate_limits.dest.size());
    EXPECT_EQ(250u, options.rate_limits.dest[0].bytes_per_second);
    EXPECT_EQ(1000u, limits->dest[0].bytes_per_second); // the definition's stay
}

TEST(client_io_options, a_job_without_settings) {
    Job_Definition definition;
    definition.max_seconds_retry(-1);
    Client_IO_Base::Options options;
    set_options_by_job_def(options, definition, 1);
    EXPECT_EQ(0u, options.max_seconds_retry);
    EXPECT_TRUE(options.rate_limits.dest.empty());
}

TEST(client_io_options, the_backup_server_has_a_key_of_its_own) {
    Host_Manager* const host = Host_Manager::instance();
    host->access_key("host key");
    host->node_access_key("node key");
    Client_IO_Base::Options options;
    set_options_by_host(options);
    EXPECT_EQ("host key", options.access_key);
    host->component(Host_Manager::CPN_BACKUPD);
    set_options_by_host(options);
    EXPECT_EQ("node key", options.access_key);
    host->component(Host_Manager::CPN_AGENT);
}

} // namespace
