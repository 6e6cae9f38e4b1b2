#ifndef AGENT_JOBS_JOB_MODULES_H
#define AGENT_JOBS_JOB_MODULES_H

#include "host/agent/object_creator.h"
#include "host/yajl/yajl_handler.h"

#include <string>
#include <vector>

class Job_Creator;

/**
 * What a loaded module offers for jobs of one kind of agent. All is borrowed: the module stays
 * loaded longer than whoever has one of these. May be used on any thread.
 */
struct Job_Module {
    using Parser_Creator = Object_Creator_T<YAJL_Handler>;

    std::string agent;              ///< "gaussdb": what a definition's "agent" says
    Job_Creator* creator = nullptr; ///< null: the module has none, and no job of it can start
    /** The first two make a YAJL_Parser<Job_Options>, the others a YAJL_Parser<Job_Source>. */
    Parser_Creator* backup_options = nullptr;
    Parser_Creator* restore_options = nullptr;
    Parser_Creator* backup_source = nullptr;
    Parser_Creator* restore_source = nullptr;
};

using Job_Modules = std::vector<Job_Module>;

#endif
