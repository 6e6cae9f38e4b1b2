#ifndef JSON_SPIRIT_SECURE_STRING_H
#define JSON_SPIRIT_SECURE_STRING_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

/** Overwrites memory in a way that the compiler does not leave out. */
void secure_memset(void* memory, int value, size_t size);

/** An allocator that clears memory before it gives it back. */
template <typename T>
struct secure_allocator : std::allocator<T> {
    template <typename U>
    struct rebind {
        using other = secure_allocator<U>;
    };
    secure_allocator() = default;
    template <typename U>
    secure_allocator(secure_allocator<U> const&) noexcept {}
    void deallocate(T* memory, size_t count) {
        secure_memset(memory, 0, count * sizeof(T));
        std::allocator<T>::deallocate(memory, count);
    }
};

/**
 * A text whose memory is cleared when it is given back: passwords and keys. It has no operator<<.
 * A short text would live inside the object, where no allocator clears it, so the destructor and
 * the assignments clear the object's own bytes as well.
 */
class secure_string
    : public std::basic_string<char, std::char_traits<char>, secure_allocator<char>> {
    using base = std::basic_string<char, std::char_traits<char>, secure_allocator<char>>;

public:
    using base::base;
    secure_string() = default;
    secure_string(secure_string const&) = default;
    secure_string(secure_string&& other) : base(std::move(other)) { other.wipe(); }
    explicit secure_string(std::string_view text) : base(text.data(), text.size()) {}
    ~secure_string() { wipe(); }
    secure_string& operator=(secure_string const& other) {
        if (this != &other) {
            wipe();
            base::operator=(other);
        }
        return *this;
    }
    secure_string& operator=(secure_string&& other) {
        if (this != &other) {
            wipe();
            base::operator=(std::move(other));
            other.wipe();
        }
        return *this;
    }

    /** Overwrites the text, then makes it empty. */
    void wipe() {
        secure_memset(data(), 0, capacity());
        clear();
    }
    /** A plain copy, for the one who must hand the text on; not cleared. */
    std::string plain() const { return std::string(data(), size()); }
};

#endif
