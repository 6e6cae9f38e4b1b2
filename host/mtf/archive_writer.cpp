#include "host/mtf/archive_writer.h"

#include "qmrt/format.h"

#include <algorithm>
#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace MTF {

namespace {
constexpr size_t BLOCK_SIZE = 256 * 1024;

/** The highest level of a method; with more than 19, zstd takes hundreds of megabytes to read. */
int max_level(Compression_Method method) {
    return method == COMPR_ZSTD ? 19 : 9;
}

Compression_Method method_of(Compression compression) {
    switch (compression) {
    case COMPRESSION_LZOP:
        return COMPR_LZOP;
    case COMPRESSION_ZSTD:
        return COMPR_ZSTD;
    case COMPRESSION_NONE:
        break;
    }
    return COMPR_NONE;
}

} // namespace

std::optional<Entry_Type> entry_type_of(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG:
        return ENTRY_FILE;
    case S_IFDIR:
        return ENTRY_DIRECTORY;
    case S_IFLNK:
        return ENTRY_SYMBOLIC_LINK;
    case S_IFIFO:
        return ENTRY_FIFO;
    }
    return std::nullopt;
}

int64_t to_ns(timespec const& time) {
    return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

void Archive_Writer::Free::operator()(archive* writer) const {
    archive_free(writer);
}

void Archive_Writer::Free::operator()(archive_entry* entry) const {
    archive_entry_free(entry);
}

Archive_Writer::Archive_Writer(Archive_Store& store, Work_Report& report)
    : store_(store), report_(report), buffer_(BLOCK_SIZE) {}

Archive_Writer::~Archive_Writer() {
    given_up_ = true;
    writer_.reset(); // writes the end of an archive that is not closed yet
}

bool Archive_Writer::open(std::string const& name, Compression compression, int level) {
    output_ = store_.create(name);
    if (!output_) {
        error_ = store_.error();
        return false;
    }
    Compression_Method const method = method_of(compression);
    encoder_ = make_encoder(method, std::clamp(level, 0, max_level(method)), UNKNOWN_SIZE, 1);
    writer_.reset(archive_write_new());
    disk_.reset(archive_read_disk_new());
    header_.reset(archive_entry_new());
    if (!encoder_ || !writer_ || !disk_ || !header_) {
        error_ = "out of memory";
        return false;
    }
    archive_read_disk_set_standard_lookup(disk_.get());
    archive_read_disk_set_behavior(disk_.get(), ARCHIVE_READDISK_NO_FFLAGS);
    if (set_up_format() && archive_write_open2(writer_.get(), this, nullptr, write_to_store,
                                               nullptr, nullptr) == ARCHIVE_OK)
        return true;
    fail();
    return false;
}

bool Archive_Writer::set_up_format() {
    archive* const writer = writer_.get();
    return archive_write_set_format_pax(writer) == ARCHIVE_OK &&
           archive_write_set_format_option(writer, "pax", "hdrcharset", "BINARY") == ARCHIVE_OK &&
           archive_write_set_bytes_per_block(writer, BLOCK_SIZE) == ARCHIVE_OK &&
           archive_write_set_bytes_in_last_block(writer, 1) == ARCHIVE_OK;
}

ssize_t Archive_Writer::write_to_store(archive*, void* self, void const* data, size_t size) {
    auto& writing = *static_cast<Archive_Writer*>(self);
    if (writing.given_up_)
        return static_cast<ssize_t>(size);
    Storage_Result const result = writing.encoder_->feed(
        data, size, [&](void const* piece, size_t length) { return writing.store(piece, length); });
    if (!result) {
        writing.given_up_ = true;
        writing.error_ = result.text();
    }
    return static_cast<ssize_t>(size);
}

Storage_Result Archive_Writer::store(void const* data, size_t size) {
    if (!output_->write(data, size))
        return Storage_Result(Storage_Result::FAILED, store_.error());
    sha256_.update(data, size);
    written_.size += size;
    return {};
}

Archive_Writer::Result Archive_Writer::fail() {
    char const* const text = archive_error_string(writer_.get());
    if (!given_up_)
        error_ = text ? text : "archive error";
    return FAILED;
}

bool Archive_Writer::open_source(Source_Item const& item, File_Descriptor& file,
                                 struct stat& status) {
    status = item.status;
    if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))
        return true;
    file = item.open();
    if (!file || fstat(file.get(), &status) == -1) {
        report_.skipped(item.path, E_GET_SOURCE_DATA, strerror(errno));
        return false;
    }
    if (!item.may_be_read(status)) {
        report_.skipped(item.path, E_GET_SOURCE_DATA, strerror(EPERM));
        return false;
    }
    if ((status.st_mode & S_IFMT) == (item.status.st_mode & S_IFMT))
        return true;
    report_.skipped(item.path, E_GET_SOURCE_DATA, "it became something else meanwhile");
    return false;
}

