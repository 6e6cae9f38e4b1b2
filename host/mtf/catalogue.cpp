#include "host/mtf/catalogue.h"

#include "host/mtf/archive_path.h"
#include "json_spirit/access.h"
#include "json_spirit/text.h"
#include "qmrt/format.h"
#include "qmrt/utf8.h"

#include <array>
#include <cinttypes>
#include <cstring>

namespace MTF {

namespace {

char const FORMAT[] = "zenbrak3-mtf-catalogue";
int const VERSION = 1;
/** A line with two names of a path's length in hex stays far below. */
size_t const MAX_LINE = 256 * 1024;

/** File names are bytes; JSON is UTF-8. What is not gets its bytes written as hex digits. */
void insert_bytes(json_spirit::Object& object, std::string const& key, std::string const& bytes) {
    if (qmrt::is_utf8(bytes)) {
        json_spirit::insert(object)(key, bytes);
        return;
    }
    std::string hex;
    for (unsigned char const c : bytes)
        hex += string_sprintf("%02x", c);
    json_spirit::insert(object)(key + "_hex", hex);
}

bool extract_bytes(json_spirit::Object const& object, std::string const& key, std::string& bytes) {
    if (json_spirit::object_get(object, key, bytes))
        return true;
    std::string hex;
    if (!json_spirit::object_get(object, key + "_hex", hex) || hex.size() % 2 != 0 ||
        hex.find_first_not_of("0123456789abcdef") != hex.npos)
        return false;
    bytes.clear();
    for (size_t at = 0; at < hex.size(); at += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(at, 2), nullptr, 16));
    return true;
}

bool is_sha256(std::string const& text) {
    return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == text.npos;
}

bool load_archives(json_spirit::Object const& sum, Catalogue_Archives& archives) {
    json_spirit::Array array;
    if (!json_spirit::object_get(sum, "archives", array))
        return false;
    for (json_spirit::Object const& object : json_spirit::objects_of(array)) {
        int64_t seq = 0;
        Catalogue_Archive archive;
        if (!json_spirit::object_get(object, "seq", seq) ||
            !json_spirit::object_get(object, "size", archive.size) ||
            !json_spirit::object_get(object, "sha256", archive.sha256) ||
            !is_sha256(archive.sha256) || !archives.emplace(seq, archive).second)
            return false;
    }
    return archives.size() == array.size();
}

bool parse_line(std::string const& line, json_spirit::Object& object) {
    json_spirit::Value value;
    if (!json_spirit::parse(line, value, nullptr) || value.type() != json_spirit::obj_type)
        return false;
    object = std::move(value.get_obj());
    return true;
}

} // namespace

json_spirit::Object dump_entry(Catalogue_Entry const& entry) {
    json_spirit::Object object;
    insert_bytes(object, "name", entry.name);
    json_spirit::insert(object)("type", std::string(1, static_cast<char>(entry.type)))(
        "mtime_ns", entry.mtime_ns)("ctime_ns", entry.ctime_ns)(
        "mode", static_cast<int64_t>(entry.mode))("uid", static_cast<int64_t>(entry.uid))(
        "gid", static_cast<int64_t>(entry.gid))("seq", entry.seq)("offset", entry.offset);
    if (entry.type == ENTRY_FILE)
        json_spirit::insert(object)("size", entry.size)("sha256", entry.sha256);
    if (entry.type == ENTRY_SYMBOLIC_LINK || entry.type == ENTRY_HARD_LINK)
        insert_bytes(object, "link", entry.link);
    if (entry.save_again)
        json_spirit::insert(object)("save_again", true);
    return object;
}

