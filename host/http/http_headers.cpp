#include "host/http/http_headers.h"

#include "qmrt/log.h"

#include <algorithm>
#include <strings.h>

namespace {

bool is_token(std::string_view text) {
    auto const allowed = [](unsigned char c) {
        return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
               std::string_view("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) !=
                   std::string_view::npos;
    };
    return !text.empty() && std::all_of(text.begin(), text.end(), allowed);
}

bool is_field_value(std::string_view text) {
    return std::none_of(text.begin(), text.end(),
                        [](unsigned char c) { return (c < 0x20 && c != '\t') || c == 0x7F; });
}

std::string_view trimmed(std::string_view text) {
    constexpr char BLANKS[] = " \t";
    size_t const first = text.find_first_not_of(BLANKS);
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

bool same_name(std::string_view left, std::string_view right) {
    return left.size() == right.size() && strncasecmp(left.data(), right.data(), left.size()) == 0;
}

} // namespace

bool HTTP_Headers::put(std::string_view name, std::string_view value) {
    if (!is_token(name)) {
        QMRT_LOG(LM_ERROR, "Refused an HTTP header, its name is no token\n");
        return false;
    }
    if (!is_field_value(value)) {
        QMRT_LOG(LM_ERROR, "Refused HTTP header %s, its value has control characters\n",
                 std::string(name).c_str());
        return false;
    }
    value = trimmed(value);
    if (Field* const field = find(name))
        field->value = value;
    else
        fields_.push_back({std::string(name), std::string(value)});
    return true;
}

bool HTTP_Headers::add(std::string_view name, std::string_view value) {
    if (!is_token(name) || !is_field_value(value))
        return false;
    value = trimmed(value);
    if (Field* const field = find(name))
        field->value.append(", ").append(value);
    else
        fields_.push_back({std::string(name), std::string(value)});
    return true;
}

std::string const& HTTP_Headers::get(std::string_view name) const {
    static std::string const none;
    Field const* const field = find(name);
    return field ? field->value : none;
}

bool HTTP_Headers::contains(std::string_view name) const {
    return find(name) != nullptr;
}

void HTTP_Headers::remove(std::string_view name) {
    std::erase_if(fields_, [&](Field const& field) { return same_name(field.name, name); });
}

HTTP_Headers::Field* HTTP_Headers::find(std::string_view name) {
    auto const found = std::find_if(fields_.begin(), fields_.end(), [&](Field const& field) {
        return same_name(field.name, name);
    });
    return found == fields_.end() ? nullptr : &*found;
}

HTTP_Headers::Field const* HTTP_Headers::find(std::string_view name) const {
    return const_cast<HTTP_Headers*>(this)->find(name);
}
