#ifndef TESTS_UNIT_GAUSSDB_JOB_NON_INTRUSIVE_WORLD_H
#define TESTS_UNIT_GAUSSDB_JOB_NON_INTRUSIVE_WORLD_H

#include "gaussdb/common/gaussdb_non_intrusive_handler.h"
#include "gaussdb/job/gaussdb_non_intrusive_backup_executor.h"
#include "gaussdb/job/gaussdb_non_intrusive_restore_executor.h"
#include "job/controllable_job_t.h"
#include "tests/support/ssh_server.h"
#include "tests/unit/gaussdb/job/cluster_world.h"

#include <csignal>
#include <thread>

/** Looks for a cancel as often as it can. */
template <typename Executor>
class Eager_Stop : public Executor {
public:
    explicit Eager_Stop(Job& job) : Executor(job) { this->stop_interval_.set(0, 1000); }
};

/**
 * A process of another user, not a child of the test, of which only the command line counts. The
 * test needs a private process table.
 */
class Data_Service {
public:
    Data_Service(std::string const& command_line, std::string const& user) {
        std::string const script = "echo $$ >" + files_.path("pid") + "; exec -a \"$1\" sleep 600";
        std::filesystem::permissions(files_.path(), std::filesystem::perms(0777));
        EXPECT_EQ(0, Server_Child::run({"/usr/bin/setsid", "-f", "/usr/bin/setpriv", "--reuid",
                                        user, "--regid", "1", "--clear-groups", "/bin/bash", "-c",
                                        script, "bash", command_line},
                                       "", files_.path("log")));
        while (title().find(command_line) != 0)
            std::this_thread::yield();
    }
    ~Data_Service() {
        kill(pid(), SIGKILL);
        while (!title().empty())
            std::this_thread::yield();
    }
    Data_Service(Data_Service const&) = delete;
    Data_Service& operator=(Data_Service const&) = delete;

private:
    pid_t pid() const {
        std::ifstream file(files_.path("pid"));
        pid_t number = 0;
        return file >> number ? number : -1;
    }
    std::string title() const {
        std::ifstream file("/proc/" + std::to_string(pid()) + "/cmdline");
        std::string first; // "" also when the process goes away meanwhile
        std::getline(file, first, '\0');
        return first;
    }

    Temporary_Directory files_;
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
        std::ofstream("/etc/profile") << "# nothing\n";
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

#endif
