#ifndef QMRT_SCOPED_DELETER_H
#define QMRT_SCOPED_DELETER_H

#include <utility>

/**
 * Runs a function at the end of the scope: Scoped_Deleter guard([&] { remove(path); }).
 * The function must not throw. release() gives the run up.
 */
template <typename Function>
class Scoped_Deleter {
public:
    explicit Scoped_Deleter(Function function) : function_(std::move(function)) {}
    ~Scoped_Deleter() {
        if (armed_)
            function_();
    }
    Scoped_Deleter(Scoped_Deleter const&) = delete;
    Scoped_Deleter& operator=(Scoped_Deleter const&) = delete;

    void release() { armed_ = false; }

private:
    Function function_;
    bool armed_ = true;
};

#endif
