#include "agent/cli/table.h"

#include <gtest/gtest.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;

class Table_Test : public testing::Test {
protected:
    Table_Test() {
        init_terminal_locale();
        table_.add(Array{Object{{"name", "prod"}, {"size", 1536}, {"url", "file:///backups/main"}},
                         Object{{"name", "数据库"}, {"size", 10}}, "no row"});
    }
    static Terminal screen(size_t width, bool utf8 = true) { return {true, utf8, width}; }

    Table table_{{{"NAME", "name"}, {"SIZE", "size", Form::SIZE}, {"URL", "url"}}};
};

TEST_F(Table_Test, columns_are_aligned_and_numbers_stand_at_the_right) {
    EXPECT_EQ("NAME       SIZE  URL\n"
              "prod    1.5 KiB  file:///backups/main\n"
              "数据库     10 B  -\n",
              table_.text({false, true, 10}))
        << "what is not for a person is not cut";
}

TEST_F(Table_Test, on_a_terminal_the_widest_text_is_cut) {
    EXPECT_EQ("NAME       SIZE  URL\n"
              "prod    1.5 KiB  file:///backup…\n"
              "数据库     10 B  -\n",
              table_.text(screen(32)));
    EXPECT_EQ("NAME       SIZE  URL\n"
              "prod    1.5 KiB  file:///back...\n"
              "数据库     10 B  -\n",
              table_.text(screen(32, false)));
}

TEST_F(Table_Test, what_fits_exactly_is_not_cut) {
    EXPECT_EQ(std::string::npos, table_.text(screen(37)).find("…"));
    EXPECT_NE(std::string::npos, table_.text(screen(36)).find("…"));
}

TEST_F(Table_Test, numbers_are_never_cut_and_no_column_vanishes) {
    EXPECT_EQ("NAME     SIZE  URL\n"
              "prod  1.5 KiB  fil…\n"
              "数…      10 B  -\n",
              table_.text(screen(1)));
}

TEST_F(Table_Test, without_rows_there_are_titles) {
    EXPECT_EQ("NAME  SIZE\n", Table({{"NAME", "name"}, {"SIZE", "size"}}).text({false, true, 80}));
}

TEST_F(Table_Test, a_cell_cannot_break_its_line) {
    Table table({{"A", "a"}, {"B", "b"}});
    table.add(Object{{"a", "x\ny"}, {"b", "\x1b[1m"}});
    EXPECT_EQ("A     B\nx\\ny  \\x1b[1m\n", table.text({true, true, 80}));
}

TEST_F(Table_Test, fields_in_their_order_then_the_rest_under_its_own_name) {
    Object const object{
        {"uuid", "u1"}, {"size", 1024}, {"extra\n", true}, {"hidden", 1}, {"other", "x"}};
    EXPECT_EQ("Size:     1.0 KiB\n"
              "UUID:     u1\n"
              "extra\\n:  yes\n"
              "other:    x\n",
              fields_text(object,
                          {{"Size", "size", Form::SIZE}, {"UUID", "uuid"}, {"Missing", "missing"}},
                          {"hidden"}));
}

} // namespace
