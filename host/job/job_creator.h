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
};

/** Destroys a Job_Creator; see host/agent/module_factory.h. */
using Job_Creator_Exterminator = void (*)(void*);

#endif
