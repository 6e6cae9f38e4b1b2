#include "agent/service/readiness_check.h"

#include "host/agent/instance_handler.h"
#include "host/agent/instance_manager.h"
#include "host/storage/xbsa_folder.h"
#include "json_spirit/access.h"
#include "qmrt/format.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <unistd.h>

namespace {

constexpr char ADVICE_MODULE[] = "install the module that belongs to this agent";

std::string size_text(uint64_t bytes) {
    char const* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
    double value = static_cast<double>(bytes);
    size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(units); ++unit)
        value /= 1024;
    return string_sprintf(unit ? "%.1f %s" : "%.0f %s", value, units[unit]);
}

char const* state_name(Instance_Check::State state) {
    switch (state) {
    case Instance_Check::OK:
        return "ok";
    case Instance_Check::WARNING:
        return "warning";
    case Instance_Check::CRITICAL:
        return "critical";
    default:
        return "unknown";
    }
}

json_spirit::Object line_json(Instance_Check const& line) {
    json_spirit::Object object{{"subject", line.subject},
                               {"ok", line.ok},
                               {"state", state_name(line.state())},
                               {"text", line.text},
                               {"advice", line.advice}};
    if (!line.measure.empty())
        object["measure"] =
            json_spirit::Object{{"name", line.measure}, {"value", line.value}, {"unit", line.unit}};
    return object;
}

} // namespace

bool Readiness_Check::ok() const {
    return std::all_of(lines_.begin(), lines_.end(), [](Line const& line) { return line.ok; });
}

json_spirit::Object Readiness_Check::dump() const {
    json_spirit::Array lines;
    for (Line const& line : lines_)
        lines.emplace_back(line_json(line));
    return {{"ok", ok()}, {"lines", std::move(lines)}};
}

void Readiness_Check::module(std::string const& path, bool makes_jobs) {
    if (makes_jobs)
        return good("module", path);
    bad("module", path + " makes no jobs", ADVICE_MODULE);
}

void Readiness_Check::database(std::vector<std::string> const& complaints) {
    if (complaints.empty())
        return good("agent's database", "no damage found");
    bad("agent's database", complaints.front(),
        "stop the agent and bring the file back from a copy; keep the damaged one");
}

void Readiness_Check::instance(std::string const& name, std::string const& uid,
                               std::string const& cache_dir) {
    std::shared_ptr<Instance> const found =
        Instance_Manager::instance()->find("gaussdb", name.c_str());
    if (!found) {
        alerts(name);
        return bad("instance " + name, "it is not known here",
                   "start the database and run: zenbrak3 instances --refresh");
    }
    std::string const edition = guide_ ? guide_->identify(*found).edition : "";
    resource_ = found->uuid;
    good("instance " + name, "on record, version " + (edition.empty() ? "not known" : edition));
    alerts(name);
    if (!cache_dir.empty())
        found->options["cache_dir"] = cache_dir;
    std::erase_if(found->logon_options, [&](auto const& account) { return account.first != uid; });
    of_module(*found, Database_Guide::TO_BACK_UP);
}

void Readiness_Check::of_module(Instance const& instance, Database_Guide::Check_Scope scope) {
    if (!guide_)
        return unknown("what the database needs", "the agent's module does not say it",
                       ADVICE_MODULE);
    append(guide_->check(instance, scope));
    for (Line const& line : lines_)
        if (!line.user.empty())
            user_ = line.user;
}

void Readiness_Check::alerts(std::string const& name) {
    auto const handler = Instance_Manager::instance()->get_handler("gaussdb");
    if (!handler)
        return;
    for (Instance_Alert const& alert : handler->alerts())
        if (alert.instance == name)
            bad("alert", alert.text, "when it is put right, run: zenbrak3 instances --refresh");
}

void Readiness_Check::pool(Pool const& pool, uint64_t needed) {
    std::string const subject = "pool " + pool.name;
    if (!pool.online)
        return bad(subject, "its directory is not there", "mount it, or correct the pool's URL");
    std::error_code error;
    if (!std::filesystem::is_directory(pool.path, error))
        return bad(subject, "its directory " + pool.path + " is not on this host",
                   "mount it here as well, at the same place as on the backup server");
    if (pool.read_only)
        return bad(subject, "it is read-only", "choose another pool, or make it writable");
    if (std::string const fault = fault_of_separation(pool.path); !fault.empty())
        bad(subject, fault,
            "run: zenbrak3 pool update " + pool.name +
                " --separate. Where that does not help, use a file system with owners");
    user_folder(pool);
    uint64_t left = pool.available;
    if (pool.limit)
        left = std::min(left, pool.limit > pool.used ? pool.limit - pool.used : 0);
    std::string const text =
        size_text(left) + " free" +
        (needed ? ", the last full backup took " + size_text(needed) : std::string());
    if (left == 0 || left < needed)
        bad(subject, text, "make room in it, raise its limit, or choose another pool");
    else
        good(subject, text);
    measure("free_" + pool.name, static_cast<double>(left), "B");
}

/** Whether the user who will write there can. */
void Readiness_Check::user_folder(Pool const& pool) {
    if (user_.empty() || resource_.empty() || geteuid() != 0)
        return;
    Storage_Result const result = check_pool_writable(pool.path, resource_, user_);
    if (result)
        return good("pool " + pool.name, user_ + " can write to its own folder");
    bad("pool " + pool.name, result.text(),
        "let others pass through the directories above the pool: chmod o+x DIRECTORY. If the "
        "folder is another user's, let each cluster have a pool of its own");
}

void Readiness_Check::pools_unknown(std::string const& why) {
    bad("pool", "the backup server was not asked: " + why,
        "is it up, and is backupd_url right? journalctl -u zenbrak3-agent tells more");
}

void Readiness_Check::no_pool() {
    bad("pool", "there is none", "make one: zenbrak3 pool create NAME /its/directory");
}

void Readiness_Check::server_clock(double ahead) {
    constexpr double WORTH_A_WARNING = 5;
    constexpr char SUBJECT[] = "clock of the backup server";
    if (std::abs(ahead) <= WORTH_A_WARNING)
        good(SUBJECT, "agrees with this host's");
    else
        warn(SUBJECT,
             string_sprintf("%.0f seconds %s this host's", std::abs(ahead),
                            ahead > 0 ? "ahead of" : "behind"),
             "let all hosts of the group take their time from one server (chronyd)");
    measure("clock_backupd", ahead, "s");
}