std::optional<Catalogue_Entry> load_entry(json_spirit::Object const& object) {
    Catalogue_Entry entry;
    std::string type;
    if (!extract_bytes(object, "name", entry.name) || !is_entry_name(entry.name) ||
        !json_spirit::object_get(object, "type", type) || type.size() != 1 ||
        !strchr("fdlhp", type[0]) || !json_spirit::object_get(object, "seq", entry.seq) ||
        !json_spirit::object_get(object, "mtime_ns", entry.mtime_ns) ||
        !json_spirit::object_get(object, "ctime_ns", entry.ctime_ns) ||
        !json_spirit::object_get(object, "mode", entry.mode) ||
        !json_spirit::object_get(object, "uid", entry.uid) ||
        !json_spirit::object_get(object, "gid", entry.gid) ||
        !json_spirit::object_get(object, "offset", entry.offset))
        return std::nullopt;
    entry.type = static_cast<Entry_Type>(type[0]);
    json_spirit::extract(object)("save_again", entry.save_again);
    if (entry.type == ENTRY_FILE &&
        (!json_spirit::object_get(object, "size", entry.size) ||
         !json_spirit::object_get(object, "sha256", entry.sha256) || !is_sha256(entry.sha256)))
        return std::nullopt;
    bool const is_link = entry.type == ENTRY_SYMBOLIC_LINK || entry.type == ENTRY_HARD_LINK;
    if (is_link && !extract_bytes(object, "link", entry.link))
        return std::nullopt;
    if (entry.type == ENTRY_HARD_LINK && !is_entry_name(entry.link))
        return std::nullopt;
    return entry;
}

bool Catalogue_Writer::begin(int64_t seq, Metadata const& metadata) {
    file_ = open_scratch_file();
    entries_ = bytes_ = 0;
    used_.clear();
    return file_ && write_line(json_spirit::Object_Maker()("format", FORMAT)("version", VERSION)(
                        "seq", seq)("metadata", metadata.dump()));
}

bool Catalogue_Writer::write_line(json_spirit::Object const& object) {
    std::string const line = json_spirit::to_text(object) + "\n";
    sha256_.update(line.data(), line.size());
    return fwrite(line.data(), 1, line.size(), file_.get()) == line.size();
}

bool Catalogue_Writer::add(Catalogue_Entry const& entry) {
    ++entries_;
    bytes_ += entry.size;
    ++used_[entry.seq];
    return write_line(dump_entry(entry));
}

bool Catalogue_Writer::finish(Catalogue_Archives const& archives) {
    json_spirit::Array array;
    for (auto const& [seq, archive] : archives)
        if (used_.count(seq) != 0)
            array.push_back(json_spirit::Object_Maker()("seq", seq)("size", archive.size)(
                "sha256", archive.sha256));
    return write_line(json_spirit::Object_Maker()("entries", entries_)("bytes", bytes_)("archives",
                                                                                        array)) &&
           write_line(json_spirit::Object_Maker()("sha256", sha256_.finish())) &&
           fflush(file_.get()) == 0;
}

bool Catalogue_Writer::copy_to(Archive_Store::Output& output) {
    if (fseeko(file_.get(), 0, SEEK_SET) != 0)
        return false;
    std::array<char, 64 * 1024> buffer;
    while (size_t const size = fread(buffer.data(), 1, buffer.size(), file_.get()))
        if (!output.write(buffer.data(), size))
            return false;
    return ferror(file_.get()) == 0;
}

Catalogue_Reader::Result Catalogue_Reader::fetch(Archive_Store::Input& input, std::string& error) {
    summary_ = Catalogue_Summary();
    counted_ = counted_bytes_ = 0;
    used_.clear();
    file_ = open_scratch_file();
    if (!file_) {
        error = string_sprintf("no temporary file: %s", strerror(errno));
        return UNREADABLE;
    }
    if (!copy_from(input, error))
        return UNREADABLE;
    if (fseeko(file_.get(), 0, SEEK_SET) == 0 && check(error) && rewind())
        return OK;
    file_.reset();
    return CORRUPT;
}

