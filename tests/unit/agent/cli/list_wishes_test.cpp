#include "agent/cli/list_wishes.h"
#include "agent/cli/table.h"
#include "tests/unit/agent/cli/command_run.h"

#include <gmock/gmock.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;
using testing::HasSubstr;

std::vector<Column> const COLUMNS{
    {"NAME", "name"},     {"USED", "used", Form::SIZE},       {"LAST SEEN", "seen", Form::TIME},
    {"ONLINE", "online"}, {"BACKUP", "uuid", Form::SHORT_ID}, {"FLAVOUR", "flavour", Form::WORD},
    {"ALERTS", "alerts"}};

Array const ROWS{Object{{"name", "b"},
                        {"used", 2048},
                        {"seen", 1795314600},
                        {"online", true},
                        {"uuid", "6f9619ff-8b86"},
                        {"flavour", "200"},
                        {"alerts", 10}},
                 Object{{"name", "a"},
                        {"used", 1024},
                        {"seen", 0},
                        {"online", false},
                        {"uuid", "77e1"},
                        {"flavour", "openGauss"},
                        {"alerts", 9}},
                 Object{{"name", ""}, {"used", Value()}, {"alerts", 0}}};

/** The names of the rows that are listed. */
std::string listed(List_Wishes const& wishes) {
    Table table(COLUMNS);
    std::string error, names;
    if (!table.choose(wishes, error))
        return error;
    table.add(ROWS);
    Array const rows = table.rows();
    for (Object const& row : json_spirit::objects_of(rows))
        names += json_spirit::object_get_str(row, "name") + ".";
    return names;
}
std::string filtered(std::vector<std::string> const& filters) {
    return listed({{}, {}, filters, {}});
}
std::string sorted(std::vector<std::string> const& orders) {
    return listed({{}, orders, {}, {}});
}

TEST(List_Filters, texts_are_equal_or_contained) {
    EXPECT_EQ("b.", filtered({"name=b"}));
    EXPECT_EQ("a..", filtered({"name!=b"}));
    EXPECT_EQ("a.", filtered({"NAME~a"}));
    EXPECT_EQ(".", filtered({"name="})) << "no value";
    EXPECT_EQ("b.a.", filtered({"name!="}));
    EXPECT_EQ("", filtered({"name=B"}));
}

TEST(List_Filters, sizes_times_and_numbers_are_compared_as_such) {
    EXPECT_EQ("b.", filtered({"used>1KiB"}));
    EXPECT_EQ("b.a.", filtered({"used>=1KiB"}));
    EXPECT_EQ("a.", filtered({"used<2048"}));
    EXPECT_EQ("b.a.", filtered({"used<=2KiB"}));
    EXPECT_EQ("a.", filtered({"used=1k"}));
    EXPECT_EQ("b.", filtered({"last-seen>2026-11-22T02:00:00Z"}));
    EXPECT_EQ("", filtered({"last-seen<2026-11-22T02:00:00Z"})) << "no time is not early";
    EXPECT_EQ("b.", filtered({"alerts>9"})) << "not as texts";
    EXPECT_EQ("b.a.", filtered({"alerts!=0"}));
}

TEST(List_Filters, ids_flags_and_flavours) {
    EXPECT_EQ("b.", filtered({"backup=6f96"}));
    EXPECT_EQ("a..", filtered({"backup!=6f96"}));
    EXPECT_EQ("b.", filtered({"online=yes"}));
    EXPECT_EQ("a.", filtered({"online=NO"}));
    EXPECT_EQ("a.", filtered({"flavour=opengauss"}));
    EXPECT_EQ("b.", filtered({"flavour=200"}));
}

TEST(List_Filters, all_of_them_must_match) {
    EXPECT_EQ("b.", filtered({"alerts>=9", "online=yes"}));
    EXPECT_EQ("", filtered({"name=a", "name=b"}));
}

