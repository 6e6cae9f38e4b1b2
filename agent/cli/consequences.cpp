#include "agent/cli/consequences.h"

#include "agent/cli/guide.h"
#include "agent/cli/text_form.h"

#include <algorithm>
#include <set>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::object_get_str;
using json_spirit::Value;

namespace {

constexpr char UNKNOWN[] = "unknown";

/** An answer's list; empty when there is none. */
Array list_of(Command_Context& context, char const* method, Object const& params, char const* key) {
    Value result;
    Array list;
    if (context.try_to_ask(method, params, result) && result.type() == json_spirit::obj_type)
        json_spirit::object_get(result.get_obj(), key, list);
    return list;
}

/** The row of a list that has one of these values. */
Object row_of(Array const& list, std::initializer_list<char const*> keys,
              std::string const& value) {
    for (Object const& row : json_spirit::objects_of(list))
        for (char const* const key : keys)
            if (object_get_str(row, key) == value)
                return row;
    return {};
}

std::string text_or_unknown(std::string const& text) {
    return text.empty() ? UNKNOWN : printable(text);
}

/** At most so many, newest first. */
Array backups_of(Command_Context& context, std::string const& instance, int limit = 100000) {
    return list_of(context, "backup.list", {{"instance", instance}, {"limit", limit}}, "backups");
}

std::string set_text(Object const& set) {
    int64_t const size = number_of(set, "backup_set_size");
    return printable(object_get_str(set, "uuid")) + ", " +
           text_or_unknown(object_get_str(set, "type")) + ", of " +
           age_text(number_of(set, "backup_end_time")) +
           (size > 0 ? ", " + size_text(static_cast<uint64_t>(size)) : "");
}

std::string state_text(Command_Context& context, std::string const& instance) {
    Value shown;
    std::string state;
    if (context.try_to_ask("instance.show", Object{{"instance", instance}}, shown) &&
        shown.type() == json_spirit::obj_type)
        state = object_get_str(shown.get_obj(), "state");
    return state == "Normal" ? "Normal: it is running and healthy" : text_or_unknown(state);
}

std::string newest_text(Array const& backups, std::string const& uuid) {
    auto const rows = json_spirit::objects_of(backups);
    if (rows.begin() == rows.end())
        return "none";
    Object const& newest = *rows.begin();
    return age_text(number_of(newest, "backup_end_time")) +
           (object_get_str(newest, "uuid") == uuid ? ", this one" : "");
}

/** What the agent's module says is lost: its words instead of the usual ones, and its lines. */
void add_loss(Object const& said, char const* member, std::string* what_is_lost,
              Consequences& result) {
    Object loss;
    if (!json_spirit::object_get(said, member, loss)) {
        result.lines.emplace_back("Besides", "unknown: the agent's module does not say it");
        return;
    }
    if (std::string const title = object_get_str(loss, "title"); !title.empty())
        result.title = printable(title);
    if (std::string const lost = object_get_str(loss, "lost"); what_is_lost && !lost.empty())
        *what_is_lost = printable(lost);
    Array lines;
    json_spirit::object_get(loss, "lines", lines);
    for (Object const& line : json_spirit::objects_of(lines))
        result.lines.emplace_back(printable(object_get_str(line, "label")),
                                  printable(object_get_str(line, "text")));
}

/** The sets that build on one, directly or not, with it. */
std::set<std::string> with_dependents(Array const& backups, Object const& set) {
    std::set<std::string> uuids{object_get_str(set, "uuid")};
    std::set<std::string> keys{object_get_str(set, "backup_key")};
    for (size_t before = 0; before != uuids.size();) {
        before = uuids.size();
        for (Object const& other : json_spirit::objects_of(backups)) {
            std::string const prior = object_get_str(other, "prior_backup_key");
            if (!prior.empty() && keys.contains(prior) &&
                uuids.insert(object_get_str(other, "uuid")).second)
                keys.insert(object_get_str(other, "backup_key"));
        }
    }
    return uuids;
}

constexpr size_t LOST_LINE = 2;

/**
 * The consequences of a restore that replaces a whole instance.
 * @param source  the line that names what is restored
 * @param time    of the restored data
 */
Consequences overwriting(Command_Context& context, Object const& set, std::string const& target,
                         std::string doing, std::pair<std::string, std::string> source,
                         time_t time) {
    std::string const from = object_get_str(set, "instance");
    std::string const name = printable(target);
    std::string lost = "all changes since " + time_text(time);
    if (from != target) {
        source.second += ", of instance " + printable(from);
        lost = "all that " + name + " holds";
    }
    return {std::move(doing),
            "This overwrites instance " + name + ".",
            {std::move(source),
             {"State of " + name, state_text(context, target)},
             {"Lost", std::move(lost)},
             {"Last backup of " + name,
              newest_text(backups_of(context, target, 1), object_get_str(set, "uuid"))}}};
}

} // namespace

