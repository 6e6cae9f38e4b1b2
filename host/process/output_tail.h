#ifndef HOST_PROCESS_OUTPUT_TAIL_H
#define HOST_PROCESS_OUTPUT_TAIL_H

#include <cstddef>
#include <string>

/** Keeps the end of a stream of any length, for the message of a run that failed. */
class Output_Tail {
public:
    static constexpr size_t MAX_LINES = 10;
    static constexpr size_t MAX_LINE_LENGTH = 300;

    void feed(char const* data, size_t size);
    void clear() { *this = Output_Tail(); }

    /**
     * The last lines that are not empty, at most MAX_LINES, joined by "\n", as UTF-8 and without
     * control characters. The rest of a line above MAX_LINE_LENGTH bytes is left out.
     */
    std::string lines() const;

private:
    /** Enough for MAX_LINES of full length. */
    static constexpr size_t MAX_KEPT = 4096;

    std::string text_;
    bool is_cut_ = false;
};

#endif
