#ifndef FUZZ_JOB_DEFINITION_FUZZ_H
#define FUZZ_JOB_DEFINITION_FUZZ_H

#include "host/yajl/yajl_gen.h"
#include "host/yajl/yajl_parser.h"

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

/**
 * One text for a parser of job definitions: whole, and in pieces of the size that its first byte
 * says. Both end alike, but for which of two faults is met first, the object of both is the same, a
 * failure has a code and says why, and what is written of an object parses again.
 * @tparam Parser     the parser
 * @tparam Object     what it fills
 * @tparam MAY_LACK   an object's text may lack a required key, since a top array has none
 */
template <typename Parser, typename Object, bool MAY_LACK>
class Job_Definition_Fuzz {
public:
    static void run(std::string_view input) {
        if (input.empty())
            return;
        size_t const piece = 1 + static_cast<unsigned char>(input.front());
        input.remove_prefix(1);
        Parser whole, pieces;
        bool const parsed = parse(whole, input, input.size());
        if (parse(pieces, input, piece) != parsed ||
            (whole.err() != pieces.err() && !(is_no_text(whole) || is_no_text(pieces))))
            std::abort();
        if (parsed != (whole.err() == 0) || parsed != whole.error().empty())
            std::abort();
        if (!parsed)
            return;
        std::string const text = written(whole);
        if (text != written(pieces))
            std::abort();
        Parser again;
        if (!parse(again, text, text.size()) && !MAY_LACK)
            std::abort();
    }

private:
    /** Of a text with both faults, the size of the pieces says which one is met first. */
    static bool is_no_text(Parser const& parser) {
        return parser.err() == YAJL_ERR_SYNTAX || parser.err() == YAJL_ERR_UTF8;
    }

    static bool parse(Parser& parser, std::string_view text, size_t piece) {
        for (; !text.empty(); text.remove_prefix(std::min(piece, text.size())))
            if (!parser.parse(text.data(), std::min(piece, text.size())))
                return false;
        return parser.complete();
    }

    static std::string written(Parser& parser) {
        YAJL_Gen gen;
        if (dynamic_cast<Object&>(*parser.result()).generate(gen.get()) != 0)
            std::abort();
        return gen.text();
    }
};

#endif
