#ifndef HOST_AGENT_MODULE_FACTORY_H
#define HOST_AGENT_MODULE_FACTORY_H

#include <cerrno>
#include <new>

/**
 * The functions by which an agent gets an object out of a loaded module and gives it back:
 *
 *     Base* _make_NAME(void (**gobbler)(void*));
 *     void  _gobble_NAME(void* object);
 *
 * _make_ stores the address of _gobble_ through a gobbler that is not null, before anything else,
 * then makes an object with its default constructor. It returns null with errno ENOMEM when there
 * is no memory. _gobble_ takes the pointer that _make_ returned, ignores null, and destroys the
 * object. Both may be called on any thread.
 */
template <typename Base, typename Object>
class Module_Factory_T {
public:
    using Exterminator = void (*)(void*);

    static Base* make(Exterminator* gobbler, Exterminator gobble) {
        if (gobbler)
            *gobbler = gobble;
        Object* const object = new (std::nothrow) Object;
        if (!object)
            errno = ENOMEM;
        return object;
    }
    static void gobble(void* object) { delete static_cast<Base*>(object); }
    /** For an Object_Creator_T: fini() comes first. */
    static void gobble_after_fini(void* object) {
        if (!object)
            return;
        static_cast<Base*>(object)->fini();
        gobble(object);
    }
};

#define MODULE_FACTORY_WITH(destroyer, name, base, ...)                                            \
    extern "C" __attribute__((visibility("default"))) void _gobble_##name(void* object) {          \
        Module_Factory_T<base, __VA_ARGS__>::destroyer(object);                                    \
    }                                                                                              \
    extern "C" __attribute__((visibility("default")))                                              \
    base* _make_##name(void (**gobbler)(void*)) {                                                  \
        return Module_Factory_T<base, __VA_ARGS__>::make(gobbler, _gobble_##name);                 \
    }

/** Defines the pair of @a name. @a base is what the agent sees; the object's class comes last. */
#define MODULE_FACTORY(name, base, ...) MODULE_FACTORY_WITH(gobble, name, base, __VA_ARGS__)

/** The same for an Object_Creator_T, whose fini() the destroyer calls. */
#define MODULE_CREATOR_FACTORY(name, base, ...)                                                    \
    MODULE_FACTORY_WITH(gobble_after_fini, name, base, __VA_ARGS__)

#endif
