#ifndef GAUSSDB_JOB_JOB_SOURCE_PARSER_T_H
#define GAUSSDB_JOB_JOB_SOURCE_PARSER_T_H

#include "gaussdb/job/job_definition_parser.h"
#include "gaussdb/job/job_source_entry.h"
#include "host/job/job_definition.h"
#include "qmrt/log.h"

#include <string>

/** In both sources. */
enum { JOB_SOURCE_ID_BIT = 1, JOB_SOURCE_NAME_BIT = 2 };

/**
 * What the parsers of the two sources share, which is all but their keys.
 * @tparam Parser  the deriving class; has a key_table, an ENTRIES_BIT, the COMMON_BITS of the
 *                 required keys, text_field(), which gives the string field of a bit or null, and
 *                 rule_of(), which gives the rule for what stands in it
 * @tparam Source  what it fills; has add_entry()
 */
template <typename Parser, typename Source>
class Job_Source_Parser_T : public Job_Level_Parser_T<Job_Source, Source> {
public:
    [[nodiscard]] bool handle_string_i(char const* text, size_t length) override {
        switch (this->states_.size()) {
        case 1:
            return handle_level1_string(text, length);
        case 2:
            return handle_level2_string(text, length);
        default:
            return this->misplaced_string();
        }
    }

    [[nodiscard]] bool handle_number_i(char const*, size_t) override {
        return unwanted_value("number");
    }
    [[nodiscard]] bool handle_boolean_i(bool) override { return unwanted_value("boolean"); }

    /** An array of entries counts as given also when it is empty. */
    [[nodiscard]] bool handle_end_array_i() override {
        if (!this->pop())
            return false;
        if (!this->states_.empty() && this->states_.back().key == Parser::ENTRIES_BIT)
            this->seen(this->states_.back());
        return true;
    }

    [[nodiscard]] bool handle_end_map_i() override {
        return (this->states_.size() != 1 || has_required_keys()) && this->pop();
    }

protected:
    Job_Source_Parser_T() : Job_Level_Parser_T<Job_Source, Source>(Parser::key_table) {
        this->list_key_ = Parser::ENTRIES_BIT;
    }

private:
    /** Below an unknown key it has been told already. */
    [[nodiscard]] bool unwanted_value(char const* given) {
        return this->states_.empty() || this->states_.front().key == 0 || this->unwanted(given);
    }

    /** The id of a source names its policy's file. */
    static names::Rule rule_of(uint64_t bit) {
        if (bit == JOB_SOURCE_ID_BIT)
            return names::fault_of_policy;
        return bit == JOB_SOURCE_NAME_BIT ? names::fault_of_label : Parser::rule_of(bit);
    }

    [[nodiscard]] bool handle_level1_string(char const* text, size_t length) {
        JSON_State& state = this->states_.back();
        Source* const source = this->object();
        if (!state.obj || !source || state.key == 0)
            return true;
        std::string value;
        std::string* const field = Parser::text_field(*source, state.key);
        if (!field && state.key == Parser::ENTRIES_BIT)
            return this->misplaced_string();
        if (!this->store(field ? *field : value, text, length, rule_of(state.key)))
            return false;
        if (state.key == JOB_SOURCE_ID_BIT)
            source->id(std::move(value));
        else if (state.key == JOB_SOURCE_NAME_BIT)
            source->name(std::move(value));
        return this->seen(state);
    }

    [[nodiscard]] bool handle_level2_string(char const* text, size_t length) {
        if (!this->object())
            return true;
        if (this->states_.front().key != Parser::ENTRIES_BIT)
            return this->stop(YAJL_ERR_STRUCTURE,
                              "a string below a key that is no list of entries");
        std::string entry;
        if (!this->store(entry, text, length, fault_of_job_source_entry))
            return false;
        this->object()->add_entry(std::move(entry));
        return true;
    }

    /** Names each required key that has not come, in the order of the bits. */
    [[nodiscard]] bool has_required_keys() {
        uint64_t const missing = ~this->states_.back().masks & Parser::COMMON_BITS;
        std::string names;
        for (uint64_t left = missing; left; left &= left - 1) {
            char const* const key = get_key_value_entry(Parser::key_table, left & -left).key;
            QMRT_LOG(LM_WARNING, "Failed to parse job definition source, lack of '%s'.\n", key);
            names += std::string(names.empty() ? "'" : ", '") + key + "'";
        }
        return !missing || this->stop(YAJL_ERR_MISSING, "lack of " + names);
    }
};

#endif
