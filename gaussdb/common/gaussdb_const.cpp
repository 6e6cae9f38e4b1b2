#include "gaussdb/common/gaussdb_const.h"

#include "qmrt/format.h"
#include "qmrt/natoi.h"
#include "qmrt/regex.h"

#include <tuple>

namespace {

boost::regex const RE_VERSION("(\\d+)\\.(\\d+)\\.(\\d+)");

} // namespace

bool GaussDB_Version::operator==(GaussDB_Version const& other) const {
    return model_ == other.model_ && major_ == other.major_ && minor_ == other.minor_ &&
           patch_ == other.patch_;
}

bool GaussDB_Version::operator<(GaussDB_Version const& other) const {
    return std::tie(major_, minor_, patch_) < std::tie(other.major_, other.minor_, other.patch_);
}

std::string GaussDB_Version::dump() const {
    return string_sprintf("%d.%d.%d", major_, minor_, patch_);
}

bool GaussDB_Version::parse(std::string const& str) {
    qmrt::svmatch groups;
    if (!qmrt::regex_match(str, groups, RE_VERSION)) {
        QMRT_LOG(LM_ERROR, "Failed to parse GaussDB version %s\n", str.c_str());
        return false;
    }
    major_ = natoi<uint32_t>(groups[1].str());
    minor_ = natoi<uint32_t>(groups[2].str());
    patch_ = natoi<uint32_t>(groups[3].str());
    return true;
}
