#include "host/storage/client_io_ex.h"

#include "host/agent/host_services.h"
#include "host/storage/local_file.h"
#include "host/storage/object_content.h"
#include "host/storage/storage_url.h"

#include <algorithm>

namespace {

constexpr size_t MIN_BLOCK = 1024 * 1024;
constexpr size_t MAX_BLOCK = 16 * 1024 * 1024;
constexpr int64_t FIRST_WAIT_NS = NS_PER_SECOND;
constexpr int64_t LONGEST_WAIT_NS = 30 * NS_PER_SECOND;

std::string text_of(char const* text) {
    return text ? text : "";
}

Storage_Result short_of_memory() {
    return {Storage_Result::FAILED, "memory is short"};
}

} // namespace

bool Client_IO_Ex::connect(char const* uri, Options const& options) {
    connection_.reset();
    options_ = options;
    uri_ = text_of(uri);
    source_limiter_ = std::make_unique<Rate_Limiter>(options.rate_limits.src, *options.clock);
    destination_limiter_ = std::make_unique<Rate_Limiter>(options.rate_limits.dest, *options.clock);
    return run([] { return Storage_Result(); });
}

Storage_Result Client_IO_Ex::make_connection() {
    Storage_Url url;
    std::string error;
    if (!parse_storage_url(uri_, url, error))
        return {Storage_Result::BAD_NAME, "invalid URL, " + error};
    if (!can_encrypt(options_.encryption, options_.encryption_key, options_.encryption_iv))
        return {Storage_Result::FAILED, "this client cannot encrypt as the pool wants it"};
    auto const backend = Host_Services::instance().storage(url.scheme);
    if (!backend)
        return {Storage_Result::FAILED, "no storage for URLs of '" + url.scheme + "'"};
    return backend->connect(uri_, options_.access(), connection_);
}

bool Client_IO_Ex::run(std::function<Storage_Result()> const& operation) {
    original_size_ = stored_size_ = 0;
    result_ = {};
    if (!source_limiter_) {
        result_ = {Storage_Result::FAILED, "not connected"};
        return false;
    }
    Storage_Clock& clock = *options_.clock;
    int64_t const start = clock.steady_ns();
    int64_t const allowed = static_cast<int64_t>(
        std::min<uint64_t>(options_.max_seconds_retry, INT64_MAX / NS_PER_SECOND) * NS_PER_SECOND);
    for (int64_t wait = FIRST_WAIT_NS;; wait = std::min(2 * wait, LONGEST_WAIT_NS)) {
        result_ = connection_ ? Storage_Result() : make_connection();
        if (result_)
            result_ = operation();
        if (result_.code() != Storage_Result::UNREACHABLE)
            return static_cast<bool>(result_);
        connection_.reset();
        int64_t const left = allowed - (clock.steady_ns() - start);
        if (left <= 0)
            return false;
        clock.sleep_ns(std::min(wait, left));
    }
}

size_t Client_IO_Ex::block_size(size_t wanted) const {
    return std::clamp(wanted, MIN_BLOCK, MAX_BLOCK);
}

Block_Gate Client_IO_Ex::source_gate(std::atomic<bool> const& stop, Progress const& progress) {
    bool const ahead = options_.channels > 1;
    return [this, &stop, &progress, ahead](uint64_t bytes) {
        // the progress belongs to the caller's thread, which is not this one when reading ahead
        return source_limiter_->acquire(bytes, [&] { return ahead ? !stop : go_on(progress); });
    };
}

Storage_Result
Client_IO_Ex::with_read_ahead(Block_Source& source, std::atomic<bool>& stop,
                              std::function<Storage_Result(Block_Source&)> const& transfer) {
    if (options_.channels <= 1)
        return transfer(source);
    Read_Ahead ahead(source);
    Storage_Result result = ahead.start() ? transfer(ahead) : transfer(source);
    stop = true;
    return result;
}

Storage_Result Client_IO_Ex::pump(Block_Source& source, Codec& codec, Sink const& sink,
                                  bool content_is_input, Progress const& progress) {
    Sink const counting = [&](void const* data, size_t size) {
        if (!content_is_input)
            original_size_ += size;
        return destination_limiter_->acquire(size, [&] { return go_on(progress); })
                   ? sink(data, size)
                   : transfer_canceled();
    };
    original_size_ = 0;
    Block block;
    for (;;) {
        Storage_Result result = source.next(block);
        if (!result)
            return result;
        if (content_is_input)
            original_size_ += block.size;
        result = block.size ? codec.feed(block.data.get(), block.size, counting)
                            : codec.finish(counting);
        if (!result)
            return result;
        if (!go_on(progress))
            return transfer_canceled();
        if (!block.size)
            return {};
    }
}

