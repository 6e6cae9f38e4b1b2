#ifndef TESTS_UNIT_GAUSSDB_JOB_NON_INTRUSIVE_WORLD_H
#define TESTS_UNIT_GAUSSDB_JOB_NON_INTRUSIVE_WORLD_H

#include "gaussdb/common/gaussdb_non_intrusive_handler.h"
#include "gaussdb/job/gaussdb_non_intrusive_backup_executor.h"
#include "gaussdb/job/gaussdb_non_intrusive_restore_executor.h"
#include "job/controllable_job_t.h"
#include "tests/support/data_service.h"
#include "tests/support/ssh_server.h"
#include "tests/unit/gaussdb/job/cluster_world.h"

#include <thread>

/** Looks for a cancel as often as it can. */
template <typename Executor>
class Eager_Stop : public Executor {
public:
    explicit Eager_Stop(Job& job) : Executor(job) {
        this->stop_interval_.set(0, 1000);
        this->stop_limit_.set(0, 200000);
    }
};

/**
 * A cluster "c1" without an agent, at 127.0.0.1, and what is on its node: the tools and gsql. A
 * remote command runs in a shell of this machine, as sshd would run it, or through a real sshd.
 */
class Non_Intrusive_World : public Cluster_World {
public:
    using Array = json_spirit::Array;
    using Object = json_spirit::Object;
    static constexpr char SUCCESS[] = "ended completed 0";
    static constexpr char FAILURE[] = "ended error -1";
    static constexpr char RESOURCE[] = "dws-1";

    void SetUp() override {
        Cluster_World::SetUp();
        std::ofstream("/etc/profile") << "# Debian's would set a PATH without the tools\n";
        tool("ssh", R"sh(
echo "ssh $*" >>DIR/ssh.log
if [[ -e DIR/fail && "$*" == *"$(cat DIR/fail)"* ]]; then echo "ssh: no way" >&2; exit 255; fi
while [[ $1 == -* ]]; do case $1 in -o|-i) shift 2;; *) shift;; esac; done
shift
exec /bin/bash -c "$*"
)sh");
        tool("scp", R"sh(
echo "scp $*" >>DIR/ssh.log
if [[ -e DIR/fail && "$*" == *"$(cat DIR/fail)"* ]]; then exit 1; fi
target=${*: -1} source=${*: -2:1}
cp "$source" DIR/sent.${target##*/}
cp "$source" "${target#*:}"
)sh");
        tool("gsql", R"sh(
echo "$*" >>DIR/gsql.log
case "$*" in
*version*) echo "PostgreSQL 9.2.4 (GaussDB 8.2.1 build 1)" ;;
*count*) cat DIR/nodes ;;
*node_host*) cat DIR/addresses ;;
*datname*) cat DIR/databases ;;
*nspname*) cat DIR/schemas ;;
*tablename*) cat DIR/tables ;;
esac
)sh");
        give("nodes", "2\n");
        give("addresses", "127.0.0.1\nn2\n");
        give("databases", "template1\npostgres\ntemplate0\n");
        give("schemas", "public\nsales\n");
        give("tables", "t1\n");
        tools_.prints("whoami", "daemon");
        tools_.prints("hostname", "cn1");
        tools_.prints("gs_guc", "port='8000'");
        tools_.prints("cm_ctl", "nodeCount:3");
        tool_works();
        serve_hosts({"here"});
        dws();
    }
    void TearDown() override {
        service_.reset();
        server_.reset();
        rm_rf("/home/daemon");
        Cluster_World::TearDown();
    }

    /** Puts a shell script on the PATH; DIR in it is the directory of the tools. */
    void tool(std::string const& name, std::string const& text) {
        std::string const path = tools_.path(name);
        std::filesystem::remove(path);
        std::ofstream(path) << "#!/bin/bash"
                            << std::regex_replace(text, std::regex("DIR"), tools_.path());
        std::filesystem::permissions(path, std::filesystem::perms(0755));
    }
    void give(std::string const& name, std::string const& text) const {
        std::ofstream(tools_.path(name)) << text;
    }
    std::string text(std::string const& name) const { return content(tools_.path(name)); }
    void tool_works(std::string const& key = "20261122_070000", std::string const& then = "") {
        new_script("GaussRoach.py", (key.empty() ? "" : "out [MASTER]Backup key: " + key + "\n") +
                                        then + "\nexit 0");
    }
    /** Remote commands with that text in them fail from now on. */
    void ssh_fails(std::string const& text) const { give("fail", text); }

    void dws(unsigned minor = 2) {
        service("roach_client -p 7070");
        enter({GAUSSDB_DWS, 8, minor, 1});
    }
    void opengauss() {
        service("backUpAgent host = '127.0.0.1' port = 7071");
        enter({GAUSSDB_FOR_OPENGAUSS, 505, 1, 0});
    }
    void service(std::string const& command_line) {
        service_.reset();
        if (!command_line.empty())
            service_ = std::make_unique<Data_Service>(command_line, "daemon");
    }
    void enter(GaussDB_Version const& version) {
        auto* const cluster = new GaussDB_Non_Intrusive_Handler(version);
        GaussDB_Cluster_Manager::instance()->remove_cluster("c1");
        ASSERT_TRUE(GaussDB_Cluster_Manager::instance()->add_cluster("c1", cluster));
        cluster_ = cluster;
        record_is({});
        ASSERT_TRUE(cluster->init(""));
    }
    /** The cluster's record with other values for some keys. */
    void record_is(Object const& changes) {
        Object record{{"name", "c1"},
                      {"instance", "c1"},
                      {"address", "127.0.0.1"},
                      {"meta_path", "/gauss/meta"},
                      {"backup_port", 9000},
                      {"source_commands", "true; "},
                      {"ssh_options", "-o ConnectTimeout=4"},
                      {"manual", true}};
        for (auto const& [key, value] : changes)
            record[key] = value;
        GaussDB_Cluster_Info info;
        info.name = "c1";
        info.extend_attrs = record;
        cluster_->info(info);
    }
    /** From now on remote commands go through a real sshd. */
    void use_sshd() {
        server_name_ = "sshd";
        server_ = std::make_unique<Ssh_Server>(
            std::map<std::string, std::string>{{"PATH", tools_.path() + ":/usr/bin:/bin"}});
        tool("ssh",
             "\necho \"ssh $*\" >>DIR/ssh.log\nexec /usr/bin/ssh " + server_->opts() + " \"$@\"\n");
        tool("scp", "\nexec /usr/bin/scp " + server_->opts() + " \"$@\"\n");
    }

    /** The words that the tool got, as one line. */
    std::string roach_line(size_t number = 1) const {
        std::string text;
        for (std::string const& word : tools_.call("GaussRoach.py", number).args)
            text += (text.empty() ? "" : " ") + word;
        return text;
    }
    size_t roach_calls() const { return tools_.calls("GaussRoach.py"); }
    /** How often a text was sent to the node. */
    size_t sent(std::string const& wanted) const {
        size_t count = 0;
        std::string const log = text("ssh.log");
        for (size_t at = log.find(wanted); at != std::string::npos; at = log.find(wanted, at + 1))
            ++count;
        return count;
    }
    /** Does something while the tool is at work. @return how the run ended */
    template <typename Made_Job, typename Action>
    std::string run_while(Job_Definition_var const& def, std::string const& lock, Action action) {
        Job_var const job(new Made_Job(def), false);
        std::thread beside([&] {
            while (roach_calls() == 0)
                std::this_thread::yield();
            action(*job);
        });
        std::string const outcome = run(job, lock);
        beside.join();
        return outcome;
    }
    Object set() const { return catalog_->row(jobs_.run_ids().back()); }
    bool policy_of(std::string const& name) const { return exists(root(name)); }

    std::unique_ptr<Data_Service> service_;
    std::unique_ptr<Ssh_Server> server_;
};

