#include "agent/service/agent_methods.h"
#include "agent/service/method_access.h"

#include "agent/catalog/catalog_calls.h"
#include "agent/catalog/restore_windows.h"
#include "agent/catalog/set_level.h"
#include "agent/catalog/sqlite_catalog.h"
#include "agent/jobs/agent_jobs.h"
#include "agent/jobs/member_reader.h"
#include "agent/storage/set_files.h"
#include "agent/storage/sqlite_pools.h"
#include "json_spirit/access.h"
#include "qmrt/log.h"

#include <algorithm>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

/** The kind under which the databases' backup sets are kept. */
constexpr char KIND[] = "gaussdb";
constexpr Catalog_Limits LIMITS = {-1, 0};
constexpr int64_t USUAL_LIMIT = 1000;

bool catalog_failed(Method_Fault& fault) {
    fault = {
        JSON_RPC_INTERNAL_ERROR, "the catalog could not be read; the agent's log says why", {}};
    return false;
}

/** Whether a row with its storages lies in a pool that the caller may use. */
bool is_visible(Method_Access const& access, Rpc_Caller const& caller, Object const& row) {
    if (!caller.is(Rpc_Caller::MEMBER))
        return true;
    Array storages;
    json_spirit::object_get(row, "storages", storages);
    return std::ranges::any_of(json_spirit::objects_of(storages), [&](Object const& storage) {
        return access.may_use_pool(caller, json_spirit::object_get_str(storage, "pool_uuid"));
    });
}

/** Drops the rows that the caller may not see, and those behind the limit. */
void keep_visible(Method_Access const& access, Rpc_Caller const& caller, size_t limit,
                  Array& rows) {
    std::erase_if(rows, [&](Value const& row) {
        return row.type() == json_spirit::obj_type && !is_visible(access, caller, row.get_obj());
    });
    if (rows.size() > limit)
        rows.resize(limit);
}

/** Adds the time that the data of a platform's set cover. */
void add_times(Object& row) {
    Set_Times const times = times_of_set(row);
    if (times.end != 0)
        json_spirit::insert(row)("data_begin", static_cast<int64_t>(times.begin))(
            "data_end", static_cast<int64_t>(times.end));
}

Array windows_json(Array const& rows) {
    Array list;
    for (Restore_Window const& window : restore_windows(rows))
        list.emplace_back(Object{{"from", static_cast<int64_t>(window.from)},
                                 {"until", static_cast<int64_t>(window.until)}});
    return list;
}

/** [[DATABASE.]SCHEMA.]TABLE, the innermost name first. */
Array table_path(std::string const& text) {
    Array path;
    for (size_t begin = 0; begin <= text.size();) {
        size_t const end = std::min(text.find('.', begin), text.size());
        path.insert(path.begin(), text.substr(begin, end - begin));
        begin = end + 1;
    }
    return path;
}

std::string fault_of_table(std::string_view text) {
    constexpr size_t MOST_PARTS = 3;
    if (std::string fault = names::fault_of_line(text); !fault.empty())
        return fault;
    Array const path = table_path(std::string(text));
    for (Value const& name : path)
        if (name.get_str().empty())
            return "has an empty name in it (expected [[DATABASE.]SCHEMA.]TABLE)";
    return path.size() <= MOST_PARTS ? ""
                                     : "has more than three names (expected "
                                       "[[DATABASE.]SCHEMA.]TABLE)";
}

class Backup_Methods {
public:
    Backup_Methods(SQLite_Catalog& catalog, SQLite_Pools& pools, Set_Files& files, Agent_Jobs& runs,
                   Method_Access const& access)
        : catalog_(catalog), pools_(pools), files_(files), runs_(runs), access_(access) {}

    bool list(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, instance, resource, pool, type, table;
        int64_t limit = USUAL_LIMIT;
        bool usable = false;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.text("instance", instance, names::fault_of_label);
        reader.text("resource_uuid", resource, names::fault_of_id);
        reader.text("pool", pool, names::fault_of_label);
        reader.text("type", type, names::fault_of_id);
        reader.text("table", table, fault_of_table);
        reader.number("limit", 0, INT32_MAX, limit);
        reader.flag("usable", usable);
        if (!reader.finish())
            return invalid_params(error, fault);
        Object query{{"sort", "backup_start_time"},
                     {"order", "desc"},
                     {"limit", limit},
                     {"with_storages", "1"},
                     {"without_tables", "1"}}; // of a large cluster they are many
        if (usable)
            query["check_restored"] = true;
        if (!table.empty())
            query["holds_table"] = table_path(table);
        if (!pool.empty()) {
            Pool_Record record;
            if (Storage_Result const found = pools_.find_record(pool, record); !found)
                return answer(found, fault);
            query["pool_uuid"] = record.uuid;
        }
        for (auto const& [key, value] :
             {std::pair{"instance", &instance}, {"resource_uuid", &resource}})
            if (!value->empty())
                query[key] = *value;
        Value rows;
        if (call.caller.is(Rpc_Caller::MEMBER) || !type.empty())
            query.erase("limit"); // counts what it may see, and what has the level
        if (!catalog_.get_view(LIMITS, KIND, "catalogs", query, rows))
            return catalog_failed(fault);
        for (Value& row : rows.get_array()) {
            add_times(row.get_obj());
            add_level(row.get_obj());
        }
        if (!type.empty())
            std::erase_if(rows.get_array(), [&](Value const& row) {
                return json_spirit::object_get_str(row.get_obj(), "level") != type;
            });
        keep_visible(access_, call.caller, static_cast<size_t>(limit), rows.get_array());
        result = Object{{"backups", std::move(rows)}};
        if (instance.empty())
            return true;
        Array all;
        if (!sets_of(call.caller, instance, all))
            return catalog_failed(fault);
        result.get_obj()["windows"] = windows_json(all);
        return true;
    }

