#include "gaussdb/common/gaussdb_cmd_handler.h"

#include "tests/support/database_tools.h"
#include "tests/support/log_capture.h"
#include "tests/support/recorded_output.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

void feed(Text_Process_Handler& handler, std::vector<std::string> const& lines) {
    for (std::string const& line : lines)
        EXPECT_EQ(0, handler.handle_stdout_line(line.data(), line.size()));
}

struct State {
    explicit State(std::vector<std::string> const& lines, bool before = false) : balanced(before) {
        GS_OM_Line_Handler handler(status, balanced);
        feed(handler, lines);
    }
    std::string status;
    bool balanced;
};

TEST(GS_OM_Line_Handler, the_state_is_the_rest_of_its_line) {
    EXPECT_EQ("Normal", State({"cluster_state   : Normal"}).status);
    EXPECT_EQ("Normal ", State({"cluster_state : Normal "}).status);
    EXPECT_EQ("", State({"cluster_state: Normal"}).status);
}

TEST(GS_OM_Line_Handler, yes_and_true_are_balanced) {
    EXPECT_TRUE(State({"balanced    : Yes"}).balanced);
    EXPECT_TRUE(State({"balanced : true"}).balanced);
    EXPECT_TRUE(State({"balanced : Yes, all"}).balanced);
}

TEST(GS_OM_Line_Handler, anything_else_is_not_balanced) {
    for (char const* const value : {"No", "yes", "True", "Ye", "tru", "false"})
        EXPECT_FALSE(State({std::string("balanced : ") + value}, true).balanced) << value;
}

TEST(GS_OM_Line_Handler, without_a_line_the_caller_keeps_what_it_had) {
    EXPECT_TRUE(State({"nothing"}, true).balanced);
    EXPECT_FALSE(State({"nothing"}, false).balanced);
}

TEST(GS_OM_Line_Handler, a_later_line_replaces_an_earlier_one) {
    State const state(
        {"cluster_state : Normal", "balanced : Yes", "cluster_state : Degraded", "balanced : No"});
    EXPECT_EQ("Degraded", state.status);
    EXPECT_FALSE(state.balanced);
}

TEST(GS_OM_Line_Handler, a_line_with_the_state_is_not_looked_at_for_the_balance) {
    EXPECT_FALSE(State({"cluster_state : balanced : Yes"}).balanced);
}

TEST(GS_OM_Line_Handler, takes_no_line_and_an_empty_one_for_none) {
    State const state({""}, true);
    EXPECT_EQ("", state.status);
    std::string status;
    bool balanced = true;
    EXPECT_EQ(0, GS_OM_Line_Handler(status, balanced).handle_stdout_line(nullptr, 0));
    EXPECT_TRUE(balanced);
}

struct Recorded_State {
    char const* name;
    char const* status;
    int balanced; ///< -1 when the output does not tell it
};

/** Every recorded output is in the table, so that a new one is looked at. */
void expect_recorded_states(char const* tool, std::vector<Recorded_State> const& expected) {
    EXPECT_EQ(expected.size(), Recorded_Output::all(tool).size());
    for (Recorded_State const& state : expected) {
        std::vector<std::string> const lines =
            Recorded_Output::load(std::string(tool) + "/" + state.name + ".txt").lines();
        State const from_true(lines, true);
        State const from_false(lines, false);
        EXPECT_EQ(state.status, from_true.status) << state.name;
        EXPECT_EQ(state.balanced != 0, from_true.balanced) << state.name;
        EXPECT_EQ(state.balanced == 1, from_false.balanced) << state.name;
    }
}

TEST(GS_OM_Line_Handler, reads_every_recorded_output_of_gs_om) {
    expect_recorded_states("gs_om", {
                                        {"doc-2.1.0-detail-with-cm-balanced", "Normal", 1},
                                        {"doc-2.1.0-detail-without-cm", "Normal", -1},
                                        {"doc-5.0.0-detail-trailing-space", "Normal ", -1},
                                        {"opengauss-2.0.1-short-and-detail", "Normal", -1},
                                        {"opengauss-detail-3nodes-normal", "Normal", -1},
                                        {"opengauss-detail-all-stopped", "Unavailable", -1},
                                        {"opengauss-detail-degraded", "Degraded", -1},
                                        {"opengauss-h-primary-node", "Normal", -1},
                                        {"opengauss-h-standby-node", "Normal", -1},
                                        {"opengauss-one-space-degraded", "Degraded", -1},
                                        {"opengauss-short-normal-missing-rule", "Normal", -1},
                                        {"opengauss-short-unavailable", "Unavailable", -1},
                                        {"opengauss-start", "", -1},
                                    });
}

TEST(GS_OM_Line_Handler, reads_every_recorded_output_of_cm_ctl) {
    expect_recorded_states("cm_ctl", {
                                         {"query-array-nic-down-not-balanced", "Degraded", 0},
                                         {"query-cluster-state-pausing", "Normal", 1},
                                         {"query-om_monitor-not-balanced", "Degraded", 0},
                                         {"query-shared-memory-not-balanced", "Unavailable", 0},
                                     });
}

