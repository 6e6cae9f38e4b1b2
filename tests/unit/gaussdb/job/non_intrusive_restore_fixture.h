#ifndef TESTS_UNIT_GAUSSDB_JOB_NON_INTRUSIVE_RESTORE_FIXTURE_H
#define TESTS_UNIT_GAUSSDB_JOB_NON_INTRUSIVE_RESTORE_FIXTURE_H

#include "json_spirit/access.h"
#include "tests/unit/gaussdb/job/non_intrusive_world.h"

class Non_Intrusive_Restore_Test
    : public Non_Intrusive_Runs<GaussDB_Non_Intrusive_Restore_Job_Executor,
                                GaussDB_Restore_Job_Source, GaussDB_Restore_Job_Options> {
public:
    void SetUp() override {
        Non_Intrusive_World::SetUp();
        make_definition(JOB_DEFINITION_RESTORE, RESOURCE);
        source_->backup_key_ = "2_2";
        source_->restore_as_ = "gaussdb/c1";
        add_set("1_1", "", 1);
        add_set("2_2", "1_1", 2);
        tool_works("");
        catalog_mark_ = catalog_->calls().size();
    }
    /** A complete set of the resource, with other values for some keys. */
    void add_set(std::string const& key, std::string const& prior, int when,
                 Object const& changes = {}) {
        Object row{{"uuid", "set-" + key},
                   {"resource_uuid", RESOURCE},
                   {"pool_uuid", "pool-1"},
                   {"storages", json_spirit::Array{json_spirit::Object{{"pool_uuid", "pool-1"}}}},
                   {"incarnation", "full"},
                   {"backup_key", key},
                   {"prior_backup_key", prior},
                   {"backup_set_size", 100 * when},
                   {"nodes_count", 2},
                   {"granularity", ""},
                   {"database", ""},
                   {"compression", "zstd"},
                   {"host", "old" + std::to_string(when)},
                   {"series", 4},
                   {"backup_start_time", when},
                   {"backup_end_time", when}};
        for (auto const& [name, value] : changes)
            row[name] = value;
        catalog_->add_row(row);
    }
    void as_new_cluster() {
        set_target("dws-2");
        options_->xml_config_path_ = "/gauss/new.xml";
    }
    void as_tables() {
        def_->subtype(JOB_DEFINITION_SUBTYPE_TABLE);
        source_->tables_["sales"].push_front({"public", "t2", "public", "t2_back"});
        source_->tables_["sales"].push_front({"public", "t1", "old", "T 1"});
    }
    void opengauss() {
        Non_Intrusive_World::opengauss();
        add_set("1_1", "", 1, {{"series", 5}});
        add_set("2_2", "1_1", 2, {{"series", 5}});
    }
    std::string restore() { return run_once(); }
    /** The tool's line with the time in the metadata directory's name as TIME. */
    std::string restore_line() const {
        return std::regex_replace(roach_line(), std::regex("zenbrak3_meta_[0-9]{8}_[0-9]{6}"),
                                  "zenbrak3_meta_TIME");
    }
};

inline std::string const DWS_BEGIN =
    "GaussRoach.py -t restore --backup-key 2_2 --master-port 9000 --media-type NBU "
    "--media-destination dws-1 --metadata-destination /home/daemon/zenbrak3_meta_TIME "
    "--parallel-process 2 --nbu-on-remote --nbu-media-list /home/daemon/media.txt "
    "--client-port 7070";
inline std::string const OPENGAUSS_BEGIN =
    "GaussRoach.py -t restore --clean --backup-key 2_2 --master-port 9000 --media-type REMOTE "
    "--media-destination dws-1 --metadata-destination /gauss/meta --parallel-process 2 "
    "--remote-ip 127.0.0.1 --remote-port 7071 --remote-config ";

#endif
