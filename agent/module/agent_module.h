#ifndef AGENT_MODULE_AGENT_MODULE_H
#define AGENT_MODULE_AGENT_MODULE_H

#include "host/agent/database_guide.h"
#include "host/agent/instance_handler.h"
#include "host/agent/object_creator.h"
#include "host/job/job_creator.h"
#include "host/rpc/json_rpc_handler.h"
#include "host/yajl/yajl_handler.h"

#include <memory>
#include <string>
#include <utility>
#include <vector>

/**
 * A protection module in memory: the objects that its exported functions make (see
 * host/agent/module_factory.h), each initialised, until the module is let go.
 *
 * A kind of object that the module does not offer is null, or not in the list; what needs it says
 * so when it is asked for. Jobs and whatever else has code of the module in it must have ended
 * before the last object goes; the library is unloaded after it.
 */
class Agent_Module {
public:
    using Parser_Creator = Object_Creator_T<YAJL_Handler>;

    /**
     * @param path   the shared object; its symbols stay its own
     * @param error  when null is returned: which file, and what is wrong with it. A file that has
     *               none of the functions is no module.
     */
    static std::shared_ptr<Agent_Module> load(std::string const& path, std::string& error);
    ~Agent_Module();
    Agent_Module(Agent_Module const&) = delete;
    Agent_Module& operator=(Agent_Module const&) = delete;

    std::string const& path() const { return path_; }
    /** The suffixes of the pairs that the module has, in the order in which they are known here. */
    std::vector<std::string> const& pairs() const { return pairs_; }

    Job_Creator* job_creator() const { return job_creator_.get(); }
    Parser_Creator* backup_options() const { return backup_options_.get(); }
    Parser_Creator* restore_options() const { return restore_options_.get(); }
    Parser_Creator* backup_source() const { return backup_source_.get(); }
    Parser_Creator* restore_source() const { return restore_source_.get(); }
    std::shared_ptr<Instance_Handler> const& instance_handler() const { return instance_handler_; }
    /** What the module says of its databases; null if it says nothing. */
    std::shared_ptr<Database_Guide> const& guide() const { return guide_; }
    /** Method names, as clients call them, and who serves them. */
    std::vector<std::pair<std::string, std::shared_ptr<JSON_RPC_Handler>>> const& methods() const {
        return methods_;
    }

private:
    Agent_Module(std::string path, void* handle);
    template <typename Base>
    std::shared_ptr<Base> make(char const* name);
    [[nodiscard]] bool make_all(std::string& error);

    std::string const path_;
    /** Closes the library; every object holds it, so it goes last. */
    std::shared_ptr<void> const library_;
    std::vector<std::string> pairs_;
    std::string failed_; ///< the pair that could not be made or initialised
    std::shared_ptr<Job_Creator> job_creator_;
    std::shared_ptr<Parser_Creator> backup_options_;
    std::shared_ptr<Parser_Creator> restore_options_;
    std::shared_ptr<Parser_Creator> backup_source_;
    std::shared_ptr<Parser_Creator> restore_source_;
    std::shared_ptr<Instance_Handler> instance_handler_;
    std::shared_ptr<Database_Guide> guide_;
    std::vector<std::pair<std::string, std::shared_ptr<JSON_RPC_Handler>>> methods_;
};

#endif
