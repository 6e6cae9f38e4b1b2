#include "agent/jobs/member_reader.h"
#include "agent/service/agent_methods.h"
#include "agent/service/method_access.h"
#include "agent/service/pool_status.h"
#include "agent/storage/sqlite_pools.h"
#include "host/agent/host_services.h"
#include "host/agent/instance_backend.h"
#include "host/storage/xbsa_folder.h"

#include <unistd.h>

#include <chrono>

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

namespace {

class Pool_Methods {
public:
    Pool_Methods(Pool_Status& status, SQLite_Pools& pools, Method_Access const& access)
        : status_(status), pools_(pools), access_(access) {}

    bool list(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error;
        if (!Member_Reader(call.params.get_obj(), "", error).finish())
            return invalid_params(error, fault);
        std::vector<Pool_Record> records;
        if (!answer(pools_.list(records), fault))
            return false;
        Array array;
        for (Pool_Record const& record : records)
            if (access_.may_use_pool(call.caller, record.uuid))
                array.emplace_back(status_.describe(record));
        // a member compares its clock by it
        double const now =
            std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch())
                .count();
        result = Object{{"pools", std::move(array)}, {"now", now}};
        return true;
    }
    bool create(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error;
        Pool_Settings settings;
        Pool_Record record;
        Member_Reader reader(call.params.get_obj(), "", error);
        std::string required;
        reader.required_text("name", required, names::fault_of_title);
        reader.required_text("url", required);
        if (!read_settings(reader, settings))
            return invalid_params(error, fault);
        if (!answer(pools_.create(settings, record), fault))
            return false;
        result = described(record);
        return true;
    }
    bool update(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string error, pool;
        Pool_Settings settings;
        Pool_Record record;
        Member_Reader reader(call.params.get_obj(), "", error);
        reader.required_text("pool", pool, names::fault_of_label);
        if (!read_settings(reader, settings))
            return invalid_params(error, fault);
        if (!answer(pools_.update(pool, settings, record), fault))
            return false;
        result = described(record);
        return true;
    }
    bool remove(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string pool;
        if (!only_name(call, "pool", names::fault_of_label, pool, fault) ||
            !answer(pools_.remove(pool), fault))
            return false;
        result = Object();
        return true;
    }
    bool find(Method_Call const& call, Value& result, Method_Fault& fault) {
        std::string uuid;
        Pool_Record record;
        if (!only_name(call, "uuid", names::fault_of_id, uuid, fault) ||
            !answer(pools_.find_record(uuid, record), fault))
            return false;
        if (!access_.may_use_pool(call.caller, record.uuid))
            return refused("this member was not given the pool " + record.name, fault);
        result = status_.for_data_path(record);
        return true;
    }

private:
    /** With "warning": why it is not fit for the clusters that are known, "" when it is. */
    Object described(Pool_Record const& record) {
        Object object = status_.describe(record);
        object["warning"] = record.read_only ? "" : fault_of_pool(record.path);
        return object;
    }
    static std::string fault_of_pool(std::string const& path) {
        if (std::string const fault = fault_of_separation(path); !fault.empty())
            return fault;
        std::shared_ptr<Instance_Backend> const instances = Host_Services::instance().instances();
        std::string user;
        for (std::shared_ptr<Instance> const& instance : instances->list("gaussdb"))
            if (geteuid() == 0 && instance->get_option("user", user) && !user.empty())
                if (Storage_Result const result = check_pool_writable(path, instance->uuid, user);
                    !result)
                    return "the instance " + instance->name + " cannot be backed up to it, " +
                           result.text();
        return "";
    }
    static bool read_settings(Member_Reader& reader, Pool_Settings& settings) {
        std::string text;
        int64_t number = 0;
        bool flag = false;
        if (reader.text("name", text, names::fault_of_title))
            settings.name = text;
        if (reader.text("url", text))
            settings.url = text;
        if (reader.text("compression", text, names::fault_of_id))
            settings.compression = text;
        if (reader.number("compression_level", INT32_MIN, INT32_MAX, number))
            settings.compression_level = number;
        if (reader.number("limit", 0, INT64_MAX, number))
            settings.limit = number;
        if (reader.flag("read_only", flag))
            settings.read_only = flag;
        if (reader.flag("separate", flag))
            settings.separate = flag;
        return reader.finish();
    }

    Pool_Status& status_;
    SQLite_Pools& pools_;
    Method_Access const& access_;
};

} // namespace

void add_pool_methods(Method_Table& methods, Pool_Status& status, SQLite_Pools& pools,
                      Method_Access const& access) {
    auto const served = std::make_shared<Pool_Methods>(status, pools, access);
    add_member_methods<Pool_Methods>(methods, served,
                                     {{"pool.list", &Pool_Methods::list},
                                      {"pool.create", &Pool_Methods::create},
                                      {"pool.update", &Pool_Methods::update},
                                      {"pool.remove", &Pool_Methods::remove},
                                      {"pool.find", &Pool_Methods::find}});
}
