#ifndef HOST_JOB_JOB_CREATOR_H
#define HOST_JOB_JOB_CREATOR_H

#include "host/job/job.h"

/** Makes jobs of definitions: what a module offers the agent. */
class Job_Creator {
public:
    virtual ~Job_Creator() = default;

    /** Called once by the agent before anything else, with the module's arguments. 0 or -1. */
    virtual int init(int /*argc*/, char** /*argv*/) { return 0; }
    /** Called once by the agent at the end. 0 or -1. */
    virtual int fini() { return 0; }
    /**
     * A job for @a definition, ready to be started. May be called on any thread.
     * @return null for a definition that is not this creator's, or with errno ENOMEM.
     */
    virtual Job_var create(Job_Definition_var definition) = 0;
    /**
     * Why a run of @a definition could not do what the definition says, as far as that can be seen
     * now, such as an option that the instance's flavour does not have. Runs no tool. May be called
     * on any thread.
     * @return a sentence that begins with "options" or "source"; "" without a fault
     */
    virtual std::string fault_of(Job_Definition const& /*definition*/) { return ""; }
};

/** Destroys a Job_Creator; see host/agent/module_factory.h. */
using Job_Creator_Exterminator = void (*)(void*);

#endif
