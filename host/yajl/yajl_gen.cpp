#include "host/yajl/yajl_gen.h"

#include "json_spirit/text.h"
#include "qmrt/utf8.h"

YAJL_Gen::YAJL_Gen() : gen_(yajl_gen_alloc(nullptr)), owned_(true) {}

YAJL_Gen::~YAJL_Gen() {
    if (owned_)
        yajl_gen_free(gen_);
}

template <typename Write>
YAJL_Gen& YAJL_Gen::write(Write write) {
    if (good())
        note(write());
    return *this;
}

bool YAJL_Gen::note(yajl_gen_status status) {
    if (status_ == yajl_gen_status_ok)
        status_ = status;
    return status == yajl_gen_status_ok;
}

YAJL_Gen& YAJL_Gen::operator<<(Str text) {
    std::string_view view(text.data, text.size);
    std::string mended;
    if (!qmrt::is_utf8(view))
        view = mended = qmrt::to_utf8(view);
    auto const* const bytes = reinterpret_cast<unsigned char const*>(view.data());
    return write([&] { return yajl_gen_string(gen_, bytes, view.size()); });
}

YAJL_Gen& YAJL_Gen::operator<<(char const* text) {
    return text ? *this << Str{text, std::char_traits<char>::length(text)} : null();
}

YAJL_Gen& YAJL_Gen::operator<<(bool value) {
    return write([&] { return yajl_gen_bool(gen_, value); });
}

YAJL_Gen& YAJL_Gen::operator<<(long value) {
    return number(std::to_string(value));
}

YAJL_Gen& YAJL_Gen::operator<<(unsigned long value) {
    return number(std::to_string(value));
}

YAJL_Gen& YAJL_Gen::operator<<(double value) {
    return number(json_spirit::real_to_text(value));
}

YAJL_Gen& YAJL_Gen::null() {
    return write([&] { return yajl_gen_null(gen_); });
}

YAJL_Gen& YAJL_Gen::number(std::string const& text) {
    return write([&] { return yajl_gen_number(gen_, text.data(), text.size()); });
}

std::string YAJL_Gen::text() const {
    unsigned char const* data = nullptr;
    size_t length = 0;
    if (yajl_gen_get_buf(gen_, &data, &length) != yajl_gen_status_ok)
        return "";
    return std::string(reinterpret_cast<char const*>(data), length);
}
