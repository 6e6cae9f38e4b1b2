// Who has changed what.
#include "agent/cli/commands.h"
#include "agent/cli/results.h"

#include <ctime>

namespace {

constexpr int USUAL_CHANGES = 100; ///< rows of a list without --limit
constexpr int MOST_CHANGES = 100'000;

} // namespace

int list_audit(Command_Context& context, Audit_Filter const& filter) {
    constexpr int64_t DAY = 24 * 60 * 60;
    json_spirit::Object params;
    json_spirit::insert(params)("user", json_spirit::Skip_Empty_Helper(filter.user))(
        "subject", json_spirit::Skip_Empty_Helper(filter.subject));
    params["limit"] = rows_to_ask(context, USUAL_CHANGES, MOST_CHANGES);
    if (filter.days > 0)
        params["since"] = int64_t{time(nullptr)} - filter.days * DAY;
    return context.show(0, [&](std::string& text) {
        json_spirit::Object result;
        Table table({{"TIME", "time", Form::TIME},
                     {"USER", "user"},
                     {"LOGIN", "login"},
                     {"FROM", "address"},
                     {"CHANGE", "method"},
                     {"OF", "subject"},
                     {"OUTCOME", "outcome"}});
        if (!choose(context, table) ||
            !context.ask("audit.list", params, "list the changes", result))
            return false;
        json_spirit::Array changes = array_of(result, "changes");
        cut_to_usual(context, USUAL_CHANGES, changes);
        for (json_spirit::Object const& change : json_spirit::objects_of(changes))
            table.add(change);
        text = text_of_list(context, result, "changes", table, "No changes on record.");
        return true;
    });
}
