#include "agent/cli/results.h"

#include "agent/cli/json_times.h"
#include "json_spirit/text.h"

#include <algorithm>

using json_spirit::Array;
using json_spirit::Object;

Array array_of(Object const& object, char const* key) {
    Array array;
    json_spirit::object_get(object, key, array);
    return array;
}

std::string json_text(json_spirit::Value const& value) {
    std::string text = json_spirit::to_text(with_iso_times(value), true);
    if (!text.ends_with('\n'))
        text += '\n';
    return printable_json(text);
}

bool list_text(Command_Context& context, std::string const& method, Object const& params,
               std::string const& doing, char const* key, Table table, char const* none,
               std::string& text) {
    Object result;
    if (!choose(context, table) || !context.ask(method, params, doing, result))
        return false;
    table.add(array_of(result, key));
    text = text_of_list(context, result, key, table, none);
    return true;
}

bool choose(Command_Context& context, Table& table) {
    std::string error;
    if (table.choose(context.list(), error))
        return true;
    context.fail(EXIT_USAGE, error);
    return false;
}

int64_t rows_to_ask(Command_Context const& context, int64_t usual, int64_t most) {
    List_Wishes const& list = context.list();
    if (list.choose_rows() || list.limit == 0)
        return most;
    return std::min(list.limit ? *list.limit : usual + 1, most);
}

void cut_to_usual(Command_Context const& context, size_t usual, Array& rows) {
    List_Wishes const& list = context.list();
    if (list.choose_rows() || list.limit || rows.size() <= usual)
        return;
    rows.resize(usual);
    Command_Context::tell("Only the newest " + std::to_string(usual) +
                          " are listed; --limit 0 lists all.\n");
}

std::string text_of_list(Command_Context const& context, Object result, char const* key,
                         Table const& table, char const* none) {
    if (context.json()) {
        result[key] = table.rows();
        return json_text(result);
    }
    // what reads a pipe gets a table without rows
    return table.empty() && context.terminal().interactive ? std::string(none) + "\n"
                                                           : table.text(context.terminal());
}

bool is_known(Command_Context& context, std::string const& kind, std::string const& name,
              std::string const& doing) {
    Object ignored;
    return name.empty() || context.ask(kind + ".show", Object{{kind, name}}, doing, ignored,
                                       "`zenbrak3 " + kind + "s` lists the " + kind + "s.");
}

int show_object(Command_Context& context, Object const& object, std::vector<Column> const& fields,
                std::vector<std::string> const& left_out) {
    if (context.json())
        context.print_json(object);
    else
        context.print(fields_text(object, fields, left_out));
    return EXIT_OK;
}

int done(Command_Context& context, Object const& result, std::string const& what) {
    if (context.json())
        context.print_json(result);
    else
        context.print(printable(what) + "\n");
    return EXIT_OK;
}