TEST(List_Filters, what_is_wrong_is_named) {
    EXPECT_EQ("unknown column 'usd' (expected name, used, last-seen, online, backup, flavour, "
              "alerts). Did you mean 'used'?",
              filtered({"usd>1"}));
    for (char const* const text : {"", "name", "=b", "name!b", "~", "<", "name:b"})
        EXPECT_THAT(filtered({text}), HasSubstr("invalid filter '" + std::string(text) + "'"))
            << text;
    EXPECT_THAT(filtered({"used>much"}), HasSubstr("column used is compared with a size"));
    EXPECT_THAT(filtered({"used>" + std::string(309, '9')}), HasSubstr("with a size"));
    EXPECT_THAT(filtered({"last_seen=yesterday"}),
                HasSubstr("column last-seen is compared with a time"));
    EXPECT_THAT(filtered({std::string(5000, 'x')}).size(), testing::Lt(500u));
}

TEST(List_Orders, numbers_texts_and_both_directions) {
    EXPECT_EQ("a.b..", sorted({"used"})) << "without a value last";
    EXPECT_EQ("b.a..", sorted({"used:desc"})) << "without a value last again";
    EXPECT_EQ("a.b..", sorted({"name:asc"}));
    EXPECT_EQ(".a.b.", sorted({"alerts"}));
    EXPECT_EQ("b.a..", sorted({})) << "as answered";
}

TEST(List_Orders, the_first_counts_and_then_the_next) {
    Table table(COLUMNS);
    std::string error;
    ASSERT_TRUE(table.choose({{"name"}, {"online", "name:desc"}, {}, {}}, error)) << error;
    for (char const* const name : {"a", "b", "c"})
        table.add(Object{{"name", name}, {"online", std::string(name) == "a"}});
    EXPECT_EQ("NAME\nc\nb\na\n", table.text({false, true, 80}));
    EXPECT_THAT(sorted({"size"}), HasSubstr("unknown column 'size'"));
    EXPECT_THAT(sorted({"used:up"}), HasSubstr("invalid order 'used:up'"));
}

TEST(List_Limits, count_what_is_left) {
    EXPECT_EQ("a.", listed({{}, {"used"}, {}, 1}));
    EXPECT_EQ("a.", listed({{}, {}, {"online=no"}, 1})) << "of those that match";
    EXPECT_EQ("b.a..", listed({{}, {}, {}, 0})) << "all";
}

class List_Commands_Test : public Command_Run {
protected:
    List_Commands_Test() {
        agent_.answers(
            "pool.list",
            Object{{"pools", Array{Object{{"name", "main"}, {"uuid", "p-1"}, {"used", 5}},
                                   Object{{"name", "old"}, {"uuid", "p-2"}, {"used", 9}}}}});
        Array jobs;
        for (int number = 0; number < 150; ++number)
            jobs.emplace_back(Object{{"run_id", std::to_string(number)},
                                     {"state", number == 120 ? "error" : "completed"},
                                     {"start_time", 1795314600},
                                     {"end_time", 1795314600 + number}});
        agent_.answers("job.list", Object{{"jobs", jobs}});
    }
    Value sent(std::string const& key) const {
        return agent_.calls.back().second.get_obj().at(key);
    }
};

TEST_F(List_Commands_Test, columns_and_rows_are_chosen) {
    EXPECT_EQ(EXIT_OK, run({"pools", "--columns", "uuid,NAME", "--sort", "used:desc"}));
    EXPECT_EQ("UUID  NAME\np-2   old\np-1   main\n", out_);
    EXPECT_EQ(EXIT_OK, run({"pools", "--columns", "name", "--filter", "used<6"}));
    EXPECT_EQ("NAME\nmain\n", out_);
    EXPECT_EQ(EXIT_OK, run({"pools", "--filter", "used<6", "--json"}));
    EXPECT_THAT(out_, HasSubstr("\"main\""));
    EXPECT_THAT(out_, testing::Not(HasSubstr("\"old\"")));
}

