#ifndef TESTS_UNIT_GAUSSDB_JOB_T_WORLD_H
#define TESTS_UNIT_GAUSSDB_JOB_T_WORLD_H

#include "gaussdb/common/gaussdb_t_single_handler.h"
#include "gaussdb/job/gaussdb_t_backup_executor.h"
#include "host/agent/instance_manager.h"
#include "host/process/password_file_entry.h"
#include "job/default_job_t.h"
#include "json_spirit/access.h"
#include "qmrt/scoped_deleter.h"
#include "tests/unit/gaussdb/job/cluster_world.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/statfs.h>
#include <thread>
#include <unistd.h>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

inline constexpr char T_SUCCESS[] = "ended completed 0";
inline constexpr char T_FAILURE[] = "ended error -1";

/**
 * An instance "c1" of GaussDB T, resource "t-1", whose tools are shell scripts. They work on a
 * directory "db": "status" is the state, "files/" what a backup writes, "restored/" what a restore
 * has read, "fail" a part of the statement or command that fails, "hook" a script that runs before
 * each. To be run with a private root.
 */
class T_World : public Cluster_World {
public:
    static constexpr char RESOURCE[] = "t-1";
    static constexpr char NOTES[] = "/var/opt/quilmot/zenbrak3/gaussdb/sets/t-1";
    static constexpr char HISTORY[] = "/var/opt/quilmot/zenbrak3/gaussdb/history/t-1";

