#include "qmrt/thread_helper.h"

#include <cstring>
#include <pthread.h>

Thread_Helper::Thread_Helper(long flag, long priority) : _flag(flag), _priority(priority) {}

Thread_Helper::~Thread_Helper() {
    // a detached thread cannot be joined and does not use the helper any more
    if (!(_flag & THR_DETACHED))
        join();
}

void Thread_Helper::handle_starting() {}

int Thread_Helper::spawn() {
    ACE_Event started(0, 0);
    _started = &started;
    bool const joinable = !(_flag & THR_DETACHED);
    if (joinable) {
        if (_running)
            *_running = true;
        else
            _running = std::make_unique<std::atomic<bool>>(true);
    }
    int const result = ACE_Thread_Manager::instance()->spawn(
        ACE_Thread_Func, this, _flag, &_tid, nullptr, _priority, -1, nullptr, 0, nullptr);
    if (result == -1) {
        if (joinable)
            *_running = false;
        _tid = ACE_OS::NULL_thread;
    } else
        started.wait();
    _started = nullptr;
    return result;
}

int Thread_Helper::spawn(std::function<void()> function) {
    if (exists())
        return -1;
    _function = std::move(function);
    return spawn();
}

void Thread_Helper::join() {
    if (!exists())
        return;
    ACE_Thread_Manager::instance()->join(_tid, nullptr);
    _tid = ACE_OS::NULL_thread;
}

void Thread_Helper::set_name(char const* name) {
    constexpr size_t LIMIT = 16;
    char text[LIMIT] = {};
    std::strncpy(text, name, LIMIT - 1);
    // a detached thread may have ended, and its id may be another's by now
    if (exists() && !(_flag & THR_DETACHED))
        pthread_setname_np(_tid, text);
}

ACE_THR_FUNC_RETURN Thread_Helper::ACE_Thread_Func(void* argument) {
    Thread_Helper* const helper = static_cast<Thread_Helper*>(argument);
    helper->handle_starting();
    std::function<void()> const function = helper->_function;
    std::atomic<bool>* const running =
        helper->_flag & THR_DETACHED ? nullptr : helper->_running.get();
    // from here on a detached helper may be gone
    helper->_started->signal();
    function();
    if (running)
        *running = false;
    return nullptr;
}
