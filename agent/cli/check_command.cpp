#include "agent/cli/check_command.h"

#include "agent/cli/results.h"
#include "qmrt/format.h"

#include <algorithm>
#include <cmath>
#include <vector>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::object_get_str;

namespace {

/** The agent ends what hangs; a little later the command waits no longer for the agent. */
constexpr int LONGER_THAN_AGENT = 5;
constexpr size_t LONGEST_TEXT = 1000;

constexpr char const* NAMES[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};

/** Of a line; an older agent's lines have only "ok". */
Plugin_Status status_of(Object const& line) {
    std::string const state = object_get_str(line, "state");
    if (state == "warning")
        return PLUGIN_WARNING;
    if (state == "unknown")
        return PLUGIN_UNKNOWN;
    bool ok = false;
    json_spirit::object_get(line, "ok", ok);
    return ok ? PLUGIN_OK : PLUGIN_CRITICAL;
}

/** The worse of two: what is wrong counts more than what is not known. */
Plugin_Status worse(Plugin_Status one, Plugin_Status other) {
    static constexpr int RANKS[] = {0, 1, 3, 2};
    return RANKS[one] >= RANKS[other] ? one : other;
}

/** One line, without the character that begins the performance data. */
std::string plugin_text(std::string text) {
    text = printable(text);
    std::ranges::replace(text, '|', '/');
    if (text.size() > LONGEST_TEXT)
        text = text.substr(0, LONGEST_TEXT) + "...";
    return text;
}

/** A label between quotes: it may have blanks, but not these characters. */
std::string plugin_label(std::string label) {
    label = printable(label);
    std::erase_if(label, [](char c) { return c == '\'' || c == '=' || c == '|'; });
    return "'" + label + "'";
}

/** "'free_main'=1024B;;;0"; "" for a line without a number. */
std::string performance(Object const& line) {
    Object measure;
    double value = 0;
    if (!json_spirit::object_get(line, "measure", measure) ||
        !json_spirit::object_get(measure, "value", value) || !std::isfinite(value))
        return "";
    std::string const unit = object_get_str(measure, "unit");
    std::string const label = plugin_label(object_get_str(measure, "name"));
    if (unit == "B")
        return " " + label + string_sprintf("=%.0fB;;;0", value);
    return " " + label + string_sprintf("=%.3f", value) + (unit == "s" ? "s" : "");
}

char const* mark_of(Plugin_Status status) {
    switch (status) {
    case PLUGIN_OK:
        return "ok    ";
    case PLUGIN_WARNING:
        return "WARN  ";
    case PLUGIN_CRITICAL:
        return "FAIL  ";
    default:
        return "????  ";
    }
}

std::string line_text(Object const& line) {
    std::string const text = mark_of(status_of(line)) +
                             value_text(json_spirit::object_get_any(line, "subject")) + ": " +
                             value_text(json_spirit::object_get_any(line, "text")) + "\n";
    std::string const advice = object_get_str(line, "advice");
    return advice.empty() ? text : text + "      -> " + printable(advice) + "\n";
}

Object params_of(Check_Wishes const& wishes) {
    Object params;
    if (wishes.timeout != Check_Wishes().timeout) // which is the agent's, too
        params["timeout"] = wishes.timeout;
    json_spirit::insert(params)("instance", json_spirit::Skip_Empty_Helper(wishes.instance))(
        "pool", json_spirit::Skip_Empty_Helper(wishes.pool))(
        "cache_dir", json_spirit::Skip_Empty_Helper(wishes.cache_dir))(
        "uid", json_spirit::Skip_Empty_Helper(wishes.uid));
    return params;
}

int check_for_plugin(Command_Context& context, Object const& params) {
    json_spirit::Value result;
    Rpc_Error error;
    Plugin_Status status = PLUGIN_UNKNOWN;
    if (!context.try_to_ask("agent.check", params, result, error))
        context.print(plugin_failure(error.message));
    else if (result.type() != json_spirit::obj_type)
        context.print(plugin_failure("the agent's answer is not an object"));
    else
        context.print(plugin_line(result.get_obj(), status));
    return status;
}

} // namespace

std::string check_text(Object const& result) {
    std::string text;
    Array const lines = array_of(result, "lines");
    for (Object const& line : json_spirit::objects_of(lines))
        text += line_text(line);
    return text;
}

std::string plugin_failure(std::string const& why) {
    return "ZENBRAK3 UNKNOWN - " + plugin_text(why) + "\n";
}

std::string plugin_line(Object const& result, Plugin_Status& status) {
    Array const lines = array_of(result, "lines");
    size_t count = 0, failed = 0;
    std::string numbers, worst;
    status = PLUGIN_OK;
    for (Object const& line : json_spirit::objects_of(lines)) {
        Plugin_Status const one = status_of(line);
        ++count;
        numbers += performance(line);
        if (one == PLUGIN_OK)
            continue;
        ++failed;
        std::string const text =
            plugin_text(object_get_str(line, "subject") + ": " + object_get_str(line, "text"));
        if (worst.empty() || worse(status, one) != status)
            worst = text;
        status = worse(status, one);
    }
    if (count == 0) {
        status = PLUGIN_UNKNOWN;
        return plugin_failure("the agent has checked nothing");
    }
    std::string const what = failed ? string_sprintf("%zu of %zu checks: ", failed, count) + worst
                                    : string_sprintf("%zu checks", count);
    return std::string("ZENBRAK3 ") + NAMES[status] + " - " + what +
           string_sprintf(" | 'checks'=%zu;;;0 'failed'=%zu;;;0", count, failed) + numbers + "\n";
}

int check(Command_Context& context, Check_Wishes const& wishes) {
    Object const params = params_of(wishes);
    context.time_limit(std::chrono::seconds(wishes.timeout + LONGER_THAN_AGENT));
    if (wishes.nagios)
        return check_for_plugin(context, params);
    Object result;
    if (!context.ask("agent.check", params, "check", result,
                     "`zenbrak3 instances` lists the instances, `zenbrak3 pools` the pools."))
        return context.status();
    if (context.json())
        context.print_json(result);
    else
        context.print(check_text(result));
    bool ok = false;
    json_spirit::object_get(result, "ok", ok);
    return ok ? EXIT_OK : EXIT_FAILED;
}
