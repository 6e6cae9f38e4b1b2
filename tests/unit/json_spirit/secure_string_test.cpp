#include "json_spirit/secure_string.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <new>

namespace {

constexpr size_t WATCHED_SIZE = 1000;
void* watched = nullptr;
std::string given_back; ///< what the watched memory held when it was given back

void give_back(void* memory) {
    if (memory && memory == watched) {
        watched = nullptr;
        given_back.assign(static_cast<char*>(memory), WATCHED_SIZE);
    }
    std::free(memory);
}

} // namespace

// the program's own memory functions, to see what is in a block that goes back
void* operator new(size_t size) {
    if (void* const memory = std::malloc(size))
        return memory;
    throw std::bad_alloc();
}

// ACE allocates with this one and gives back by the plain delete, which is replaced too
void* operator new(size_t size, std::nothrow_t const&) noexcept {
    return std::malloc(size);
}

void operator delete(void* memory) noexcept {
    give_back(memory);
}

void operator delete(void* memory, size_t) noexcept {
    give_back(memory);
}

namespace {

/** The bytes of an object after its destructor has run. */
template <typename Make>
std::string bytes_after_destruction(Make make) {
    alignas(secure_string) static unsigned char memory[sizeof(secure_string)];
    std::memset(memory, 0, sizeof memory);
    secure_string* const text = make(memory);
    text->~secure_string();
    // through a volatile pointer: the compiler knows that nobody may look at a dead object
    std::string bytes;
    for (unsigned char const volatile* byte = memory; byte != memory + sizeof memory; ++byte)
        bytes += static_cast<char>(*byte);
    return bytes;
}

TEST(secure_string, a_short_text_is_cleared_inside_the_object) {
    std::string const bytes =
        bytes_after_destruction([](void* at) { return new (at) secure_string("pa55word"); });
    EXPECT_EQ(std::string::npos, bytes.find("pa55"));
}

TEST(secure_string, a_short_text_is_cleared_in_what_was_moved_from) {
    secure_string source("pa55word");
    secure_string const target(std::move(source));
    EXPECT_EQ("pa55word", target.plain());
    std::string const bytes(reinterpret_cast<char*>(&source), sizeof source);
    EXPECT_EQ(std::string::npos, bytes.find("pa55"));
}

TEST(secure_string, assignment_clears_the_old_text) {
    secure_string text("pa55word");
    text = secure_string("x");
    std::string const bytes(reinterpret_cast<char*>(&text), sizeof text);
    EXPECT_EQ(std::string::npos, bytes.find("a55w"));
    EXPECT_EQ("x", text.plain());
    secure_string const other("other");
    text = other;
    EXPECT_EQ("other", text.plain());
    text = *&text;
    EXPECT_EQ("other", text.plain());
}

TEST(secure_allocator, memory_is_cleared_before_it_goes_back) {
    secure_allocator<char> allocator;
    char* const memory = allocator.allocate(WATCHED_SIZE);
    std::memset(memory, 's', WATCHED_SIZE);
    given_back.assign("none");
    watched = memory;
    allocator.deallocate(memory, WATCHED_SIZE);
    EXPECT_EQ(std::string(WATCHED_SIZE, '\0'), given_back);
}

TEST(secure_string, wipe_leaves_the_empty_text) {
    secure_string text(std::string_view(std::string(100, 's')));
    char const* const memory = text.data();
    text.wipe();
    EXPECT_TRUE(text.empty());
    EXPECT_EQ('\0', memory[50]);
}

TEST(secure_memset, writes_the_value) {
    char bytes[4] = {1, 2, 3, 4};
    secure_memset(bytes, 7, 2);
    EXPECT_EQ(7, bytes[1]);
    EXPECT_EQ(3, bytes[2]);
}

} // namespace