/** How a run must fail: what breaks, what is told, and what is left. */
template <typename World>
struct Non_Intrusive_Failure {
    char const* name;
    std::function<void(World&)> breaks;
    char const* alert; ///< "alert 7 3"; "" for none
    char const* message;
    std::vector<char const*> also;    ///< logged by the layers below, as errors or warnings
    std::vector<std::string> catalog; ///< the calls, with the set's uuid as SET
    bool leaves_policy;
};
template <typename World>
void PrintTo(Non_Intrusive_Failure<World> const& failure, std::ostream* out) {
    *out << failure.name;
}

/** A Non_Intrusive_World with a definition. What holds for a backup holds for a restore. */
template <typename Executor, typename Source, typename Options>
class Non_Intrusive_Runs : public Non_Intrusive_World {
public:
    using Kind = Controllable_Job_T<Executor>;
    using Eager_Kind = Controllable_Job_T<Eager_Stop<Executor>>;
    using Runs = Non_Intrusive_Runs;
    using Failure = Non_Intrusive_Failure<Non_Intrusive_Runs>;

    void make_definition(Job_Definition_Type type, std::string const& target) {
        def_ = definition(type);
        set_target(target);
        source_ = new Source;
        source_->id(RESOURCE);
        def_->source(Job_Source_var(source_));
        options_ = new Options;
        options_->channels_ = 2;
        def_->options(Job_Options_var(options_));
    }
    void set_target(std::string const& id) {
        Job_Target target;
        target.id(id);
        target.device_id("device-1");
        def_->target(target);
    }
    /** Runs the definition to its end. */
    template <typename Job_Kind = Kind>
    std::string run_once() {
        return run(Job_var(new Job_Kind(def_), false), RESOURCE);
    }
    /** The name of the run's policy. */
    std::string policy_name() const {
        return def_->type() == JOB_DEFINITION_BACKUP ? RESOURCE : def_->target().id();
    }
    /** The run fails with these lines, and the tool was not run. */
    void expect_refused(std::string const& message, std::string const& also = "") {
        EXPECT_EQ(FAILURE, run_once());
        EXPECT_LOGGED(LM_ERROR, message);
        if (!also.empty()) {
            EXPECT_LOGGED(LM_ERROR, also);
        }
        EXPECT_EQ(0u, roach_calls());
        EXPECT_FALSE(catalog_->has(jobs_.run_ids().back()));
    }
    void expect_failed(Failure const& failure) {
        catalog_mark_ = catalog_->calls().size();
        failure.breaks(*this);
        EXPECT_EQ(FAILURE, run_once());
        EXPECT_EQ(*failure.alert ? Texts{failure.alert} : Texts{}, events_with("alert "));
        EXPECT_LOGGED(LM_ERROR, failure.message);
        for (char const* text : failure.also)
            EXPECT_LT(0u, Log_Capture::instance().claim_all(LM_ERROR, text) +
                              Log_Capture::instance().claim_all(LM_WARNING, text))
                << text;
        EXPECT_EQ(failure.catalog, catalog_calls());
        EXPECT_EQ(failure.leaves_policy, policy_of(policy_name()));
    }
    /** The run has the instance, and then hosts and node, for itself, also if it fails. */
    void expect_holds(std::string const& instance, std::string const& node) {
        Texts const held{"hold " + instance, "hold " + node, "release " + node,
                         "release " + instance};
        ASSERT_EQ(SUCCESS, run_once());
        EXPECT_EQ(held, jobs_.holds());
        jobs_.clear();
        new_script("GaussRoach.py", "err no space\nexit 1");
        EXPECT_EQ(FAILURE, run_once());
        EXPECT_EQ(held, jobs_.holds()) << "a failed run gives it back, too";
        EXPECT_LOGGED(LM_ERROR, "Failed to execute roach ");
        Log_Capture::instance().claim_all(LM_WARNING, "no space");
    }
    /** Runs wait for each resource in turn, show for what, and go on. */
    void expect_waiting_shown() {
        for (char const* resource : {"instance/dws-1", "node/cn1"}) {
            jobs_.clear();
            int answers = 0;
            jobs_.on_hold([&](std::set<std::string> const& resources) {
                if (!resources.contains(resource) || ++answers == 3)
                    return Hold_Answer();
                return Hold_Answer{Hold_Answer::WAIT, "job x"};
            });
            ASSERT_EQ(SUCCESS, run_once()) << resource;
            Texts holds = jobs_.holds();
            std::erase_if(holds,
                          [](std::string const& what) { return !what.starts_with("waiting"); });
            EXPECT_EQ((Texts{"waiting job x", "waiting "}), holds) << resource;
            EXPECT_TRUE(Log_Capture::instance().claim(LM_INFO, "Waiting for job x\n"));
        }
    }
    /** A run that waits for one of the resources can be canceled, and has touched nothing. */
    void expect_wait_canceled() {
        for (char const* resource : {"instance/dws-1", "node/cn1"})
            for (bool const now : {false, true}) {
                jobs_.clear();
                jobs_.on_hold([&](std::set<std::string> const& resources) {
                    if (!resources.contains(resource))
                        return Hold_Answer();
                    EXPECT_EQ(0, now ? job_->abort_now() : job_->abort());
                    return Hold_Answer{Hold_Answer::WAIT, "job x"};
                });
                EXPECT_EQ("ended canceled 0", run_once()) << resource;
                EXPECT_FALSE(policy_of(policy_name()));
                EXPECT_EQ(0u, roach_calls());
                EXPECT_FALSE(catalog_->has(jobs_.run_ids().back()));
                EXPECT_TRUE(
                    Log_Capture::instance().claim(LM_INFO, "Canceled while waiting for job x\n"));
            }
    }
    /** Nothing is there of what a run makes, while it asks for what it uses alone. */
    void expect_nothing_before_hold(std::string const& list) {
        bool changed_early = false;
        jobs_.on_hold([&](std::set<std::string> const&) {
            changed_early = changed_early || policy_of(policy_name()) || roach_calls() != 0 ||
                            sent("rm -rf") != 0 || exists(list);
            return Hold_Answer();
        });
        ASSERT_EQ(SUCCESS, run_once());
        EXPECT_FALSE(changed_early);
    }

    Job_Definition_var def_;
    Source* source_ = nullptr;
    Options* options_ = nullptr;
};

#endif