TEST_F(List_Commands_Test, every_list_knows_its_columns_before_anybody_is_asked) {
    std::vector<std::vector<char const*>> const lists{{"pools"},
                                                      {"instances"},
                                                      {"members"},
                                                      {"backups"},
                                                      {"jobs"},
                                                      {"definitions"},
                                                      {"databases", "prod", "--uid", "u"},
                                                      {"schemas", "prod", "db", "--uid", "u"}};
    for (std::vector<char const*> line : lists) {
        line.insert(line.end(), {"--columns", "nonsense"});
        EXPECT_EQ(EXIT_USAGE, run(line)) << line.front();
        EXPECT_THAT(err_, HasSubstr("zenbrak3: unknown column 'nonsense' (expected "))
            << line.front();
    }
    EXPECT_TRUE(agent_.calls.empty());
    EXPECT_EQ(EXIT_USAGE, run({"pools", "--columns", "name", "--json"}));
    EXPECT_THAT(err_, HasSubstr("cannot be combined with --json"));
}

TEST_F(List_Commands_Test, a_list_that_is_cut_says_so) {
    EXPECT_EQ(EXIT_OK, run({"jobs", "--columns", "job"}));
    EXPECT_EQ(101, std::count(out_.begin(), out_.end(), '\n'));
    EXPECT_EQ("Only the newest 100 are listed; --limit 0 lists all.\n", err_);
    EXPECT_EQ(Value(101), sent("limit"));
    EXPECT_EQ(EXIT_OK, run({"jobs", "--limit", "0"}));
    EXPECT_EQ(151, std::count(out_.begin(), out_.end(), '\n'));
    EXPECT_EQ("", err_);
    EXPECT_EQ(Value(10000), sent("limit"));
    run({"jobs", "--limit", "7"});
    EXPECT_EQ(Value(7), sent("limit"));
}

TEST_F(List_Commands_Test, a_filter_looks_at_all_rows) {
    EXPECT_EQ(EXIT_OK,
              run({"jobs", "--filter", "state=error", "--columns", "job", "--limit", "1"}));
    EXPECT_EQ("JOB\n120\n", out_);
    EXPECT_EQ(Value(10000), sent("limit"));
    EXPECT_EQ(EXIT_OK,
              run({"jobs", "--sort", "took:desc", "--limit", "1", "--columns", "job,took"}));
    EXPECT_EQ("JOB  TOOK\n149  2:29\n", out_);
}

TEST_F(List_Commands_Test, numbers_are_bounded_and_the_message_is_short) {
    std::string const huge(309, '9');
    std::string const level = "zstd:" + huge;
    std::string const port = "h:" + huge;
    std::vector<std::vector<char const*>> const lines{
        {"jobs", "--limit", huge.c_str()},
        {"jobs", "--limit", "-1"},
        {"jobs", "--limit", "1e3"},
        {"jobs", "--limit", ""},
        {"jobs", "--limit", " 1"},
        {"jobs", "--watch", huge.c_str()},
        {"jobs", "--watch", "inf"},
        {"jobs", "--watch", "nan"},
        {"backup", "prod", "--pool", "p", "--channels", huge.c_str()},
        {"backup", "prod", "--pool", "p", "--channels", "0"},
        {"backup", "prod", "--pool", "p", "--interval", huge.c_str()},
        {"pool", "create", "p", "/p", "--limit", huge.c_str()},
        {"pool", "create", "p", "/p", "--compression", level.c_str()},
        {"instance", "add", "x", "--backup-port", huge.c_str()},
        {"platform", "list", port.c_str(), "--user", "u"}};
    for (auto const& line : lines) {
        EXPECT_EQ(EXIT_USAGE, run(line)) << line[0] << line[2] << err_;
        EXPECT_THAT(err_.size(), testing::Lt(400u)) << err_;
        EXPECT_EQ(std::string::npos, err_.find("00000000000")) << err_;
    }
    EXPECT_TRUE(agent_.calls.empty());
}

TEST_F(List_Commands_Test, times_in_json_are_iso_8601) {
    run({"jobs", "--limit", "1", "--json"});
    EXPECT_THAT(out_, HasSubstr("\"start_time\": \"2026-11-22T02:30:00Z\""));
    agent_.answers("job.show",
                   Object{{"end_time", 0}, {"alert_list", Array{Object{{"time", 1795314600}}}}});
    run({"job", "show", "x", "--json"});
    EXPECT_THAT(out_, HasSubstr("\"end_time\": null"));
    EXPECT_THAT(out_, HasSubstr("\"time\": \"2026-11-22T02:30:00Z\""));
}

} // namespace
