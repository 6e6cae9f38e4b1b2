#include "qmrt/names.h"

#include "qmrt/utf8.h"
#include "qmrt/uuid.h"

#include <algorithm>
#include <climits>

namespace names {

namespace {

constexpr size_t MAX_HOST = 253;
constexpr size_t MAX_ACCOUNT = 128;
constexpr size_t LONGEST_ENDING = 16;
constexpr size_t MAX_SHOWN = 200;
constexpr std::string_view SHELL_CHARACTERS = " '\"\\`$;&|<>()*?[]{}~#!";
constexpr std::string_view REGISTRY_DIRECTORIES[] = {"meta", "media"};
constexpr std::string_view REGISTRY_ENDINGS[] = {"_env", "_act", "_identity"};

bool is_letter_or_digit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool has_only(std::string_view text, std::string_view more) {
    return std::ranges::all_of(text, [more](char c) {
        return is_letter_or_digit(c) || more.find(c) != std::string_view::npos;
    });
}

std::string fault_of_size(std::string_view text, size_t least, size_t most) {
    if (text.size() < least)
        return "is empty";
    return text.size() > most ? "is longer than " + std::to_string(most) + " bytes" : "";
}

/** Of the bytes of a line; the size is not looked at. */
std::string fault_of_line_bytes(std::string_view text) {
    for (unsigned char const c : text) {
        if (c == '\0')
            return "has a NUL in it";
        if (c == '\n' || c == '\r')
            return "has a newline in it";
        if (c < ' ' || c == 0x7f)
            return "has a control character in it";
    }
    return qmrt::is_utf8(text) ? "" : "is not valid UTF-8";
}

std::string fault_of_sized_line(std::string_view text, size_t least, size_t most) {
    std::string const fault = fault_of_size(text, least, most);
    return fault.empty() ? fault_of_line_bytes(text) : fault;
}

bool looks_like_an_id(std::string_view text) {
    uuid_binary ignored;
    return uuid_string_to_binary(std::string(text), ignored);
}

std::string fault_of_part(std::string_view part) {
    if (part.empty())
        return "has an empty part";
    if (part == "." || part == "..")
        return "has '" + std::string(part) + "' in it";
    return part.size() > NAME_MAX ? "has a part that is too long" : "";
}

std::string fault_of_parts(std::string_view path) {
    for (size_t begin = 0; begin <= path.size();) {
        size_t const end = std::min(path.find('/', begin), path.size());
        if (std::string fault = fault_of_part(path.substr(begin, end - begin)); !fault.empty())
            return fault;
        begin = end + 1;
    }
    return "";
}

std::string fault_for_shells(std::string_view text) {
    if (text.starts_with('-'))
        return "begins with '-', as an option does";
    size_t const at = text.find_first_of(SHELL_CHARACTERS);
    if (at == std::string_view::npos)
        return "";
    return text[at] == ' ' ? "has a blank in it"
                           : "has " + std::string(1, text[at]) + " in it, which a shell changes";
}

} // namespace

std::string fault_of_text(std::string_view text) {
    std::string const fault = fault_of_size(text, 0, MAX_TEXT);
    return fault.empty() ? fault_of_bytes(text) : fault;
}

std::string fault_of_bytes(std::string_view text) {
    if (text.find('\0') != std::string_view::npos)
        return "has a NUL in it";
    return qmrt::is_utf8(text) ? "" : "is not valid UTF-8";
}

std::string fault_of_line(std::string_view line) {
    return fault_of_sized_line(line, 0, MAX_LINE);
}

std::string fault_of_label(std::string_view label) {
    std::string fault = fault_of_sized_line(label, 1, MAX_LABEL);
    if (fault.empty() && (label.front() == ' ' || label.back() == ' '))
        fault = "begins or ends with a blank";
    return fault;
}

std::string fault_of_title(std::string_view title) {
    std::string fault = fault_of_label(title);
    if (fault.empty() && looks_like_an_id(title))
        fault = "looks like an id";
    return fault;
}

std::string fault_of_id(std::string_view id) {
    if (std::string fault = fault_of_sized_line(id, 1, MAX_ID); !fault.empty())
        return fault;
    if (!has_only(id, "._-"))
        return "has something other than letters, digits, '.', '_' and '-' in it";
    return id.front() == '.' || id.front() == '-' ? "does not begin with a letter, a digit or '_'"
                                                  : "";
}

std::string fault_of_file(std::string_view name) {
    std::string fault = fault_of_sized_line(name, 1, NAME_MAX);
    if (fault.empty() && name.find('/') != std::string_view::npos)
        fault = "has a '/' in it";
    return fault.empty() ? fault_of_part(name) : fault;
}

std::string fault_of_relative_path(std::string_view path) {
    std::string fault = fault_of_sized_line(path, 1, MAX_OBJECT);
    if (fault.empty() && path.front() == '/')
        fault = "is absolute";
    return fault.empty() ? fault_of_parts(path) : fault;
}

std::string fault_of_absolute_path(std::string_view path) {
    std::string fault = fault_of_sized_line(path, 1, PATH_MAX - 1);
    if (!fault.empty())
        return fault;
    if (path.front() != '/')
        return "is not an absolute path";
    for (size_t begin = 1; begin < path.size();) {
        size_t const end = std::min(path.find('/', begin), path.size());
        if (end > begin)
            fault = fault_of_part(path.substr(begin, end - begin));
        if (!fault.empty())
            return fault;
        begin = end + 1;
    }
    return "";
}

std::string fault_of_instance(std::string_view name) {
    std::string fault = fault_of_sized_line(name, 1, NAME_MAX - LONGEST_ENDING);
    if (fault.empty())
        fault = fault_of_file(name);
    if (fault.empty())
        fault = fault_for_shells(name);
    if (fault.empty() && is_registry_name(name))
        fault = "is the name of another file beside the clusters'";
    if (fault.empty() && looks_like_an_id(name))
        fault = "looks like an id";
    return fault;
}

std::string fault_of_database(std::string_view name) {
    std::string fault = fault_of_label(name);
    return fault.empty() ? fault_for_shells(name) : fault;
}

std::string fault_of_account(std::string_view name) {
    std::string fault = fault_of_size(name, 1, MAX_ACCOUNT);
    return fault.empty() ? fault_of_label(name) : fault;
}

std::string fault_of_host(std::string_view host) {
    std::string fault = fault_of_sized_line(host, 1, MAX_HOST);
    if (fault.empty() && (!has_only(host, ".-_:%") || host.front() == '-'))
        fault = "is not the name or the address of a host";
    return fault;
}

std::string fault_of_bare_path(std::string_view path) {
    std::string fault = fault_of_absolute_path(path);
    return fault.empty() ? fault_for_shells(path) : fault;
}

std::string fault_of_listed_name(std::string_view name) {
    std::string fault = fault_of_label(name);
    if (fault.empty() && name.find('.') != std::string_view::npos)
        fault = "has a '.' in it, which parts a schema from its table";
    return fault;
}

std::string fault_of_policy(std::string_view name) {
    std::string fault = fault_of_id(name);
    if (fault.empty() && is_registry_name(name))
        fault = "is the name of another file beside the policies";
    return fault;
}

bool is_registry_name(std::string_view name) {
    return std::ranges::find(REGISTRY_DIRECTORIES, name) != std::end(REGISTRY_DIRECTORIES) ||
           std::ranges::any_of(REGISTRY_ENDINGS,
                               [name](std::string_view end) { return name.ends_with(end); });
}

std::string shown(std::string_view name) {
    std::string text = qmrt::to_one_line(name.substr(0, MAX_SHOWN));
    if (name.size() > MAX_SHOWN)
        text += "...";
    return text;
}

} // namespace names
