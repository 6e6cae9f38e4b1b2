// A protection module for tests of the agent: it has the pairs that the agent looks for, and jobs
// that really put objects in a pool, write the catalog, and read it all back.
//
// A backup's source: {"id": resource's uuid, "name": text, "objects": n, "size": bytes of each,
// "pause": milliseconds between two, "fail": true to fail at the end}. A restore's source: {"id",
// "restore_as": the uuid of the set}: reads every piece and compares it.
#include "host/agent/host_manager.h"
#include "host/agent/instance_handler.h"
#include "host/agent/module_factory.h"
#include "host/agent/object_creator.h"
#include "host/catalog/catalog_operator.h"
#include "host/job/job_alert.h"
#include "host/job/job_creator.h"
#include "host/job/job_event_handler.h"
#include "host/process/cancellation.h"
#include "host/storage/client_io_ex.h"
#include "host/storage/pool_info.h"
#include "host/yajl/yajl_gen.h"
#include "host/yajl/yajl_parser.h"
#include "job/controllable_job_t.h"
#include "job/job_executor_t.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/format.h"
#include "qmrt/log.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <thread>
#include <unistd.h>

namespace {

using json_spirit::Array;
using json_spirit::Object;
using json_spirit::Value;

/** Any flat object, as source or options. */
template <typename Base>
class Flat_T : public Base {
public:
    int generate(yajl_gen generator) override {
        return yajl_gen_string(generator, reinterpret_cast<unsigned char const*>("flat"), 4);
    }
    Object values;
};
using Test_Source = Flat_T<Job_Source>;
using Test_Options = Flat_T<Job_Options>;

template <typename Base>
class Flat_Parser_T : public YAJL_Parser<Base> {
public:
    Flat_Parser_T() : YAJL_Parser<Base>(std::make_unique<Flat_T<Base>>()) {}
    bool handle_map_key_i(char const* text, size_t length) override {
        key_.assign(text, length);
        return true;
    }
    bool handle_string_i(char const* text, size_t length) override {
        return put(Value(std::string(text, length)));
    }
    bool handle_integer_i(long long value) override { return put(Value(int64_t{value})); }
    bool handle_boolean_i(bool value) override { return put(Value(value)); }

private:
    bool put(Value value) {
        auto* const object = static_cast<Flat_T<Base>*>(this->result_.get());
        if constexpr (std::is_same_v<Base, Job_Source>) {
            if (key_ == "id")
                object->id(value.get_str());
            if (key_ == "name")
                object->name(value.get_str());
        }
        object->values[key_] = std::move(value);
        return true;
    }
    std::string key_;
};

int64_t number(Object const& values, char const* key) {
    int64_t value = 0;
    json_spirit::object_get(values, key, value);
    return value;
}

/** The same bytes for the same name, wherever and whenever they are made. */
std::string content_of(std::string const& name, size_t size) {
    std::string content(size, '\0');
    uint64_t state = std::hash<std::string>()(name) | 1;
    for (char& byte : content) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        byte = static_cast<char>(state >> 32);
    }
    return content;
}

class Test_Set : public Backup_Set {
public:
    Test_Set() : Backup_Set("gaussdb") {}
    Object dump() const override {
        Object object = Backup_Set::dump();
        object["backup_key"] = uuid;
        object["prior_backup_key"] = "";
        object["incarnation"] = uuid;
        object["instance"] = name;
        object["tables"] = Array{
            Object{{"uuid", "d"}, {"parent_uuid", ""}, {"type", "database"}, {"name", name}},
            Object{{"uuid", "s"}, {"parent_uuid", "d"}, {"type", "schema"}, {"name", "public"}},
            Object{{"uuid", "t"}, {"parent_uuid", "s"}, {"type", "table"}, {"name", "orders"}}};
        return object;
    }
};

