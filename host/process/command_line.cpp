#include "host/process/command_line.h"

namespace {

class Word_Splitter {
public:
    explicit Word_Splitter(std::string_view line) : rest_(line) {}

    bool split() {
        while (!rest_.empty()) {
            char const byte = take();
            if (byte == ' ' || byte == '\t' || byte == '\n')
                end_word();
            else if (!add(byte))
                return false;
        }
        end_word();
        return true;
    }

    std::vector<std::string> words;
    std::string error;

private:
    char take() {
        char const byte = rest_.front();
        rest_.remove_prefix(1);
        return byte;
    }

    bool fail(char const* what) {
        error = what;
        return false;
    }

    void end_word() {
        if (in_word_)
            words.push_back(std::move(word_));
        word_.clear();
        in_word_ = false;
    }

    bool add(char byte) {
        if (byte == '\\')
            return add_escaped();
        in_word_ = true;
        if (byte == '\'')
            return add_single_quoted();
        if (byte == '"')
            return add_double_quoted();
        word_ += byte;
        return true;
    }

    bool add_escaped() {
        if (rest_.empty())
            return fail("it ends with a backslash that has nothing behind it");
        char const byte = take();
        // a continued line: both bytes go, and that alone begins no word
        if (byte == '\n')
            return true;
        in_word_ = true;
        word_ += byte;
        return true;
    }

    bool add_single_quoted() {
        size_t const end = rest_.find('\'');
        if (end == std::string_view::npos)
            return fail("a ' in it has no end");
        word_ += rest_.substr(0, end);
        rest_.remove_prefix(end + 1);
        return true;
    }

    bool add_double_quoted() {
        while (!rest_.empty()) {
            char const byte = take();
            if (byte == '"')
                return true;
            if (byte != '\\' || rest_.empty() ||
                std::string_view("$`\"\\\n").find(rest_.front()) == std::string_view::npos) {
                word_ += byte;
                continue;
            }
            char const escaped = take();
            if (escaped != '\n')
                word_ += escaped;
        }
        return fail("a \" in it has no end");
    }

    std::string_view rest_;
    std::string word_;
    bool in_word_ = false;
};

} // namespace

bool split_command_line(std::string_view line, std::vector<std::string>& words,
                        std::string& error) {
    if (line.find('\0') != std::string_view::npos) {
        error = "it has a NUL in it";
        return false;
    }
    Word_Splitter splitter(line);
    if (!splitter.split()) {
        error = splitter.error;
        return false;
    }
    words.swap(splitter.words);
    return true;
}

std::string quote_word(std::string_view word) {
    std::string quoted = "'";
    for (char const byte : word) {
        if (byte == '\'')
            quoted += "'\\''";
        else
            quoted += byte;
    }
    return quoted + "'";
}
