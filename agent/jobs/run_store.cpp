#include "agent/jobs/run_store.h"

#include "agent/database/agent_database.h"
#include "host/job/job_alert.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <limits>

namespace {

constexpr char SELECT_RUN[] =
    "SELECT run_id, definition, name, type, subtype, instance, state, code, message, percent, "
    "processed_size, total_size, speed, set_size, start_time, end_time, "
    "(SELECT count(*) FROM job_alerts WHERE job_alerts.run_id = job_runs.run_id), "
    "EXISTS(SELECT 1 FROM job_alerts WHERE job_alerts.run_id = job_runs.run_id AND level = 5 AND "
    "code IN (5, 105, 106)) FROM job_runs ";

Job_Run run_of(SQLite::Statement& row) {
    auto const size = [&](int column) {
        return static_cast<uint64_t>(row.getColumn(column).getInt64());
    };
    Job_Run run;
    run.run_id = row.getColumn(0).getString();
    run.definition = row.getColumn(1).getString();
    run.name = row.getColumn(2).getString();
    run.type = row.getColumn(3).getString();
    run.subtype = row.getColumn(4).getString();
    run.instance = row.getColumn(5).getString();
    run.state = static_cast<Job_State>(row.getColumn(6).getInt());
    run.code = row.getColumn(7).getInt();
    run.message = row.getColumn(8).getString();
    run.percent = row.getColumn(9).getInt();
    run.processed_size = size(10);
    run.total_size = size(11);
    run.speed = size(12);
    run.set_size = size(13);
    run.start_time = row.getColumn(14).getInt64();
    run.end_time = row.getColumn(15).getInt64();
    run.alerts = row.getColumn(16).getInt();
    run.became_full = row.getColumn(17).getInt() != 0;
    return run;
}

/** SQLite has no unsigned numbers. */
int64_t clamped(uint64_t size) {
    constexpr uint64_t LARGEST = std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(std::min(size, LARGEST));
}

/** The number of a state; -1 for a text that is none. */
int state_number(std::string const& text) {
    for (int state = JOB_STATE_NONE; state <= JOB_STATE_OPENING; ++state)
        if (text == job_state_to_string(static_cast<Job_State>(state)))
            return state;
    return -1;
}

} // namespace

json_spirit::Object run_to_json(Job_Run const& run) {
    return json_spirit::Object_Maker()("run_id", run.run_id)("definition", run.definition)(
        "name", run.name)("type", run.type)("subtype", run.subtype)(
        "level", run.became_full ? "full" : run.subtype)("instance", run.instance)(
        "state", job_state_to_string(run.state))("code", run.code)("message", run.message)(
        "percent", run.percent)("processed_size", run.processed_size)("total_size", run.total_size)(
        "speed", run.speed)("set_size", run.set_size)("start_time", int64_t{run.start_time})(
        "end_time", int64_t{run.end_time})("alerts", run.alerts)("waiting_for", run.waiting_for)(
        "phase", run.phase)("expected_size", run.expected_size)("average_speed", run.average_speed)(
        "elapsed", run.elapsed)("remaining", run.remaining < 0 ? json_spirit::Value()
                                                               : json_spirit::Value(run.remaining));
}

json_spirit::Object alert_to_json(Run_Alert const& alert, Job_Run const& run) {
    std::string advice = job_alert_advice(alert.alert.level, alert.alert.code);
    boost::algorithm::replace_all(advice, "RUN", run.run_id);
    if (!run.instance.empty())
        boost::algorithm::replace_all(advice, "INSTANCE", run.instance);
    return json_spirit::Object_Maker()("level", uint64_t{alert.alert.level})(
        "code", uint64_t{alert.alert.code})("text", alert.alert.text)("advice", advice)(
        "time", int64_t{alert.time})("count", int64_t{alert.alert.count});
}