Storage_Result Client_IO_Ex::put(Block_Source& source, std::string const& name, bool replace,
                                 uint64_t size, Progress const& progress) {
    std::unique_ptr<Storage_Writer> writer;
    Storage_Result result = connection_->create(name, replace, writer);
    if (!result)
        return result;
    auto const encoder = make_encoder(method_to_write(name, options_.compression_method),
                                      options_.compression_level, size, options_.channels);
    if (!encoder)
        return short_of_memory();
    stored_size_ = 0;
    Sink const sink = [&](void const* data, size_t length) {
        stored_size_ += length;
        return writer->write(data, length);
    };
    result = pump(source, *encoder, sink, true, progress);
    return result ? writer->commit() : result;
}

Storage_Result Client_IO_Ex::get(std::string const& name, size_t block, Sink const& sink,
                                 Progress const& progress) {
    std::unique_ptr<Storage_Reader> reader;
    Compression_Method method = COMPR_NONE;
    Storage_Result result = connection_->open(name, reader);
    if (result)
        result = method_to_read(*reader, name, options_.compression_method, method);
    if (!result)
        return result;
    stored_size_ = reader->entry().size;
    auto const decoder = make_decoder(method);
    if (!decoder)
        return short_of_memory();
    std::atomic<bool> stop = false;
    Object_Source source(*reader, block_size(block), source_gate(stop, progress));
    result = with_read_ahead(source, stop, [&](Block_Source& from) {
        return pump(from, *decoder, sink, false, progress);
    });
    if (result.code() == Storage_Result::FAILED)
        return {Storage_Result::FAILED, "'" + name + "': " + result.text()};
    return result;
}

bool Client_IO_Ex::get_contents(char const* name, std::string& contents, uint64_t max_size) {
    return run([&] {
        std::string read;
        Sink const sink = [&](void const* data, size_t size) {
            if (size > max_size - read.size())
                return Storage_Result(Storage_Result::FAILED, "it is too large");
            read.append(static_cast<char const*>(data), size);
            return Storage_Result();
        };
        Storage_Result result = get(text_of(name), 0, sink, nullptr);
        if (result)
            contents = std::move(read);
        return result;
    });
}

bool Client_IO_Ex::put_contents(char const* name, std::string_view contents, bool replace) {
    return run([&] {
        Text_Source source(contents);
        return put(source, text_of(name), replace, contents.size(), nullptr);
    });
}

bool Client_IO_Ex::get_file(char const* name, char const* local, int flags, size_t buffer_size,
                            Progress const& progress) {
    return run([&] {
        Local_File file;
        Storage_Result result = file.open(text_of(local), flags);
        if (!result)
            return result;
        Sink const sink = [&](void const* data, size_t size) { return file.write(data, size); };
        result = get(text_of(name), buffer_size, sink, progress);
        return result ? file.commit() : result;
    });
}

bool Client_IO_Ex::put_file(char const* local, char const* name, bool replace, int flags,
                            size_t buffer_size, Progress const& progress) {
    return run([&] {
        std::atomic<bool> stop = false;
        File_Source file(block_size(buffer_size), source_gate(stop, progress));
        Storage_Result result = file.open(text_of(local), flags);
        if (!result)
            return result;
        return with_read_ahead(file, stop, [&](Block_Source& from) {
            return put(from, text_of(name), replace, file.size(), progress);
        });
    });
}

bool Client_IO_Ex::get_range(char const* name, uint64_t offset, size_t size,
                             std::string& contents) {
    return run([&] {
        std::unique_ptr<Object_Content> object;
        Storage_Result result =
            Object_Content::open(*connection_, text_of(name), options_.compression_method, object);
        std::string read;
        for (size_t got = 1; result && got > 0 && read.size() < size;) {
            size_t const before = read.size();
            read.resize(before + std::min(size - before, MIN_BLOCK));
            result =
                object->read_at(offset + before, read.data() + before, read.size() - before, got);
            read.resize(before + got);
        }
        if (result)
            contents = std::move(read);
        return result;
    });
}

bool Client_IO_Ex::remove(char const* name) {
    return run([&] { return connection_->remove(text_of(name)); });
}

bool Client_IO_Ex::stat(char const* name, Storage_Entry& entry) {
    return run([&] { return connection_->stat(text_of(name), entry); });
}

bool Client_IO_Ex::list(char const* folder, std::vector<Storage_Entry>& entries) {
    return run([&] { return connection_->list(text_of(folder), entries); });
}

bool Client_IO_Ex::content_size(char const* name, uint64_t& size) {
    return run([&] {
        std::unique_ptr<Object_Content> object;
        Storage_Result result =
            Object_Content::open(*connection_, text_of(name), options_.compression_method, object);
        return result ? object->size(size) : result;
    });
}