    void SetUp() override {
        Cluster_World::SetUp();
        rm_rf(HISTORY);
        for (char const* directory : {"db/files", "db/data/data", "cache"})
            std::filesystem::create_directories(files_.path(directory));
        files_.write("db/status", "OPEN");
        files_.write("db/data/data/system", "old data");
        data_is("data", "content");
        tool("zsql", R"sh(
for statement; do :; done
IFS= read -r password
printf '%s %s %s\n' "$(id -un)" "$password" "${*%"$statement"}" >>"$db/logins"
one "$statement"
row() { printf 'HEAD\n--------\n%s\n\n1 rows fetched.\n' "$1"; }
path=${statement#*\'}
path=${path%%\'*}
case $statement in
"select status"*) row "$(cat "$db/status")" ;;
"select sum"*) row 5000 ;;
"backup database"*) mkdir "$path" && cp -R "$db/files/." "$path" || exit 1 ;;
"restore database"*) cp -R "$path/." "$db/restored" && ls -n "$path" >"$db/listing" || exit 1 ;;
esac)sh");
        tool("zctl.py", "one \"zctl.py $*\"\necho \"$HOME\" >\"$db/home\"");
        give("cache");
        make_t("c1");
        instances_->put({"gaussdb", "c1", RESOURCE, {{"user", USER}}, {}});
        ASSERT_TRUE(Instance_Manager::instance()->save_account(
            "gaussdb", "c1", UID, {{"username", "gauss"}, {"password", "secret"}}));
        make_backup();
    }
    void TearDown() override {
        EXPECT_FALSE(is_mounted(cache())) << "the pool is still mounted";
        EXPECT_TRUE(!exists(dirname_string(NOTES)) ||
                    std::filesystem::is_empty(dirname_string(NOTES)));
        Cluster_World::TearDown();
    }

    /** A shell script that has "db" and a function "one", which logs what it is asked. */
    void tool(std::string const& name, std::string const& text) {
        std::string const path = tools_.path(name);
        std::filesystem::remove(path);
        std::ofstream(path) << "#!/bin/sh\ndb=" << files_.path("db") << R"sh(
one() {
    printf '%s\n' "$1" >>"$db/asked"
    test ! -f "$db/hook" || . "$db/hook"
    test ! -f "$db/fail" && return
    case $1 in *"$(cat "$db/fail")"*) echo "GS-00001, told to fail"; exit 1 ;; esac
}
)sh" << text << "\n";
        std::filesystem::permissions(path, std::filesystem::perms(0755));
    }
    /** Gives a directory of the test to the database's user. */
    void give(std::string const& name) const {
        EXPECT_EQ(0, chown_r(files_.path(name).c_str(), USER));
    }
    void data_is(std::string const& file, std::string const& content) const {
        files_.write("db/files/" + file, content);
        give("db");
    }
    void db_file(std::string const& name, std::string const& text) const {
        files_.write("db/" + name, text);
        give("db");
    }
    void fails_at(std::string const& statement) const { db_file("fail", statement); }
    /** Runs a shell command, as the database's user, before each statement and command. */
    void before_each(std::string const& command) const { db_file("hook", command + "\n"); }

    void make_t(std::string const& name, bool with_data = true) {
        GaussDB_Env env = tools_.env();
        env.set_env("GSDB_HOME", files_.path());
        if (with_data)
            env.set_env("GSDB_DATA", files_.path("db/data"));
        env.set_env("LSNR_PORT", "1888");
        auto* const cluster = new GaussDB_T_Single_Handler(env, USER);
        EXPECT_EQ(with_data, cluster->init(name.c_str()));
        if (!with_data)
            Log_Capture::instance().claim_all(LM_ERROR, "Failed to get GSDB_DATA or LSNR_PORT\n");
        GaussDB_Cluster_Manager::instance()->remove_cluster(name.c_str());
        ASSERT_TRUE(GaussDB_Cluster_Manager::instance()->add_cluster(name.c_str(), cluster));
    }
    void make_backup() {
        def_ = definition(JOB_DEFINITION_BACKUP);
        def_->subtype(JOB_DEFINITION_SUBTYPE_FULL);
        Job_Target target;
        target.id("pool-1");
        target.device_id("device-1");
        def_->target(target);
        source_ = new GaussDB_Backup_Job_Source;
        source_->id(RESOURCE);
        source_->name("c1");
        source_->instance_ = "c1";
        def_->source(Job_Source_var(source_));
        options_ = new GaussDB_Backup_Job_Options;
        options_->cache_dir_ = cache();
        options_->channels_ = 4;
        def_->options(Job_Options_var(options_));
    }
    std::string backup() {
        return run(Job_var(new Default_Job_T<GaussDB_T_Backup_Executor>(def_), false), RESOURCE);
    }
    /** Does something with the job while the tools stand at a hook that waits for "go". */
    template <typename Action>
    std::string run_while(Job_var const& job, std::string const& lock, std::string const& statement,
                          Action action) {
        before_each("case $1 in *'" + statement +
                    "'*) : >\"$db/there\"; until test -f \"$db/go\"; do sleep 0.01; done ;; esac");
        std::thread beside([&] {
            while (!files_.exists("db/there"))
                std::this_thread::yield();
            action(*job);
            files_.write("db/go", "");
        });
        std::string const outcome = run(job, lock);
        beside.join();
        return outcome;
    }

    /** Runs a job so slowly that its transfer is canceled: when there is a file in a directory. */
    std::string cancel_transfer(Job_var const& job, std::string const& lock,
                                std::string const& directory) {
        Rate_Limits limits;
        limits.src = {{1000, 0, 0}};
        job->definition()->rate_limits(std::make_shared<Rate_Limits const>(limits));
        std::thread beside([&] {
            while (!std::filesystem::exists(directory) || File_Pool::files_below(directory) == 0)
                std::this_thread::yield();
            EXPECT_EQ(0, job->abort());
        });
        std::string const outcome = run(job, lock);
        beside.join();
        return outcome;
    }

    std::string cache() const { return files_.path("cache"); }
    /** The statements and commands, in order. */
    Texts asked() const {
        Texts lines;
        std::istringstream log(files_.read("db/asked"));
        for (std::string line; std::getline(log, line);)
            lines.push_back(line);
        return lines;
    }
    /** The last one that begins so. */
    std::string last_asked(std::string const& beginning) const {
        std::string found;
        for (std::string const& line : asked())
            if (line.starts_with(beginning))
                found = line;
        return found;
    }
    /** The last statement of a backup, with its time as TIME. */
    std::string statement() const {
        return std::regex_replace(last_asked("backup database"), std::regex("[0-9]{8}_[0-9]{6}"),
                                  "TIME");
    }
    /** From now on a backup writes its set by these shell commands, in the directory "$path". */
    void backup_writes(std::string const& commands) {
        tool("zsql", R"sh(
for statement; do :; done
one "$statement"
path=${statement#*\'}
path=${path%%\'*}
case $statement in
select*) printf 'A\n---\nOPEN\n' ;;
*) mkdir "$path" && cd "$path" || exit 1
)sh" + commands + " ;;\nesac");
    }
    static bool is_mounted(std::string const& path) {
        struct statfs status {};
        return statfs(path.c_str(), &status) == 0 && status.f_type == 0x65735546; // FUSE
    }
    Texts left_in_cache() const {
        Texts names;
        for (auto const& entry : std::filesystem::directory_iterator(cache()))
            names.push_back(entry.path().filename());
        return names;
    }
    /** Everything in the pool, with the set's time as TIME. */
    Texts objects() const {
        Texts names;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(pool_.path()))
            if (entry.is_regular_file())
                names.push_back(std::regex_replace(
                    std::filesystem::relative(entry.path(), pool_.path()).string(),
                    std::regex("[0-9]{8}_[0-9]{6}"), "TIME"));
        std::sort(names.begin(), names.end());
        return names;
    }
    std::string set_uuid() const { return jobs_.run_ids().back(); }
    Object set() const { return catalog_->row(set_uuid()); }
    std::string text_of_set(char const* key) const {
        return json_spirit::object_get_str(set(), key);
    }

    Job_Definition_var def_;
    GaussDB_Backup_Job_Source* source_ = nullptr;
    GaussDB_Backup_Job_Options* options_ = nullptr;
};

#endif
