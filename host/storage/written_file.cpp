#include "host/storage/written_file.h"

#include "host/storage/block_source.h"
#include "host/storage/local_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <unistd.h>

namespace {

constexpr size_t STEP = 1024 * 1024;

Storage_Result short_of_memory() {
    return {Storage_Result::FAILED, "memory is short"};
}

} // namespace

std::shared_ptr<Written_File>
Written_File::of_object(std::shared_ptr<Storage_Connection> connection, std::string const& object,
                        uint64_t size, Written_File_Settings const& settings) {
    std::shared_ptr<Written_File> file(new Written_File(std::move(connection), object, settings));
    file->size_ = size;
    file->modified_ = time(nullptr);
    return file;
}

std::shared_ptr<Written_File>
Written_File::of_nothing(std::shared_ptr<Storage_Connection> connection, std::string const& object,
                         Written_File_Settings const& settings) {
    std::shared_ptr<Written_File> file = of_object(std::move(connection), object, 0, settings);
    file->dirty_ = true;
    return file;
}

Written_File::~Written_File() {
    drop_stream();
}

Storage_Result Written_File::keep(Storage_Result result) {
    if (!result) {
        failure_ = result;
        drop_stream();
    }
    return result;
}

Storage_Result Written_File::write(uint64_t offset, void const* data, size_t size) {
    if (!failure_)
        return failure_;
    modified_ = time(nullptr);
    return keep(write_i(offset, data, size));
}

Storage_Result Written_File::write_i(uint64_t offset, void const* data, size_t size) {
    Storage_Result result;
    // an empty object that has been stored already is simply written once more
    if (!spool_ && !writer_ && size_ == 0 && offset == 0)
        result = begin_stream();
    if (!result)
        return result;
    if (writer_ && offset == size_)
        return feed_stream(data, size);
    result = spool();
    if (!result)
        return result;
    dirty_ = true;
    for (size_t done = 0; done < size;) {
        ssize_t const count = pwrite(spool_.get(), static_cast<char const*>(data) + done,
                                     size - done, static_cast<off_t>(offset + done));
        if (count == -1 && errno != EINTR)
            return local_errno("failed to write the spool of", object_, errno);
        done += count == -1 ? 0 : static_cast<size_t>(count);
    }
    size_ = std::max(size_, offset + size);
    return {};
}

Storage_Result Written_File::read(uint64_t offset, void* buffer, size_t size, size_t& got) {
    got = 0;
    if (!failure_ || offset >= size_)
        return failure_;
    Storage_Result const result = keep(spool());
    if (!result)
        return result;
    ssize_t count;
    do
        count = pread(spool_.get(), buffer, size, static_cast<off_t>(offset));
    while (count == -1 && errno == EINTR);
    if (count == -1)
        return local_errno("failed to read the spool of", object_, errno);
    got = static_cast<size_t>(count);
    return {};
}

Storage_Result Written_File::truncate(uint64_t size) {
    if (!failure_ || size == size_)
        return failure_;
    modified_ = time(nullptr);
    if (size == 0) {
        drop_stream();
        spool_.reset();
    } else {
        Storage_Result const result = keep(spool());
        if (!result)
            return result;
        if (ftruncate(spool_.get(), static_cast<off_t>(size)) == -1)
            return keep(local_errno("failed to change the size of", object_, errno));
    }
    size_ = size;
    dirty_ = true;
    return {};
}

Storage_Result Written_File::store() {
    if (!failure_ || !dirty_ || forgotten_)
        return failure_;
    return keep(store_i());
}

Storage_Result Written_File::store_i() {
    Storage_Result result;
    if (spool_)
        result = store_spool();
    else {
        if (!writer_)
            result = begin_stream();
        if (result)
            result = end_stream();
    }
    dirty_ = !result;
    return result;
}

void Written_File::forget() {
    forgotten_ = true;
    if (failure_ && size_ > 0)
        (void)keep(spool());
    drop_stream();
    dirty_ = false;
}

Storage_Result Written_File::begin_stream() {
    encoder_ = make_encoder(method(), settings_.compression_level, UNKNOWN_SIZE, 1);
    if (!encoder_)
        return short_of_memory();
    return connection_->create(object_, true, writer_);
}

Storage_Result Written_File::feed_stream(void const* data, size_t size) {
    dirty_ = true;
    size_ += size;
    return encoder_->feed(data, size, [&](void const* packed, size_t length) {
        return writer_->write(packed, length);
    });
}

Storage_Result Written_File::end_stream() {
    Storage_Result result = encoder_->finish(
        [&](void const* packed, size_t length) { return writer_->write(packed, length); });
    if (result)
        result = writer_->commit();
    drop_stream();
    return result;
}

void Written_File::drop_stream() {
    writer_.reset();
    encoder_.reset();
}

Storage_Result Written_File::spool() {
    if (spool_)
        return {};
    std::unique_ptr<Storage_Reader> reader;
    Storage_Result result;
    if (writer_) {
        result = encoder_->finish(
            [&](void const* packed, size_t length) { return writer_->write(packed, length); });
        if (result)
            result = writer_->reread(reader);
    } else if (size_ > 0)
        result = connection_->open(object_, reader);
    if (result)
        result = open_spool();
    if (result && reader) {
        Compression_Method packed = method();
        if (!writer_)
            result = method_to_read(*reader, object_, COMPR_AUTO, packed);
        Object_Content content(std::move(reader), packed);
        if (result)
            result = copy_to_spool(content);
    }
    drop_stream();
    return result;
}

Storage_Result Written_File::open_spool() {
    std::string name = settings_.spool_directory + "/" + UNFINISHED_PREFIX + "XXXXXX";
    spool_.reset(mkostemp(name.data(), O_CLOEXEC));
    if (!spool_)
        return local_errno("failed to create the spool of", object_, errno);
    unlink(name.c_str());
    return {};
}

Storage_Result Written_File::copy_to_spool(Object_Content& content) {
    Block block;
    if (!block.reserve(STEP))
        return short_of_memory();
    for (uint64_t at = 0;; at += block.size) {
        Storage_Result result = content.read_at(at, block.data.get(), STEP, block.size);
        if (!result || block.size == 0)
            return result;
        if (write_all(spool_.get(), block.data.get(), block.size) == -1)
            return local_errno("failed to write the spool of", object_, errno);
    }
}

Storage_Result Written_File::store_spool() {
    std::unique_ptr<Storage_Writer> writer;
    Block block;
    auto const encoder = make_encoder(method(), settings_.compression_level, size_, 1);
    if (!encoder || !block.reserve(STEP))
        return short_of_memory();
    Storage_Result result = connection_->create(object_, true, writer);
    Codec_Sink const sink = [&](void const* data, size_t size) {
        return writer->write(data, size);
    };
    for (uint64_t at = 0; result && at < size_;) {
        ssize_t const count = pread(spool_.get(), block.data.get(), STEP, static_cast<off_t>(at));
        if (count == -1 && errno == EINTR)
            continue;
        if (count <= 0)
            return local_errno("failed to read the spool of", object_, count ? errno : EIO);
        at += static_cast<uint64_t>(count);
        result = encoder->feed(block.data.get(), static_cast<size_t>(count), sink);
    }
    if (result)
        result = encoder->finish(sink);
    return result ? writer->commit() : result;
}