class Test_Executor : public Job_Executor_T<Test_Source, Test_Options, Job_Event_Handler> {
public:
    using Job_Executor_T::Job_Executor_T;

protected:
    bool connect(Client_IO_Ex& io, std::string const& pool, bool for_restore) {
        Pool_Info info;
        Client_IO_Base::Options options;
        options.compression_method = COMPR_NONE;
        if (!get_pool_info(pool, nullptr, info, for_restore, 0) ||
            !set_options_by_pool(options, info))
            return false;
        if (io.connect(info.url.c_str(), options))
            return true;
        QMRT_LOG(LM_ERROR, "Failed to connect %s, %s\n", info.url.c_str(), io.error().c_str());
        return false;
    }
};

class Test_Backup_Executor : public Test_Executor {
public:
    using Test_Executor::Test_Executor;

protected:
    bool execute_i(Job::Action_Options const*) override {
        Test_Set set;
        set.uuid = evt_handler_.job_act_id();
        set.name = src_->name();
        set.definition_uuid = def_.id();
        set.job_act_id = set.uuid;
        set.uid = def_.uid();
        set.host_uuid = Host_Manager::instance()->uuid();
        set.resource_uuid = src_->id();
        set.type = job_def_subtype_to_string(def_.subtype(), nullptr);
        set.backup_start_time = act_.start_time;
        set.add_storage({tgt_.id(), 0});
        if (!Catalog_Operator(-1, -1).initialize(set)) {
            write_job_alert(&job_, 7, 8, 0, Value::null, 1);
            return false;
        }
        if (put_objects(set) && finish(set))
            return true;
        if (src_->values.count("leave_open")) // for the agent
            return false;
        Array pieces;
        Catalog_Operator(-1, -1).abort(set.uuid, pieces);
        Client_IO_Ex io;
        if (connect(io, tgt_.id(), false))
            for (Object const& piece : json_spirit::objects_of(pieces))
                io.remove(json_spirit::object_get_str(piece, "path").c_str());
        return false;
    }

private:
    bool put_objects(Test_Set const& set) {
        Client_IO_Ex io;
        if (!connect(io, tgt_.id(), false))
            return false;
        int64_t const objects = number(src_->values, "objects");
        int64_t const size = number(src_->values, "size");
        for (int64_t done = 0; done < objects; ++done) {
            if (act_.state == JOB_STATE_CANCELING)
                return false;
            std::string const name = string_sprintf("%s/%s/%03lld", set.resource_uuid.c_str(),
                                                    set.uuid.c_str(), static_cast<long long>(done));
            if (!io.put_contents(name.c_str(), content_of(name, static_cast<size_t>(size)))) {
                QMRT_LOG(LM_ERROR, "Failed to put %s, %s\n", name.c_str(), io.error().c_str());
                return false;
            }
            if (!Catalog_Operator(-1, -1).add_piece(set.uuid,
                                                    {Object{{"path", name}, {"size", size}}}))
                return false;
            evt_handler_.handle_progress(static_cast<int>((done + 1) * 100 / objects),
                                         static_cast<unsigned long>((done + 1) * size),
                                         static_cast<unsigned long>(objects * size), 1);
            std::this_thread::sleep_for(std::chrono::milliseconds(number(src_->values, "pause")));
        }
        return true;
    }
    bool finish(Test_Set& set) {
        if (src_->values.count("fail")) {
            write_job_alert(&job_, 7, 2, 0, Value::null, 1);
            QMRT_LOG(LM_ERROR, "The backup was told to fail\n");
            return false;
        }
        set.backup_end_time = std::max(time(nullptr), set.backup_start_time);
        set.source_size = act_.processed_size;
        set.backup_set_size = set.source_size;
        set.storages[0].size = set.source_size;
        return Catalog_Operator(-1, -1).complete(set);
    }
};

