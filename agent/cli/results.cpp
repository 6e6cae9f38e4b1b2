#include "agent/cli/results.h"

#include "json_spirit/text.h"

using json_spirit::Array;
using json_spirit::Object;

Array array_of(Object const& object, char const* key) {
    Array array;
    json_spirit::object_get(object, key, array);
    return array;
}

bool list_text(Command_Context& context, std::string const& method, Object const& params,
               std::string const& doing, char const* key, Table table, char const* none,
               std::string& text, Object* answer) {
    Object result;
    if (!context.ask(method, params, doing, result))
        return false;
    table.add(array_of(result, key));
    text = text_of_list(context, result, table, none);
    if (answer && !context.json())
        *answer = std::move(result);
    return true;
}

std::string text_of_list(Command_Context const& context, Object const& result, Table const& table,
                         char const* none) {
    if (context.json())
        return printable_json(json_spirit::to_text(result, true));
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
