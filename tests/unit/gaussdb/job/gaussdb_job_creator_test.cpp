#include "gaussdb/job/gaussdb_job_creator.h"

#include "gaussdb/job/gaussdb_backup_job_executor.h"
#include "gaussdb/job/gaussdb_non_intrusive_backup_executor.h"
#include "gaussdb/job/gaussdb_non_intrusive_restore_executor.h"
#include "gaussdb/job/gaussdb_restore_job_executor.h"
#include "gaussdb/job/gaussdb_t_backup_executor.h"
#include "gaussdb/job/gaussdb_t_restore_executor.h"
#include "gaussdb/job/gaussdb_tpops_backup_executor.h"
#include "gaussdb/job/gaussdb_tpops_restore_executor.h"
#include "job/controllable_job_t.h"
#include "job/default_job_t.h"
#include "tests/support/failing_new.h"
#include "tests/unit/gaussdb/job/cluster_world.h"

namespace {

using Backup_Job = Default_Job_T<GaussDB_Backup_Job_Executor>;
using Restore_Job = Default_Job_T<GaussDB_Restore_Job_Executor>;

class GaussDB_Job_Creator_Test : public Cluster_World {
protected:
    static Job_Definition_var backup_of(std::string const& instance) {
        Job_Definition_var def = definition(JOB_DEFINITION_BACKUP);
        auto* const source = new GaussDB_Backup_Job_Source;
        source->instance_ = instance;
        def->source(Job_Source_var(source));
        return def;
    }
    static Job_Definition_var restore_to(std::string const& entry) {
        Job_Definition_var def = definition(JOB_DEFINITION_RESTORE);
        auto* const source = new GaussDB_Restore_Job_Source;
        source->original_ = "gaussdb/another";
        source->restore_as_ = entry;
        def->source(Job_Source_var(source));
        return def;
    }
    template <typename Kind>
    static bool is(Job_var const& job) {
        return dynamic_cast<Kind*>(job.get()) != nullptr;
    }

