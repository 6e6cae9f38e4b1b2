#ifndef HOST_YAJL_YAJL_PARSER_H
#define HOST_YAJL_YAJL_PARSER_H

#include "host/yajl/yajl_handler.h"
#include "json_spirit/escape_scan.h"

#include <memory>
#include <string>
#include <string_view>
#include <vector>

struct yajl_handle_t;

/** Why a parse ended. The handlers of a parser give 3, 5, 7 and 9; the others come from here. */
enum YAJL_ERR {
    YAJL_ERR_NONE = 0,
    YAJL_ERR_SYNTAX = 1,    ///< no JSON
    YAJL_ERR_UTF8 = 2,      ///< a string or key that is no UTF-8
    YAJL_ERR_STRUCTURE = 3, ///< an end without a beginning, or a value where none belongs
    YAJL_ERR_DEPTH = 4,     ///< nested deeper than 100 levels
    YAJL_ERR_TYPE = 5,      ///< a value of another type than its key's
    YAJL_ERR_LENGTH = 6,    ///< a string, key or number that is longer than its bound
    YAJL_ERR_MISSING = 7,   ///< a required key that is not there
    YAJL_ERR_MEMORY = 8,
    YAJL_ERR_PLACE = 9,       ///< a string at a level where there should be none
    YAJL_ERR_INCOMPLETE = 10, ///< the text ended too early
    YAJL_ERR_TRAILING = 11,   ///< something behind the value
    YAJL_ERR_REFUSED = 12,    ///< a handler stopped and gave no code
    YAJL_ERR_NUL = 13,        ///< a NUL inside of a string that must not have one
    YAJL_ERR_NAME = 14        ///< a string that may not be such a name
};

/**
 * Parses one JSON text, in as many pieces as it comes in, and tells the handlers, which a derived
 * class overrides, what is in it. Numbers reach handle_number_i as text; the strings that reach
 * handlers are well-formed UTF-8; an escape of half a surrogate pair is YAJL_ERR_UTF8.
 *
 * The first fault ends the parse for good. What the handlers saw before it, they have seen. One
 * object is for one text and for one thread at a time.
 */
class YAJL_Parser_Base : public YAJL_Handler {
public:
    /** Bytes of a string, key or number, as it is written, that are still parsed: 16 MiB. */
    static constexpr size_t MAX_STRING_SIZE = 16 * 1024 * 1024;

    YAJL_Parser_Base();
    ~YAJL_Parser_Base() override;
    YAJL_Parser_Base(YAJL_Parser_Base const&) = delete;
    YAJL_Parser_Base& operator=(YAJL_Parser_Base const&) = delete;

    /** Parses the next piece. @return false on any fault, and after one. Logs nothing. */
    [[nodiscard]] bool parse(char const* text, size_t size);

    /** Says that the text is over. @return true when it was one whole value without a fault */
    [[nodiscard]] bool complete();

    /** One of YAJL_ERR, or a code of the derived class's own. */
    int err() const { return err_; }

    /**
     * The fault for messages: what it is, the key whose value it is at when there is one, the byte
     * it is near, counted from the beginning of the first piece, and the code. "" without a fault.
     */
    std::string const& error() const { return error_; }

    /**
     * The first thing in the text that the handlers took and did nothing with, such as
     * 'unknown key "x"'; "" for none. It is for the caller to decide whether that is a fault.
     */
    std::string const& ignored() const { return ignored_; }

    /** Sets the bound in place of MAX_STRING_SIZE. Before the first piece. */
    void max_string_size(size_t limit) { max_string_size_ = limit; }

protected:
    int err_ = YAJL_ERR_NONE; ///< a handler that stops says here why

    /**
     * For a handler that stops: the code, and the words that error() is to begin with.
     * @return false
     */
    [[nodiscard]] bool stop(int code, std::string what);

    /** For a handler that does nothing with what it got. @return true */
    bool ignore(std::string what);
    /** The beginning of the innermost key whose value is being parsed; "" when there is none. */
    std::string current_key() const;

private:
    friend struct YAJL_Parser_Events;
    struct Handle_Deleter {
        void operator()(yajl_handle_t* handle) const;
    };

    [[nodiscard]] bool fail(int code, std::string const& what, size_t at);
    [[nodiscard]] bool fail_by_yajl(int status, bool at_end);
    size_t bytes_before_too_long(std::string_view piece);
    [[nodiscard]] bool enter();
    [[nodiscard]] bool leave();
    [[nodiscard]] bool check(char const* text, size_t length);

    std::unique_ptr<yajl_handle_t, Handle_Deleter> handle_;
    std::vector<std::string> keys_; ///< for each open level the key that its value is for
    std::string error_;
    std::string ignored_;
    std::string reason_; ///< why an event was refused, in words
    size_t max_string_size_ = MAX_STRING_SIZE;
    json_spirit::Escape_Scan escapes_;
    size_t consumed_ = 0; ///< bytes of the pieces before this one
    size_t token_size_ = 0;
    bool in_string_ = false;
    bool escaped_ = false;
    bool completed_ = false;
};

/** A parser whose handlers fill a T. */
template <typename T>
class YAJL_Parser : public YAJL_Parser_Base {
public:
    /** What the handlers have filled so far; the parser keeps it. Null when there is none. */
    virtual T* result() { return result_.get(); }

    /** Hands it over to the caller; result() is null from then on. */
    std::unique_ptr<T> release() { return std::move(result_); }

protected:
    /** @param result  to be filled; null when it could not be allocated */
    explicit YAJL_Parser(std::unique_ptr<T> result = nullptr) : result_(std::move(result)) {}

    std::unique_ptr<T> result_;
};

#endif
