#include "host/job/job_alert.h"

#include "host/agent/host_services.h"
#include "host/job/job_backend.h"
#include "qmrt/check.h"
#include "qmrt/format.h"

namespace {

struct Alert_Row {
    unsigned long level;
    unsigned long code;
    char const* text;
};

constexpr Alert_Row ALERTS[] = {
    {7, 1, "The backup set was not found in the catalog, or a set that it builds on is missing"},
    {7, 2, "The backup set could not be committed to the catalog"},
    {7, 3, "The database cluster is neither normal nor degraded, it was not backed up"},
    {7, 4, "The database cluster is unbalanced, it was not backed up"},
    {5, 5, "No earlier backup was found to build on, a full backup is made instead"},
    {7, 6, "The hosts of the database cluster could not be found out"},
    {7, 7, "The hosts of the database cluster could not be told the policy"},
    {7, 8, "The backup set could not be opened in the catalog"},
    {7, 9, "The metadata of the backup could not be saved"},
    {7, 102, "The database cluster is not the one on record, nothing was touched"},
    {7, 11, "The data was restored, but the database did not start: start it by hand"},
};

} // namespace

std::string job_alert_text(unsigned long level, unsigned long code) {
    for (Alert_Row const& row : ALERTS)
        if (row.level == level && row.code == code)
            return row.text;
    return string_sprintf("Alert %lu of level %lu", code, level);
}

void write_job_alert(Job const* job, unsigned long level, unsigned long code,
                     unsigned long detail_code, json_spirit::Value const& detail, long count) {
    if (QMRT_IS_NULL(job))
        return;
    std::string const text = job_alert_text(level, code);
    std::shared_ptr<Job_Backend> const jobs = Host_Services::instance().jobs();
    if (!jobs) {
        QMRT_LOG(LM_ERROR, "No job service is installed for the alert \"%s\"\n", text.c_str());
        return;
    }
    jobs->alert(*job, {level, code, detail_code, detail, count, text});
}
