#include "gaussdb/job/cluster_job.h"

#include "tests/unit/gaussdb/job/cluster_world.h"
#include "tests/unit/host/job/test_job.h"

namespace {

using testing::ElementsAre;

class Cluster_Job_Test : public Cluster_World {
protected:
    Job_var const holder_{new Test_Job(definition(JOB_DEFINITION_BACKUP)), false};
    Texts hosts_;
};

TEST_F(Cluster_Job_Test, clusters_by_their_name) {
    EXPECT_EQ(cluster_, find_cluster("c1").get());
    EXPECT_TRUE(find_cluster("c2").null());
    EXPECT_TRUE(find_cluster("").null());
}

TEST_F(Cluster_Job_Test, python3_is_for_the_200_series_from_8_1_1) {
    EXPECT_TRUE(uses_python3({GAUSSDB_200, 8, 1, 1}));
    EXPECT_TRUE(uses_python3({GAUSSDB_200, 9, 0, 0}));
    EXPECT_FALSE(uses_python3({GAUSSDB_200, 8, 1, 0}));
    EXPECT_FALSE(uses_python3({GAUSSDB_100, 9, 0, 0}));
}

TEST_F(Cluster_Job_Test, the_backup_server_knows_a_clusters_hosts) {
    EXPECT_TRUE(get_hosts_of_cluster(*holder_, *cluster_, "c1", hosts_));
    EXPECT_THAT(hosts_, ElementsAre("here", "other"));
}

TEST_F(Cluster_Job_Test, a_lone_instance_is_on_this_host_and_nobody_is_asked) {
    make_cluster(GAUSSDB_100, 8, GaussDB_Cluster_Handler::TYPE_SINGLE);
    EXPECT_TRUE(get_hosts_of_cluster(*holder_, *cluster_, "c1", hosts_));
    EXPECT_THAT(hosts_, ElementsAre("here"));
    EXPECT_TRUE(upstream_->rest_calls().empty());
}

TEST_F(Cluster_Job_Test, no_hosts_raise_an_alert) {
    serve_hosts({});
    EXPECT_FALSE(get_hosts_of_cluster(*holder_, *cluster_, "c1", hosts_));
    EXPECT_LOGGED(LM_ERROR, "Failed to get cluster hosts of c1\n");
    EXPECT_THAT(events_with("alert "), ElementsAre("alert 7 6"));
}

TEST_F(Cluster_Job_Test, an_alert_has_nothing_to_add) {
    raise_alert(*holder_, 5, 5);
    ASSERT_EQ(1u, jobs_.alerts().size());
    Job_Alert const alert = jobs_.alerts().front();
    EXPECT_EQ(0u, alert.detail_code);
    EXPECT_TRUE(alert.detail.is_null());
    EXPECT_EQ(1, alert.count);
}

TEST_F(Cluster_Job_Test, what_the_run_before_left_is_cleared) {
    Job_Activity& activity = holder_->activity();
    activity.code = 5;
    activity.progress = 50;
    activity.message.size = 6;
    activity.message.offset = 7;
    time_t const before = time(nullptr);
    reset_activity(activity);
    EXPECT_EQ(0, activity.code);
    EXPECT_EQ(0, activity.progress);
    EXPECT_EQ(0, activity.message.size);
    EXPECT_EQ(0, activity.message.offset);
    EXPECT_LE(before, activity.start_time);
}

} // namespace
