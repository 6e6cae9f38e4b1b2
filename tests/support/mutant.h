#ifndef TESTS_SUPPORT_MUTANT_H
#define TESTS_SUPPORT_MUTANT_H

#include <atomic>
#include <fcntl.h>
#include <string>
#include <sys/resource.h>
#include <type_traits>
#include <unistd.h>

/**
 * Mutants: functions that do nothing when a test run asks for it. tools/mutate_source puts them in,
 * tools/mutants runs the tests.
 *
 * A process learns which one is active by the soft limit RLIMIT_RTTIME, which concerns real-time
 * processes only. A limit reaches all descendants, also those that get an environment of their own
 * or another user, and no privilege is needed to set it. From 0x30000000 on it asks instead to
 * record which functions are called: number 0x30000000 + N appends the ids to the file reached.N of
 * the build directory.
 */
namespace zenbrak3_mutants {

inline unsigned long number() {
    static unsigned long const number = [] {
        rlimit limit{};
        getrlimit(RLIMIT_RTTIME, &limit);
        return static_cast<unsigned long>(limit.rlim_cur);
    }();
    return number;
}

inline void record(unsigned id) {
    unsigned long const first = 0x30000000;
    if (number() < first || number() >= first + 0x1000)
        return;
    std::string const path = ZENBRAK3_MUTANTS_DIR "/reached." + std::to_string(number() - first);
    int const file = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file < 0)
        return;
    [[maybe_unused]] auto const written = write(file, &id, sizeof id);
    close(file);
}

/** Whether this mutant is the active one. recorded: that of the place of the call. */
inline bool is_active(unsigned id, std::atomic_flag& recorded) {
    if (!recorded.test_and_set())
        record(id);
    return number() == id;
}

/** A default value of any type. The process ends if the type has none. */
template <class Type>
Type nothing() {
    if constexpr (std::is_reference_v<Type>) {
        static std::remove_cvref_t<Type> value{};
        return value;
    } else if constexpr (std::is_default_constructible_v<Type>)
        return Type{};
    else
        __builtin_trap();
}

} // namespace zenbrak3_mutants

#define ZENBRAK3_MUTANT(id)                                                                        \
    if (static std::atomic_flag zenbrak3_recorded;                                                 \
        ::zenbrak3_mutants::is_active(id, zenbrak3_recorded))

#endif
