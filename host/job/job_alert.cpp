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
    char const* advice;
};

// docs/operations.md has the same rows, which a test compares
constexpr Alert_Row ALERTS[] = {
    {7, 1, "The backup set was not found in the catalog, or a set that it builds on is missing",
     "`zenbrak3 backups INSTANCE` lists the backups that there are: restore another one"},
    {7, 2, "The backup set could not be committed to the catalog",
     "look at the agent's log: is the disk of /var/lib full, or the backup server unreachable?"},
    {7, 3, "The database cluster is neither normal nor degraded, it was not backed up",
     "run `gs_om -t status --detail` as the database's user, repair the cluster and back up again"},
    {7, 4, "The database cluster is unbalanced, it was not backed up",
     "switch the instances back to their primary hosts, see `gs_om -t status --detail` as the "
     "database's user, and back up again"},
    {5, 5, "No earlier backup was found to build on, a full backup is made instead",
     "nothing, unless it comes each time: did the pool change, or was the instance restored?"},
    {7, 6, "The hosts of the database cluster could not be found out",
     "is the instance known on every host of the cluster, and each agent in the group?"},
    {7, 7, "The hosts of the database cluster could not be told the policy",
     "is each host's agent up and connected? See `zenbrak3 members` on the backup server, and "
     "`journalctl -u zenbrak3-agent` on the host; a host without an agent needs one, in the same "
     "group"},
    {7, 8, "The backup set could not be opened in the catalog",
     "look at the agent's log: is the disk of /var/lib full, or the backup server unreachable?"},
    {7, 9, "The metadata of the backup could not be saved",
     "is the pool mounted, writable and below its limit? If the log says \"belongs to a complete "
     "backup set\", two backups got one key, which is the time: was the clock set back?"},
    {7, 11, "The data was restored, but the database did not start: start it by hand",
     "start the database as its user, and read its own log if it does not start"},
    {7, 100, "The run failed",
     "`zenbrak3 job log RUN` shows each step, with the lines of the database's tools"},
    {7, 101, "The run could not begin",
     "do what the text says, then start the run again; `zenbrak3 check INSTANCE` shows what else "
     "is "
     "missing"},
    {7, 102, "The database cluster is not the one on record, nothing was touched",
     "the log says what differs. If the cluster was replaced on purpose, run `zenbrak3 instance "
     "remove INSTANCE`, then `zenbrak3 instances --refresh`, and save its account again"},
    {7, 103, "The database's backup tool failed",
     "read the tool's own lines in `zenbrak3 job log RUN`. If it does not find the prior backup or "
     "its metadata, make a full backup: `zenbrak3 backup INSTANCE --pool POOL --level full`"},
    {7, 104, "The database's restore tool failed",
     "read the tool's own lines in `zenbrak3 job log RUN`. If an object is missing or damaged, "
     "restore "
     "another backup; `zenbrak3 backups INSTANCE` lists them. The database may be down until then"},
    {5, 105, "The backup tool has no metadata of the earlier backup, a full backup is made instead",
     "nothing, unless it comes each time: was the tool's metadata on the cluster's hosts removed?"},
    {5, 106,
     "Schemas of this version cannot be backed up incrementally, a full backup is made instead",
     "nothing; DWS 8.2.1 and later can"},
    {7, 107, "The storage pool could not be used",
     "is the pool mounted, writable and below its limit? `zenbrak3 pools` and `zenbrak3 check "
     "INSTANCE --pool POOL` say"},
    {7, 108, "The database could not be logged on to",
     "save an account that the database takes: `zenbrak3 account INSTANCE USER`"},
    {7, 109, "The backup was made by another version of the database",
     "install the version that `zenbrak3 backup show BACKUP` says, or restore a backup of the "
     "version "
     "that is installed"},
    {7, 110, "The management platform did not do what it was asked for",
     "read the platform's answer in `zenbrak3 job log RUN`, and look at the job on the platform; "
     "`zenbrak3 check INSTANCE` tries the login and the route"},
    {7, 111, "The service that takes the database's data is not usable",
     "run one roach_client or backUpAgent, of one user, on this host; `zenbrak3 check INSTANCE` "
     "says "
     "what it finds"},
    {7, 112, "The restore was refused before anything was changed",
     "put right what the text names, and run the restore again"},
    {7, 113, "The database node could not be asked over ssh",
     "`zenbrak3 check INSTANCE` tries the way in and says what is missing"},
    {7, 114, "The last backup cannot be built on",
     "make a full backup: `zenbrak3 backup INSTANCE --pool POOL --level full`"},
    {7, 115, "The record of the instance is not valid",
     "correct it with `zenbrak3 instance change INSTANCE`"},
    {7, 116, "A file or directory of the run could not be used",
     "the text has the path and the error: give it to the database's user, or make room there"},
    {7, 117, "The agent ended while the run was running",
     "start the run again; nothing of it was kept. `journalctl -u zenbrak3-agent` says why the "
     "agent "
     "ended"},
    {7, 118, "The database is not open", "open the database, then start the run again"},
};