Consequences restore_consequences(Command_Context& context, Object const& set,
                                  std::string const& target,
                                  std::vector<std::string> const& tables) {
    Consequences result = overwriting(
        context, set, target, "restore backup " + object_get_str(set, "uuid"),
        {"Backup", set_text(set)}, static_cast<time_t>(number_of(set, "backup_end_time")));
    Object const params{{"backup", object_get_str(set, "uuid")},
                        {"instance", target},
                        {"tables", Array(tables.begin(), tables.end())}};
    std::string what_is_lost = result.lines[LOST_LINE].second;
    add_loss(guide_answer(context, "guide.backup", params), "restore", &what_is_lost, result);
    result.lines[LOST_LINE].second = what_is_lost;
    return result;
}

Consequences restore_to_time_consequences(Command_Context& context, Object const& point,
                                          std::string const& target) {
    Object set;
    Array sets;
    json_spirit::object_get(point, "backup", set);
    json_spirit::object_get(point, "sets", sets);
    auto const time = static_cast<time_t>(number_of(point, "time"));
    std::string const when = time_text(time);
    Consequences result = overwriting(
        context, set, target, "restore instance " + object_get_str(set, "instance") + " to " + when,
        {"Time", when}, time);
    for (Object const& used : json_spirit::objects_of(sets))
        result.lines.emplace_back("Reads", set_text(used));
    return result;
}

Consequences backup_consequences(Command_Context& context, Object const& set, bool dependents) {
    std::string const instance = object_get_str(set, "instance");
    Array const backups = backups_of(context, instance);
    std::set<std::string> const all = with_dependents(backups, set);
    Consequences result{
        "remove backup " + object_get_str(set, "uuid"),
        "This removes " +
            (dependents && all.size() > 1 ? std::to_string(all.size()) + " backups" : "a backup") +
            " of instance " + printable(instance) + " with the data, for ever.",
        {{"Backup", set_text(set)}}};
    Array left;
    for (Object const& other : json_spirit::objects_of(backups)) {
        std::string const uuid = object_get_str(other, "uuid");
        if (!all.contains(uuid))
            left.emplace_back(other);
        else if (uuid != object_get_str(set, "uuid"))
            result.lines.emplace_back(dependents ? "Builds on it" : "Needs it", set_text(other));
    }
    result.lines.emplace_back("Last backup left", newest_text(left, ""));
    add_loss(guide_answer(context, "guide.backup", {{"backup", object_get_str(set, "uuid")}}),
             "removal", nullptr, result);
    return result;
}

Consequences pool_consequences(Command_Context& context, std::string const& pool) {
    Object const found = row_of(list_of(context, "pool.list", {}, "pools"), {"name", "uuid"}, pool);
    Consequences result{"remove pool " + pool,
                        "This removes pool " + printable(pool) +
                            " from the record; files that "
                            "lie in it are left there.",
                        {}};
    result.lines = {
        {"URL", text_or_unknown(object_get_str(found, "url"))},
        {"Used", found.count("used") ? value_text(found.at("used"), Form::SIZE) : UNKNOWN}};
    return result;
}

Consequences instance_consequences(Command_Context& context, std::string const& instance) {
    Value shown;
    Array accounts;
    if (context.try_to_ask("instance.show", Object{{"instance", instance}}, shown) &&
        shown.type() == json_spirit::obj_type)
        json_spirit::object_get(shown.get_obj(), "accounts", accounts);
    std::string users;
    for (Object const& account : json_spirit::objects_of(accounts))
        users += (users.empty() ? "" : ", ") + printable(object_get_str(account, "username"));
    Array const backups = backups_of(context, instance);
    Consequences result{"remove instance " + instance,
                        "This forgets instance " + printable(instance) +
                            " and its accounts; its "
                            "backups are kept.",
                        {}};
    result.lines = {{"State", state_text(context, instance)},
                    {"Accounts", users.empty() ? "none" : users},
                    {"Backups", std::to_string(backups.size())},
                    {"Last backup", newest_text(backups, "")}};
    add_loss(guide_answer(context, "guide.instance", {{"instance", instance}}), "removal", nullptr,
             result);
    return result;
}

Consequences member_consequences(Command_Context& context, std::string const& member) {
    Object const found = row_of(list_of(context, "member.list", {}, "members"), {"name"}, member);
    Consequences result{"remove member " + member,
                        "This removes member " + printable(member) +
                            "; its key opens nothing any "
                            "more, and its runs fail.",
                        {}};
    result.lines = {
        {"Host", text_or_unknown(object_get_str(found, "host"))},
        {"Connected", found.count("connected") ? value_text(found.at("connected")) : UNKNOWN}};
    return result;
}
