#include "agent/database/agent_database.h"
#include "agent/jobs/agent_jobs.h"
#include "agent/jobs/job_tables.h"
#include "tests/contract/job_contract.h"
#include "tests/support/temporary_directory.h"

namespace {

struct Whole_Agent {
    Temporary_Directory directory;
    std::unique_ptr<Agent_Database> database;
    std::unique_ptr<Agent_Jobs> jobs;
};

std::vector<std::string> lines_of(std::string const& text) {
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1)
        lines.push_back(text.substr(begin, end + 1 - begin));
    return lines;
}

Job_Backend_Subject agent_subject() {
    auto const agent = std::make_shared<Whole_Agent>();
    std::string error;
    agent->database = Agent_Database::open(agent->directory.path("agent.db"), {JOB_TABLES}, error);
    EXPECT_TRUE(agent->database) << error;
    agent->jobs = std::make_unique<Agent_Jobs>(*agent->database,
                                               Agent_Jobs::Settings{agent->directory.path("logs")});
    auto const run = [agent](std::string const& id) {
        Job_Run found;
        EXPECT_TRUE(agent->jobs->find(id, found)) << id;
        return found;
    };
    return {std::shared_ptr<Job_Backend>(agent, agent->jobs.get()),
            [run](std::string const& id) { return run(id).state; },
            [run](std::string const& id) {
                Job_Run const found = run(id);
                return found.end_time
                           ? std::vector<Job_Outcome>{{found.state, found.code, found.message}}
                           : std::vector<Job_Outcome>();
            },
            [agent](std::string const& id) {
                std::vector<Run_Alert> found;
                EXPECT_TRUE(agent->jobs->alerts(id, found));
                std::vector<Job_Alert> alerts;
                for (Run_Alert const& row : found)
                    alerts.push_back(row.alert);
                return alerts;
            },
            [agent](std::string const& id) {
                return lines_of(agent->directory.read("logs/" + id + ".log"));
            }};
}

INSTANTIATE_TEST_SUITE_P(Agent, Job_Contract, testing::Values(agent_subject));

} // namespace
