#ifndef TESTS_UNIT_HOST_STORAGE_STORED_TEXT_H
#define TESTS_UNIT_HOST_STORAGE_STORED_TEXT_H

#include "host/storage/storage_backend.h"

#include <cstring>
#include <string>

constexpr size_t MIB = 1024 * 1024;

/** Lines that differ, and that pack well. */
inline std::string text_of(size_t size) {
    std::string text;
    for (unsigned i = 0; text.size() < size; ++i)
        text += "line " + std::to_string(i * 2654435761u % 1000) + "\n";
    text.resize(size);
    return text;
}

/** An object in memory that counts what is read of it. */
class Text_Reader : public Storage_Reader {
public:
    explicit Text_Reader(std::string text, uint64_t* count = nullptr)
        : text_(std::move(text)), count_(count) {
        entry_.size = text_.size();
    }
    Storage_Entry const& entry() const override { return entry_; }
    Storage_Result read_at(uint64_t offset, void* buffer, size_t size, size_t& got) override {
        got = offset < text_.size() ? std::min<size_t>(size, text_.size() - offset) : 0;
        std::memcpy(buffer, text_.data() + (got ? offset : 0), got);
        if (count_)
            *count_ += got;
        return {};
    }

private:
    std::string const text_;
    Storage_Entry entry_;
    uint64_t* const count_;
};

#endif