bool Archive_Writer::describe(Source_Item const& item, int fd, struct stat const& status,
                              std::string const& hard_link, Catalogue_Entry& entry) {
    entry = Catalogue_Entry();
    entry.name = item.name;
    entry.type = hard_link.empty() ? *entry_type_of(status.st_mode) : ENTRY_HARD_LINK;
    entry.size = entry.type == ENTRY_FILE ? static_cast<uint64_t>(status.st_size) : 0;
    entry.mtime_ns = to_ns(status.st_mtim);
    entry.ctime_ns = to_ns(status.st_ctim);
    entry.mode = status.st_mode & 07777;
    entry.uid = status.st_uid;
    entry.gid = status.st_gid;
    entry.offset = static_cast<uint64_t>(archive_filter_bytes(writer_.get(), 0));

    archive_entry* const header = archive_entry_clear(header_.get());
    archive_entry_copy_pathname(header, item.name.c_str());
    archive_entry_copy_sourcepath(header, item.path.c_str());
    archive_entry_copy_stat(header, &status);
    if (entry.type == ENTRY_HARD_LINK) {
        entry.link = hard_link;
        archive_entry_copy_hardlink(header, hard_link.c_str());
        archive_entry_unset_size(header);
    } else if (entry.type == ENTRY_SYMBOLIC_LINK) {
        if (!item.read_link(entry.link)) {
            report_.skipped(item.path, E_GET_SOURCE_DATA, strerror(errno));
            return false;
        }
        archive_entry_copy_symlink(header, entry.link.c_str());
    } else if (fd != -1 &&
               archive_read_disk_entry_from_file(disk_.get(), header, fd, &status) < ARCHIVE_OK)
        report_.warning(item.path, archive_error_string(disk_.get()));
    archive_entry_copy_uname(header, archive_read_disk_uname(disk_.get(), status.st_uid));
    archive_entry_copy_gname(header, archive_read_disk_gname(disk_.get(), status.st_gid));
    return true;
}

Archive_Writer::Result Archive_Writer::write_header(Source_Item const& item) {
    int const result = archive_write_header(writer_.get(), header_.get());
    if (given_up_ || result == ARCHIVE_FATAL)
        return fail();
    if (result == ARCHIVE_FAILED) {
        report_.skipped(item.path, E_SKIP, archive_error_string(writer_.get()));
        return LEFT_OUT;
    }
    if (result != ARCHIVE_OK)
        report_.warning(item.path, archive_error_string(writer_.get()));
    return SAVED;
}

Archive_Writer::Result Archive_Writer::save(Source_Item const& item, std::string const& hard_link,
                                            Catalogue_Entry& entry) {
    File_Descriptor file;
    struct stat status;
    if (!open_source(item, file, status) || !describe(item, file.get(), status, hard_link, entry))
        return LEFT_OUT;
    Result result = write_header(item);
    if (result == SAVED && entry.type == ENTRY_FILE)
        result = write_content(item, file.get(), status, entry);
    if (result == CANCELED || result == FAILED)
        return result;
    // an entry whose reading failed is filled up here, and no catalogue tells of it
    int const finished = archive_write_finish_entry(writer_.get());
    return given_up_ || finished < ARCHIVE_WARN ? fail() : result;
}

Archive_Writer::Result Archive_Writer::write_content(Source_Item const& item, int fd,
                                                     struct stat const& before,
                                                     Catalogue_Entry& entry) {
    Sha256 sha256;
    bool cut = false;
    for (uint64_t done = 0; done < entry.size;) {
        if (report_.canceled())
            return CANCELED;
        size_t const wanted = std::min<uint64_t>(buffer_.size(), entry.size - done);
        ssize_t const got = cut ? 0 : pread(fd, buffer_.data(), wanted, static_cast<off_t>(done));
        if (got == -1 && errno == EINTR)
            continue;
        if (got == -1) {
            report_.skipped(item.path, E_GET_SOURCE_DATA, strerror(errno));
            return LEFT_OUT;
        }
        // the size stands in the header, so what is missing now must be made up
        cut = got == 0;
        size_t const size = cut ? wanted : static_cast<size_t>(got);
        if (cut)
            std::fill_n(buffer_.begin(), size, '\0');
        sha256.update(buffer_.data(), size);
        if (Result const result = write_data(size); result != SAVED)
            return result;
        done += size;
        report_.add_bytes(item.path, size);
    }
    entry.sha256 = sha256.finish();
    struct stat after;
    if (cut || fstat(fd, &after) == -1 || after.st_size != before.st_size ||
        to_ns(after.st_mtim) != to_ns(before.st_mtim)) {
        entry.save_again = true;
        ++changed_;
        report_.warning(item.path, "it changed while it was read");
    }
    if (entry.sha256.empty()) {
        error_ = "no checksum can be computed";
        return FAILED;
    }
    return SAVED;
}

Archive_Writer::Result Archive_Writer::write_data(size_t size) {
    for (size_t done = 0; done < size;) {
        la_ssize_t const written =
            archive_write_data(writer_.get(), buffer_.data() + done, size - done);
        if (given_up_ || written <= 0)
            return fail();
        done += static_cast<size_t>(written);
    }
    return SAVED;
}

bool Archive_Writer::close() {
    if (archive_write_close(writer_.get()) != ARCHIVE_OK || given_up_) {
        fail();
        return false;
    }
    Storage_Result const result =
        encoder_->finish([this](void const* data, size_t size) { return store(data, size); });
    if (!result) {
        error_ = result.text();
        return false;
    }
    written_.sha256 = sha256_.finish();
    return true;
}

bool Archive_Writer::commit() {
    if (output_->commit())
        return true;
    error_ = store_.error();
    return false;
}

} // namespace MTF
