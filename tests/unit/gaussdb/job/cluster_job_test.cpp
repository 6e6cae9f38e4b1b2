#include "gaussdb/job/cluster_job.h"

#include "json_spirit/access.h"
#include "tests/support/cluster_xml.h"
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

TEST_F(Cluster_Job_Test, a_cluster_that_is_not_the_one_on_record_raises_an_alert) {
    EXPECT_TRUE(is_cluster_on_record(*holder_, "c1", true)) << "it was added by hand";
    GaussDB_Cluster_Manager& clusters = *GaussDB_Cluster_Manager::instance();
    clusters.remove_cluster("c1");
    write("/home/tool/script/config/clusterconfig.xml",
          cluster_xml({{"clusterName", "c1"}, {"ServiceType", "SingleService"}},
                      {{{"name", "host1"}}}));
    GaussDB_Env env;
    env.set_env("GPHOME", "/home/tool");
    env.set_env("GS_CLUSTER_NAME", "c1");
    ASSERT_TRUE(clusters.dump_env("c1", env));
    write("/home/daemon/.bashrc", "export GS_CLUSTER_NAME=c1\n");
    ASSERT_TRUE(clusters.update_offline_instance("c1", USER, 1, "1.0.2"));
    EXPECT_TRUE(is_cluster_on_record(*holder_, "c1", true));
    EXPECT_THAT(events_with("alert "), ElementsAre());
    write("/home/daemon/.bashrc", "export GS_CLUSTER_NAME=c2\n");
    EXPECT_FALSE(is_cluster_on_record(*holder_, "c1", true));
    EXPECT_LOGGED(LM_ERROR, "Nothing was touched, cluster \"c1\" is not the one on record");
    EXPECT_THAT(events_with("alert "), ElementsAre("alert 7 102"));
    write("/home/daemon/.bashrc", "export GS_CLUSTER_NAME=c1\n");
    ASSERT_EQ(0, chmod("/home/tool/script", 0777));
    EXPECT_FALSE(is_cluster_on_record(*holder_, "c1", true));
    EXPECT_LOGGED(LM_ERROR, "Nothing was touched, the tools of cluster \"c1\" are not run");
    rm_rf("/home/tool");
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

/** What is done behind a run that ends in a state. */
class Cancelled_Run_Cleanup_Test : public Cluster_Job_Test {
protected:
    /** @return the actions that the other host was asked for */
    Texts clean_up(Job_State state, bool succeeded = false) {
        hosts_ = {"other", "here"};
        Roach_Source roach_source = source();
        EXPECT_TRUE(roach_source.dump_policy());
        Job_Activity& activity = holder_->activity();
        activity.state = JOB_STATE_RUNNING;
        {
            Cancelled_Run_Cleanup cleanup(activity, roach_source, hosts_, "definition");
            if (succeeded)
                cleanup.dismiss();
            activity.state = state;
        }
        Texts actions;
        for (auto const& call : upstream_->rpc_calls()) {
            json_spirit::Object const& params = call.params.get_obj();
            actions.push_back(json_spirit::object_get_str(params, "action") + " " +
                              json_spirit::object_get_str(params, "definition_uuid"));
        }
        return actions;
    }
};

TEST_F(Cancelled_Run_Cleanup_Test, a_cancelled_run_is_ended_on_all_hosts) {
    EXPECT_THAT(clean_up(JOB_STATE_CANCELING), ElementsAre("end definition"));
    EXPECT_FALSE(exists(root("policy-1")));
}

TEST_F(Cancelled_Run_Cleanup_Test, a_run_that_was_not_cancelled_is_left_to_its_end) {
    EXPECT_THAT(clean_up(JOB_STATE_RUNNING), ElementsAre());
    EXPECT_THAT(clean_up(JOB_STATE_ERROR), ElementsAre());
    EXPECT_TRUE(exists(root("policy-1")));
}

TEST_F(Cancelled_Run_Cleanup_Test, a_run_that_has_succeeded_is_not_cancelled_any_more) {
    EXPECT_THAT(clean_up(JOB_STATE_CANCELING, true), ElementsAre());
    EXPECT_TRUE(exists(root("policy-1")));
}

} // namespace
