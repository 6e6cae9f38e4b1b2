#ifndef AGENT_JOBS_MEMBER_READER_H
#define AGENT_JOBS_MEMBER_READER_H

#include "json_spirit/value.h"
#include "qmrt/names.h"

#include <cstdint>
#include <set>
#include <string>

/**
 * Reads the members of one object and finds fault with it: of a wrong kind, out of range, not
 * known. The first fault is kept, with the member's path: "target.device_id: wanted a string, but
 * got an int". A member that is null counts as not there.
 */
class Member_Reader {
public:
    /**
     * @param path   what stands before the members' names: "target."; "" at the top
     * @param error  gets the first fault; nothing is read while it is not empty
     */
    Member_Reader(json_spirit::Object const& object, std::string path, std::string& error)
        : object_(object), path_(std::move(path)), error_(error) {}

    /**
     * Each leaves @a result alone when the member is not there.
     * @param rule  finds fault with a text that is not empty
     * @return true when it was read
     */
    bool text(char const* key, std::string& result, names::Rule rule = names::fault_of_line);
    bool flag(char const* key, bool& result);
    bool number(char const* key, int64_t least, int64_t largest, int64_t& result);
    bool object(char const* key, json_spirit::Object const*& result);

    /** A text that must be there and not be empty. */
    bool required_text(char const* key, std::string& result,
                       names::Rule rule = names::fault_of_line);
    /** Finds fault with a member. */
    void blame(char const* key, std::string const& why);
    /** Finds fault with members that nothing above has asked for. @return true without a fault */
    bool finish();

private:
    json_spirit::Value const* find(char const* key, json_spirit::Value_type wanted);

    json_spirit::Object const& object_;
    std::string const path_;
    std::string& error_;
    std::set<std::string> known_;
};

#endif