GaussDB_Version version_of(std::vector<std::string> const& lines) {
    GaussDB_Version version(GAUSSDB_UNKNOWN, 0, 7, 9);
    GS_CHECK_Line_Handler handler(version);
    feed(handler, lines);
    return version;
}

TEST(GS_CHECK_Line_Handler, knows_the_100_series) {
    EXPECT_EQ(GaussDB_Version(GAUSSDB_100, 503, 1, 0),
              version_of({"gs_check GaussDB_100_503.1.0"}));
    EXPECT_LOGGED(LM_DEBUG, "Detected GaussDB 100\n");
    EXPECT_LOGGED(LM_INFO, "gs_check GaussDB_100_503.1.0\n");
}

TEST(GS_CHECK_Line_Handler, the_older_200_series_is_6_and_its_other_numbers_stay) {
    EXPECT_EQ(GaussDB_Version(GAUSSDB_200, 6, 7, 9),
              version_of({"gs_check (GaussDB Kernel V500R001C20 build abc"}));
    EXPECT_LOGGED(LM_DEBUG, "Detected GaussDB 200\n");
}

TEST(GS_CHECK_Line_Handler, a_kernel_with_numbers_behind_its_word_is_still_the_200_series) {
    EXPECT_EQ(GaussDB_Version(GAUSSDB_200, 6, 7, 9),
              version_of({"gs_check (GaussDB Kernel V500R002C10 build 1.2.3)"}));
}

TEST(GS_CHECK_Line_Handler, the_form_a_is_the_200_series_with_its_numbers) {
    EXPECT_EQ(GaussDB_Version(GAUSSDB_200, 8, 1, 1),
              version_of({"gs_check (GaussDB 8.1.1 build 1234) compiled at"}));
    EXPECT_LOGGED(LM_DEBUG, "Detected GaussDB A\n");
}

TEST(GS_CHECK_Line_Handler, knows_the_opengauss_flavour_and_says_nothing_about_it) {
    EXPECT_EQ(GaussDB_Version(GAUSSDB_FOR_OPENGAUSS, 505, 1, 0),
              version_of({"gs_check (GaussDB Kernel 505.1.0 build"}));
    EXPECT_NOT_LOGGED("Detected");
}

TEST(GS_CHECK_Line_Handler, knows_the_kernel_of_a_later_release) {
    EXPECT_EQ(GaussDB_Version(GAUSSDB_FOR_OPENGAUSS, 505, 2, 1),
              version_of({"gs_check (GaussDB Kernel om 505.2.1.SPC1000 build demo)"}));
}

TEST(GS_CHECK_Line_Handler, an_unknown_line_changes_nothing_and_is_told) {
    EXPECT_EQ(GaussDB_Version(GAUSSDB_UNKNOWN, 0, 7, 9), version_of({"command not found"}));
    EXPECT_LOGGED(LM_ERROR, "Unrecognized GaussDB version\n");
    EXPECT_LOGGED(LM_INFO, "command not found\n");
}

TEST(GS_CHECK_Line_Handler, a_further_unknown_line_does_no_harm) {
    EXPECT_EQ(GaussDB_Version(GAUSSDB_200, 8, 1, 1),
              version_of({"", "gs_check (GaussDB 8.1.1 build 1", "more"}));
    EXPECT_LOGGED(LM_ERROR, "Unrecognized GaussDB version\n");
}

TEST(GS_CHECK_Line_Handler, takes_no_line_for_none) {
    GaussDB_Version version(GAUSSDB_UNKNOWN, 0, 0, 0);
    EXPECT_EQ(0, GS_CHECK_Line_Handler(version).handle_stdout_line(nullptr, 0));
}

/** The name of the tool is put before what the others of the family print about themselves. */
TEST(GS_CHECK_Line_Handler, of_the_recorded_version_lines_none_is_known) {
    size_t count = 0;
    for (Recorded_Output const& output : Recorded_Output::all("version"))
        for (std::string const& line : output.lines()) {
            size_t const bracket = line.find('(');
            if (bracket == std::string::npos)
                continue;
            GaussDB_Version const version = version_of({"gs_check " + line.substr(bracket)});
            EXPECT_EQ(GAUSSDB_UNKNOWN, version.model_) << output.name << ": " << line;
            EXPECT_LOGGED(LM_ERROR, "Unrecognized GaussDB version\n") << output.name;
            ++count;
        }
    EXPECT_EQ(19u, count);
}

std::string last_line_of(std::vector<std::string> const& lines) {
    std::string result = "before";
    Normal_Line_Handler handler(result);
    feed(handler, lines);
    return result;
}

