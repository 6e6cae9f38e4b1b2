#ifndef TESTS_UNIT_GAUSSDB_JOB_NON_INTRUSIVE_BACKUP_FIXTURE_H
#define TESTS_UNIT_GAUSSDB_JOB_NON_INTRUSIVE_BACKUP_FIXTURE_H

#include "json_spirit/access.h"
#include "tests/unit/gaussdb/job/non_intrusive_world.h"

class Non_Intrusive_Backup_Test
    : public Non_Intrusive_Runs<GaussDB_Non_Intrusive_Backup_Job_Executor,
                                GaussDB_Backup_Job_Source, GaussDB_Backup_Job_Options> {
public:
    void SetUp() override {
        Non_Intrusive_World::SetUp();
        make_definition(JOB_DEFINITION_BACKUP, "pool-1");
        def_->subtype(JOB_DEFINITION_SUBTYPE_FULL);
        source_->instance_ = "c1";
    }
    std::string backup() { return run_once(); }
    /** A complete set of the resource in the pool. */
    void add_prior(std::string const& key, std::string const& type, int when,
                   char const* granularity = "") {
        catalog_->add_row(Object{{"uuid", "set-" + key},
                                 {"resource_uuid", RESOURCE},
                                 {"pool_uuid", "pool-1"},
                                 {"storages", Array{Object{{"pool_uuid", "pool-1"}}}},
                                 {"incarnation", "full-" + key},
                                 {"backup_key", key},
                                 {"type", type},
                                 {"granularity", granularity},
                                 {"backup_end_time", when},
                                 {"seq", when}});
    }
    Texts names_of(std::string const& type) const {
        Texts found;
        Object const row = set();
        for (Object const& record : json_spirit::objects_of(row.at("tables").get_array()))
            if (json_spirit::object_get_str(record, "type") == type)
                found.push_back(json_spirit::object_get_str(record, "name"));
        return found;
    }
};

inline std::string const DWS_LINE =
    "GaussRoach.py -t backup --master-port 9000 --filesplit-size 4 --media-type NBU "
    "--media-destination dws-1 --metadata-destination /gauss/meta --parallel-process 2 "
    "--nbu-on-remote --nbu-media-list /home/daemon/media.txt --client-port 7070 "
    "--physical-fine-grained --compression-type 0 --compression-level 0";
inline std::string const OPENGAUSS_LINE =
    "GaussRoach.py -t backup --master-port 9000 --media-type REMOTE --media-destination dws-1 "
    "--metadata-destination /gauss/meta --remote-ip 127.0.0.1 --remote-port 7071 "
    "--parallel-process 2 --compression-type=0 --compression-level=0 --remote-config dws-1";

#endif