struct Line_Row {
    char const* beginning; ///< of a line in the log of a run
    unsigned long level;
    unsigned long code;
};

/** What the module only logs. The beginnings are those of its own lines. */
constexpr Line_Row LINES[] = {
    {"Do full backup because prior backup not found", 5, 5},
    {"No full backup of GaussDB instance '", 5, 5},
    {"Do full backup because prior backup key not found", 5, 105},
    {"GaussDB schema backup does not support incremental backup", 5, 106},
    {"Failed to backup gaussdb data", 7, 103},
    {"Failed to backup gaussdb 100 data", 7, 103},
    {"Failed to execute roach backup", 7, 103},
    {"Failed to restore gaussdb data", 7, 104},
    {"Failed to execute roach restore", 7, 104},
    {"Failed to connect to storage server", 7, 107},
    {"Failed to prepare pool", 7, 107},
    {"Failed to get pool", 7, 107},
    {"Failed to get instance account", 7, 108},
    {"Failed to get SQL client", 7, 108},
    {"Failed to create GaussDB client", 7, 108},
    {"Failed to restore, gaussdb version mismatch", 7, 109},
    {"Failed to create backup job for GaussDB instance", 7, 110},
    {"Failed to create restore job for GaussDB instance", 7, 110},
    {"Failed to get GaussDB id of instance", 7, 110},
    {"The answer of platform", 7, 110},
    {"Failed to get GaussDB instance '", 7, 110},
    {"Failed to set BackupSet info for GaussDB instance", 7, 110},
    {"Failed to set XbsaRoute info for GaussDB instance", 7, 110},
    {"Failed to get roach client info", 7, 111},
    {"Failed to list roach_client service", 7, 111},
    {"The retrieval of GaussDB backup client information", 7, 111},
    {"Nothing was changed, ", 7, 112},
    {"Failed to get database host name", 7, 113},
    {"Failed to get database addresses", 7, 113},
    {"Failed to get DWS instance info", 7, 113},
    {"Failed to get nodes number", 7, 113},
    {"The database builds this backup on the set", 7, 114},
    {"Invalid record of instance", 7, 115},
    {"Failed to make the directory", 7, 116},
    {"Failed to use the directory", 7, 116},
    {"Failed to find out the room for", 7, 116},
    {"Failed to mkdir", 7, 116},
    {"Database is not open", 7, 118},
};

Alert_Row const* find_row(unsigned long level, unsigned long code) {
    for (Alert_Row const& row : ALERTS)
        if (row.level == level && row.code == code)
            return &row;
    return nullptr;
}

} // namespace

std::string job_alert_text(unsigned long level, unsigned long code) {
    Alert_Row const* const row = find_row(level, code);
    return row ? row->text : string_sprintf("Alert %lu of level %lu", code, level);
}

std::string job_alert_advice(unsigned long level, unsigned long code) {
    Alert_Row const* const row = find_row(level, code);
    return (row ? *row : *find_row(7, ALERT_RUN_FAILED)).advice;
}

bool find_alert_of_line(std::string_view line, unsigned long& level, unsigned long& code) {
    for (Line_Row const& row : LINES)
        if (line.starts_with(row.beginning)) {
            level = row.level;
            code = row.code;
            return true;
        }
    return false;
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