class Test_Restore_Executor : public Test_Executor {
public:
    using Test_Executor::Test_Executor;

protected:
    bool execute_i(Job::Action_Options const*) override {
        Value row;
        std::string const uuid = json_spirit::object_get_str(src_->values, "restore_as");
        if (!Catalog_Operator(-1, -1).get_first_view(
                "gaussdb", "catalogs",
                {{"uuid", uuid}, {"with_pieces", "1"}, {"with_storages", "1"}}, row) ||
            row.is_null()) {
            write_job_alert(&job_, 7, 1, 0, Value::null, 1);
            return false;
        }
        Array pieces, storages;
        json_spirit::object_get(row.get_obj(), "pieces", pieces);
        json_spirit::object_get(row.get_obj(), "storages", storages);
        Client_IO_Ex io;
        Backup_Set_Storage_Selector const storage(storages, Backup_Set_Storage_Selector::M_ANY);
        if (!connect(io, storage.pool_uuid(), true))
            return false;
        for (Object const& piece : json_spirit::objects_of(pieces)) {
            std::string const name = json_spirit::object_get_str(piece, "path");
            std::string content;
            if (!io.get_contents(name.c_str(), content) ||
                content != content_of(name, static_cast<size_t>(number(piece, "size")))) {
                QMRT_LOG(LM_ERROR, "%s is not what was put there, %s\n", name.c_str(),
                         io.error().c_str());
                return false;
            }
        }
        return true;
    }
};

class Test_Job_Creator : public Job_Creator {
public:
    Job_var create(Job_Definition_var definition) override {
        if (definition->type() == JOB_DEFINITION_BACKUP)
            return Job_var(new Controllable_Job_T<Test_Backup_Executor>(definition), false);
        if (definition->type() == JOB_DEFINITION_RESTORE)
            return Job_var(new Controllable_Job_T<Test_Restore_Executor>(definition), false);
        return Job_var();
    }
};

/**
 * Holds a search back until the file of ZENBRAK3_TEST_SEARCH_GATE is there, or it is cancelled.
 */
void pass_search_gate() {
    char const* const gate = getenv("ZENBRAK3_TEST_SEARCH_GATE");
    std::shared_ptr<Cancellation> const cancellation = Cancellation::current();
    while (gate && access(gate, F_OK) == -1 && !(cancellation && cancellation->cancelled()))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

/** One instance, "test", that takes every account. */
class Test_Instance_Handler : public Instance_Handler {
public:
    Test_Instance_Handler() : Instance_Handler("gaussdb") {}
    int probe_instances(instances_type& instances) override {
        pass_search_gate();
        auto const found = instances.emplace("test", std::make_shared<Instance>());
        if (found.second) {
            found.first->second->type = "gaussdb";
            found.first->second->name = "test";
            found.first->second->options = {{"version", 1}, {"edition", "8.1.1"}};
        }
        return 0;
    }
    std::string& get_state(char const*, std::string& state) override { return state = "Normal"; }
    int logon(char const*, char const*, char const*, Object const*) override { return 0; }
    int update_options(char const*, char const*, char const*, options_type&) override { return 0; }
};

using Parser_Creator = Object_Creator_T<YAJL_Handler>;
template <typename Parser>
using Parser_Creator_Impl_T = Object_Creator_Impl_T<Parser_Creator, Parser>;

} // namespace

MODULE_FACTORY(GaussDB_Job_Creator, Job_Creator, Test_Job_Creator)
MODULE_FACTORY(GaussDB_Instance_Handler, Instance_Handler, Test_Instance_Handler)
MODULE_CREATOR_FACTORY(GaussDB_Backup_Job_Options_Parser_Creator, Parser_Creator,
                       Parser_Creator_Impl_T<Flat_Parser_T<Job_Options>>)
MODULE_CREATOR_FACTORY(GaussDB_Restore_Job_Options_Parser_Creator, Parser_Creator,
                       Parser_Creator_Impl_T<Flat_Parser_T<Job_Options>>)
MODULE_CREATOR_FACTORY(GaussDB_Backup_Job_Source_Parser_Creator, Parser_Creator,
                       Parser_Creator_Impl_T<Flat_Parser_T<Job_Source>>)
MODULE_CREATOR_FACTORY(GaussDB_Restore_Job_Source_Parser_Creator, Parser_Creator,
                       Parser_Creator_Impl_T<Flat_Parser_T<Job_Source>>)
