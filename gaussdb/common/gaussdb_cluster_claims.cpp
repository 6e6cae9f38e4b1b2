#include "gaussdb/common/gaussdb_cluster_claims.h"

#include "host/process/password_file_entry.h"
#include "qmrt/format.h"

#include <algorithm>

namespace {

constexpr size_t MAX_NAMES_OF_USER = 16;

/** Two claims of one key are verified alike. */
std::string key_of(Cluster_Claim const& claim) {
    std::string key = std::to_string(claim.process.uid);
    for (std::string const& part : {claim.process.fault, claim.process.program, claim.profile,
                                    claim.gphome, claim.process.directory})
        key += '\0' + part;
    for (std::string const& argument : claim.process.arguments)
        key += '\0' + argument;
    return key;
}

bool are_of_one_user(std::vector<Cluster_Claim> const& claims) {
    return std::all_of(claims.begin(), claims.end(), [&](Cluster_Claim const& claim) {
        return claim.process.uid == claims.front().process.uid;
    });
}

bool has_user(std::vector<Cluster_Claim> const& claims, uid_t uid) {
    return std::any_of(claims.begin(), claims.end(),
                       [&](Cluster_Claim const& claim) { return claim.process.uid == uid; });
}

std::string two_users_text(std::string const& name, std::vector<Cluster_Claim> const& claims) {
    auto const other = std::find_if(claims.begin(), claims.end(), [&](Cluster_Claim const& claim) {
        return claim.process.uid != claims.front().process.uid;
    });
    return string_sprintf(
        "process %d of user \"%s\" and process %d of user \"%s\" both belong to a cluster \"%s\", "
        "which is not on record; neither is used. End the process that is not the cluster's, then "
        "run: zenbrak3 instances --refresh",
        claims.front().process.pid, claims.front().user.c_str(), other->process.pid,
        other->user.c_str(), name.c_str());
}

} // namespace

void Cluster_Claims::add(std::string const& name, Cluster_Claim claim) {
    std::set<std::string>& names = names_of_users_[claim.process.uid];
    if (names.size() >= MAX_NAMES_OF_USER && names.count(name) == 0) {
        if (told_users_.insert(claim.process.uid).second)
            alert_(name, string_sprintf("user \"%s\" has processes of more than %zu clusters; "
                                        "cluster \"%s\" and others are not used",
                                        claim.user.c_str(), MAX_NAMES_OF_USER, name.c_str()));
        return;
    }
    names.insert(name);
    auto const [claims, is_new] = claims_.try_emplace(name);
    if (is_new)
        names_.push_back(name);
    claims->second.push_back(std::move(claim));
}

std::vector<Cluster_Claim> Cluster_Claims::believed(std::string const& name, bool is_known) {
    std::optional<std::string> const owner = owner_(name);
    std::vector<Cluster_Claim> candidates;
    std::set<uid_t> refused;
    for (Cluster_Claim const& claim : claims_[name]) {
        if (!owner || is_owner(*owner, claim))
            candidates.push_back(claim);
        else if (refused.insert(claim.process.uid).second)
            refuse_other_user(name, *owner, claim);
    }
    if (is_known)
        return {};
    std::vector<Cluster_Claim> result = verified(name, candidates);
    if (!result.empty() && !are_of_one_user(result)) {
        alert_(name, two_users_text(name, result));
        result.clear();
    }
    return result;
}

std::vector<Cluster_Claim> Cluster_Claims::verified(std::string const& name,
                                                    std::vector<Cluster_Claim> const& claims) {
    std::vector<Cluster_Claim> result;
    std::vector<std::pair<Cluster_Claim, std::string>> refused;
    std::set<std::string> seen;
    for (Cluster_Claim claim : claims) {
        std::string reason;
        if (!seen.insert(key_of(claim)).second)
            continue;
        if (verifier_(claim, reason))
            result.push_back(std::move(claim));
        else if (!reason.empty())
            refused.emplace_back(std::move(claim), std::move(reason));
    }
    std::set<uid_t> told;
    for (auto const& [claim, reason] : refused)
        if (!has_user(result, claim.process.uid) && told.insert(claim.process.uid).second)
            alert_(name, string_sprintf(
                             "process %d of user \"%s\" belongs to a cluster \"%s\", but "
                             "is not used: %s",
                             claim.process.pid, claim.user.c_str(), name.c_str(), reason.c_str()));
    return result;
}

bool Cluster_Claims::is_owner(std::string const& owner, Cluster_Claim const& claim) const {
    Password_File_Entry entry;
    return !owner.empty() && entry.get(owner.c_str()) == 0 && entry.uid() == claim.process.uid;
}

void Cluster_Claims::refuse_other_user(std::string const& name, std::string const& owner,
                                       Cluster_Claim const& claim) {
    std::string const recorded =
        owner.empty() ? "without a user of this host" : "for user \"" + owner + "\"";
    alert_(name, string_sprintf(
                     "process %d of user \"%s\" claims cluster \"%s\", which is on record %s; the "
                     "process is not used. End it; or if the record is wrong, run: "
                     "zenbrak3 instance remove %s",
                     claim.process.pid, claim.user.c_str(), name.c_str(), recorded.c_str(),
                     name.c_str()));
}
