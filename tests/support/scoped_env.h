#ifndef TESTS_SUPPORT_SCOPED_ENV_H
#define TESTS_SUPPORT_SCOPED_ENV_H

#include <cstdlib>
#include <optional>
#include <string>

/** Sets, or with a null value unsets, an environment variable until the end of the scope. */
class Scoped_Env {
public:
    Scoped_Env(char const* name, char const* value) : name_(name) {
        if (char const* const old = std::getenv(name))
            old_ = old;
        set(value);
    }
    ~Scoped_Env() { set(old_ ? old_->c_str() : nullptr); }
    Scoped_Env(Scoped_Env const&) = delete;
    Scoped_Env& operator=(Scoped_Env const&) = delete;

private:
    void set(char const* value) {
        if (value)
            setenv(name_.c_str(), value, 1);
        else
            unsetenv(name_.c_str());
    }
    std::string name_;
    std::optional<std::string> old_;
};

#endif