TEST(Normal_Line_Handler, keeps_the_last_line_that_is_not_empty) {
    EXPECT_EQ("omm", last_line_of({"Last login: Mon", "", "omm", ""}));
    EXPECT_EQ("before", last_line_of({"", ""}));
    std::string result = "before";
    EXPECT_EQ(0, Normal_Line_Handler(result).handle_stdout_line(nullptr, 0));
    EXPECT_EQ("before", result);
}

uint16_t port_of(std::vector<std::string> const& lines) {
    uint16_t port = 0;
    GS_GUC_Line_Handler handler(port);
    feed(handler, lines);
    return port;
}

TEST(GS_GUC_Line_Handler, reads_the_port_with_and_without_quotes) {
    EXPECT_EQ(5432, port_of({"port=5432"}));
    EXPECT_EQ(5432, port_of({"    port='5432'"}));
    EXPECT_EQ(0, port_of({"port = 5432"}));
}

TEST(GS_GUC_Line_Handler, the_first_port_counts) {
    EXPECT_EQ(1, port_of({"expected guc information: n: port=NULL: [/d]", "port=1", "port=2"}));
}

TEST(GS_GUC_Line_Handler, the_largest_port_is_one) {
    EXPECT_EQ(65535, port_of({"port=65535", "port=1"}));
}

TEST(GS_GUC_Line_Handler, a_port_out_of_range_is_passed_over) {
    EXPECT_EQ(8000, port_of({"port=65536", "port=99999999999999999999999", "port=0", "port=8000"}));
}

TEST(GS_GUC_Line_Handler, no_port_is_0) {
    EXPECT_EQ(0, port_of({"There is no instance.", ""}));
    uint16_t port = 0;
    EXPECT_EQ(0, GS_GUC_Line_Handler(port).handle_stdout_line(nullptr, 0));
}

TEST(GS_GUC_Line_Handler, the_recorded_outputs_ask_for_other_things_and_have_no_port) {
    for (Recorded_Output const& output : Recorded_Output::all("gs_guc"))
        EXPECT_EQ(0, port_of(output.lines())) << output.name;
}

/** No run for the port is published; this is a recorded one with the other parameter's name. */
TEST(GS_GUC_Line_Handler, reads_the_recorded_form_of_a_value) {
    std::vector<std::string> lines =
        Recorded_Output::load("gs_guc/check-one-instance-number.txt").lines();
    for (std::string& line : lines)
        if (size_t const at = line.find("wal_keep_segments"); at != std::string::npos)
            line.replace(at, 17, "port");
    EXPECT_EQ(1024, port_of(lines));
}

int count_of(std::vector<std::string> const& lines, int before = 0) {
    int32_t count = before;
    Node_Count_Line_Handler handler(count);
    feed(handler, lines);
    return count;
}

TEST(Node_Count_Line_Handler, reads_a_line_of_its_own_alone) {
    EXPECT_EQ(3, count_of({"NodeHeader:", "version:300", "nodeCount:3", "node:1"}));
    EXPECT_EQ(0, count_of({"nodeCount:3 "}));
    EXPECT_EQ(0, count_of({" nodeCount:3"}));
    EXPECT_EQ(0, count_of({"datanodeCount :2", "nodeCount :3", "nodeCount: 3"}));
}

TEST(Node_Count_Line_Handler, the_first_count_that_is_not_0_counts) {
    EXPECT_EQ(3, count_of({"nodeCount:0", "nodeCount:3", "nodeCount:4"}));
    EXPECT_EQ(7, count_of({"nodeCount:3"}, 7));
}

TEST(Node_Count_Line_Handler, a_count_out_of_range_is_passed_over) {
    EXPECT_EQ(5, count_of({"nodeCount:2147483648", "nodeCount:5"}));
    EXPECT_EQ(2147483647, count_of({"nodeCount:2147483647"}));
}

TEST(Node_Count_Line_Handler, takes_no_line_for_none) {
    int32_t count = 0;
    EXPECT_EQ(0, Node_Count_Line_Handler(count).handle_stdout_line(nullptr, 0));
    EXPECT_EQ(0, count);
}

TEST(Node_Count_Line_Handler, the_recorded_outputs_are_of_another_command_and_have_no_count) {
    for (Recorded_Output const& output : Recorded_Output::all("cm_ctl"))
        EXPECT_EQ(0, count_of(output.lines())) << output.name;
}

TEST(Check_Address, takes_names_and_addresses) {
    for (char const* const address :
         {"10.0.0.1", "node-1.example", "fe80::1%eth0", "omm@node", "[::1]", "/var/run/socket"})
        EXPECT_TRUE(check_address(address)) << address;
}

TEST(Check_Address, refuses_what_would_bring_an_option) {
    for (char const* const address : {"", "-oProxyCommand=x", "-", "host -oProxyCommand=x", " host",
                                      "host\n-x", "'host'", "h\"ost", "h\\ost", "ho'st"}) {
        EXPECT_FALSE(check_address(address)) << address;
        EXPECT_LOGGED(LM_ERROR, "Invalid address '" + std::string(address) + "', nothing is run\n");
    }
}

} // namespace
