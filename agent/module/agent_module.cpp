#include "agent/module/agent_module.h"

#include "qmrt/log.h"

#include <dlfcn.h>

#include <type_traits>

namespace {

/** Under which name clients call the handler of a pair. */
struct Method_Row {
    char const* pair;
    char const* method;
};

constexpr Method_Row METHODS[] = {
    {"JSON_RPC_GaussDB_List_Handler", "gaussdb.list"},
    {"JSON_RPC_GaussDB_Create_Instance_Handler", "gaussdb.create_instance"},
    {"JSON_RPC_GaussDB_Get_Instance_Handler", "gaussdb.get_instance"},
    {"JSON_RPC_GaussDB_Modify_Instance_Handler", "gaussdb.modify_instance"},
    {"JSON_RPC_GaussDB_Remove_Instance_Handler", "gaussdb.remove_instance"},
    {"JSON_RPC_Roach_Source_Handler", "gaussdb.roach_source"},
    {"JSON_RPC_TPOPS_Add_Instance_Handler", "gaussdb.add_tpops_instances"},
    {"JSON_RPC_TPOPS_List_Handler", "gaussdb.list_tpops_instances"},
};

std::shared_ptr<void> closing(void* handle) {
    return {handle, [](void* library) {
                if (dlclose(library) != 0)
                    QMRT_LOG(LM_ERROR, "A module could not be unloaded: %s\n", dlerror());
            }};
}

} // namespace

Agent_Module::Agent_Module(std::string path, void* handle)
    : path_(std::move(path)), library_(closing(handle)) {}

Agent_Module::~Agent_Module() = default;

std::shared_ptr<Agent_Module> Agent_Module::load(std::string const& path, std::string& error) {
    void* const handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        error = std::string("Cannot load the module: ") + dlerror();
        return nullptr;
    }
    std::shared_ptr<Agent_Module> module(new Agent_Module(path, handle));
    return module->make_all(error) ? module : nullptr;
}

template <typename Base>
std::shared_ptr<Base> Agent_Module::make(char const* name) {
    using Exterminator = void (*)(void*);
    using Maker = Base* (*)(Exterminator*);
    auto const maker =
        reinterpret_cast<Maker>(dlsym(library_.get(), (std::string("_make_") + name).c_str()));
    if (!maker)
        return nullptr;
    Exterminator gobble = nullptr;
    Base* const object = maker(&gobble);
    if (!object || !gobble) {
        failed_ = name;
        return nullptr;
    }
    // the library stays until the object is gone, whoever lets go of it last
    std::shared_ptr<Base> held(object, [gobble, library = library_](Base* last) {
        if constexpr (!std::is_same_v<Base, Parser_Creator>) // whose destroyer does it
            last->fini();
        gobble(last);
    });
    if (object->init(0, nullptr) != 0) {
        failed_ = name;
        return nullptr;
    }
    pairs_.emplace_back(name);
    return held;
}

bool Agent_Module::make_all(std::string& error) {
    job_creator_ = make<Job_Creator>("GaussDB_Job_Creator");
    backup_options_ = make<Parser_Creator>("GaussDB_Backup_Job_Options_Parser_Creator");
    restore_options_ = make<Parser_Creator>("GaussDB_Restore_Job_Options_Parser_Creator");
    backup_source_ = make<Parser_Creator>("GaussDB_Backup_Job_Source_Parser_Creator");
    restore_source_ = make<Parser_Creator>("GaussDB_Restore_Job_Source_Parser_Creator");
    instance_handler_ = make<Instance_Handler>("GaussDB_Instance_Handler");
    guide_ = make<Database_Guide>("Database_Guide");
    for (Method_Row const& row : METHODS)
        if (std::shared_ptr<JSON_RPC_Handler> handler = make<JSON_RPC_Handler>(row.pair))
            methods_.emplace_back(row.method, std::move(handler));
    if (!failed_.empty()) {
        error = "Cannot load the module " + path_ + ": its " + failed_ + " does not start";
        return false;
    }
    if (pairs_.empty()) {
        error = "Cannot load the module " + path_ + ": it offers nothing that this agent knows";
        return false;
    }
    return true;
}
