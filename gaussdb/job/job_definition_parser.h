#ifndef GAUSSDB_JOB_JOB_DEFINITION_PARSER_H
#define GAUSSDB_JOB_JOB_DEFINITION_PARSER_H

#include "host/yajl/yajl_parser.h"
#include "qmrt/key2_value.h"
#include "qmrt/names.h"
#include "qmrt/natoi.h"

#include <cerrno>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

/**
 * What the four parsers of job definitions share. Each parses one JSON object (RFC 8259) into an
 * object that it has made, and that is the agent's once it has taken it with release().
 *
 * A parser is a table of keys, a bit for each, and a stack with one state for each open level. What
 * differs:
 *
 * |                        | backup options    | restore options     | both sources |
 * |------------------------|-------------------|---------------------|-----------------------------|
 * | key of a nested map    | is ignored        | counts like any     | is ignored | | array | is a
 * level        | is not noticed      | is a level                  | | unknown key            |
 * value is skipped  | value is skipped    | value is skipped            | | string below the top |
 * 9                 | is its key's        | an entry, 3 below other keys| | string of another type
 * | 5                 | 5                   | 9                           | | number of another
 * type | 5                 | 5                   | is skipped                  | | boolean of
 * another type| is skipped        | is skipped          | is skipped                  | | no map is
 * open         | 3, and 9 a string | refused, no code    | is skipped, but 9 a string  | | required
 * | nothing           | nothing             | backup: id, entries         | | |                   |
 * | restore: id, restore_as; 7  |
 *
 * For all: null is skipped; of a key that comes twice the last value counts (entries: all of them);
 * a number beyond its field's range becomes the field's largest value, as natoi() has it; a string
 * that is stored must have no NUL (YAJL_ERR_NUL) and be a name of its kind (YAJL_ERR_NAME, see
 * qmrt/names.h), since it goes into command lines and paths; "" is left alone. What is skipped, or
 * counts for something else than it says, is in ignored(), for a caller that refuses it. What
 * else can be wrong is YAJL_Parser_Base's. error() names the key and the byte. Nothing is logged,
 * but for each required key that is not there a warning.
 */

/** One open level of a text that is being parsed. */
struct JSON_State {
    bool obj;           ///< true for a map, false for an array
    uint64_t key = 0;   ///< the bit of the key whose value comes next; 0 for an unknown key
    uint64_t masks = 0; ///< the bits of the keys whose values have come
};

/** A row of a parser's table: the key and its bit. The closing row has a null key and bit 0. */
using Job_Definition_Key = Key2_Value_T<uint64_t>;

/** The row of a key, compared byte by byte; the closing row when there is none. */
Job_Definition_Key const& get_key_value_entry(Job_Definition_Key const* table, char const* key,
                                              size_t length);
/** The row of a bit; the closing row when there is none. */
Job_Definition_Key const& get_key_value_entry(Job_Definition_Key const* table, uint64_t bit);

/** The stack of levels; on it maps and their keys, with no regard to how deep they are. */
template <typename Base, typename Object>
class Job_Definition_Parser_T : public YAJL_Parser<Base> {
public:
    [[nodiscard]] bool handle_start_map_i() override {
        if (!states_.empty())
            unwanted("map");
        return push(true);
    }
    [[nodiscard]] bool handle_map_key_i(char const* text, size_t length) override {
        if (states_.empty())
            return no_level();
        states_.back().key = get_key_value_entry(table_, text, length).value;
        return states_.back().key != 0 || unknown_key(text, length);
    }
    [[nodiscard]] bool handle_start_array_i() override {
        return states_.empty() || unwanted("list");
    }
    [[nodiscard]] bool handle_end_map_i() override { return pop(); }

protected:
    explicit Job_Definition_Parser_T(Job_Definition_Key const* table)
        : YAJL_Parser<Base>(std::unique_ptr<Base>(new (std::nothrow) Object)), table_(table) {
        if (!this->result_)
            errno = ENOMEM;
    }

    /** What is being filled; null when it could not be made, or was released. */
    Object* object() const { return static_cast<Object*>(this->result_.get()); }

    [[nodiscard]] bool push(bool obj) {
        states_.push_back({obj});
        return true;
    }
    [[nodiscard]] bool pop() {
        if (states_.empty())
            return no_level();
        states_.pop_back();
        return true;
    }

    /** The value that @a state waited for has been dealt with. */
    bool seen(JSON_State& state) {
        state.masks |= state.key;
        return true;
    }

    [[nodiscard]] bool store(std::string& field, char const* text, size_t length,
                             names::Rule rule = names::fault_of_line) {
        std::string value(text, length);
        if (value.find('\0') != std::string::npos)
            return this->stop(YAJL_ERR_NUL, "the string has a NUL in it");
        if (std::string const fault = value.empty() ? "" : rule(value); !fault.empty())
            return this->stop(YAJL_ERR_NAME, "the string " + fault);
        field = std::move(value);
        return true;
    }

    // what is taken and does nothing; see YAJL_Parser_Base::ignored()

    [[nodiscard]] bool unknown_key(char const* text, size_t length) {
        return this->ignore("unknown key \"" + names::shown(std::string(text, length)) + "\"");
    }
    /** A value of a kind that its key takes nothing of. @param given  "list" */
    bool unwanted(char const* given) {
        return this->ignore(std::string("a ") + given + " at key \"" +
                            names::shown(this->current_key()) + "\", which takes none");
    }
    /** Of a number only the whole part counts, and of a large one what its field can hold. */
    template <typename Number>
    Number whole_number(char const* text, size_t length) {
        errno = 0;
        auto const value = natoi<Number>(text, length);
        if (errno == ERANGE ||
            std::string_view(text, length).find_first_of(".eE") != std::string_view::npos)
            this->ignore("\"" + this->current_key() + "\" wants a whole number of its range, not " +
                         names::shown(std::string(text, length)));
        return value;
    }

    [[nodiscard]] bool no_level() {
        return this->stop(YAJL_ERR_STRUCTURE, "an end, a key or a value outside of any object");
    }
    [[nodiscard]] bool wrong_type(char const* given) {
        return this->stop(YAJL_ERR_TYPE,
                          std::string("a value of another type than ") + given + " is wanted");
    }
    [[nodiscard]] bool misplaced_string() {
        return this->stop(YAJL_ERR_PLACE, "a string where none is wanted");
    }

    Job_Definition_Key const* table_;
    /** The key that takes a list; no key's bit for none. */
    uint64_t list_key_ = ~uint64_t{0};
    std::vector<JSON_State> states_;
};

/** The same with arrays as levels of their own, and keys that count in the top map only. */
template <typename Base, typename Object>
class Job_Level_Parser_T : public Job_Definition_Parser_T<Base, Object> {
    using Parent = Job_Definition_Parser_T<Base, Object>;

public:
    [[nodiscard]] bool handle_map_key_i(char const* text, size_t length) override {
        return this->states_.size() > 1 || Parent::handle_map_key_i(text, length);
    }
    [[nodiscard]] bool handle_start_array_i() override {
        if (this->states_.size() != 1 || this->states_.back().key != this->list_key_)
            this->unwanted("list");
        return this->push(false);
    }
    [[nodiscard]] bool handle_end_array_i() override { return this->pop(); }

protected:
    using Parent::Parent;
};

#endif