    bool point(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, instance;
        int64_t time = 0;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("instance", instance, names::fault_of_label);
        if (!reader.number("time", 0, INT64_MAX, time))
            reader.blame("time", "is missing");
        if (!reader.finish())
            return invalid_params(error, fault);
        Array rows;
        if (!sets_of(call.caller, instance, rows))
            return catalog_failed(fault);
        Restore_Point found;
        Object answer{{"time", time}, {"windows", windows_json(rows)}};
        Array sets;
        if (find_restore_point(rows, time, found)) {
            for (Object& set : found.sets) {
                add_times(set);
                sets.emplace_back(std::move(set));
            }
            answer["backup"] = std::move(found.set);
        }
        answer["sets"] = std::move(sets);
        result = std::move(answer);
        return true;
    }

    bool show(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string beginning;
        Object row;
        if (!only_name(call, "backup", names::fault_of_id, beginning, fault) ||
            !find(beginning, row, fault))
            return false;
        if (!is_visible(access_, call.caller, row))
            return not_found("backup " + beginning, fault);
        std::vector<std::string> needed_by;
        if (!add_depends(row) ||
            !catalog_.find_dependents(json_spirit::object_get_str(row, "uuid"), needed_by))
            return catalog_failed(fault);
        row["needed_by"] = Array(needed_by.begin(), needed_by.end());
        add_times(row);
        add_level(row);
        result = std::move(row);
        return true;
    }

    bool remove(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, beginning;
        bool dependents = false;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("backup", beginning, names::fault_of_id);
        reader.flag("dependents", dependents);
        if (!reader.finish())
            return invalid_params(error, fault);
        Object row;
        if (!find(beginning, row, fault) || !nothing_runs(row, fault))
            return false;
        std::vector<Pool_Object> noted;
        Set_Removal const removal =
            catalog_.remove(json_spirit::object_get_str(row, "uuid"), dependents,
                            [&](std::vector<Dropped_Set> const& sets) {
                                noted.clear();
                                return std::ranges::all_of(sets, [&](Dropped_Set const& set) {
                                    return files_.note(set, noted);
                                });
                            });
        switch (removal.kind) {
        case Set_Removal::REMOVED:
            break;
        case Set_Removal::NOT_FOUND:
            return not_found("backup " + beginning, fault);
        case Set_Removal::IN_USE:
            return in_use(removal, fault);
        case Set_Removal::FAILED:
            fault = {JSON_RPC_INTERNAL_ERROR, "nothing was removed; the agent's log says why", {}};
            return false;
        }
        files_.remove(noted);
        Array removed;
        for (Dropped_Set const& set : removal.dropped) {
            QMRT_LOG(LM_INFO, "Removed the backup set %s\n", set.uuid.c_str());
            removed.emplace_back(set.uuid);
        }
        result = Object{{"removed", std::move(removed)}};
        return true;
    }

private:
    /**
     * The sets of an instance that the caller may see and restore_windows() looks at. Sets of other
     * flavours have no timeline, so the rows of a cluster's long history are not read.
     */
    bool sets_of(Rpc_Caller const& caller, std::string const& instance, Array& rows) {
        Value found;
        if (!catalog_.get_view(LIMITS, KIND, "catalogs",
                               {{"instance", instance},
                                {"NN_timeline", ""},
                                {"with_storages", "1"},
                                {"without_tables", "1"}},
                               found))
            return false;
        rows = std::move(found.get_array());
        keep_visible(access_, caller, rows.size(), rows);
        return true;
    }

    /** The set whose uuid begins with a text, with all that is known of it. */
    bool find(std::string const& beginning, Object& row, Method_Fault& fault) {
        std::vector<std::string> uuids;
        if (!catalog_.find_uuids(beginning, 2, uuids))
            return catalog_failed(fault);
        if (uuids.empty())
            return not_found("backup " + beginning, fault);
        if (uuids.size() > 1 && uuids.front() != beginning)
            return refused("more than one backup begins with " + beginning + "; give more of it",
                           fault);
        Value rows;
        if (!catalog_.get_view(
                LIMITS, KIND, "catalogs",
                {{"uuid", uuids.front()}, {"with_storages", "1"}, {"with_pieces", "1"}}, rows))
            return catalog_failed(fault);
        if (rows.get_array().empty())
            return not_found("backup " + beginning, fault);
        row = std::move(rows.get_array().front().get_obj());
        return true;
    }

