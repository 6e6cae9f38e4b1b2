#include "gaussdb/common/gaussdb_env.h"

#include "host/process/process_options.h"
#include "qmrt/check.h"
#include "qmrt/environment.h"
#include "qmrt/format.h"
#include "qmrt/guarded_file.h"

#include <ace/Process.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace {

constexpr uint64_t MAX_PROFILE_SIZE = 1024 * 1024;
// what the kernel takes as one variable; values that refer to themselves grow beyond any memory
constexpr size_t MAX_VALUE_SIZE = 128 * 1024;
// of all variables; much more than a child's options take
constexpr size_t MAX_TOTAL_SIZE = 1024 * 1024;
// bytes that the references of one profile may cause to be looked through
constexpr size_t MAX_REFERENCE_WORK = 32 * 1024 * 1024;

constexpr std::string_view BLANKS = " \t\v\f\r";

/** "left:right", or the one that is not empty. */
std::string join_paths(std::string const& left, std::string const& right) {
    if (left.empty() || right.empty())
        return left + right;
    return string_sprintf("%s:%s", left.c_str(), right.c_str());
}

/**
 * Splits "export  NAME=value" at its last "=".
 * @return false for any other line.
 */
bool split_export(std::string_view line, std::string_view& name, std::string_view& value) {
    constexpr std::string_view EXPORT = "export";
    size_t const equals = line.rfind('=');
    size_t const begin = line.find_first_not_of(BLANKS, EXPORT.size());
    if (!line.starts_with(EXPORT) || equals == std::string_view::npos || begin <= EXPORT.size())
        return false;
    name = line.substr(begin, equals - begin);
    value = line.substr(equals + 1);
    return true;
}

/** The references "$NAME" of a text, in order, with their "$". */
std::vector<std::string> references_of(std::string_view text) {
    std::vector<std::string> found;
    while ((text.remove_prefix(std::min(text.find('$'), text.size())), !text.empty())) {
        // the range from "A" to "z" takes the underscore, and no digits
        size_t length = 1;
        while (length < text.size() && text[length] >= 'A' && text[length] <= 'z')
            ++length;
        if (length > 1)
            found.emplace_back(text.substr(0, length));
        text.remove_prefix(length);
    }
    return found;
}

/** Replaces every @a reference in @a value; false when it would grow too long. */
bool replace_reference(std::string& value, std::string const& reference, std::string const& text) {
    std::string result;
    size_t begin = 0;
    for (size_t at; (at = value.find(reference, begin)) != std::string::npos;
         begin = at + reference.size()) {
        result.append(value, begin, at - begin).append(text);
        if (result.size() > MAX_VALUE_SIZE)
            return false;
    }
    if (begin == 0)
        return true;
    result.append(value, begin);
    value = std::move(result);
    return value.size() <= MAX_VALUE_SIZE;
}

/** The lines of one profile on their way into an environment. */
class Profile_Reader {
public:
    explicit Profile_Reader(GaussDB_Env::map_type& vars) : vars_(vars) {
        for (auto const& [name, value] : vars_)
            total_ += name.size() + value.size();
    }

    void take(std::string_view line) {
        ++line_;
        std::string_view name;
        std::string_view value;
        if (!split_export(line, name, value))
            return;
        if (name.empty())
            leave_out("it has no name before the \"=\"");
        else if (line.find('\0') != std::string_view::npos)
            leave_out("it has a NUL");
        else if (line.size() > MAX_VALUE_SIZE)
            leave_out("it is longer than an environment takes");
        else
            enter(std::string(name), std::string(value));
    }

    /** One line for all that was left out: whoever writes the profile does not fill the log. */
    void report(char const* profile) const {
        if (left_out_)
            QMRT_LOG(LM_WARNING, "%Q lines of %s are left out, the first is line %Q, %s\n",
                     static_cast<uint64_t>(left_out_), profile, static_cast<uint64_t>(first_),
                     reason_);
    }

private:
    void enter(std::string name, std::string value) {
        for (std::string const& reference : references_of(value)) {
            auto const found = vars_.find(reference.substr(1));
            if (found == vars_.end())
                return;
            work_ += value.size();
            if (work_ > MAX_REFERENCE_WORK)
                return leave_out("the profile has too many references");
            if (!replace_reference(value, reference, found->second))
                return leave_out("its value is longer than an environment takes");
        }
        auto const old = vars_.find(name);
        size_t const freed = old == vars_.end() ? 0 : name.size() + old->second.size();
        if (total_ - freed + name.size() + value.size() > MAX_TOTAL_SIZE)
            return leave_out("the profile has more than an environment takes");
        total_ += name.size() + value.size() - freed;
        vars_[std::move(name)] = std::move(value);
    }

    void leave_out(char const* reason) {
        if (left_out_++ == 0) {
            first_ = line_;
            reason_ = reason;
        }
    }

    GaussDB_Env::map_type& vars_;
    size_t total_ = 0;
    size_t work_ = 0;
    size_t line_ = 0;
    size_t left_out_ = 0;
    size_t first_ = 0;
    char const* reason_ = "";
};

} // namespace

bool GaussDB_Env::init(char const* profile) {
    if (QMRT_IS_NULL_OR_EMPTY(profile))
        return false;

    std::string path;
    std::string bin_path;
    get_env_r("PATH", path);
    get_env_r("GAUSSDB_BIN_PATH", bin_path);
    if (!path.empty() || !bin_path.empty())
        vars_["PATH"] = join_paths(bin_path, path);

    std::string lib_path;
    get_env_r("GAUSSDB_LD_LIBRARY_PATH", lib_path);
    std::string const original = original_lib_path();
    vars_["LD_LIBRARY_PATH"] =
        lib_path.empty() ? original : string_sprintf("%s:%s", lib_path.c_str(), original.c_str());
    return read(profile);
}

bool GaussDB_Env::read(char const* profile) {
    Profile_Reader reader(vars_);
    auto const take = [&reader](std::string_view line) {
        reader.take(line);
        return true;
    };
    if (read_guarded_lines(profile, {.max_size = MAX_PROFILE_SIZE}, take) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to open %s, errno=%d, %m\n", profile, errno);
        return false;
    }
    reader.report(profile);
    return true;
}

bool GaussDB_Env::set_opts(ACE_Process_Options& opts) const {
    for (auto const& [key, value] : vars_)
        if (!set_foreign_env(opts, key, value.c_str()))
            return false;
    return true;
}

void GaussDB_Env::set_env(std::string const& key, std::string const& value) {
    vars_[key] = value;
}

void GaussDB_Env::set_env(json_spirit::Object const& obj) {
    for (auto const& [key, value] : obj)
        if (!key.empty() && value.type() == json_spirit::str_type)
            set_env(key, value.get_str());
}

char const* GaussDB_Env::get_value(char const* key) const {
    auto const found = vars_.find(key);
    return found == vars_.end() ? "" : found->second.c_str();
}

void GaussDB_Env::prepend_ld_library_path(char const* value) {
    std::string own;
    get_env_r("LD_LIBRARY_PATH", own);
    if (!own.empty())
        vars_["LD_LIBRARY_PATH"] = string_sprintf("%s/lib:%s", value, own.c_str());
}

void GaussDB_Env::prepend_bin_path(char const* value) {
    std::string own;
    get_env_r("PATH", own);
    if (!own.empty())
        vars_["PATH"] = string_sprintf("%s/bin:%s", value, own.c_str());
}
