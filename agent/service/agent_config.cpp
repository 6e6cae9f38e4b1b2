#include "agent/service/agent_config.h"

#include "qmrt/format.h"

#include <sys/stat.h>
#include <toml++/toml.h>

#include <functional>
#include <set>
#include <sstream>
#include <variant>

namespace {

using Text = std::string Agent_Config::*;
using Number = int64_t Agent_Config::*;
using Switch = bool Agent_Config::*;

/** A key: where its value goes, and which values it takes. */
struct Key_Row {
    char const* table;
    char const* key;
    std::variant<Text, Number, Switch> member;
    bool at_start = true;
    int64_t least = 0;
    int64_t most = INT64_MAX;
    std::vector<std::string> words = {}; ///< the only texts; any when empty
    bool is_path = false;                ///< absolute, or "" where that is the default
};

std::vector<Key_Row> const& rows() {
    using C = Agent_Config;
    static std::vector<Key_Row> const table = {
        {"agent", "name", &C::name},
        {.table = "agent", .key = "data_dir", .member = &C::data_dir, .is_path = true},
        {.table = "agent", .key = "module", .member = &C::module, .is_path = true},
        {.table = "agent", .key = "log", .member = &C::log, .words = {"stderr", "journal"}},
        {.table = "agent",
         .key = "log_level",
         .member = &C::log_level,
         .at_start = false,
         .words = {"debug", "info", "warning", "error"}},
        {"agent", "stop_timeout", &C::stop_timeout, false, 0, 86400},
        {"agent", "probe_interval", &C::probe_interval, false, 0, 86400 * 30},
        {"agent", "kept_runs", &C::kept_runs, true, 1, 1000000},
        {.table = "socket", .key = "path", .member = &C::socket, .is_path = true},
        {"socket", "readers", &C::readers},
        {"remote", "enabled", &C::remote},
        {"remote", "address", &C::address},
        {"remote", "port", &C::port, true, 0, 65535},
        {.table = "remote", .key = "certificate", .member = &C::certificate, .is_path = true},
        {.table = "remote", .key = "private_key", .member = &C::private_key, .is_path = true},
        {.table = "remote",
         .key = "access_key_file",
         .member = &C::access_key_file,
         .is_path = true},
        {"limits", "message_size", &C::message_size, true, 1024, 1024 * 1024 * 1024},
        {"limits", "connections", &C::connections, true, 1, 100000},
        {"limits", "message_timeout", &C::message_timeout, true, 1, 3600},
        {"limits", "unfinished_size", &C::unfinished_size, true, 1024, INT64_MAX},
        {"limits", "tool_timeout", &C::tool_timeout, false, 1, 86400},
        {"limits", "tool_output", &C::tool_output, false, 1024, INT64_MAX},
        {"platform", "verify", &C::platform_verify, false},
        {.table = "platform",
         .key = "ca_file",
         .member = &C::platform_ca_file,
         .at_start = false,
         .is_path = true},
        {"platform", "timeout", &C::platform_timeout, false, 1, 3600},
        {.table = "group",
         .key = "role",
         .member = &C::role,
         .words = {"alone", "backupd", "member"}},
        {"group", "backupd_url", &C::backupd_url},
        {.table = "group", .key = "backupd_ca", .member = &C::backupd_ca, .is_path = true},
        {.table = "group",
         .key = "backupd_key_file",
         .member = &C::backupd_key_file,
         .is_path = true},
    };
    return table;
}

Key_Row const* find_row(std::string_view table, std::string_view key) {
    for (Key_Row const& row : rows())
        if (table == row.table && key == row.key)
            return &row;
    return nullptr;
}

bool is_table(std::string_view table) {
    for (Key_Row const& row : rows())
        if (table == row.table)
            return true;
    return false;
}

std::string name_of(Key_Row const& row) {
    return std::string(row.table) + "." + row.key;
}

/** What is wrong with a value; "" when it was taken. */
std::string take(Agent_Config& config, Key_Row const& row, toml::node const& node) {
    if (Text const* const text = std::get_if<Text>(&row.member)) {
        auto const value = node.value_exact<std::string>();
        if (!value)
            return "wants a text in quotes";
        if (value->find('\0') != std::string::npos)
            return "must not have a NUL in it";
        if (row.is_path && !value->empty() && value->front() != '/')
            return "wants an absolute path";
        if (!row.words.empty()) {
            std::string wanted;
            bool known = false;
            for (std::string const& word : row.words) {
                known = known || word == *value;
                wanted += (wanted.empty() ? "\"" : ", \"") + word + "\"";
            }
            if (!known)
                return "wants one of " + wanted;
        }
        config.** text = *value;
    } else if (Number const* const number = std::get_if<Number>(&row.member)) {
        auto const value = node.value_exact<int64_t>();
        if (!value || *value < row.least || *value > row.most)
            return string_sprintf("wants a whole number from %lld to %lld",
                                  static_cast<long long>(row.least),
                                  static_cast<long long>(row.most));
        config.** number = *value;
    } else {
        auto const value = node.value_exact<bool>();
        if (!value)
            return "wants true or false";
        config.*std::get<Switch>(row.member) = *value;
    }
    return "";
}

/** A text as TOML writes it. */
std::string quoted(std::string const& text) {
    std::stringstream written;
    written << toml::value<std::string>(text);
    return written.str();
}

std::string at(std::string const& path, toml::source_region const& source) {
    return path + ", line " + std::to_string(source.begin.line) + ": ";
}

/** What is wrong with the file as a whole; "" for a good one. */
std::string take_all(Agent_Config& config, std::string const& path, toml::table const& file) {
    for (auto const& [table_name, table_node] : file) {
        std::string const table(table_name.str());
        if (!is_table(table))
            return at(path, table_name.source()) + "\"" + table + "\" is no known table or key";
        toml::table const* const keys = table_node.as_table();
        if (!keys)
            return at(path, table_name.source()) + "\"" + table + "\" is a table: [" + table + "]";
        for (auto const& [key, node] : *keys) {
            Key_Row const* const row = find_row(table, key.str());
            if (!row)
                return at(path, key.source()) + "\"" + table + "." + std::string(key.str()) +
                       "\" is no known key";
            std::string const fault = take(config, *row, node);
            if (!fault.empty())
                return at(path, key.source()) + "\"" + name_of(*row) + "\" " + fault;
        }
    }
    return "";
}

/** What keys want of each other; "" when they agree. */
std::string disagreement(Agent_Config const& config) {
    if (config.data_dir.empty())
        return "\"agent.data_dir\" must not be empty";
    if (config.socket.empty())
        return "\"socket.path\" must not be empty";
    if (config.role == "backupd" && !config.remote)
        return "\"group.role\" is \"backupd\", so \"remote.enabled\" must be true: the members "
               "have to reach it";
    if (config.role == "member" && config.backupd_url.empty())
        return "\"group.role\" is \"member\", so \"group.backupd_url\" must say where backupd is";
    if (config.role == "member" && config.backupd_key_file.empty())
        return "\"group.role\" is \"member\", so \"group.backupd_key_file\" must name the file "
               "with "
               "the key";
    if (config.certificate.empty() != config.private_key.empty())
        return "\"remote.certificate\" and \"remote.private_key\" belong together";
    return "";
}

} // namespace

