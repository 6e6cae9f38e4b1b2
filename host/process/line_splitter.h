#ifndef HOST_PROCESS_LINE_SPLITTER_H
#define HOST_PROCESS_LINE_SPLITTER_H

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

/**
 * Makes lines of a stream that comes in pieces. Any byte but the line break may be in a line, and a
 * "\r" before the line break stays. A line above the limit is handed on in pieces of that size, so
 * the memory is bounded.
 *
 * The visitor is called as visit(char const* line, size_t length), without the line break; the text
 * is valid during the call and has a NUL behind it.
 */
class Line_Splitter {
public:
    static constexpr size_t MAX_LINE = 16 * 1024 * 1024;

    explicit Line_Splitter(size_t max_line = MAX_LINE) : max_line_(max_line) {}

    template <typename Visitor>
    void feed(char const* data, size_t size, Visitor visit) {
        char const* const end = data + size;
        while (char const* const line_break =
                   static_cast<char const*>(std::memchr(data, '\n', remaining(data, end)))) {
            append(data, line_break, visit);
            visit(line_.c_str(), line_.size());
            line_.clear();
            data = line_break + 1;
        }
        append(data, end, visit);
    }

    /** The stream has ended: what stands behind the last line break is a line too, if not empty. */
    template <typename Visitor>
    void finish(Visitor visit) {
        if (!line_.empty())
            visit(line_.c_str(), line_.size());
        std::string().swap(line_);
    }

    /** True once a line was handed on in pieces. */
    [[nodiscard]] bool has_cut() const { return has_cut_; }

private:
    static size_t remaining(char const* begin, char const* end) {
        return static_cast<size_t>(end - begin);
    }

    template <typename Visitor>
    void append(char const* begin, char const* end, Visitor visit) {
        while (remaining(begin, end) > max_line_ - line_.size()) {
            size_t const fitting = max_line_ - line_.size();
            line_.append(begin, fitting);
            begin += fitting;
            has_cut_ = true;
            visit(line_.c_str(), line_.size());
            line_.clear();
        }
        line_.append(begin, remaining(begin, end));
    }

    size_t max_line_;
    std::string line_;
    bool has_cut_ = false;
};

#endif
