#ifndef QMRT_THREAD_HELPER_H
#define QMRT_THREAD_HELPER_H

#include <ace/Event.h>
#include <ace/OS_NS_Thread.h>
#include <ace/Thread_Manager.h>

#include <atomic>
#include <functional>
#include <memory>

/**
 * Runs one function on a thread of its own. One helper runs one thread at a time: after a joinable
 * thread has ended, join() makes the helper ready for the next.
 *
 * A helper whose flags have THR_JOINABLE joins in its destructor, so it cannot go out of scope
 * before its thread has ended. With THR_DETACHED nothing waits, and the thread does not touch the
 * helper once spawn() has returned.
 *
 * The helper belongs to one owner thread; only running() may be read from others.
 */
class Thread_Helper {
public:
    /** @param flag ACE thread flags  @param priority ACE_DEFAULT_THREAD_PRIORITY or a priority */
    Thread_Helper(long flag, long priority);
    virtual ~Thread_Helper();
    Thread_Helper(Thread_Helper const&) = delete;
    Thread_Helper& operator=(Thread_Helper const&) = delete;

    /** Called on the new thread, before the function and before spawn() returns. */
    virtual void handle_starting();

    /**
     * Starts the thread, and returns when the thread no longer needs anything of the caller's.
     * @return 0 or more; -1 when no thread could be made.
     */
    int spawn();

    /** Starts (object->*function)(). -1 when the helper has a thread, even one that has ended. */
    template <typename Class, typename Result, typename Object>
    int spawn(Result (Class::*function)(), Object* object) {
        if (exists())
            return -1;
        _function = [object, function] { (object->*function)(); };
        return spawn();
    }

    /** Starts @a function, in the same way. */
    int spawn(std::function<void()> function);

    /** Waits for a joinable thread to end and makes the helper ready for another. */
    void join();

    /** True from spawn() until join(), also while the thread has ended already. */
    [[nodiscard]] bool exists() const { return _tid != ACE_OS::NULL_thread; }
    /** True while a joinable thread runs. */
    [[nodiscard]] bool running() const { return _running && *_running; }
    ACE_thread_t tid() const { return _tid; }

    long flag() const { return _flag; }
    void flag(long value) { _flag = value; }
    long priority() const { return _priority; }
    void priority(long value) { _priority = value; }

    /** Names a joinable thread for ps and debuggers, up to 15 bytes; else it does nothing. */
    void set_name(char const* name);

private:
    static ACE_THR_FUNC_RETURN ACE_Thread_Func(void* helper);

    ACE_thread_t _tid = ACE_OS::NULL_thread;
    std::function<void()> _function;
    std::unique_ptr<std::atomic<bool>> _running;
    ACE_Event* _started = nullptr;
    long _flag;
    long _priority;
};

#endif
