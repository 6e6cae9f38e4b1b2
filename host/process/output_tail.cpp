#include "host/process/output_tail.h"

#include "qmrt/utf8.h"

#include <algorithm>
#include <string_view>
#include <vector>

namespace {

bool is_control(char byte) {
    return static_cast<unsigned char>(byte) < ' ' || byte == '\x7f';
}

/** One line as a message can show it; "" when there is nothing to show. */
std::string shown(std::string_view line) {
    std::string text(line);
    std::replace_if(text.begin(), text.end(), is_control, ' ');
    size_t const begin = text.find_first_not_of(' ');
    if (begin == std::string::npos)
        return "";
    text = text.substr(begin, text.find_last_not_of(' ') + 1 - begin);
    text = qmrt::to_utf8(text);
    if (text.size() <= Output_Tail::MAX_LINE_LENGTH)
        return text;
    size_t end = Output_Tail::MAX_LINE_LENGTH;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end; // not between the bytes of one character
    return text.substr(0, end) + "...";
}

} // namespace

void Output_Tail::feed(char const* data, size_t size) {
    if (size > MAX_KEPT) {
        data += size - MAX_KEPT;
        size = MAX_KEPT;
        text_.clear();
        is_cut_ = true;
    }
    text_.append(data, size);
    // moving the text for each small piece would cost more than keeping twice as much
    if (text_.size() > 2 * MAX_KEPT) {
        text_.erase(0, text_.size() - MAX_KEPT);
        is_cut_ = true;
    }
}

std::string Output_Tail::lines() const {
    std::string_view rest = text_;
    while (!rest.empty() && rest.back() == '\n')
        rest.remove_suffix(1);
    std::vector<std::string> found;
    while (!rest.empty() && found.size() < MAX_LINES) {
        size_t const line_break = rest.rfind('\n');
        bool const is_first = line_break == std::string_view::npos;
        std::string line = shown(is_first ? rest : rest.substr(line_break + 1));
        if (!line.empty())
            found.push_back(is_first && is_cut_ ? "..." + line : line);
        rest = is_first ? std::string_view() : rest.substr(0, line_break);
    }
    std::string result;
    for (auto line = found.rbegin(); line != found.rend(); ++line)
        result += (result.empty() ? "" : "\n") + *line;
    return result;
}
