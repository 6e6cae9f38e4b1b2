#include "gaussdb/common/gaussdb_env.h"

#include "qmrt/check.h"
#include "qmrt/environment.h"
#include "qmrt/file.h"
#include "qmrt/format.h"
#include "qmrt/regex.h"

#include <ace/Process.h>

#include <boost/algorithm/string/replace.hpp>
#include <vector>

namespace {

boost::regex const RE_EXPORT("export\\s+(.*)=(.*)$");
// the range from "A" to "z" takes the underscore, and no digits
boost::regex const RE_VAR("\\$([A-z]+)");

// what the kernel takes as one variable; values that refer to themselves grow beyond any memory
constexpr size_t MAX_VALUE_SIZE = 128 * 1024;

/** "left:right", or the one that is not empty. */
std::string join_paths(std::string const& left, std::string const& right) {
    if (left.empty() || right.empty())
        return left + right;
    return string_sprintf("%s:%s", left.c_str(), right.c_str());
}

/** Replaces every @a reference in @a value; false, with nothing done, when it would grow too long.
 */
bool replace_reference(std::string& value, std::string const& reference, std::string const& text) {
    if (value.size() > MAX_VALUE_SIZE)
        return false;
    size_t count = 0;
    for (size_t at = 0; (at = value.find(reference, at)) != std::string::npos;
         at += reference.size())
        ++count;
    if (value.size() - count * reference.size() + count * text.size() > MAX_VALUE_SIZE)
        return false;
    if (count)
        boost::algorithm::replace_all(value, reference, text);
    return true;
}

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
    auto const read_export = [this](std::string_view line) {
        qmrt::svmatch groups;
        if (qmrt::regex_match(line, groups, RE_EXPORT)) {
            std::string value = groups[2];
            if (complete_value(value))
                vars_[groups[1]] = value;
        }
        return true;
    };
    if (read_each_line(profile, read_export) == -1) {
        QMRT_LOG(LM_ERROR, "Failed to open %s, errno=%d, %m\n", profile, errno);
        return false;
    }
    return true;
}

void GaussDB_Env::set_opts(ACE_Process_Options& opts) const {
    for (auto const& [key, value] : vars_) {
        // through "%s": a "%" in the value is no format
        if (opts.setenv(key.c_str(), "%s", value.c_str()) == -1)
            QMRT_LOG(LM_WARNING, "Environment variable %s does not fit, the child goes without\n",
                     key.c_str());
    }
}

void GaussDB_Env::set_env(std::string const& key, std::string const& value) {
    vars_[key] = value;
}

void GaussDB_Env::set_env(json_spirit::Object const& obj) {
    for (auto const& [key, value] : obj)
        if (value.type() == json_spirit::str_type)
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

bool GaussDB_Env::complete_value(std::string& value) {
    // collected first: what a replacement brings in is not searched again
    std::vector<std::string> const references(
        boost::sregex_token_iterator(value.begin(), value.end(), RE_VAR),
        boost::sregex_token_iterator());
    for (std::string const& reference : references) {
        auto const found = vars_.find(reference.substr(1));
        if (found == vars_.end())
            return false;
        if (!replace_reference(value, reference, found->second)) {
            QMRT_LOG(LM_WARNING, "A value with %s is longer than an environment takes, dropped\n",
                     reference.c_str());
            return false;
        }
    }
    return true;
}
