#include "host/mtf/archive_path.h"
#include "host/mtf/catalogue.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

using namespace MTF;

namespace {

class Text_Input : public Archive_Store::Input {
public:
    explicit Text_Input(std::string text) : text_(std::move(text)) {}
    ssize_t read(void* buffer, size_t size) override {
        size = std::min(size, text_.size() - at_);
        std::memcpy(buffer, text_.data() + at_, size);
        at_ += size;
        return static_cast<ssize_t>(size);
    }

private:
    std::string const text_;
    size_t at_ = 0;
};

/** With the sum that belongs behind it, without which nothing of it is looked at. */
std::string with_sum(std::string text) {
    if (!text.ends_with('\n'))
        text += '\n';
    Sha256 sha256;
    sha256.update(text.data(), text.size());
    return text + "{\"sha256\":\"" + sha256.finish() + "\"}\n";
}

} // namespace

/** A catalogue of an archive: what passes its check can be read, and leads nowhere else. */
extern "C" int LLVMFuzzerTestOneInput(unsigned char const* data, size_t size) {
    std::string text(reinterpret_cast<char const*>(data), size);
    bool const summed = size > 0 && data[0] != '!';
    Text_Input input(summed ? with_sum(text) : text);
    Catalogue_Reader reader;
    std::string error;
    if (reader.fetch(input, error) != Catalogue_Reader::OK) {
        if (error.empty())
            std::abort();
        return 0;
    }
    Catalogue_Entry entry;
    uint64_t entries = 0;
    if (!reader.rewind())
        std::abort();
    while (reader.next(entry)) {
        ++entries;
        if (entry.name.empty() || entry.name.front() == '/' ||
            ("/" + entry.name + "/").find("/../") != std::string::npos)
            std::abort();
        if (!load_entry(dump_entry(entry)))
            std::abort();
    }
    if (entries != reader.summary().entries)
        std::abort();
    return 0;
}
