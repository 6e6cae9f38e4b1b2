#include "agent/cli/guide.h"

#include "agent/cli/results.h"
#include "agent/cli/table.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

Object guide_answer(Command_Context& context, char const* method, Object const& params) {
    Value answer;
    return context.try_to_ask(method, params, answer) && answer.type() == json_spirit::obj_type
               ? answer.get_obj()
               : Object();
}

Array list_of_flavours(Command_Context& context) {
    return array_of(guide_answer(context, "guide.flavours", {}), "flavours");
}

Object flavour_of(Array const& flavours, int64_t number) {
    for (Object const& flavour : json_spirit::objects_of(flavours))
        if (number_of(flavour, "version", -1) == number)
            return flavour;
    return {};
}

std::string flavour_name(Array const& flavours, int64_t number) {
    std::string const name = json_spirit::object_get_str(flavour_of(flavours, number), "name");
    return name.empty() ? std::to_string(number) : name;
}

int list_flavours(Command_Context& context) {
    return context.show(0, [&](std::string& text) {
        return list_text(context, "guide.flavours", {}, "list the flavours", "flavours",
                         Table({{"FLAVOUR", "name"},
                                {"PROTECTED", "access"},
                                {"LEVELS", "levels"},
                                {"PARTS", "parts"},
                                {"RESTORES", "restores"},
                                {"NAME", "title"}}),
                         "No flavours.", text);
    });
}
