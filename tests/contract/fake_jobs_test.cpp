#include "tests/contract/job_contract.h"
#include "tests/support/fake_jobs.h"

namespace {

Job_Backend_Subject fake_subject() {
    auto const jobs = std::make_shared<Fake_Jobs>();
    return {jobs->backend(), [jobs](std::string const& id) { return jobs->run(id).last_state; },
            [jobs](std::string const& id) { return jobs->run(id).outcomes; },
            [jobs](std::string const& id) { return jobs->run(id).alerts; },
            [jobs](std::string const& id) { return jobs->run(id).log_lines; }};
}

INSTANTIATE_TEST_SUITE_P(Fake, Job_Contract, testing::Values(fake_subject));

} // namespace
