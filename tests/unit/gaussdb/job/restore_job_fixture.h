#ifndef TESTS_UNIT_GAUSSDB_JOB_RESTORE_JOB_FIXTURE_H
#define TESTS_UNIT_GAUSSDB_JOB_RESTORE_JOB_FIXTURE_H

#include "gaussdb/job/gaussdb_restore_job_executor.h"
#include "tests/unit/gaussdb/job/backup_job_fixture.h"

/** A full backup "1_1" and an incremental one "2_2" that builds on it, really made. */
class GaussDB_Restore_Job_Executor_Test : public GaussDB_Backup_Job_Executor_Test {
public:
    void SetUp() override {
        GaussDB_Backup_Job_Executor_Test::SetUp();
        restore_def_ = definition(JOB_DEFINITION_RESTORE);
        target("cluster-1");
        restore_source_ = new GaussDB_Restore_Job_Source;
        restore_source_->id("cluster-1");
        restore_source_->backup_key_ = "2_2";
        restore_source_->restore_as_ = "gaussdb/c1";
        restore_def_->source(Job_Source_var(restore_source_));
        restore_options_ = new GaussDB_Restore_Job_Options;
        restore_def_->options(Job_Options_var(restore_options_));
        back_up_twice();
        roach_restores();
    }
    /** The resource that the restore goes to. */
    void target(std::string const& id) {
        Job_Target target;
        target.id(id);
        restore_def_->target(target);
    }
    void roach_restores(std::string const& then = "", std::string const& start = "exit 0") {
        new_script("python3", "out \\e[0mN1: 100.00%\nout \\e[0mN2: 100.00%\n"
                              "out \\e[0mRestore SUCCESSFUL\n" +
                                  then + "\nexit 0\n---\n" + start);
    }
    void back_up_twice() {
        roach_works("1_1");
        ASSERT_EQ(SUCCESS, backup());
        full_ = set_uuid();
        jobs_.clear();
        def_->subtype(JOB_DEFINITION_SUBTYPE_INCREMENTAL);
        roach_works("2_2");
        ASSERT_EQ(SUCCESS, backup());
        incremental_ = set_uuid();
        jobs_.clear();
        catalog_mark_ = catalog_->calls().size();
    }
    /** Another value in the row of a set. */
    void change(std::string const& uuid, std::string const& key, Value const& value) {
        Object row = catalog_->row(uuid);
        row[key] = value;
        catalog_->add_row(row);
    }
    /** Both sets are of the 100 series now, and so is the cluster. */
    void
    turn_into_100(GaussDB_Cluster_Handler::Cluster_Type type = GaussDB_Cluster_Handler::TYPE_HA) {
        for (std::string const& uuid : {full_, incremental_})
            change(uuid, "series", 1);
        make_cluster(GAUSSDB_100, 6, type);
        new_script("python", "exit 0");
    }
    /** Runs the restore; nothing is left in the scratch directory then. */
    std::string restore() {
        std::string const outcome =
            run(Job_var(new Default_Job_T<GaussDB_Restore_Job_Executor>(restore_def_), false),
                restore_def_->target().id());
        EXPECT_FALSE(exists(root(DEFINITION)));
        return outcome;
    }

    std::string full_; ///< the sets' uuids
    std::string incremental_;
    Job_Definition_var restore_def_;
    GaussDB_Restore_Job_Source* restore_source_ = nullptr;
    GaussDB_Restore_Job_Options* restore_options_ = nullptr;
};

#endif
