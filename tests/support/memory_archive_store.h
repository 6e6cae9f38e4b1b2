#ifndef TESTS_SUPPORT_MEMORY_ARCHIVE_STORE_H
#define TESTS_SUPPORT_MEMORY_ARCHIVE_STORE_H

#include "host/mtf/archive_store.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

/** Keeps archives in memory, and fails where a test wants it to. */
class Memory_Archive_Store : public MTF::Archive_Store {
public:
    std::map<std::string, std::string> objects;
    std::string fail_create;        ///< names with this in them cannot be created; "" for none
    std::string fail_commit;        ///< the same for commit
    std::string fail_open;          ///< the same for open, though they are there
    std::string fail_remove;        ///< the same for remove
    uint64_t room = UINT64_MAX;     ///< bytes that may still be written
    uint64_t readable = UINT64_MAX; ///< bytes that may still be read before reading fails

    std::unique_ptr<Output> create(std::string const& name) override {
        if (!wanted(fail_create, name))
            return std::make_unique<Memory_Output>(*this, name);
        return nullptr;
    }
    std::unique_ptr<Input> open(std::string const& name, Presence& presence) override {
        presence = look(name);
        if (presence == PRESENT && wanted(fail_open, name))
            return nullptr;
        if (presence == PRESENT)
            return std::make_unique<Memory_Input>(*this, objects[name]);
        error_ = "no " + name;
        return nullptr;
    }
    Presence look(std::string const& name) override {
        return objects.count(name) != 0 ? PRESENT : ABSENT;
    }
    bool remove(std::string const& name) override {
        if (wanted(fail_remove, name))
            return false;
        objects.erase(name);
        return true;
    }

private:
    bool wanted(std::string const& fault, std::string const& name) {
        if (fault.empty() || name.find(fault) == name.npos)
            return false;
        error_ = "injected";
        return true;
    }

    class Memory_Output : public Output {
    public:
        Memory_Output(Memory_Archive_Store& store, std::string name)
            : store_(store), name_(std::move(name)) {}
        bool write(void const* data, size_t size) override {
            if (size > store_.room) {
                store_.error_ = "no room";
                return false;
            }
            store_.room -= size;
            text_.append(static_cast<char const*>(data), size);
            return true;
        }
        bool commit() override {
            if (store_.wanted(store_.fail_commit, name_))
                return false;
            store_.objects[name_] = text_;
            return true;
        }

    private:
        Memory_Archive_Store& store_;
        std::string const name_;
        std::string text_;
    };

    class Memory_Input : public Input {
    public:
        Memory_Input(Memory_Archive_Store& store, std::string text)
            : store_(store), text_(std::move(text)) {}
        ssize_t read(void* buffer, size_t size) override {
            size = std::min(size, text_.size() - at_);
            if (size > store_.readable) {
                store_.error_ = "connection lost";
                return -1;
            }
            store_.readable -= size;
            memcpy(buffer, text_.data() + at_, size);
            at_ += size;
            return static_cast<ssize_t>(size);
        }

    private:
        Memory_Archive_Store& store_;
        std::string const text_;
        size_t at_ = 0;
    };
};

#endif