std::vector<Agent_Config::Key> Agent_Config::keys_and_values() const {
    std::vector<Key> keys;
    for (Key_Row const& row : rows()) {
        std::string value;
        if (Text const* const text = std::get_if<Text>(&row.member))
            value = quoted(this->**text);
        else if (Number const* const number = std::get_if<Number>(&row.member))
            value = std::to_string(this->**number);
        else
            value = this->*std::get<Switch>(row.member) ? "true" : "false";
        keys.push_back({name_of(row), value, row.at_start});
    }
    return keys;
}

bool Agent_Config::read(std::string const& path, bool must_exist, std::string& error) {
    struct stat status;
    if (!must_exist && stat(path.c_str(), &status) != 0 && errno == ENOENT)
        return true;
    Agent_Config config;
    try {
        error = take_all(config, path, toml::parse_file(path));
    } catch (toml::parse_error const& fault) {
        error = at(path, fault.source()) + std::string(fault.description());
    }
    if (error.empty())
        if (std::string const fault = disagreement(config); !fault.empty())
            error = path + ": " + fault;
    if (!error.empty())
        return false;
    *this = config;
    return true;
}

std::vector<std::string> Agent_Config::restart_needed(Agent_Config const& other) const {
    std::vector<std::string> names;
    for (Key_Row const& row : rows()) {
        bool const same =
            std::visit([&](auto member) { return this->*member == other.*member; }, row.member);
        if (row.at_start && !same)
            names.push_back(name_of(row));
    }
    return names;
}
