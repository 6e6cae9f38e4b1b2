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
    if (context.json()) {
        text = printable_json(json_spirit::to_text(result, true));
        return true;
    }
    table.add(array_of(result, key));
    // what reads a pipe gets a table without rows
    text = table.empty() && context.terminal().interactive ? std::string(none) + "\n"
                                                           : table.text(context.terminal());
    if (answer)
        *answer = std::move(result);
    return true;
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
