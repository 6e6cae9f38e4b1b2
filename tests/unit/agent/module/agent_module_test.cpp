#include "agent/module/agent_module.h"

#include "tests/support/temporary_directory.h"

#include <dlfcn.h>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

bool is_loaded() {
    void* const handle = dlopen(ZENBRAK3_MODULE, RTLD_NOW | RTLD_NOLOAD);
    if (handle)
        dlclose(handle);
    return handle != nullptr;
}

TEST(Agent_Module_Test, makes_what_the_module_offers_and_unloads_it) {
    std::string error;
    std::shared_ptr<Agent_Module> module = Agent_Module::load(ZENBRAK3_MODULE, error);
    ASSERT_TRUE(module) << error;
    EXPECT_THAT(module->pairs(), testing::Contains("GaussDB_Backup_Job_Options_Parser_Creator"));
    ASSERT_TRUE(module->backup_options());
    YAJL_Handler* const parser = module->backup_options()->create();
    EXPECT_TRUE(parser);
    module->backup_options()->destroy(parser);
    std::vector<std::string> methods;
    for (auto const& [name, handler] : module->methods()) {
        EXPECT_TRUE(handler) << name;
        methods.push_back(name);
    }
    EXPECT_THAT(methods, testing::Contains("gaussdb.roach_source"));
    EXPECT_TRUE(is_loaded());
    module.reset();
#ifndef ZENBRAK3_SANITIZED // whose run time keeps libraries
    EXPECT_FALSE(is_loaded());
#endif
}

TEST(Agent_Module_Test, an_object_that_is_held_keeps_the_library) {
    std::string error;
    std::shared_ptr<Agent_Module> module = Agent_Module::load(ZENBRAK3_MODULE, error);
    ASSERT_TRUE(module) << error;
    ASSERT_FALSE(module->methods().empty());
    std::shared_ptr<JSON_RPC_Handler> handler = module->methods().front().second;
    module.reset();
    EXPECT_TRUE(is_loaded());
    handler.reset();
#ifndef ZENBRAK3_SANITIZED
    EXPECT_FALSE(is_loaded());
#endif
}

TEST(Agent_Module_Test, what_is_no_module_is_refused_by_name) {
    Temporary_Directory const directory;
    std::string const text = directory.path() + "/text.so";
    std::ofstream(text) << "no library";
    std::string error;
    for (std::string const& path : {text, directory.path() + "/none.so", directory.path()}) {
        EXPECT_FALSE(Agent_Module::load(path, error));
        EXPECT_NE(std::string::npos, error.find(path)) << error;
    }
    EXPECT_FALSE(Agent_Module::load(ZENBRAK3_HOST, error));
    EXPECT_NE(std::string::npos, error.find("offers nothing that this agent knows")) << error;
}

} // namespace
