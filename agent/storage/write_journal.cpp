#include "agent/storage/write_journal.h"

#include "host/storage/storage_url.h"
#include "qmrt/log.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

/** Lines of a file beyond the notes in it at which it is worth writing anew. */
constexpr size_t SPARE_LINES = 1000;
/** What a line ends with: without it a name that was cut short would be another object's. */
constexpr char WHOLE[] = " ;";

std::string line_of(char sign, Pool_Object const& object) {
    return std::string(1, sign) + " " + encode_url_path(object.pool_path) + " " +
           encode_url_path(object.name) + WHOLE + "\n";
}

/** Reads a line without its end. */
bool parse_line(std::string_view line, char& sign, Pool_Object& object) {
    if (!line.ends_with(WHOLE) || (!line.starts_with("+ ") && !line.starts_with("- ")))
        return false;
    line.remove_suffix(sizeof WHOLE - 1);
    size_t const blank = line.find(' ', 2);
    if (blank == std::string_view::npos)
        return false;
    std::string pool, error;
    if (!decode_url_path(std::string(line.substr(2, blank - 2)), pool, error) ||
        !decode_url_path(std::string(line.substr(blank + 1)), object.name, error))
        return false;
    if (line.ends_with('/') && !object.name.empty())
        object.name += '/'; // decoding leaves out what divides it from nothing
    object.pool_path = "/" + pool;
    sign = line[0];
    return !object.name.empty();
}

} // namespace

std::unique_ptr<Write_Journal> Write_Journal::open(std::string const& path, std::string& error) {
    std::unique_ptr<Write_Journal> journal(new Write_Journal(path));
    if (journal->read(error))
        return journal;
    error = "Cannot use the journal " + path + ": " + error;
    return nullptr;
}

bool Write_Journal::read(std::string& error) {
    file_.reset(::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_APPEND, 0600));
    if (!file_) {
        error = strerror(errno);
        return false;
    }
    auto const take = [this](std::string_view line) {
        char sign = 0;
        Pool_Object object;
        if (!parse_line(line, sign, object))
            return true; // the last one was cut short, or the disk spoiled it
        if (sign == '+')
            notes_[object].may_exist = true;
        else
            notes_.erase(object);
        return true;
    };
    if (read_each_line(path_.c_str(), take) == -1 || (!is_compact() && !compact())) {
        error = strerror(errno);
        return false;
    }
    lines_ = notes_.size();
    return true;
}

std::string Write_Journal::compact_content() const {
    std::string content;
    for (auto const& entry : notes_)
        content += line_of('+', entry.first);
    return content;
}

bool Write_Journal::is_compact() const {
    struct stat status;
    return fstat(file_.get(), &status) == 0 &&
           status.st_size == static_cast<off_t>(compact_content().size());
}

bool Write_Journal::append(char sign, Pool_Object const& object, bool durable) {
    std::string const line = (torn_ ? "\n" : "") + line_of(sign, object);
    ++lines_;
    torn_ = write_all(file_.get(), line.data(), line.size()) == -1;
    return !torn_ && (!durable || fdatasync(file_.get()) == 0);
}

bool Write_Journal::compact() {
    if (write_file_atomically(path_.c_str(), compact_content(), 0600) == -1)
        return false;
    File_Descriptor file(::open(path_.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_APPEND));
    if (!file)
        return false;
    file_ = std::move(file);
    lines_ = notes_.size();
    torn_ = false;
    return true;
}

bool Write_Journal::begin(Pool_Object const& object, std::string& error) {
    std::unique_lock lock(mutex_);
    released_.wait(lock, [&] {
        auto const note = notes_.find(object);
        return note == notes_.end() || !note->second.held;
    });
    auto const [note, is_new] = notes_.try_emplace(object);
    if (is_new && !append('+', object, true)) {
        error = "the journal " + path_ + " cannot be written: " + strerror(errno);
        notes_.erase(note);
        return false;
    }
    ++note->second.writers;
    note->second.begun = ++begun_;
    return true;
}

bool Write_Journal::note(Pool_Object const& object, std::string& error) {
    if (!begin(object, error))
        return false;
    end(object, true);
    return true;
}

bool Write_Journal::hold(Pool_Object const& object) {
    std::lock_guard const guard(mutex_);
    auto const note = notes_.find(object);
    if (note == notes_.end() || note->second.writers > 0 || note->second.held)
        return false;
    note->second.held = true;
    return true;
}

void Write_Journal::release(Pool_Object const& object) {
    std::lock_guard const guard(mutex_);
    if (auto const note = notes_.find(object); note != notes_.end())
        note->second.held = false;
    released_.notify_all();
}

void Write_Journal::erase(std::map<Pool_Object, Note>::iterator note) {
    // one that stays in the file by a failure is found to be gone, or named, at the next start
    (void)append('-', note->first, false);
    notes_.erase(note);
    if (lines_ > 2 * notes_.size() + SPARE_LINES)
        (void)compact();
}

void Write_Journal::end(Pool_Object const& object, bool may_exist) {
    std::lock_guard const guard(mutex_);
    auto const note = notes_.find(object);
    if (note == notes_.end() || note->second.writers == 0)
        return;
    --note->second.writers;
    note->second.may_exist |= may_exist;
    if (note->second.writers == 0 && !note->second.may_exist)
        erase(note);
}

void Write_Journal::removed(Pool_Object const& object) {
    std::lock_guard const guard(mutex_);
    auto const note = notes_.find(object);
    if (note == notes_.end())
        return;
    note->second.may_exist = false;
    if (note->second.writers == 0)
        erase(note);
}

void Write_Journal::settle(Set_Question const& question) {
    std::vector<std::pair<Pool_Object, uint64_t>> asked;
    {
        std::lock_guard const guard(mutex_);
        for (auto const& [object, note] : notes_)
            if (note.writers == 0)
                asked.emplace_back(object, note.begun);
    }
    for (auto const& [object, begun] : asked) {
        bool named = false;
        if (!question(object, named) || !named)
            continue;
        std::lock_guard const guard(mutex_);
        auto const note = notes_.find(object);
        if (note != notes_.end() && note->second.writers == 0 && note->second.begun == begun)
            erase(note);
    }
}

std::vector<Pool_Object> Write_Journal::left() const {
    std::lock_guard const guard(mutex_);
    std::vector<Pool_Object> objects;
    for (auto const& [object, note] : notes_)
        if (note.writers == 0)
            objects.push_back(object);
    return objects;
}