    GaussDB_Job_Creator creator_;
};

TEST_F(GaussDB_Job_Creator_Test, clusters_that_are_protected_on_their_first_machine) {
    for (GAUSSDB_VERSION flavour : {GAUSSDB_100, GAUSSDB_200, GAUSSDB_UNKNOWN}) {
        make_cluster(flavour);
        EXPECT_TRUE(is<Backup_Job>(creator_.create(backup_of("c1")))) << flavour;
        EXPECT_TRUE(is<Restore_Job>(creator_.create(restore_to("gaussdb/c1")))) << flavour;
    }
}

TEST_F(GaussDB_Job_Creator_Test, what_a_definition_may_say_goes_by_its_clusters_flavour) {
    Job_Definition_var const def = backup_of("c1");
    def->subtype(JOB_DEFINITION_SUBTYPE_FULL);
    EXPECT_EQ("", creator_.fault_of(*def));
    auto options = std::make_unique<GaussDB_Backup_Job_Options>();
    options->cpu_cores_ = 2;
    def->options(Job_Options_var(options.release()));
    EXPECT_EQ("options: \"cpu_cores\" is not an option of GaussDB 200", creator_.fault_of(*def));
    make_cluster(GAUSSDB_DWS);
    EXPECT_EQ("", creator_.fault_of(*def));
}

TEST_F(GaussDB_Job_Creator_Test, the_job_has_the_definition_and_one_reference) {
    Job_Definition_var const def = backup_of("c1");
    Job_var const job = creator_.create(def);
    EXPECT_EQ(def.get(), job->definition().get());
    EXPECT_EQ(2, job->add_reference());
    job->remove_reference();
}

TEST_F(GaussDB_Job_Creator_Test, an_instance_of_a_platform_gets_jobs_that_can_be_stopped) {
    make_cluster(GAUSSDB_TPOPS);
    EXPECT_TRUE(
        is<Controllable_Job_T<GaussDB_TPOPS_Backup_Executor>>(creator_.create(backup_of("c1"))));
    EXPECT_TRUE(is<Controllable_Job_T<GaussDB_TPOPS_Restore_Executor>>(
        creator_.create(restore_to("gaussdb/c1"))));
}

TEST_F(GaussDB_Job_Creator_Test, a_lone_instance_is_protected_by_its_own_sql) {
    make_cluster(GAUSSDB_T);
    EXPECT_TRUE(is<Default_Job_T<GaussDB_T_Backup_Executor>>(creator_.create(backup_of("c1"))));
    EXPECT_TRUE(
        is<Default_Job_T<GaussDB_T_Restore_Executor>>(creator_.create(restore_to("gaussdb/c1"))));
}

TEST_F(GaussDB_Job_Creator_Test, clusters_without_an_agent_get_jobs_that_can_be_stopped) {
    for (GAUSSDB_VERSION flavour : {GAUSSDB_DWS, GAUSSDB_FOR_OPENGAUSS}) {
        make_cluster(flavour);
        EXPECT_TRUE(is<Controllable_Job_T<GaussDB_Non_Intrusive_Backup_Job_Executor>>(
            creator_.create(backup_of("c1"))));
        EXPECT_TRUE(is<Controllable_Job_T<GaussDB_Non_Intrusive_Restore_Job_Executor>>(
            creator_.create(restore_to("gaussdb/c1"))));
    }
}

TEST_F(GaussDB_Job_Creator_Test, a_cluster_that_is_not_known_gets_a_job_that_is_skipped) {
    Job_var const backup = creator_.create(backup_of("c2"));
    ASSERT_TRUE(is<Backup_Job>(backup));
    EXPECT_EQ("", run(backup, "x"));
    EXPECT_EQ(JOB_STATE_SKIPPED, backup->state());
    EXPECT_TRUE(is<Restore_Job>(creator_.create(restore_to("gaussdb/c2"))));
}

TEST_F(GaussDB_Job_Creator_Test, a_restore_to_what_is_no_entry_of_ours_is_skipped) {
    Job_var const restore = creator_.create(restore_to("other/c1"));
    EXPECT_LOGGED(LM_WARNING, "Failed to parse gaussdb source:\"other/c1\"\n");
    ASSERT_TRUE(is<Restore_Job>(restore));
    EXPECT_EQ("", run(restore, "x"));
    EXPECT_LOGGED(LM_WARNING, "Failed to parse gaussdb source:\"other/c1\"\n");
    EXPECT_EQ(JOB_STATE_SKIPPED, restore->state());
}

TEST_F(GaussDB_Job_Creator_Test, a_restore_goes_by_where_it_goes_to_and_not_by_what_it_is_of) {
    make_cluster(GAUSSDB_TPOPS);
    Job_Definition_var const def = restore_to("gaussdb/c1");
    EXPECT_TRUE(is<Controllable_Job_T<GaussDB_TPOPS_Restore_Executor>>(creator_.create(def)));
    static_cast<GaussDB_Restore_Job_Source*>(def->source().get())->original_ = "gaussdb/c1";
    static_cast<GaussDB_Restore_Job_Source*>(def->source().get())->restore_as_ = "gaussdb/new";
    EXPECT_TRUE(is<Restore_Job>(creator_.create(def)));
}

TEST_F(GaussDB_Job_Creator_Test, other_types_are_nobodys_and_no_fault) {
    for (Job_Definition_Type type :
         {JOB_DEFINITION_NONE, JOB_DEFINITION_STANDBY, JOB_DEFINITION_STORAGE}) {
        Job_Definition_var const def = backup_of("c1");
        def->type(type);
        errno = EDOM;
        EXPECT_FALSE(creator_.create(def).get());
        EXPECT_EQ(EDOM, errno);
    }
    EXPECT_NOT_LOGGED("nightly");
}

TEST_F(GaussDB_Job_Creator_Test, a_source_of_another_kind_names_no_cluster) {
    make_cluster(GAUSSDB_DWS);
    Job_Definition_var const def = restore_to("gaussdb/c1");
    def->type(JOB_DEFINITION_BACKUP);
    EXPECT_TRUE(is<Backup_Job>(creator_.create(def)));
    def->source(Job_Source_var());
    EXPECT_TRUE(is<Backup_Job>(creator_.create(def)));
    def->type(JOB_DEFINITION_RESTORE);
    EXPECT_TRUE(is<Restore_Job>(creator_.create(def)));
}

TEST_F(GaussDB_Job_Creator_Test, no_definition_is_no_job) {
    EXPECT_FALSE(creator_.create(Job_Definition_var()).get());
    EXPECT_CHECK_LOGGED_AT(LM_ERROR, "definition.get() is NULL");
}

TEST_F(GaussDB_Job_Creator_Test, without_memory_there_is_no_job) {
    errno = 0;
    Failing_New const no_memory(sizeof(Backup_Job));
    EXPECT_FALSE(creator_.create(backup_of("c1")).get());
    EXPECT_EQ(ENOMEM, errno);
}

TEST_F(GaussDB_Job_Creator_Test, the_cluster_is_not_held) {
    Job_var const job = creator_.create(backup_of("c1"));
    bool gone = false;
    struct Telling : GaussDB_200_Cluster_Handler {
        Telling(GaussDB_Env const& env, bool& gone)
            : GaussDB_200_Cluster_Handler(env, USER, GAUSSDB_A_811), gone_(gone) {}
        ~Telling() override { gone_ = true; }
        bool& gone_;
    };
    ASSERT_TRUE(
        GaussDB_Cluster_Manager::instance()->add_cluster("c3", new Telling(tools_.env(), gone)));
    Job_var const other = creator_.create(backup_of("c3"));
    GaussDB_Cluster_Manager::instance()->remove_cluster("c3");
    EXPECT_TRUE(gone);
}

} // namespace
