#ifndef HOST_JOB_SHARED_VALUE_H
#define HOST_JOB_SHARED_VALUE_H

#include <atomic>
#include <type_traits>

/**
 * A number or enumerator in a record that several threads, or several processes, look at without a
 * lock. It has the size and the place that a plain T would have and is used like one, but each
 * single reading and writing is atomic. A record of these is no more than that: two fields are not
 * read together.
 *
 * Passed to a printf-like function it needs a cast, as a class does; its address is no T*.
 */
template <typename T>
class Shared_Value {
    static_assert(std::atomic_ref<T>::is_always_lock_free,
                  "another process could not see it whole");
    static_assert(std::atomic_ref<T>::required_alignment == alignof(T));

public:
    Shared_Value() = default;
    Shared_Value(T value) : value_(value) {}
    Shared_Value(Shared_Value const& other) : value_(other) {}
    Shared_Value& operator=(Shared_Value const& other) { return *this = static_cast<T>(other); }
    Shared_Value& operator=(T value) {
        reference().store(value);
        return *this;
    }
    operator T() const { return reference().load(); }
    /** One step: an addition of another thread's is not lost. */
    template <typename U = T, typename = std::enable_if_t<std::is_integral_v<U>>>
    Shared_Value& operator+=(U value) {
        reference().fetch_add(value);
        return *this;
    }

private:
    std::atomic_ref<T> reference() const { return std::atomic_ref<T>(value_); }

    mutable T value_{}; // an atomic_ref wants it, even to read
};

#endif
