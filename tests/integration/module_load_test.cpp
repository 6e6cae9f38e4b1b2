#include "host/agent/instance_handler.h"
#include "host/agent/object_creator.h"
#include "host/job/job_creator.h"
#include "host/rpc/json_rpc_handler.h"
#include "host/yajl/yajl_handler.h"

#include <cstdio>
#include <dirent.h>
#include <dlfcn.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace {

using Exterminator = void (*)(void*);

/** The names that the module shows to who loads it, as nm tells them. */
std::set<std::string> exported_names() {
    std::set<std::string> names;
    std::unique_ptr<FILE, int (*)(FILE*)> const nm(
        popen("nm -D --defined-only --format=posix " ZENBRAK3_MODULE, "r"), pclose);
    char line[1024];
    while (nm && fgets(line, sizeof line, nm.get())) {
        std::string name;
        std::istringstream(line) >> name;
        names.insert(name);
    }
    return names;
}

/** The module, loaded while it lives. */
class Loaded_Module {
public:
    Loaded_Module() : handle_(dlopen(ZENBRAK3_MODULE, RTLD_NOW | RTLD_LOCAL)) {
        EXPECT_TRUE(handle_) << dlerror();
    }
    ~Loaded_Module() { dlclose(handle_); }
    Loaded_Module(Loaded_Module const&) = delete;
    Loaded_Module& operator=(Loaded_Module const&) = delete;

    template <typename Function>
    Function function(std::string const& name) const {
        void* const address = dlsym(handle_, name.c_str());
        EXPECT_TRUE(address) << name;
        return reinterpret_cast<Function>(address);
    }
    static bool is_loaded() {
        void* const handle = dlopen(ZENBRAK3_MODULE, RTLD_NOW | RTLD_NOLOAD);
        if (handle)
            dlclose(handle);
        return handle != nullptr;
    }

private:
    void* handle_;
};

/** Makes one object of each kind and gives it back. */
void use_all(Loaded_Module const& module, std::set<std::string> const& names) {
    for (std::string const& name : names) {
        if (!name.starts_with("_make_"))
            continue;
        Exterminator gobble = nullptr;
        void* const object = module.function<void* (*)(Exterminator*)>(name)(&gobble);
        ASSERT_TRUE(object) << name;
        ASSERT_TRUE(gobble) << name;
        if (name.ends_with("_Parser_Creator")) {
            auto* const creator = static_cast<Object_Creator_T<YAJL_Handler>*>(object);
            creator->destroy(creator->create());
        }
        if (name == "_make_GaussDB_Instance_Handler") {
            // asks for an instance that is not there, and so makes the registry of clusters
            Instance_Handler::options_type options{{"tpops_host", "x"}};
            EXPECT_EQ(
                -1, static_cast<Instance_Handler*>(object)->update_options("x", "u", "p", options));
        }
        if (name == "_make_GaussDB_Job_Creator") {
            Job_Definition_var definition(new Job_Definition);
            definition->type(JOB_DEFINITION_BACKUP);
            EXPECT_TRUE(static_cast<Job_Creator*>(object)->create(definition).get());
        }
        gobble(object);
    }
}

size_t lines_of(char const* path) {
    std::ifstream file(path);
    size_t lines = 0;
    for (std::string line; std::getline(file, line);)
        ++lines;
    return lines;
}

size_t entries_of(char const* path) {
    std::unique_ptr<DIR, int (*)(DIR*)> const directory(opendir(path), closedir);
    size_t entries = 0;
    while (readdir(directory.get()))
        ++entries;
    return entries;
}

/** Pages of this process that are in memory. */
size_t resident_pages() {
    size_t total = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident;
}

TEST(module, shows_pairs_of_functions_and_nothing_else) {
    std::set<std::string> const names = exported_names();
    EXPECT_FALSE(names.empty());
    for (std::string const& name : names) {
        std::string const make = "_make_";
        std::string const gobble = "_gobble_";
        if (name.starts_with(make))
            EXPECT_TRUE(names.count(gobble + name.substr(make.size()))) << name;
        else if (name.starts_with(gobble))
            EXPECT_TRUE(names.count(make + name.substr(gobble.size()))) << name;
        else
            ADD_FAILURE() << name << " is seen from outside";
    }
}

TEST(module, the_pairs_that_there_are) {
    std::set<std::string> made;
    for (std::string const& name : exported_names())
        if (name.starts_with("_make_"))
            made.insert(name.substr(6));
    // the fourteen that every agent looks for, and what tells an agent of the databases
    EXPECT_EQ(
        (std::set<std::string>{
            "Database_Guide", "GaussDB_Backup_Job_Options_Parser_Creator",
            "GaussDB_Restore_Job_Options_Parser_Creator",
            "GaussDB_Backup_Job_Source_Parser_Creator", "GaussDB_Restore_Job_Source_Parser_Creator",
            "GaussDB_Instance_Handler", "GaussDB_Job_Creator",
            "JSON_RPC_GaussDB_Create_Instance_Handler", "JSON_RPC_GaussDB_Get_Instance_Handler",
            "JSON_RPC_GaussDB_List_Handler", "JSON_RPC_GaussDB_Modify_Instance_Handler",
            "JSON_RPC_GaussDB_Remove_Instance_Handler", "JSON_RPC_Roach_Source_Handler",
            "JSON_RPC_TPOPS_Add_Instance_Handler", "JSON_RPC_TPOPS_List_Handler"}),
        made);
}

TEST(module, destroyers_ignore_null) {
    Loaded_Module const module;
    for (std::string const& name : exported_names())
        if (name.starts_with("_gobble_"))
            module.function<Exterminator>(name)(nullptr);
}

TEST(module, leaves_the_process_when_it_is_unloaded) {
    {
        Loaded_Module const module;
        EXPECT_TRUE(Loaded_Module::is_loaded());
    }
    EXPECT_FALSE(Loaded_Module::is_loaded());
}

TEST(module, a_thousand_loads_leave_nothing_behind) {
    std::set<std::string> const names = exported_names();
    auto const load = [&](int times) {
        for (int count = 0; count < times; ++count) {
            Loaded_Module const module;
            use_all(module, names);
        }
    };
    load(50); // what the libraries below keep for good, they have now
    size_t const maps = lines_of("/proc/self/maps");
    size_t const files = entries_of("/proc/self/fd");
    size_t const threads = entries_of("/proc/self/task");
    size_t const pages = resident_pages();
    load(1000);
    EXPECT_FALSE(Loaded_Module::is_loaded());
    EXPECT_EQ(files, entries_of("/proc/self/fd"));
    EXPECT_EQ(threads, entries_of("/proc/self/task"));
#ifdef ZENBRAK3_SANITIZED
    GTEST_SKIP() << "memory is not looked at: a sanitizer's run time holds back what was freed";
#endif
    EXPECT_LE(lines_of("/proc/self/maps"), maps + 2);
    EXPECT_LE(resident_pages(), pages + 32) << "in pages of 4 KiB";
}

} // namespace
