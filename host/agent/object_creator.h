#ifndef HOST_AGENT_OBJECT_CREATOR_H
#define HOST_AGENT_OBJECT_CREATOR_H

#include <cerrno>
#include <new>

/** Makes and destroys objects of a class that only the other side of a module's border knows. */
template <typename Base>
class Object_Creator_T {
public:
    using object_type = Base;

    virtual ~Object_Creator_T() = default;

    /** Called once by the agent before anything else. 0 or -1. */
    virtual int init(int /*argc*/, char** /*argv*/) { return 0; }
    /** Called once by the agent, or by the creator's destroyer, at the end. 0 or -1. */
    virtual int fini() { return 0; }
    /** A new object, to be given back to destroy(); null with errno ENOMEM. */
    virtual Base* create() = 0;
    /** Destroys an object of create()'s; null is ignored. */
    virtual void destroy(Base* object) = 0;
};

/**
 * The creator of one class.
 * @tparam Base_Creator  an Object_Creator_T
 * @tparam P             derives from its object_type, and has a default constructor
 */
template <typename Base_Creator, typename P>
class Object_Creator_Impl_T : public Base_Creator {
public:
    using object_type = typename Base_Creator::object_type;

    object_type* create() override {
        P* const object = new (std::nothrow) P;
        if (!object)
            errno = ENOMEM;
        return object;
    }
    void destroy(object_type* object) override { delete object; }
};

#endif