bool Catalogue_Reader::copy_from(Archive_Store::Input& input, std::string& error) {
    std::array<char, 64 * 1024> buffer;
    ssize_t size;
    while ((size = input.read(buffer.data(), buffer.size())) > 0)
        if (fwrite(buffer.data(), 1, static_cast<size_t>(size), file_.get()) !=
            static_cast<size_t>(size)) {
            error = string_sprintf("temporary file: %s", strerror(errno));
            return false;
        }
    if (size == 0 && fflush(file_.get()) == 0)
        return true;
    error = "its data cannot be read";
    return false;
}

bool Catalogue_Reader::check(std::string& error) {
    std::string line;
    json_spirit::Object head;
    json_spirit::Object metadata;
    std::string format;
    int version = 0;
    if (!read_line(line) || !parse_line(line, head) ||
        !json_spirit::object_get(head, "format", format) || format != FORMAT ||
        !json_spirit::object_get(head, "version", version) ||
        !json_spirit::object_get(head, "seq", summary_.seq) ||
        !json_spirit::object_get(head, "metadata", metadata)) {
        error = "it does not begin as a catalogue";
        return false;
    }
    if (version != VERSION) {
        error = string_sprintf("it has version %d, and only %d is known", version, VERSION);
        return false;
    }
    summary_.metadata = Metadata::load(metadata);
    return check_entries(line, error);
}

bool Catalogue_Reader::check_entries(std::string& line, std::string& error) {
    Sha256 sha256;
    std::string last;
    for (;;) {
        sha256.update((line + "\n").data(), line.size() + 1);
        json_spirit::Object object;
        if (!read_line(line)) {
            error = string_sprintf("it is cut after %" PRIu64 " entries", counted_);
            return false;
        }
        bool const is_object = parse_line(line, object);
        if (is_object && object.count("archives") != 0) {
            sha256.update((line + "\n").data(), line.size() + 1);
            return check_end(object, sha256.finish(), error);
        }
        auto const entry = is_object ? load_entry(object) : std::nullopt;
        // the order is what lets archives be read beside their catalogue in constant memory
        if (!entry || entry->seq > summary_.seq ||
            (counted_ > 0 && compare_entry_names(last, entry->name) >= 0)) {
            error = string_sprintf("entry %" PRIu64 " is not valid", counted_);
            return false;
        }
        last = entry->name;
        ++counted_;
        counted_bytes_ += entry->size;
        ++used_[entry->seq];
    }
}

bool Catalogue_Reader::check_end(json_spirit::Object const& sum, std::string const& sha256,
                                 std::string& error) {
    std::string line;
    json_spirit::Object end;
    std::string expected;
    bool const sealed = read_line(line) && parse_line(line, end) && end.size() == 1 &&
                        json_spirit::object_get(end, "sha256", expected) && !sha256.empty() &&
                        expected == sha256 && !read_line(line) && line.empty();
    if (!sealed || !json_spirit::object_get(sum, "entries", summary_.entries) ||
        !json_spirit::object_get(sum, "bytes", summary_.bytes) ||
        !load_archives(sum, summary_.archives) || summary_.entries != counted_ ||
        summary_.bytes != counted_bytes_) {
        error = "its checksum or its counts are not those of its lines";
        return false;
    }
    for (auto const& [seq, entries] : used_)
        if (summary_.archives.count(seq) == 0) {
            error = string_sprintf("it does not tell of archive %" PRId64, seq);
            return false;
        }
    return true;
}

bool Catalogue_Reader::read_line(std::string& line) {
    line.clear();
    for (int c; line.size() <= MAX_LINE && (c = getc_unlocked(file_.get())) != EOF;) {
        if (c == '\n')
            return true;
        line += static_cast<char>(c);
    }
    return false;
}

bool Catalogue_Reader::rewind() {
    std::string head;
    return file_ && fseeko(file_.get(), 0, SEEK_SET) == 0 && read_line(head);
}

bool Catalogue_Reader::next(Catalogue_Entry& entry) {
    std::string line;
    json_spirit::Object object;
    if (!file_ || !read_line(line) || !parse_line(line, object))
        return false;
    auto loaded = load_entry(object);
    if (!loaded)
        return false;
    entry = std::move(*loaded);
    return true;
}

} // namespace MTF