    /** A run of this agent may be about to build on the set, or restore it, to whatever instance.
     */
    bool nothing_runs(Object const& set, Method_Fault& fault) {
        std::string const instance = json_spirit::object_get_str(set, "instance");
        for (Job_Run const& run : runs_.running())
            if (run.type == "restore" || run.instance == instance)
                return refused("job " + run.run_id + " is on, which may need it; wait for its end",
                               fault);
        return true;
    }

    static bool in_use(Set_Removal const& removal, Method_Fault& fault) {
        if (removal.being_written)
            return refused("it, or a backup that builds on it, is being made; wait for its end",
                           fault);
        std::string list;
        for (std::string const& uuid : removal.needed_by)
            list += (list.empty() ? "" : ", ") + uuid;
        return refused("other backups build on it: " + list +
                           "; remove these first, or all together as its dependents",
                       fault);
    }

    /** The other sets that a restore of this one reads. */
    bool add_depends(Object& row) {
        std::string const key = json_spirit::object_get_str(row, "backup_key");
        Array depends;
        if (!key.empty()) {
            Value rows;
            if (!catalog_.get_view(
                    LIMITS, KIND, "restore",
                    {{"resource_uuid", json_spirit::object_get_str(row, "resource_uuid")},
                     {"backup_key", key}},
                    rows))
                return false;
            std::string const own = json_spirit::object_get_str(row, "uuid");
            for (Object const& other : json_spirit::objects_of(rows.get_array()))
                if (std::string const uuid = json_spirit::object_get_str(other, "uuid");
                    uuid != own)
                    depends.emplace_back(uuid);
        }
        row["depends"] = std::move(depends);
        return true;
    }

    SQLite_Catalog& catalog_;
    SQLite_Pools& pools_;
    Set_Files& files_;
    Agent_Jobs& runs_;
    Method_Access const& access_;
};

/** A view for a member: the rows of what lies in its pools. */
bool visible_view(SQLite_Catalog& catalog, Method_Access const& access, Method_Call const& call,
                  Value& result, std::string& message) {
    Object params = call.params.get_obj();
    Object query;
    json_spirit::object_get(params, "query", query);
    int64_t limit = INT64_MAX;
    json_spirit::object_get(query, "limit", limit);
    query.erase("limit"); // counts what it may see
    bool const with_storages =
        query.count("with_storages") || json_spirit::object_get_str(params, "view") == "restore";
    query["with_storages"] = "1";
    params["query"] = std::move(query);
    if (!serve_catalog_call(catalog, "get_view", params, result, message))
        return false;
    Value& view = result.get_obj()["result"];
    Value& rows = view.type() == json_spirit::obj_type ? view.get_obj()["rows"] : view;
    if (rows.type() != json_spirit::array_type)
        return true;
    keep_visible(access, call.caller, static_cast<size_t>(std::max<int64_t>(limit, 0)),
                 rows.get_array());
    for (Value& row : rows.get_array())
        if (!with_storages && row.type() == json_spirit::obj_type)
            row.get_obj().erase("storages");
    return true;
}

/** One operation of the catalog, for who is not in this process. */
Agent_Method catalog_method(SQLite_Catalog& catalog, Method_Access const& access,
                            std::string const& operation) {
    return [&catalog, &access, operation](Method_Call const& call, Value& result,
                                          Method_Fault& fault) {
        // a list of ids has no pools; who may have it, may have all of it
        bool const limited =
            operation == "get_view" && call.caller.is(Rpc_Caller::MEMBER) &&
            json_spirit::object_get_str(call.params.get_obj(), "view") != "depends";
        if (limited ? visible_view(catalog, access, call, result, fault.message)
                    : serve_catalog_call(catalog, operation, call.params.get_obj(), result,
                                         fault.message))
            return true;
        fault.code = fault.message.starts_with("Invalid params") ? JSON_RPC_INVALID_PARAMS
                                                                 : JSON_RPC_INTERNAL_ERROR;
        return false;
    };
}

} // namespace

void add_backup_methods(Method_Table& methods, SQLite_Catalog& catalog, SQLite_Pools& pools,
                        Set_Files& files, Agent_Jobs& runs, Method_Access const& access) {
    auto const backups = std::make_shared<Backup_Methods>(catalog, pools, files, runs, access);
    add_member_methods<Backup_Methods>(methods, backups,
                                       {{"backup.list", &Backup_Methods::list},
                                        {"backup.point", &Backup_Methods::point},
                                        {"backup.show", &Backup_Methods::show},
                                        {"backup.remove", &Backup_Methods::remove}});
    for (char const* operation :
         {"initialize", "complete", "commit", "abort", "add_piece", "get_view"})
        methods.add(std::string("catalog.") + operation,
                    catalog_method(catalog, access, operation));
}
