#include "agent/storage/pool_connection.h"

#include "qmrt/format.h"

#include <algorithm>
#include <cinttypes>

namespace {

/** An object that was renamed to its place, and could not be synced there, may be there. */
bool may_be_in_place(Storage_Result const& result) {
    return result.code() != Storage_Result::EXISTS && result.code() != Storage_Result::BAD_NAME &&
           result.code() != Storage_Result::NOT_FOUND;
}

/** An object on its way into a pool: within the pool's limit, and noted in the journal. */
class Pool_Writer : public Storage_Writer {
public:
    Pool_Writer(std::unique_ptr<Storage_Writer> file, std::shared_ptr<Storage_Connection> files,
                std::shared_ptr<Pool_Use const> use, std::string name, Pool_Object object)
        : file_(std::move(file)),
          files_(std::move(files)),
          use_(std::move(use)),
          name_(std::move(name)),
          object_(std::move(object)) {}
    ~Pool_Writer() override { abort(); }

    Storage_Result write(void const* data, size_t size) override {
        if (open_ && !use_->meter->book(size, use_->pool.limit))
            return {Storage_Result::NO_SPACE,
                    string_sprintf("pool %s has no room for '%s': its limit of %" PRIu64
                                   " bytes is used up",
                                   use_->pool.name.c_str(), name_.c_str(), use_->pool.limit)};
        booked_ += open_ ? size : 0;
        return file_->write(data, size);
    }

    Storage_Result commit() override {
        if (!open_)
            return file_->commit();
        Storage_Entry replaced;
        if (!files_->stat(name_, replaced))
            replaced.size = 0;
        Storage_Result result = file_->commit();
        open_ = false;
        if (result)
            use_->meter->committed(booked_, replaced.size);
        else
            use_->meter->give_back(booked_);
        use_->journal.end(object_, may_be_in_place(result));
        return result;
    }

    void abort() override {
        file_->abort();
        if (!open_)
            return;
        open_ = false;
        use_->meter->give_back(booked_);
        use_->journal.end(object_, false);
    }

    Storage_Result reread(std::unique_ptr<Storage_Reader>& reader) override {
        return file_->reread(reader);
    }

private:
    std::unique_ptr<Storage_Writer> const file_;
    std::shared_ptr<Storage_Connection> const files_;
    std::shared_ptr<Pool_Use const> const use_;
    std::string const name_;
    Pool_Object const object_;
    uint64_t booked_ = 0;
    bool open_ = true;
};

} // namespace

Pool_Object Pool_Connection::object(std::string const& name) const {
    return {use_->pool.path, folder_.empty() ? name : folder_ + "/" + name};
}

Storage_Result Pool_Connection::check_writable(std::string const& name) const {
    Storage_Result const result = check_object_name(name);
    if (result && use_->pool.read_only)
        return {Storage_Result::FAILED, "pool " + use_->pool.name + " is read-only"};
    return result;
}

Storage_Result Pool_Connection::check_replaceable(std::string const& name) const {
    Storage_Entry entry;
    if (!files_->stat(name, entry))
        return {};
    bool named = false;
    if (!use_->in_complete_set(object(name), named))
        return {Storage_Result::FAILED, "failed to replace '" + name +
                                            "': the catalog does not tell whether a backup set "
                                            "has it"};
    if (named)
        return {Storage_Result::EXISTS,
                "'" + name + "' belongs to a complete backup set and is not replaced"};
    return {};
}

uint64_t Pool_Connection::stored_size(std::string const& name) const {
    Storage_Entry entry;
    return files_->stat(name, entry) ? entry.size : 0;
}

Storage_Result Pool_Connection::create(std::string const& name, bool replace,
                                       std::unique_ptr<Storage_Writer>& writer) {
    Storage_Result result = check_writable(name);
    if (result && replace)
        result = check_replaceable(name);
    if (!result)
        return result;
    Pool_Object const noted = object(name);
    std::string error;
    if (!use_->journal.begin(noted, error))
        return {Storage_Result::FAILED, "failed to write '" + name + "': " + error};
    std::unique_ptr<Storage_Writer> file;
    result = files_->create(name, replace, file);
    if (result)
        writer = std::make_unique<Pool_Writer>(std::move(file), files_, use_, name, noted);
    else
        use_->journal.end(noted, false);
    return result;
}

Storage_Result Pool_Connection::remove(std::string const& name) {
    Storage_Result result = check_writable(name);
    if (!result)
        return result;
    uint64_t const size = stored_size(name);
    result = files_->remove(name);
    if (result) {
        use_->meter->removed(size);
        use_->journal.removed(object(name));
    }
    return result;
}

Storage_Result Pool_Connection::rename(std::string const& from, std::string const& to) {
    Storage_Result result = check_writable(to);
    if (result && from != to)
        result = check_replaceable(to);
    if (!result)
        return result;
    std::string error;
    Pool_Object const noted = object(to);
    if (!use_->journal.begin(noted, error))
        return {Storage_Result::FAILED, "failed to rename '" + from + "': " + error};
    uint64_t const replaced = from == to ? 0 : stored_size(to);
    result = files_->rename(from, to);
    use_->journal.end(noted, may_be_in_place(result));
    if (result)
        use_->meter->removed(replaced);
    if (result && from != to)
        use_->journal.removed(object(from));
    return result;
}

Storage_Result Pool_Connection::space(uint64_t& total, uint64_t& available) {
    Storage_Result const result = files_->space(total, available);
    uint64_t const limit = use_->pool.limit;
    if (!result || limit == 0)
        return result;
    uint64_t const used = use_->meter->used();
    total = std::min(total, limit);
    available = std::min(available, limit - std::min(used, limit));
    return {};
}
