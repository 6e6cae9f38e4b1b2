#include "agent/cli/guide.h"

#include "agent/cli/results.h"
#include "agent/cli/table.h"

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

std::string joined(Object const& object, char const* key) {
    std::string text;
    Array const words = array_of(object, key);
    for (std::string const& word : json_spirit::strings_of(words))
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

} // namespace

Object guide_answer(Command_Context& context, char const* method, Object const& params) {
    Value answer;
    return context.try_to_ask(method, params, answer) && answer.type() == json_spirit::obj_type
               ? answer.get_obj()
               : Object();
}

Object flavour_of(Command_Context& context, int64_t number) {
    Array const flavours = array_of(guide_answer(context, "guide.flavours", {}), "flavours");
    for (Object const& flavour : json_spirit::objects_of(flavours))
        if (number_of(flavour, "version", -1) == number)
            return flavour;
    return {};
}

std::map<int64_t, std::string> flavour_names(Command_Context& context) {
    std::map<int64_t, std::string> names;
    Array const flavours = array_of(guide_answer(context, "guide.flavours", {}), "flavours");
    for (Object const& flavour : json_spirit::objects_of(flavours))
        names[number_of(flavour, "version", -1)] = json_spirit::object_get_str(flavour, "name");
    return names;
}

std::string flavour_name(std::map<int64_t, std::string> const& names, int64_t number) {
    auto const found = names.find(number);
    return found == names.end() ? std::to_string(number) : found->second;
}

int list_flavours(Command_Context& context) {
    Object answer;
    if (!context.ask("guide.flavours", Object(), "list the flavours", answer))
        return context.status();
    Table table({{"FLAVOUR", "name"},
                 {"PROTECTED", "access"},
                 {"LEVELS", "levels"},
                 {"PARTS", "parts"},
                 {"RESTORES", "restores"},
                 {"NAME", "title"}});
    Array const flavours = array_of(answer, "flavours");
    for (Object flavour : json_spirit::objects_of(flavours)) {
        for (char const* key : {"levels", "parts", "restores"})
            flavour[key] = joined(flavour, key);
        table.add(flavour);
    }
    context.print(text_of_list(context, answer, "flavours", table, "No flavours."));
    return EXIT_OK;
}