bool Run_Store::add(Job_Run& run) {
    return database_.change("add a run", [&](SQLite::Database& database) {
        SQLite::Statement known(database, "SELECT instance FROM job_definitions WHERE id = ?");
        known.bind(1, run.definition);
        if (known.executeStep())
            run.instance = known.getColumn(0).getString();
        SQLite::Statement insert(
            database, "INSERT INTO job_runs(run_id, definition, name, type, subtype, instance, "
                      "state, start_time) VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
        insert.bind(1, run.run_id);
        insert.bind(2, run.definition);
        insert.bind(3, run.name);
        insert.bind(4, run.type);
        insert.bind(5, run.subtype);
        insert.bind(6, run.instance);
        insert.bind(7, static_cast<int>(run.state));
        insert.bind(8, int64_t{run.start_time});
        return insert.exec() == 1;
    });
}

bool Run_Store::update(Job_Run const& run) {
    return database_.change("update a run", [&](SQLite::Database& database) {
        SQLite::Statement update(
            database, "UPDATE job_runs SET state = ?, code = ?, message = ?, percent = ?, "
                      "processed_size = ?, total_size = ?, speed = ?, set_size = ?, "
                      "start_time = ?, end_time = ? WHERE run_id = ?");
        update.bind(1, static_cast<int>(run.state));
        update.bind(2, run.code);
        update.bind(3, run.message);
        update.bind(4, run.percent);
        update.bind(5, clamped(run.processed_size));
        update.bind(6, clamped(run.total_size));
        update.bind(7, clamped(run.speed));
        update.bind(8, clamped(run.set_size));
        update.bind(9, int64_t{run.start_time});
        update.bind(10, int64_t{run.end_time});
        update.bind(11, run.run_id);
        update.exec();
        return true;
    });
}

bool Run_Store::add_alert(std::string const& run_id, Job_Alert const& alert, time_t time) {
    return database_.change("add an alert", [&](SQLite::Database& database) {
        SQLite::Statement insert(database,
                                 "INSERT INTO job_alerts(run_id, level, code, detail_code, detail, "
                                 "count, text, time) VALUES(?, ?, ?, ?, ?, ?, ?, ?)");
        insert.bind(1, run_id);
        insert.bind(2, clamped(alert.level));
        insert.bind(3, clamped(alert.code));
        insert.bind(4, clamped(alert.detail_code));
        // for people, like a log: what is secret in it does not show
        insert.bind(5, JSON_Dump(alert.detail).str());
        insert.bind(6, int64_t{alert.count});
        insert.bind(7, alert.text);
        insert.bind(8, int64_t{time});
        return insert.exec() == 1;
    });
}

Job_Answer Run_Store::list(Run_Query const& query, std::vector<Job_Run>& result) {
    int const state = state_number(query.state);
    if (!query.state.empty() && state == -1)
        return Job_Answer::invalid("state: \"" + query.state + "\" is no state of a run");
    std::vector<Job_Run> runs;
    bool const done = database_.read("list the runs", [&](SQLite::Database& database) {
        SQLite::Statement select(database,
                                 std::string(SELECT_RUN) +
                                     "WHERE (?1 = '' OR definition = ?1 OR name = ?1) AND "
                                     "(?2 = '' OR instance = ?2) AND (?3 = -1 OR state = ?3) "
                                     "ORDER BY number DESC LIMIT ?4");
        select.bind(1, query.definition);
        select.bind(2, query.instance);
        select.bind(3, state);
        select.bind(4, static_cast<int64_t>(std::min(query.limit, Run_Query::MAX_LIMIT)));
        while (select.executeStep())
            runs.push_back(run_of(select));
        return true;
    });
    if (!done)
        return Job_Answer::failed();
    result = std::move(runs);
    return {};
}

Job_Answer Run_Store::find(std::string const& beginning, Job_Run& result) {
    std::string prefix = beginning;
    std::transform(prefix.begin(), prefix.end(), prefix.begin(),
                   [](unsigned char c) { return c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c; });
    std::vector<Job_Run> runs;
    bool const is_one =
        !prefix.empty() && prefix.find_first_not_of("0123456789abcdef-") == std::string::npos;
    bool const done = !is_one || database_.read("find a run", [&](SQLite::Database& database) {
        SQLite::Statement select(database, std::string(SELECT_RUN) + "WHERE run_id GLOB ? LIMIT 2");
        select.bind(1, prefix + "*");
        while (select.executeStep())
            runs.push_back(run_of(select));
        return true;
    });
    if (!done)
        return Job_Answer::failed();
    if (runs.empty())
        return Job_Answer::not_found("job \"" + beginning + "\"");
    if (runs.size() > 1)
        return Job_Answer::invalid("job: several runs begin with \"" + beginning +
                                   "\"; give more of the id");
    result = std::move(runs.front());
    return {};
}

Job_Answer Run_Store::last(std::string const& definition, Job_Run& result) {
    bool found = false;
    bool const done = database_.read("find the last run", [&](SQLite::Database& database) {
        SQLite::Statement select(database, std::string(SELECT_RUN) +
                                               "WHERE definition = ? "
                                               "ORDER BY number DESC LIMIT 1");
        select.bind(1, definition);
        found = select.executeStep();
        if (found)
            result = run_of(select);
        return true;
    });
    if (!done)
        return Job_Answer::failed();
    return found ? Job_Answer() : Job_Answer::not_found("a run of definition " + definition);
}

bool Run_Store::last_size(std::string const& instance, std::string const& subtype, uint64_t& size) {
    size = 0;
    return database_.read("find the last backup's size", [&](SQLite::Database& database) {
        SQLite::Statement select(database, "SELECT set_size FROM job_runs WHERE instance = ? AND "
                                           "type = 'backup' AND subtype = ? AND state = ? AND "
                                           "set_size > 0 ORDER BY number DESC LIMIT 1");
        select.bind(1, instance);
        select.bind(2, subtype);
        select.bind(3, static_cast<int>(JOB_STATE_COMPLETED));
        if (select.executeStep())
            size = static_cast<uint64_t>(select.getColumn(0).getInt64());
        return true;
    });
}

Job_Answer Run_Store::alerts(std::string const& run_id, std::vector<Run_Alert>& result) {
    std::vector<Run_Alert> alerts;
    bool const done = database_.read("list the alerts", [&](SQLite::Database& database) {
        SQLite::Statement select(database, "SELECT level, code, detail_code, detail, count, text, "
                                           "time FROM job_alerts WHERE run_id = ? ORDER BY number");
        select.bind(1, run_id);
        while (select.executeStep()) {
            Run_Alert row;
            row.alert.level = static_cast<unsigned long>(select.getColumn(0).getInt64());
            row.alert.code = static_cast<unsigned long>(select.getColumn(1).getInt64());
            row.alert.detail_code = static_cast<unsigned long>(select.getColumn(2).getInt64());
            (void)json_spirit::parse(select.getColumn(3).getString(), row.alert.detail, nullptr);
            row.alert.count = select.getColumn(4).getInt64();
            row.alert.text = select.getColumn(5).getString();
            row.time = select.getColumn(6).getInt64();
            alerts.push_back(std::move(row));
        }
        return true;
    });
    if (!done)
        return Job_Answer::failed();
    result = std::move(alerts);
    return {};
}

bool Run_Store::prune(std::string const& definition, size_t keep,
                      std::vector<std::string>& deleted) {
    constexpr char const* WHICH[] = {
        "definition = ?1",
        "?1 <> '' AND definition NOT IN (SELECT id FROM job_definitions)",
    };
    std::vector<std::string> gone;
    bool const done = database_.change("delete old runs", [&](SQLite::Database& database) {
        for (std::string const which : WHICH) {
            SQLite::Statement erase(database,
                                    "DELETE FROM job_runs WHERE " + which +
                                        " AND end_time <> 0 AND number NOT IN (SELECT number FROM "
                                        "job_runs WHERE " +
                                        which + " ORDER BY number DESC LIMIT ?2) RETURNING run_id");
            erase.bind(1, definition);
            erase.bind(2, static_cast<int64_t>(keep));
            while (erase.executeStep())
                gone.push_back(erase.getColumn(0).getString());
        }
        return true;
    });
    if (done)
        deleted = std::move(gone);
    return done;
}

bool Run_Store::fail_open_runs(std::string const& message, Job_Alert const& alert, time_t now,
                               int& count) {
    return database_.change("end the runs that were on", [&](SQLite::Database& database) {
        SQLite::Statement insert(
            database,
            "INSERT INTO job_alerts(run_id, level, code, detail_code, detail, count, text, "
            "time) SELECT run_id, ?, ?, 0, 'null', 1, ?, ? FROM job_runs WHERE "
            "end_time = 0");
        insert.bind(1, clamped(alert.level));
        insert.bind(2, clamped(alert.code));
        insert.bind(3, alert.text);
        insert.bind(4, int64_t{now});
        insert.exec();
        SQLite::Statement update(database, "UPDATE job_runs SET state = ?, code = -1, message = ?, "
                                           "speed = 0, end_time = ? WHERE end_time = 0");
        update.bind(1, static_cast<int>(JOB_STATE_ERROR));
        update.bind(2, message);
        update.bind(3, int64_t{now});
        count = update.exec();
        return true;
    });
}

bool Run_Store::ids(std::set<std::string>& result) {
    return database_.read("list the runs", [&](SQLite::Database& database) {
        SQLite::Statement select(database, "SELECT run_id FROM job_runs");
        while (select.executeStep())
            result.insert(select.getColumn(0).getString());
        return true;
    });
}
