#include "tests/support/failing_new.h"

#include <new>

namespace {

thread_local size_t failing_size = 0;

} // namespace

Failing_New::Failing_New(size_t size) {
    failing_size = size;
}

Failing_New::~Failing_New() {
    failing_size = 0;
}

// takes the library's place in a test program; sanitizers see the throwing one's memory
void* operator new(size_t size, std::nothrow_t const&) noexcept {
    if (failing_size && size == failing_size)
        return nullptr;
    try {
        return ::operator new(size);
    } catch (...) {
        return nullptr;
    }
}
