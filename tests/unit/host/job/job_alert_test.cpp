#include "host/job/job_alert.h"

#include "host/agent/host_services.h"
#include "tests/support/fake_jobs.h"
#include "tests/support/log_capture.h"
#include "tests/unit/host/job/test_job.h"

#include <fstream>
#include <gtest/gtest.h>
#include <set>

namespace {

TEST(Job_Alert, reaches_the_back_end_with_its_text) {
    Fake_Jobs jobs;
    Job_var const job(new Test_Job(make_definition()), false);
    write_job_alert(job.get(), 7, 2, 0, json_spirit::Value("detail"), 4);
    ASSERT_EQ(1u, jobs.alerts().size());
    Job_Alert const alert = jobs.alerts()[0];
    EXPECT_EQ(7u, alert.level);
    EXPECT_EQ(2u, alert.code);
    EXPECT_EQ(0u, alert.detail_code);
    EXPECT_EQ(json_spirit::Value("detail"), alert.detail);
    EXPECT_EQ(4, alert.count);
    EXPECT_EQ("The backup set could not be committed to the catalog", alert.text);
}

TEST(Job_Alert, without_a_job_is_a_broken_precondition) {
    Fake_Jobs jobs;
    write_job_alert(nullptr, 7, 2, 0, json_spirit::Value::null, 1);
    EXPECT_CHECK_LOGGED("job is NULL");
    EXPECT_TRUE(jobs.alerts().empty());
}

TEST(Job_Alert, without_a_job_service_is_an_error_line) {
    Job_var const job(new Test_Job(make_definition()), false);
    write_job_alert(job.get(), 7, 2, 0, json_spirit::Value::null, 1);
    EXPECT_LOGGED(LM_ERROR, "No job service is installed for the alert \"The backup set could not");
}

TEST(Job_Alert, each_known_one_has_a_text_of_its_own) {
    std::set<std::string> texts = {job_alert_text(5, 5)};
    for (unsigned long code : {1, 2, 3, 4, 6, 7, 8, 9, 11})
        texts.insert(job_alert_text(7, code));
    EXPECT_EQ(10u, texts.size());
    for (std::string const& text : texts)
        EXPECT_NE(0u, text.find("Alert ")) << text;
}

/** All known alerts, as a row of the manual has them. */
std::set<std::string> rows_of_the_code() {
    constexpr unsigned long MOST = 1000;
    std::set<std::string> rows;
    for (unsigned long level = 0; level < 10; ++level)
        for (unsigned long code = 0; code < MOST; ++code)
            if (std::string const text = job_alert_text(level, code); !text.starts_with("Alert "))
                rows.insert("| " + text + " | " + job_alert_advice(level, code) + " |");
    return rows;
}

TEST(Job_Alert, the_manual_has_each_one_and_its_advice_word_for_word) {
    std::ifstream manual(ZENBRAK3_OPERATIONS);
    std::set<std::string> rows;
    bool is_table = false;
    for (std::string line; std::getline(manual, line);) {
        bool const is_head = line == "| alert | what to do |";
        is_table = is_head || (is_table && line.starts_with("|"));
        if (is_table && !is_head && line != "|---|---|")
            rows.insert(line);
    }
    EXPECT_EQ(rows_of_the_code(), rows);
    EXPECT_GT(rows.size(), 25u);
}

TEST(Job_Alert, an_unknown_one_has_the_advice_to_read_the_log) {
    EXPECT_EQ(job_alert_advice(7, ALERT_RUN_FAILED), job_alert_advice(7, 999));
    EXPECT_NE("", job_alert_advice(7, ALERT_RUN_FAILED));
}

TEST(Job_Alert, a_line_of_the_module_stands_for_one) {
    unsigned long level = 0;
    unsigned long code = 0;
    EXPECT_TRUE(find_alert_of_line("Failed to prepare pool p-1, no such pool\n", level, code));
    EXPECT_EQ(7u, level);
    EXPECT_EQ(107u, code);
    EXPECT_FALSE(find_alert_of_line("It failed to prepare pool p-1", level, code));
    EXPECT_FALSE(find_alert_of_line("", level, code));
    EXPECT_EQ(107u, code) << "unchanged";
}

TEST(Job_Alert, an_unknown_one_shows_its_numbers) {
    EXPECT_EQ("Alert 5 of level 7", job_alert_text(7, 5));
    EXPECT_EQ("Alert 10 of level 7", job_alert_text(7, 10));
    EXPECT_EQ("Alert 18446744073709551615 of level 0", job_alert_text(0, ULONG_MAX));
}

} // namespace
